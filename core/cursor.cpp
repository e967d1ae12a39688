// SPDX-License-Identifier: MIT
// cursor.cpp: bounded reading of untrusted bytes.
#include "core/cursor.h"

#include "core/text.h"

namespace fetchrig {

std::optional<std::string_view> cursor::take(std::size_t count) {
  if (rest_.size() < count) return std::nullopt;
  const auto taken = rest_.substr(0, count);
  rest_.remove_prefix(count);
  return taken;
}

std::optional<std::string_view> cursor::take_until(char end) {
  const auto at = rest_.find(end);
  if (at == std::string_view::npos) return std::nullopt;
  const auto taken = rest_.substr(0, at);
  rest_.remove_prefix(at + 1);
  return taken;
}

bool cursor::skip(std::string_view prefix) {
  if (!rest_.starts_with(prefix)) return false;
  rest_.remove_prefix(prefix.size());
  return true;
}

std::optional<uint16_t> cursor::u16be() {
  const auto bytes = take(2);
  if (!bytes) return std::nullopt;
  const auto high = static_cast<unsigned char>((*bytes)[0]);
  const auto low = static_cast<unsigned char>((*bytes)[1]);
  return static_cast<uint16_t>(high << 8 | low);
}

std::optional<uint64_t> cursor::number(uint64_t max) {
  std::string_view rest;
  const auto value = leading_number(rest_, max, &rest);
  if (value) rest_ = rest;
  return value;
}

}  // namespace fetchrig
