// SPDX-License-Identifier: MIT
// http_response.h: the loop that reads responses until a final status: it follows redirects (301, 302) within
// option 5 and answers challenges (401) within option 15, each on a new connection, sending the same message
// again. One thread at a time per session.
#ifndef FETCHRIG_HTTP_HTTP_RESPONSE_H
#define FETCHRIG_HTTP_HTTP_RESPONSE_H

#include "core/url.h"
#include "http/http_message.h"
#include "http/http_policy.h"
#include "http/http_session.h"

namespace fetchrig {

// Runs the loop for the request that `message` has just been sent for. `url` is replaced by a redirect;
// `proxied` says that the connection goes through a proxy; `redirect` (DL_REDIRECT_SIZE bytes) receives the
// target of each redirect; `policy` may be null. Returns 0 for status 200, the header block kept in the session;
// another final status; or a negative code.
[[nodiscard]] int http_process_response(http_channel& channel, unique_url& url, bool proxied,
                                        http_msg& message, char* redirect, http_policy* policy);

}  // namespace fetchrig
#endif
