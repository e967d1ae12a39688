// dispatch_url.h: the protocol-independent calls' own view of a URL: all four schemes, none at all (TFTP),
// and credentials inside the URL. The HTTP client's stricter parser is dl_url_parse(). Any thread.
#ifndef FETCHRIG_CORE_DISPATCH_URL_H
#define FETCHRIG_CORE_DISPATCH_URL_H

#include <stdint.h>

#include <optional>
#include <string>

#include "include/fetchrig_types.h"

namespace fetchrig {

inline constexpr uint32_t proto_unsupported = 4;

struct dl_url_parts {
  ~dl_url_parts();
  uint32_t proto = proto_unsupported;  // enum dl_proto
  std::string host;                    // an IPv6 literal without its brackets
  uint32_t port = 0;
  std::string path;  // without query and fragment
  std::optional<std::string> user;
  std::optional<std::string> password;
};

// Splits the URL. Returns 0, or -1 with the reason logged.
[[nodiscard]] int dl_url_split(const char* url, dl_url_parts& parts);

// Fills the HTTP request with credentials, proxy and the clean URL, which `url` owns. Returns 0 or -1.
[[nodiscard]] int dl_url_rebuild(const dl_request& request, dl_http_request& http, const dl_url_parts& parts,
                                 std::string& url);

// The URL's own user or password, else the request's; may be null.
[[nodiscard]] const char* user_for(const dl_request& request, const dl_url_parts& parts);
[[nodiscard]] const char* password_for(const dl_request& request, const dl_url_parts& parts);

// "Enter Func %s....\n" and the failures of the dispatcher's entries.
void log_entry(const char* function);
int log_dispatch_error(const char* message);
// "FTP Login Info:..." with the user and a mask.
void log_ftp_login(const char* user);

}  // namespace fetchrig
#endif
