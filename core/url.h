// SPDX-License-Identifier: MIT
// url.h: "http" and "https" URLs as the HTTP client takes them (RFC 3986): without user information, an IPv6
// literal in brackets, spaces escaped. A URL of no such scheme, with a line break or a bad port is refused;
// why is logged. The dispatcher's lenient view of URLs is dispatch_url.h. Any thread.
#ifndef FETCHRIG_CORE_URL_H
#define FETCHRIG_CORE_URL_H

#include <memory>
#include <string>
#include <string_view>

#include "include/fetchrig_types.h"

namespace fetchrig {

inline constexpr uint32_t scheme_http = 0;
inline constexpr uint32_t scheme_https = 1;

// Releases the record and its texts, login wiped; null is allowed.
void free_url(dl_url* url);

struct url_deleter {
  void operator()(dl_url* url) const { free_url(url); }
};
using unique_url = std::unique_ptr<dl_url, url_deleter>;

// Parses `text` and copies user and password, which may be null, into the record. Returns 0, or a negative
// code with `url` left as it was: DL_ERR_URL, DL_ERR_IPV6_DISABLED or DL_ERR_MEMORY.
[[nodiscard]] int parse_url(unique_url& url, const char* text, const char* user, const char* password);

// "host" or "host:port", without the port where it is `usual_port`. An IPv6 literal stands in brackets (RFC 3986
// section 3.2.2).
[[nodiscard]] std::string host_and_port(std::string_view host, uint32_t port, uint32_t usual_port);

// The scheme's port, or -1 for another scheme.
[[nodiscard]] int default_port(uint32_t scheme);

}  // namespace fetchrig
#endif
