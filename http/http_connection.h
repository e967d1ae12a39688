// SPDX-License-Identifier: MIT
// http_connection.h: moving bytes between an HTTP session and the network, plain or TLS by the session's TLS
// bit. One thread at a time per session; the time-out (option 7) is read once per call.
#ifndef FETCHRIG_HTTP_HTTP_CONNECTION_H
#define FETCHRIG_HTTP_HTTP_CONNECTION_H

#include <span>

#include "http/http_message.h"
#include "http/http_session.h"

namespace fetchrig {

enum class tls_use { allowed, never };

// Connects the session. `never` forbids TLS even for an HTTPS session (a proxy). Returns 0, -1 or -3.
[[nodiscard]] int http_connect(http_channel& channel, const char* host, uint32_t port, tls_use tls);

// Starts TLS with the host on the connected session, whose TLS bit is set. Returns 0, or -3 with the socket closed.
[[nodiscard]] int http_start_tls(http_channel& channel, const char* host);

// Sends the whole request. Returns 0, -4, -7, or -8 when a streamed file cannot be read.
[[nodiscard]] int http_send_request(http_channel& channel, const http_msg& message);

// One read of up to `to.size()` bytes. Returns the count, 0 at the end of the stream, or a negative value: -8
// for a failed wait or a missing TLS session, else the failed read's own.
[[nodiscard]] int http_recv(http_channel& channel, std::span<char> to,
                            read_ahead_use use = read_ahead_use::fill);

// How far http_read_line() looks for a line's end at first, and at most: a status line or header, a chunk's size.
inline constexpr std::size_t usual_line_bytes = 256;
inline constexpr std::size_t chunk_line_bytes = 128;
inline constexpr std::size_t max_line_bytes = 512;

// Reads one line into `line`, terminated, without its CRLF; nothing behind the CRLF is consumed. The search
// for the CRLF works in a buffer of `initial` bytes that grows to `maximum` (beyond max_line_bytes it is `line`
// itself, which has as many); a longer line comes in pieces. Returns the length, 0 at the end of the stream too, or -8
// (also when the line does not fit `line`). `at_end`, when given, tells whether the end of the stream stood in for the
// CRLF.
[[nodiscard]] int http_read_line(http_channel& channel, std::size_t initial, std::size_t maximum,
                                 std::span<char> line, bool* at_end = nullptr);

}  // namespace fetchrig
#endif
