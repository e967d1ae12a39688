// dispatch_url.cpp: splitting a URL of any supported protocol, and rebuilding a clean one for HTTP.
#include "core/dispatch_url.h"

#include <array>
#include <string_view>

#include "core/boundary.h"
#include "core/config.h"
#include "core/text.h"
#include "log/log.h"
#include "log/printable.h"

namespace fetchrig {
namespace {

struct protocol_entry {
  std::string_view prefix;
  uint32_t default_port;
};
// By enum dl_proto.
constexpr std::array<protocol_entry, 4> protocols = {
    {{"https://", 443}, {"http://", 80}, {"tftp://", 69}, {"ftp://", 21}}};
constexpr std::string_view scheme_end = "://";

int login_failed(const char* message = nullptr) {
  if (message) log_dispatch_error(message);
  return log_dispatch_error("Login_Host_Port Info Parsing Fail!\n");
}

uint32_t match_protocol(std::string_view url) {
  for (uint32_t proto = 0; proto < protocols.size(); ++proto) {
    if (starts_ignoring_case(url, protocols[proto].prefix)) return proto;
  }
  return proto_unsupported;
}

// Sets the protocol and leaves what follows the scheme in `rest`.
int split_scheme(std::string_view url, dl_url_parts& parts, std::string_view& rest) {
  const auto at = url.find(scheme_end);
  parts.proto = at == std::string_view::npos ? uint32_t{DL_PROTO_TFTP} : match_protocol(url);
  if (parts.proto == proto_unsupported) return log_dispatch_error("Protocol Not Support!\n");
  rest = skip_white_space(at == std::string_view::npos ? url : url.substr(at + scheme_end.size()));
  if (rest.empty()) return log_dispatch_error("URL Invalid!\n");
  log_line(DL_LOG_CMN, DL_LOG_INFO, "Skip Space Success!\n");
  return 0;
}

// Takes "user:password@" off the front of the authority.
int split_login(std::string_view& authority, dl_url_parts& parts) {
  const auto at = authority.rfind('@');
  if (at == std::string_view::npos) return 0;
  const auto login = skip_white_space(authority.substr(0, at));
  if (login.empty()) return login_failed("Login Info Invalid!\n");
  const auto colon = login.find(':');
  if (colon == std::string_view::npos) return login_failed();
  parts.user = login.substr(0, colon);
  parts.password = login.substr(colon + 1);
  authority.remove_prefix(at + 1);
  return 0;
}

// Sets the host; `port` receives what stands behind the port separator, if there is one.
int split_host(std::string_view text, dl_url_parts& parts, std::optional<std::string_view>& port) {
  text = skip_white_space(text);
  if (text.empty()) return login_failed("Host Info Invalid!\n");
  std::size_t search_from = 0;
  if (const auto open = text.find('['); open != std::string_view::npos) {
    const auto close = text.find(']', open);
    if (close == std::string_view::npos || !ipv6_enabled()) return login_failed();
    parts.host = text.substr(open + 1, close - open - 1);
    search_from = close;
  } else {
    parts.host = text.substr(0, text.find(':'));
  }
  if (parts.host.empty()) return login_failed();
  const auto colon = text.find(':', search_from);
  if (colon != std::string_view::npos) port = text.substr(colon + 1);
  return 0;
}

int split_port(std::optional<std::string_view> text, dl_url_parts& parts) {
  parts.port = protocols[parts.proto].default_port;
  if (!text) return 0;
  const auto digits = skip_white_space(*text);
  if (digits.empty()) return login_failed("Host Info Invalid!\n");
  const auto port = whole_number(digits, 65535);
  if (!port) return login_failed();
  parts.port = static_cast<uint32_t>(*port);
  return 0;
}

void split_path(std::string_view rest, dl_url_parts& parts) {
  const auto slash = rest.find('/');
  const auto path = slash == std::string_view::npos ? std::string_view("/") : rest.substr(slash);
  parts.path = path.substr(0, path.find_first_of("?#"));
}

int split_authority(std::string_view authority, dl_url_parts& parts) {
  std::optional<std::string_view> port;
  if (const int rc = split_login(authority, parts); rc < 0) return rc;
  if (const int rc = split_host(authority, parts, port); rc < 0) return rc;
  return split_port(port, parts);
}

int split(std::string_view url, dl_url_parts& parts) {
  std::string_view rest;
  if (const int rc = split_scheme(url, parts, rest); rc < 0) return rc;
  const auto authority = rest.substr(0, rest.find('/'));
  const auto work = [&] { return split_authority(authority, parts); };
  if (const int rc = guarded(work, [] { return login_failed(); }); rc < 0) return rc;
  split_path(rest, parts);
  return 0;
}

void log_parts(const char* url, const dl_url_parts& parts) {
  log_line(DL_LOG_CMN, DL_LOG_INFO,
           "url = %s, protl = %d, host = %s, port = %d, path = %s, user = %s, passwd = ******\n",
           printable_url(url).c_str(), static_cast<int>(parts.proto), printable(parts.host.c_str()).c_str(),
           static_cast<int>(parts.port), printable(parts.path.c_str()).c_str(),
           printable(parts.user ? parts.user->c_str() : nullptr).c_str());
}

// IPv6 literals stand in brackets (RFC 3986 section 3.2.2).
std::string clean_url(const dl_url_parts& parts) {
  const protocol_entry& protocol = protocols[parts.proto];
  const bool ipv6 = parts.host.find(':') != std::string::npos;
  std::string url(protocol.prefix);
  url.append(ipv6 ? "[" : "").append(parts.host).append(ipv6 ? "]" : "");
  if (parts.port != protocol.default_port) url.append(":").append(std::to_string(parts.port));
  return url.append(parts.path);
}

}  // namespace

dl_url_parts::~dl_url_parts() {
  if (user) wipe(*user);
  if (password) wipe(*password);
}

int dl_url_split(const char* url, dl_url_parts& parts) {
  log_entry("dl_url_parse");
  if (const int rc = guarded([&] { return split(url, parts); }, [] { return -1; }); rc < 0) return rc;
  log_parts(url, parts);
  return 0;
}

int dl_url_rebuild(const dl_request& request, dl_http_request& http, const dl_url_parts& parts,
                   std::string& url) {
  const auto work = [&] {
    url = clean_url(parts);
    return 0;
  };
  if (const int rc = guarded(work, [] { return log_dispatch_error("Memory Exhualt!\n"); }); rc < 0) return rc;
  log_line(DL_LOG_CMN, DL_LOG_INFO, "URL After Modify = %s\n", printable(url.c_str()).c_str());
  http.url = url.c_str();
  http.user = user_for(request, parts);
  http.password = password_for(request, parts);
  http.proxy = request.proxy;
  return 0;
}

const char* user_for(const dl_request& request, const dl_url_parts& parts) {
  return parts.user ? parts.user->c_str() : request.user;
}

const char* password_for(const dl_request& request, const dl_url_parts& parts) {
  return parts.password ? parts.password->c_str() : request.password;
}

void log_entry(const char* function) {
  log_line(DL_LOG_CMN, DL_LOG_INFO, "Enter Func %s....\n", function);
}

int log_dispatch_error(const char* message) {
  log_line(DL_LOG_CMN, DL_LOG_ERROR, "%s", message);
  return -1;
}

void log_ftp_login(const char* user) {
  log_line(DL_LOG_CMN, DL_LOG_INFO, "FTP Login Info:uername=%s passwd=%s\n", printable(user).c_str(),
           "******");
}

}  // namespace fetchrig
