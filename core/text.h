// SPDX-License-Identifier: MIT
// text.h: small text routines over bytes, free of locale. Nothing here allocates, except where it returns
// std::string. Any thread.
#ifndef FETCHRIG_CORE_TEXT_H
#define FETCHRIG_CORE_TEXT_H

#include <stdint.h>
#include <string.h>

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace fetchrig {

constexpr bool is_digit(char c) {
  return c >= '0' && c <= '9';
}
// Space, tab, carriage return and line feed.
constexpr bool is_white_space(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}
constexpr char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// An empty text for null.
constexpr std::string_view or_empty(const char* text) {
  return text ? std::string_view(text) : std::string_view();
}

[[nodiscard]] bool equal_ignoring_case(std::string_view first, std::string_view second);
[[nodiscard]] bool starts_ignoring_case(std::string_view text, std::string_view prefix);
[[nodiscard]] std::string_view skip_white_space(std::string_view text);
[[nodiscard]] std::string_view trim_white_space(std::string_view text);

// True when the text holds CR or LF and so would break a protocol line.
[[nodiscard]] bool has_line_break(std::string_view text);

// True when one of the items between commas is `wanted`, ignoring case and the white space around it.
[[nodiscard]] bool lists(std::string_view items, std::string_view wanted);

// The part after the last "/", the whole text when there is none.
[[nodiscard]] std::string_view base_name(std::string_view path);

// Copies as much as fits and terminates; false when the text was cut. `to` has at least one byte.
bool copy_text(std::span<char> to, std::string_view text);

// Lower-cases ASCII letters up to the first `stop`, the terminator or the end.
void lower_in_place(std::span<char> text, char stop = '\0');

// The whole text as a decimal number of at most `max`; nothing for any other text.
[[nodiscard]] std::optional<uint64_t> whole_number(std::string_view text, uint64_t max);

// The decimal digits that `text` starts with, as a number; nothing without a digit or above `max`. `rest`,
// when given, receives what follows the digits.
[[nodiscard]] std::optional<uint64_t> leading_number(std::string_view text, uint64_t max,
                                                     std::string_view* rest = nullptr);

// Empties a secret; overwrites its memory first, as far as longer texts before it may have reached.
void wipe(std::string& text);
// Overwrites a terminated secret, up to its end; null is allowed.
void wipe(char* text);

// Lower-case hexadecimal digits, two per byte. `to` has room for them; no terminator is added.
void write_hex(std::span<char> to, std::span<const unsigned char> bytes);
[[nodiscard]] std::string to_hex(std::span<const unsigned char> bytes);

}  // namespace fetchrig
#endif
