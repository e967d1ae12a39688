// SPDX-License-Identifier: MIT
// url_reference.cpp: the five parts of a URL, and section 5.2 of RFC 3986 over them.
#include "http/extra/url_reference.h"

#include <optional>

#include "core/text.h"

namespace fetchrig {
namespace {

using std::string_view;
using part = std::optional<string_view>;

struct url_parts {
  part scheme, authority;
  string_view path;
  part query;
};

// Section 3.1: a letter, then letters, digits, "+", "-" and ".".
bool is_scheme(string_view text) {
  for (const char c : text) {
    const bool letter = lower(c) >= 'a' && lower(c) <= 'z';
    const bool inner = is_digit(c) || c == '+' || c == '-' || c == '.';
    if (!letter && (!inner || &c == text.data())) return false;
  }
  return !text.empty();
}

url_parts split(string_view text) {
  url_parts parts;
  text = text.substr(0, text.find('#'));
  const std::size_t colon = text.find_first_of(":/?");
  if (colon != string_view::npos && text[colon] == ':' && is_scheme(text.substr(0, colon))) {
    parts.scheme = text.substr(0, colon);
    text.remove_prefix(colon + 1);
  }
  if (text.starts_with("//")) {
    text.remove_prefix(2);
    parts.authority = text.substr(0, text.find_first_of("/?"));
    text.remove_prefix(parts.authority->size());
  }
  const std::size_t mark = text.find('?');
  parts.path = text.substr(0, mark);
  if (mark != string_view::npos) parts.query = text.substr(mark + 1);
  return parts;
}

void drop_last_segment(std::string& path) {
  const std::size_t slash = path.rfind('/');
  path.resize(slash == std::string::npos ? 0 : slash);
}

// Section 5.2.4.
std::string without_dots(string_view rest) {
  std::string path;
  path.reserve(rest.size());
  while (!rest.empty()) {
    if (rest.starts_with("../")) {
      rest.remove_prefix(3);
    } else if (rest.starts_with("./") || rest.starts_with("/./")) {
      rest.remove_prefix(2);
    } else if (rest == "/.") {
      rest = "/";
    } else if (rest.starts_with("/../") || rest == "/..") {
      rest = rest.size() > 3 ? rest.substr(3) : "/";
      drop_last_segment(path);
    } else if (rest == "." || rest == "..") {
      rest = {};
    } else {
      const string_view segment = rest.substr(0, rest.find('/', 1));
      path += segment;
      rest.remove_prefix(segment.size());
    }
  }
  return path;
}

// Section 5.2.3, of a base that has a path.
std::string merged(const url_parts& base, string_view reference) {
  return std::string(base.path.substr(0, base.path.rfind('/') + 1)).append(reference);
}

std::string composed(const url_parts& parts, const std::string& path) {
  std::string url;
  if (parts.scheme) url.append(*parts.scheme).append(":");
  if (parts.authority) url.append("//").append(*parts.authority);
  if (parts.authority && path.empty()) url += '/';
  if (!parts.authority && path.starts_with("//")) url += "/.";  // or it would begin with an authority
  url += path;
  if (parts.query) url.append("?").append(*parts.query);
  return url;
}

}  // namespace

std::string resolve_reference(string_view base_text, string_view reference) {
  const url_parts base = split(base_text);
  url_parts target = split(reference);
  if (target.scheme) return composed(target, without_dots(target.path));
  target.scheme = base.scheme;
  if (target.authority) return composed(target, without_dots(target.path));
  target.authority = base.authority;
  if (target.path.empty()) {
    if (!target.query) target.query = base.query;
    return composed(target, std::string(base.path));
  }
  if (target.path.starts_with('/')) return composed(target, without_dots(target.path));
  return composed(target, without_dots(merged(base, target.path)));
}

}  // namespace fetchrig
