// SPDX-License-Identifier: MIT
// connect.h: TCP connections to hosts. Each address of a host gets the whole time-out. No state; any thread.
#ifndef FETCHRIG_NET_CONNECT_H
#define FETCHRIG_NET_CONNECT_H

namespace fetchrig {

// Connects to host and port, each usable address in turn for at most `seconds` (0: no limit). Returns a blocking
// socket, which the caller closes, or -1 (DL_ERR_HOST) or -3 (DL_ERR_CONNECT).
[[nodiscard]] int connect_to_host(const char* host, int port, int ipv6, int seconds);

}  // namespace fetchrig
#endif
