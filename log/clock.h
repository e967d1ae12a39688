// SPDX-License-Identifier: MIT
// clock.h: the two clocks: one to measure waits by, which only goes forward, and the time of day. Any thread.
#ifndef FETCHRIG_LOG_CLOCK_H
#define FETCHRIG_LOG_CLOCK_H

#include <stdint.h>
#include <sys/time.h>

namespace fetchrig {

// Milliseconds since some moment before the process began.
[[nodiscard]] int64_t now_ms();

[[nodiscard]] timeval time_of_day();

}  // namespace fetchrig
#endif
