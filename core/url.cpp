// SPDX-License-Identifier: MIT
// url.cpp: the URL's bytes are parsed as a view; the record is built when everything has been checked.
#include "core/url.h"

#include <stdlib.h>

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

#include "core/boundary.h"
#include "core/config.h"
#include "core/owners.h"
#include "core/ports.h"
#include "core/text.h"
#include "log/log.h"

namespace fetchrig {
namespace {

struct scheme_entry {
  std::string_view prefix;
  int default_port;
};
constexpr std::array<scheme_entry, 2> schemes = {{{"http://", http_port}, {"https://", https_port}}};
constexpr int no_scheme_port = -1;

struct url_view {
  uint32_t scheme = 0;
  std::string_view host;
  uint32_t port = 0;
  std::string_view path;
};

std::optional<uint32_t> match_scheme(std::string_view url) {
  for (uint32_t i = 0; i < schemes.size(); ++i) {
    if (starts_ignoring_case(url, schemes[i].prefix)) return i;
  }
  return std::nullopt;
}

// Wiped at the end: a URL that is refused for its user information has been copied whole.
struct escaped_url {
  ~escaped_url() { wipe(text); }
  std::string text;
};

void escape_spaces(std::string_view url, std::string& escaped) {
  const auto num_spaces = static_cast<std::size_t>(std::count(url.begin(), url.end(), ' '));
  escaped.reserve(url.size() + 2 * num_spaces);
  for (const char c : url) {
    if (c == ' ') {
      escaped += "%20";
    } else {
      escaped += c;
    }
  }
}

// Takes the host off the front of `rest`.
int parse_host(std::string_view& rest, std::string_view& host) {
  if (rest.starts_with('[')) {
    const auto end = rest.find(']');
    if (end == std::string_view::npos) return log_and_return(DL_LOG_CMN, DL_ERR_URL, "Invalid Host\n");
    if (!ipv6_enabled())
      return log_and_return(DL_LOG_CMN, DL_ERR_IPV6_DISABLED, "can't use ipv6 when ipv6 is diable\n");
    host = rest.substr(1, end - 1);
    rest.remove_prefix(end + 1);
  } else {
    host = rest.substr(0, rest.find_first_of("/:?#"));
    rest.remove_prefix(host.size());
  }
  return host.empty() || has_line_break(host) ? log_and_return(DL_LOG_CMN, DL_ERR_URL, "Invalid Host\n") : 0;
}

// Takes ":port" off the front of `rest`; an absent or empty port is the scheme's.
int parse_port(std::string_view& rest, url_view& url) {
  url.port = static_cast<uint32_t>(schemes[url.scheme].default_port);
  if (!rest.starts_with(':')) return 0;
  const auto text = rest.substr(1, rest.find('/') - 1);
  rest.remove_prefix(1 + text.size());
  if (text.empty()) return 0;
  const auto port = whole_number(text, max_port);
  if (!port) return log_and_return(DL_LOG_CMN, DL_ERR_URL, "BAD_PORT_NUMBER\n");
  url.port = static_cast<uint32_t>(*port);
  return 0;
}

int parse_view(std::string_view text, uint32_t scheme, url_view& url) {
  url.scheme = scheme;
  auto rest = text.substr(schemes[scheme].prefix.size());
  if (const int code = parse_host(rest, url.host); code < 0) return code;
  if (const int code = parse_port(rest, url); code < 0) return code;
  if (!rest.empty() && (rest.front() != '/' || has_line_break(rest)))
    return log_and_return(DL_LOG_CMN, DL_ERR_URL, "Bad file name\n");
  url.path = rest.empty() ? std::string_view("/") : rest;
  return 0;
}

// Copies an optional text; false without memory.
bool copy_optional(const char* from, char*& to) {
  if (!from) return true;
  to = duplicate_text(from).release();
  return to != nullptr;
}

int build_url(unique_url& url, const url_view& view, const char* user, const char* password) {
  unique_url built(zeroed_record<dl_url>().release());
  if (!built) return DL_ERR_MEMORY;
  built->scheme = view.scheme;
  built->port = view.port;
  built->host = duplicate_text(view.host).release();
  built->path = duplicate_text(view.path).release();
  const bool whole = built->host && built->path && copy_optional(user, built->user) &&
                     copy_optional(password, built->password);
  if (!whole) return DL_ERR_MEMORY;
  url = std::move(built);
  return 0;
}

int parse_and_build(unique_url& url, const char* text, const char* user, const char* password) {
  const auto scheme = match_scheme(or_empty(text));
  if (!scheme) return log_and_return(DL_LOG_CMN, DL_ERR_URL, "Invalid URL\n");
  escaped_url escaped;
  escape_spaces(text, escaped.text);
  url_view view;
  if (const int code = parse_view(escaped.text, *scheme, view); code < 0) return code;
  return build_url(url, view, user, password);
}

}  // namespace

int parse_url(unique_url& url, const char* text, const char* user, const char* password) {
  return guarded([&] { return parse_and_build(url, text, user, password); },
                 [] { return int{DL_ERR_MEMORY}; });
}

void free_url(dl_url* url) {
  if (!url) return;
  free(url->host);
  free(url->path);
  for (char* secret : {url->user, url->password}) {
    wipe(secret);
    free(secret);
  }
  free(url);
}

std::string host_and_port(std::string_view host, uint32_t port, uint32_t usual_port) {
  const bool ipv6 = host.find(':') != std::string_view::npos;
  std::string text(ipv6 ? "[" : "");
  text.append(host).append(ipv6 ? "]" : "");
  if (port != usual_port) text.append(":").append(std::to_string(port));
  return text;
}

int default_port(uint32_t scheme) {
  return scheme < schemes.size() ? schemes[scheme].default_port : no_scheme_port;
}

}  // namespace fetchrig
