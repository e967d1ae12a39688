// SPDX-License-Identifier: MIT
// http_status.h: what is known of a response beside its bytes: its status and how its body ended. One thread at
// a time per session; each thread has a last status of its own.
#ifndef FETCHRIG_HTTP_HTTP_STATUS_H
#define FETCHRIG_HTTP_HTTP_STATUS_H

#include "include/fetchrig_types.h"

namespace fetchrig {

// The status of the response that a live session stands at; 0 when it is not known.
[[nodiscard]] int http_status(const dl_http_session* session);

// How far the body of a live session has been read, and what ended it.
[[nodiscard]] dl_body_end http_body_end(const dl_http_session* session);

// RFC 9112 section 6.3: a response with this status ends with its header block, whatever it says.
[[nodiscard]] bool has_no_body(int status);

// The status of the last response that this thread read, 0 from the start of a call until one has come.
[[nodiscard]] int last_status();
void set_last_status(int status);

// A call begins: neither the status nor the cause that this thread has met before is told of it.
void forget_earlier_calls();

}  // namespace fetchrig
#endif
