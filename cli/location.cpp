// SPDX-License-Identifier: MIT
// location.cpp: taking a typed URL apart.
#include "location.h"

#include <strings.h>

#include <algorithm>
#include <charconv>

#include "report.h"

namespace fetchrig::cli {
namespace {

constexpr std::string_view plain_ftp = "ftp://", secured_ftp = "ftpes://";

struct scheme_prefix {
  std::string_view text;
  scheme kind;
};
constexpr scheme_prefix prefixes[] = {
    {"http://", scheme::http},  {"https://", scheme::https}, {"ftp://", scheme::ftp},
    {secured_ftp, scheme::ftp}, {"tftp://", scheme::tftp},
};

// The length of the scheme's prefix; a URL without "://" is a TFTP one and has none.
std::size_t take_scheme(std::string_view url, scheme& kind) {
  kind = scheme::tftp;
  const bool has_scheme = url.find("://") != url.npos;
  for (const scheme_prefix& prefix : prefixes) {
    const std::string_view wanted = has_scheme ? prefix.text : prefix.text.substr(0, prefix.text.size() - 1);
    if (url.size() < wanted.size() || strncasecmp(url.data(), wanted.data(), wanted.size()) != 0) continue;
    if (!has_scheme)
      throw usage_error("two slashes stand behind " + std::string(wanted.data(), wanted.size() - 1));
    kind = prefix.kind;
    return prefix.text.size();
  }
  if (!has_scheme) return 0;
  throw usage_error("only http, https, ftp, ftpes and tftp URLs are supported");
}

// Takes "user:password@" or "user@" off `authority`. The last "@" ends it, so a password may hold one.
void take_credentials(std::string_view& authority, location& where) {
  const std::size_t at = authority.rfind('@');
  if (at == authority.npos) return;
  const std::string_view login = authority.substr(0, at);
  authority.remove_prefix(at + 1);
  const std::size_t colon = login.find(':');
  if (login.empty() || colon == 0) throw usage_error("the URL has an \"@\" but no user name before it");
  where.user = std::string(login.substr(0, colon));
  if (colon != login.npos) where.password = std::string(login.substr(colon + 1));
}

void take_host(std::string_view authority, location& where) {
  const std::size_t open = authority.find('['), close = authority.find(']');
  const bool bracketed = open == 0 && close != authority.npos;
  const std::size_t colon = authority.find(':', bracketed ? close : 0);
  where.host = bracketed ? authority.substr(1, close - 1) : authority.substr(0, colon);
  if (colon != authority.npos) where.port = authority.substr(colon + 1);
}

int hex_value(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  const char lower = static_cast<char>(digit | 0x20);
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// The library takes these paths as they are, and protocols for lines.
std::string decoded_path(std::string_view path) {
  std::string decoded = percent_decoded(path);
  if (has_control_characters(decoded)) throw usage_error("the URL holds encoded control characters");
  return decoded;
}

}  // namespace

location parse_location(std::string_view url) {
  if (has_control_characters(url)) throw usage_error("the URL holds control characters");
  location where;
  const std::size_t prefix_len = take_scheme(url, where.kind);
  where.has_scheme = prefix_len > 0;
  where.is_secured = where.kind == scheme::ftp && prefix_len == secured_ftp.size();
  const std::string_view prefix = where.is_secured ? plain_ftp : url.substr(0, prefix_len);
  std::string_view rest = url.substr(prefix_len);
  if (where.is_http()) rest = rest.substr(0, rest.find('#'));

  const std::size_t authority_len = std::min(rest.find_first_of(where.is_http() ? "/?" : "/"), rest.size());
  std::string_view authority = rest.substr(0, authority_len);
  rest.remove_prefix(authority_len);
  take_credentials(authority, where);
  take_host(authority, where);
  if (where.host.empty()) throw usage_error("the URL names no host");

  std::string tail(rest);
  if (tail.empty() || tail.front() != '/') tail.insert(0, 1, '/');
  where.path = where.is_http() ? tail.substr(0, tail.find('?')) : decoded_path(tail);
  if (!where.is_http()) tail = where.path;
  where.url.append(prefix).append(authority).append(tail);
  where.shown =
      where.is_http() ? where.url : std::string(url.substr(0, prefix_len)).append(authority).append(rest);
  return where;
}

bool has_usable_address(const location& where) {
  constexpr unsigned max_port = 65535;
  unsigned number = 0;
  const std::string port = where.port.value_or("0");
  const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), number);
  const bool whole = error == std::errc() && end == port.data() + port.size() && number <= max_port;
  return whole && where.host.find_first_of("[]") == where.host.npos;
}

std::string last_part(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return std::string(slash == path.npos ? path : path.substr(slash + 1));
}

std::string saved_name(const location& where) {
  std::string name = last_part(where.path);
  if (where.is_http()) name = percent_decoded(name);
  if (name.empty() || name == "." || name == "..") return "";
  std::replace(name.begin(), name.end(), '/', '_');
  if (name.front() == '.') name.front() = '_';
  return terminal_safe(name);
}

std::string percent_decoded(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool whole = text[i] == '%' && text.size() - i > 2;
    const int high = whole ? hex_value(text[i + 1]) : -1;
    const int low = whole ? hex_value(text[i + 2]) : -1;
    if (high < 0 || low < 0) {
      out += text[i];
      continue;
    }
    out += static_cast<char>(high << 4 | low);
    i += 2;
  }
  return out;
}

std::string percent_encoded(std::string_view name) {
  constexpr char digits[] = "0123456789ABCDEF";
  std::string out;
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    const bool letter = (byte | 0x20) >= 'a' && (byte | 0x20) <= 'z';
    const bool plain =
        letter || (byte >= '0' && byte <= '9') || std::string_view("-._~").find(c) != std::string::npos;
    if (plain) {
      out += c;
    } else {
      out += '%';
      out += digits[byte >> 4];
      out += digits[byte & 15];
    }
  }
  return out;
}

bool has_control_characters(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f;
  });
}

}  // namespace fetchrig::cli
