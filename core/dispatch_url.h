// SPDX-License-Identifier: MIT
// dispatch_url.h: the protocol-independent calls' own view of a URL: all four schemes, none at all (TFTP),
// and credentials inside the URL. A parser: it reads no option and logs nothing. The HTTP client's stricter
// one is url.h. Any thread.
#ifndef FETCHRIG_CORE_DISPATCH_URL_H
#define FETCHRIG_CORE_DISPATCH_URL_H

#include <stdint.h>

#include <optional>
#include <string>
#include <string_view>

#include "include/fetchrig_types.h"

namespace fetchrig {

inline constexpr uint32_t proto_unsupported = 4;

// Login and password are wiped at the end.
struct dl_url_parts {
  ~dl_url_parts();
  uint32_t proto = proto_unsupported;  // enum dl_proto
  std::string host;                    // an IPv6 literal without its brackets
  uint32_t port = 0;
  std::string path;  // without query and fragment
  std::optional<std::string> user;
  std::optional<std::string> password;
};

// Why a URL cannot be split, in the order in which it is looked at.
enum class url_fault {
  none,
  scheme,       // none of ours
  only_scheme,  // nothing follows it
  empty_login,  // nothing before the "@"
  empty_host,   // nothing where host or port should stand
  authority,    // login, host or port malformed, an IPv6 literal that is not allowed, or no memory for them
  memory,       // none for the path
};

// Splits the URL. With a fault, the parts found before it may be filled.
[[nodiscard]] url_fault split_url(dl_url_parts& parts, std::string_view url, bool allow_ipv6);

// The URL without credentials, query and fragment, and with a port only where it is not the protocol's own.
[[nodiscard]] std::string clean_url(const dl_url_parts& parts);

}  // namespace fetchrig
#endif
