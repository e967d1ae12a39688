// SPDX-License-Identifier: MIT
// ftp_parse.cpp: reply lines, passive-mode answers and sizes.
#include "ftp/ftp_parse.h"

#include <algorithm>

#include "core/cursor.h"
#include "core/ports.h"
#include "core/text.h"

namespace fetchrig {
namespace {

constexpr std::size_t code_len = 3;

// Cuts `text` at its last comma and returns the number (0 to 255) that the part after it starts with.
std::optional<uint8_t> cut_last_number(std::string_view& text) {
  const std::size_t comma = text.rfind(',');
  if (comma == std::string_view::npos) return std::nullopt;
  const auto number = leading_number(text.substr(comma + 1), UINT8_MAX);
  text = text.substr(0, comma);
  return number ? std::optional(static_cast<uint8_t>(*number)) : std::nullopt;
}

}  // namespace

std::optional<int> ftp_reply_code(std::string_view line) {
  cursor in(line);
  const auto digits = in.take(code_len);
  if (!digits || !in.skip(" ")) return std::nullopt;
  const auto code = whole_number(*digits, 999);
  return code ? std::optional(static_cast<int>(*code)) : std::nullopt;
}

std::optional<std::string_view> ftp_parenthesised(std::string_view line) {
  const std::size_t open = line.find('(');
  const std::size_t close = line.find(')');
  if (open == std::string_view::npos || close == std::string_view::npos || close < open) return std::nullopt;
  return line.substr(open + 1, close - open - 1);
}

std::optional<uint16_t> ftp_epsv_port(std::string_view text) {
  const auto* digit = std::find_if(text.begin(), text.end(), is_digit);
  if (digit == text.begin() || digit == text.end()) return uint16_t{0};
  const auto port = leading_number(text.substr(static_cast<std::size_t>(digit - text.begin())), max_port);
  return port ? std::optional(static_cast<uint16_t>(*port)) : std::nullopt;
}

std::optional<ftp_endpoint> ftp_pasv_endpoint(std::string_view text) {
  const auto low = cut_last_number(text);
  const auto high = low ? cut_last_number(text) : std::nullopt;
  if (!high) return std::nullopt;

  ftp_endpoint endpoint;
  cursor in(text);
  for (std::size_t i = 0; i < endpoint.address.size(); ++i) {
    const auto number = in.number(UINT8_MAX);
    const bool last = i + 1 == endpoint.address.size();
    if (!number || (last ? !in.empty() : !in.skip(","))) return std::nullopt;
    endpoint.address[i] = static_cast<uint8_t>(*number);
  }
  endpoint.port = static_cast<uint16_t>(*high * 256 + *low);
  return endpoint;
}

std::optional<uint64_t> ftp_size_answer(std::string_view line) {
  cursor in(line);
  if (!in.take(code_len + 1)) return std::nullopt;
  const std::string_view text = skip_white_space(in.rest());
  if (text.empty() || !is_digit(text.front())) return std::nullopt;
  return leading_number(text, UINT64_MAX).value_or(UINT64_MAX);
}

}  // namespace fetchrig
