// SPDX-License-Identifier: MIT
// dispatch_url.cpp: splitting a URL of any supported protocol, and rebuilding a clean one for HTTP.
#include "core/dispatch_url.h"

#include <array>

#include "core/boundary.h"
#include "core/ports.h"
#include "core/text.h"
#include "core/url.h"

namespace fetchrig {
namespace {

struct protocol_entry {
  std::string_view prefix;
  uint32_t default_port;
};
// By enum dl_proto.
constexpr std::array<protocol_entry, 4> protocols = {
    {{"https://", https_port}, {"http://", http_port}, {"tftp://", tftp_port}, {"ftp://", ftp_port}}};
constexpr std::string_view scheme_end = "://";

uint32_t match_protocol(std::string_view url) {
  for (uint32_t proto = 0; proto < protocols.size(); ++proto) {
    if (starts_ignoring_case(url, protocols[proto].prefix)) return proto;
  }
  return proto_unsupported;
}

// Sets the protocol and leaves what follows the scheme in `rest`.
url_fault split_scheme(dl_url_parts& parts, std::string_view& rest, std::string_view url) {
  const auto at = url.find(scheme_end);
  parts.proto = at == std::string_view::npos ? uint32_t{DL_PROTO_TFTP} : match_protocol(url);
  if (parts.proto == proto_unsupported) return url_fault::scheme;
  rest = skip_white_space(at == std::string_view::npos ? url : url.substr(at + scheme_end.size()));
  return rest.empty() ? url_fault::only_scheme : url_fault::none;
}

// Takes "user:password@" off the front of the authority.
url_fault split_login(dl_url_parts& parts, std::string_view& authority) {
  const auto at = authority.rfind('@');
  if (at == std::string_view::npos) return url_fault::none;
  const auto login = skip_white_space(authority.substr(0, at));
  if (login.empty()) return url_fault::empty_login;
  const auto colon = login.find(':');
  if (colon == std::string_view::npos) return url_fault::authority;
  parts.user = login.substr(0, colon);
  parts.password = login.substr(colon + 1);
  authority.remove_prefix(at + 1);
  return url_fault::none;
}

// Sets the host; `port` receives what stands behind the port separator, if there is one.
url_fault split_host(dl_url_parts& parts, std::optional<std::string_view>& port, std::string_view text,
                     bool allow_ipv6) {
  text = skip_white_space(text);
  if (text.empty()) return url_fault::empty_host;
  std::size_t search_from = 0;
  if (const auto open = text.find('['); open != std::string_view::npos) {
    const auto close = text.find(']', open);
    if (close == std::string_view::npos || !allow_ipv6) return url_fault::authority;
    parts.host = text.substr(open + 1, close - open - 1);
    search_from = close;
  } else {
    parts.host = text.substr(0, text.find(':'));
  }
  if (parts.host.empty()) return url_fault::authority;
  const auto colon = text.find(':', search_from);
  if (colon != std::string_view::npos) port = text.substr(colon + 1);
  return url_fault::none;
}

url_fault split_port(dl_url_parts& parts, std::optional<std::string_view> text) {
  parts.port = protocols[parts.proto].default_port;
  if (!text) return url_fault::none;
  const auto digits = skip_white_space(*text);
  if (digits.empty()) return url_fault::empty_host;
  const auto port = whole_number(digits, max_port);
  if (!port) return url_fault::authority;
  parts.port = static_cast<uint32_t>(*port);
  return url_fault::none;
}

url_fault split_authority(dl_url_parts& parts, std::string_view authority, bool allow_ipv6) {
  std::optional<std::string_view> port;
  if (const auto fault = split_login(parts, authority); fault != url_fault::none) return fault;
  if (const auto fault = split_host(parts, port, authority, allow_ipv6); fault != url_fault::none)
    return fault;
  return split_port(parts, port);
}

url_fault split_path(dl_url_parts& parts, std::string_view rest) {
  const auto slash = rest.find('/');
  const auto path = slash == std::string_view::npos ? std::string_view("/") : rest.substr(slash);
  parts.path = path.substr(0, path.find_first_of("?#"));
  return url_fault::none;
}

}  // namespace

dl_url_parts::~dl_url_parts() {
  if (user) wipe(*user);
  if (password) wipe(*password);
}

url_fault split_url(dl_url_parts& parts, std::string_view url, bool allow_ipv6) {
  std::string_view rest;
  if (const auto fault = split_scheme(parts, rest, url); fault != url_fault::none) return fault;
  const auto authority = rest.substr(0, rest.find('/'));
  const auto fault = guarded([&] { return split_authority(parts, authority, allow_ipv6); },
                             [] { return url_fault::authority; });
  if (fault != url_fault::none) return fault;
  return guarded([&] { return split_path(parts, rest); }, [] { return url_fault::memory; });
}

std::string clean_url(const dl_url_parts& parts) {
  const protocol_entry& protocol = protocols[parts.proto];
  std::string url(protocol.prefix);
  return url.append(host_and_port(parts.host, parts.port, protocol.default_port)).append(parts.path);
}

}  // namespace fetchrig
