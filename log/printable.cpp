// SPDX-License-Identifier: MIT
// printable.cpp: outside text made fit for a log line.
#include "log/printable.h"

namespace fetchrig {
namespace {

bool is_control(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte < 0x20 || byte == 0x7f;
}

}  // namespace

printable::printable(std::string_view text) {
  append(text);
}

void printable::append(std::string_view text) {
  for (const char c : text) {
    if (length_ + 1 == sizeof text_) break;
    text_[length_++] = is_control(c) ? '?' : c;
  }
  text_[length_] = '\0';
}

// User information ends at the last "@" of the authority and hides everything behind its first ":".
printable_url::printable_url(std::string_view url) {
  const auto scheme = url.find("://");
  const auto begin = scheme == std::string_view::npos ? 0 : scheme + 3;
  const auto authority = url.substr(begin, url.find('/', begin) - begin);
  const auto at = authority.rfind('@');
  const auto colon = authority.substr(0, at).find(':');
  if (at == std::string_view::npos || colon == std::string_view::npos) {
    append(url);
    return;
  }
  append(url.substr(0, begin + colon));
  append(":******");
  append(url.substr(begin + at));
}

}  // namespace fetchrig
