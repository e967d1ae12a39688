// SPDX-License-Identifier: MIT
// dispatch_request.h: what the protocol-independent calls make of a request before a protocol's client gets it: where
// it leads, by whose login, and for HTTP the request in full; and what they tell the log about it. Any thread.
#ifndef FETCHRIG_CORE_DISPATCH_REQUEST_H
#define FETCHRIG_CORE_DISPATCH_REQUEST_H

#include <string>

#include "core/dispatch_url.h"
#include "include/fetchrig_types.h"

namespace fetchrig {

// Splits the URL. Returns 0, or -1 with the reason logged.
[[nodiscard]] int dl_url_split(const char* url, dl_url_parts& parts);

// Fills the HTTP request with credentials, proxy and the clean URL, which `url` owns. Returns 0 or -1.
[[nodiscard]] int dl_url_rebuild(const dl_request& request, dl_http_request& http, const dl_url_parts& parts,
                                 std::string& url);

// The URL's own user or password, else the request's; may be null.
[[nodiscard]] const char* user_for(const dl_request& request, const dl_url_parts& parts);
[[nodiscard]] const char* password_for(const dl_request& request, const dl_url_parts& parts);

// "Enter Func %s....\n".
void log_entry(const char* function);
// "FTP Login Info:..." with the user and a mask.
void log_ftp_login(const char* user);

// Logs a failure of the dispatcher's own, which leaves the result record as it is. Returns -1.
int dispatch_failed(const char* message);

}  // namespace fetchrig
#endif
