// SPDX-License-Identifier: MIT
// redirect_rules.h: redirects as RFC 9110 section 15.4 has them and browsers follow them: 303, 307 and 308 too,
// relative targets, what is left of a request at its new place. One thread at a time per message.
#ifndef FETCHRIG_HTTP_EXTRA_REDIRECT_RULES_H
#define FETCHRIG_HTTP_EXTRA_REDIRECT_RULES_H

#include <string>

#include "http/extra/caller_headers.h"
#include "http/http_message.h"

namespace fetchrig {

[[nodiscard]] bool is_redirect(int status);

[[nodiscard]] bool is_same_origin(const dl_url& one, const dl_url& other);

// The absolute URL of a target in text form, without a fragment.
[[nodiscard]] std::string url_text(const dl_url& url);

// The absolute URL that a stored "location" line leads to from `url`. Returns 0, or DL_ERR_REDIRECT_URL, logged, for a
// line longer than `max_line_len`, which came in pieces, a target that does not fit DL_REDIRECT_SIZE, and one that
// leads from https to http.
[[nodiscard]] int resolve_redirect(std::string& target, const dl_url& url, std::string_view line,
                                   std::size_t max_line_len);

// What a redirect of that status leaves of the request: its method and body, unless it is now a GET; `headers` of the
// caller, unless they belong to the body or, at another origin, to the old one, as the login does.
void move_request(int status, http_msg& message, caller_headers& headers, dl_url& url, const dl_url& old_url);

}  // namespace fetchrig
#endif
