// SPDX-License-Identifier: MIT
// clock.cpp: reads the system's clocks.
#include "log/clock.h"

#include <time.h>

namespace fetchrig {

int64_t now_ms() {
  timespec now = {};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

timeval time_of_day() {
  timeval now = {};
  ::gettimeofday(&now, nullptr);
  return now;
}

}  // namespace fetchrig
