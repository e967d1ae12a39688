// SPDX-License-Identifier: MIT
// text.cpp: small text routines over bytes.
#include "core/text.h"

#include <openssl/crypto.h>

#include <algorithm>

namespace fetchrig {

bool equal_ignoring_case(std::string_view first, std::string_view second) {
  return first.size() == second.size() && starts_ignoring_case(first, second);
}

bool starts_ignoring_case(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), text.begin(),
                                                    [](char a, char b) { return lower(a) == lower(b); });
}

std::string_view skip_white_space(std::string_view text) {
  while (!text.empty() && is_white_space(text.front())) text.remove_prefix(1);
  return text;
}

std::string_view trim_white_space(std::string_view text) {
  text = skip_white_space(text);
  while (!text.empty() && is_white_space(text.back())) text.remove_suffix(1);
  return text;
}

bool has_line_break(std::string_view text) {
  return text.find_first_of("\r\n") != std::string_view::npos;
}

bool lists(std::string_view items, std::string_view wanted) {
  for (;;) {
    const std::size_t comma = items.find(',');
    if (equal_ignoring_case(trim_white_space(items.substr(0, comma)), wanted)) return true;
    if (comma == std::string_view::npos) return false;
    items.remove_prefix(comma + 1);
  }
}

std::string_view base_name(std::string_view path) {
  return path.substr(path.rfind('/') + 1);
}

bool copy_text(std::span<char> to, std::string_view text) {
  const std::size_t count = std::min(text.size(), to.size() - 1);
  std::copy_n(text.begin(), count, to.begin());
  to[count] = '\0';
  return count == text.size();
}

void lower_in_place(std::span<char> text, char stop) {
  for (char& c : text) {
    if (c == '\0' || c == stop) return;
    c = lower(c);
  }
}

std::optional<uint64_t> leading_number(std::string_view text, uint64_t max, std::string_view* rest) {
  uint64_t value = 0;
  std::size_t used = 0;
  for (; used < text.size() && is_digit(text[used]); ++used) {
    const auto digit = static_cast<uint64_t>(text[used] - '0');
    if (digit > max || value > (max - digit) / 10) return std::nullopt;
    value = value * 10 + digit;
  }
  if (used == 0) return std::nullopt;
  if (rest) *rest = text.substr(used);
  return value;
}

std::optional<uint64_t> whole_number(std::string_view text, uint64_t max) {
  std::string_view rest;
  const auto value = leading_number(text, max, &rest);
  return value && rest.empty() ? value : std::nullopt;
}

void wipe(std::string& text) {
  text.resize(text.capacity());
  OPENSSL_cleanse(text.data(), text.size());
  text.clear();
}

void wipe(char* text) {
  if (text) OPENSSL_cleanse(text, strlen(text));
}

void write_hex(std::span<char> to, std::span<const unsigned char> bytes) {
  constexpr std::string_view digits = "0123456789abcdef";
  auto out = to.begin();
  for (const unsigned char byte : bytes) {
    *out++ = digits[byte >> 4];
    *out++ = digits[byte & 15];
  }
}

std::string to_hex(std::span<const unsigned char> bytes) {
  std::string text(bytes.size() * 2, '\0');
  write_hex(text, bytes);
  return text;
}

}  // namespace fetchrig
