// SPDX-License-Identifier: MIT
// http_request_body.h: the body of a request: a text, a whole file, or a file as a one-part
// multipart/form-data form (RFC 7578). One thread at a time per message.
#ifndef FETCHRIG_HTTP_HTTP_REQUEST_BODY_H
#define FETCHRIG_HTTP_HTTP_REQUEST_BODY_H

#include "http/http_message.h"

namespace fetchrig {

// Fills the body's buffer from its text or file, by the message's method. Returns 0, -6, -7 or -8, logged.
[[nodiscard]] int http_prepare_body(http_msg& message);

}  // namespace fetchrig
#endif
