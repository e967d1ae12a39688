// SPDX-License-Identifier: MIT
// socket.h: plain sockets: opening and closing them, waiting for them, sending whole buffers. Descriptors 0 to 2 mean
// standard streams to every close call, and 0 means "none" in a session record: sockets are opened above them, and a
// record's socket is closed only there. No state; any thread.
#ifndef FETCHRIG_NET_SOCKET_H
#define FETCHRIG_NET_SOCKET_H

#include <stdint.h>

#include <cstddef>

#include "core/owners.h"

namespace fetchrig {

// A socket of that family and type, above the standard streams in a process without them too; empty with errno.
[[nodiscard]] unique_fd open_socket(int family, int type);

// Closes a record's socket, unless it is a standard stream, and marks it as none.
void close_socket(int32_t& sock);

// Makes closing the socket reset the connection instead of ending it in good order; nothing for a standard stream.
void reset_on_close(int sock);
// Closes it in good order after all.
void close_in_order(int32_t& sock);

// Bits of wait_ready()'s mode.
inline constexpr int wait_readable = 1;
inline constexpr int wait_writable = 2;

// Waits until the socket is ready in `mode`, at most `seconds`: positive when ready, 0 after the time, negative with
// errno. An interrupted wait goes on. Any descriptor number works.
[[nodiscard]] int wait_ready(int sock, int mode, int seconds);

// The same for `events` of poll() and a limit in milliseconds.
[[nodiscard]] int wait_for(int sock, short events, int64_t limit_ms);

// Waits until a send can go on, at most for the socket's send time-out (none: without end). False with errno, EAGAIN
// after the time. Unlike a blocking send it is not begun anew by every signal.
[[nodiscard]] bool wait_to_send(int sock);

// Whether errno says that a call on a socket would have had to wait.
[[nodiscard]] bool would_block();

// Sends all bytes. Returns 0, or -4 with errno. Never raises SIGPIPE; a send that makes no progress for the socket's
// send time-out fails.
[[nodiscard]] int dl_send_all(int sock, const char* buffer, std::size_t length);

}  // namespace fetchrig
#endif
