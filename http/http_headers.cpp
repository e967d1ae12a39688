// SPDX-License-Identifier: MIT
// http_headers.cpp: status line and header block as bytes.
#include "http/http_headers.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <array>

#include "core/cursor.h"
#include "core/text.h"

namespace fetchrig {
namespace {

constexpr std::size_t max_block = std::size_t{256} * 1024;

}  // namespace

std::optional<int> parse_status_line(std::string_view line) {
  constexpr uint64_t any_minor_version = UINT32_MAX;
  cursor in(line);
  if (!in.skip("HTTP/1.") || !in.number(any_minor_version)) return std::nullopt;
  const auto after = skip_white_space(in.rest());
  if (after.size() == in.rest().size()) return std::nullopt;
  const auto field = after.substr(0, 3);
  const bool negative = field.starts_with('-');
  const bool has_sign = negative || field.starts_with('+');
  const auto status = leading_number(field.substr(has_sign ? 1 : 0), 999);
  if (!status) return std::nullopt;
  return negative ? -static_cast<int>(*status) : static_cast<int>(*status);
}

std::optional<uint32_t> parse_content_length(std::string_view line) {
  const auto colon = line.find(':');
  if (colon == std::string_view::npos) return std::nullopt;
  const auto length = leading_number(skip_white_space(line.substr(colon + 1)), UINT32_MAX);
  if (!length) return std::nullopt;
  return static_cast<uint32_t>(*length);
}

bool announces_number(std::string_view line) {
  const auto value = skip_white_space(line.substr(line.find(':') + 1));
  return !value.empty() && is_digit(value.front());
}

const char* header_value(const char* line, std::size_t name_len) {
  const std::size_t begin = name_len + 2;
  return strlen(line) < begin ? "" : line + begin;
}

const char* http_find_header(const char* block, std::string_view name) {
  if (!block) return nullptr;
  for (const char* line = block; *line != '\0'; line += strlen(line) + 1) {
    if (strncmp(line, name.data(), name.size()) == 0 && line[name.size()] == ':') return line;
  }
  return nullptr;
}

const char* http_find_header_by_name(const char* block, std::string_view name) {
  if (name.empty()) return nullptr;
  std::array<char, 128> lower_name = {};
  copy_text(lower_name, name);
  lower_in_place(lower_name);
  return http_find_header(block, lower_name.data());
}

bool header_block::start(std::size_t size) {
  size_ = size;
  used_ = 0;
  block_.reset(static_cast<char*>(malloc(size)));
  if (block_) block_.get()[0] = '\0';
  return block_ != nullptr;
}

std::span<char> header_block::room(std::size_t least) {
  while (size_ - used_ < least) {
    if (size_ * 2 > max_block) return {};
    auto* grown = static_cast<char*>(realloc(block_.get(), size_ * 2));
    if (!grown) return {};
    static_cast<void>(block_.release());
    block_.reset(grown);
    size_ *= 2;
  }
  return {block_.get() + used_, size_ - used_};
}

// A terminator inside a line would split it: RFC 9110 section 5.5 has a recipient put a space there.
void header_block::take_line(std::size_t length) {
  char* line = block_.get() + used_;
  std::replace(line, line + length, '\0', ' ');
  line[length] = '\0';
  lower_in_place({line, length}, ':');
  used_ += length + 1;
}

}  // namespace fetchrig
