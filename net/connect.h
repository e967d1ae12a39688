// connect.h: plain sockets below the exported dl_select(), dl_look_up_host() and dl_connect()
// (fetchrig_openssl.h): sending whole buffers and the settings every TCP connection gets. No state; any
// thread.
#ifndef FETCHRIG_NET_CONNECT_H
#define FETCHRIG_NET_CONNECT_H

#include <stdint.h>

#include <cstddef>

#include "include/fetchrig_openssl.h"

namespace fetchrig {

// Bits of dl_select()'s mode.
inline constexpr int wait_readable = 1;
inline constexpr int wait_writable = 2;

// The clock of all waits.
[[nodiscard]] int64_t now_ms();

// Waits for `events` of poll(), at most `limit_ms`: positive when ready, 0 after the time, negative with
// errno. An interrupted wait goes on.
[[nodiscard]] int wait_for(int sock, short events, int64_t limit_ms);

// Sends all bytes. Returns 0, or -4 with errno. Never raises SIGPIPE; a send that makes no progress for the socket's
// send time-out fails.
[[nodiscard]] int dl_send_all(int sock, const char* buffer, std::size_t length);

}  // namespace fetchrig
#endif
