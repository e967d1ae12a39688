// SPDX-License-Identifier: MIT
// http_response_body.h: reading a response body, by length or in chunks (RFC 9112 section 7.1), below
// dl_http_read(). Whatever arrives, a session holds at most 64 KiB of a body beyond the buffers that callers
// bring. One thread at a time per session.
#ifndef FETCHRIG_HTTP_HTTP_RESPONSE_BODY_H
#define FETCHRIG_HTTP_HTTP_RESPONSE_BODY_H

#include <span>

#include "http/http_session.h"

namespace fetchrig {

// Fills `buffer`, `size` bytes, unless the body ends first. Returns the count, 0 at the end, or -1 with `result`
// filled, if there is one: also for a null argument or a record that is no live, connected session.
[[nodiscard]] int http_read(dl_http_session* session, char* buffer, int32_t size, dl_result* result);

// As http_read(), but returns as soon as there is something: for callers that take bytes as they come.
[[nodiscard]] int http_read_some(http_channel& channel, std::span<char> to, dl_result& result);

// How draining a body went.
enum class http_drained {
  whole,       // to its announced end: the connection stands at the next response
  too_long,    // beyond the limit
  incomplete,  // it failed, was cut, or nothing says where it ends
};

// Reads and discards the rest of the body, at most `limit` bytes.
[[nodiscard]] http_drained http_drain(http_channel& channel, uint32_t limit);

}  // namespace fetchrig
#endif
