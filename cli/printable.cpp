// SPDX-License-Identifier: MIT
// printable.cpp: escaping what a terminal would obey.
#include "printable.h"

namespace fetchrig::cli {
namespace {

// Marks and overrides that turn the direction of what follows: a name may pose as another by them.
bool turns_direction(unsigned code_point) {
  return code_point == 0x61c || code_point == 0x200e || code_point == 0x200f ||
         (code_point >= 0x202a && code_point <= 0x202e) || (code_point >= 0x2066 && code_point <= 0x2069);
}

// Length of the valid UTF-8 sequence of two or more bytes at the start of `text`, 0 when there is none or it
// is a C1 control character or one of direction.
std::size_t utf8_sequence(std::string_view text) {
  const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  struct shape {
    unsigned char mask, mark;
    std::size_t length;
    unsigned least;
  };
  constexpr shape shapes[] = {{0xe0, 0xc0, 2, 0xa0}, {0xf0, 0xe0, 3, 0x800}, {0xf8, 0xf0, 4, 0x10000}};
  for (const shape& form : shapes) {
    if ((byte(0) & form.mask) != form.mark) continue;
    if (text.size() < form.length) return 0;
    unsigned code_point = byte(0) & static_cast<unsigned char>(~form.mask);
    for (std::size_t i = 1; i < form.length; ++i) {
      if ((byte(i) & 0xc0) != 0x80) return 0;
      code_point = code_point << 6 | (byte(i) & 0x3fu);
    }
    const bool surrogate = code_point >= 0xd800 && code_point <= 0xdfff;
    const bool steers = turns_direction(code_point);
    return code_point < form.least || code_point > 0x10ffff || surrogate || steers ? 0 : form.length;
  }
  return 0;
}

// `text` with escape(byte) in place of each byte that steers a terminal.
template <typename Escape>
std::string replaced(std::string_view text, Escape escape) {
  std::string out;
  for (std::size_t i = 0; i < text.size();) {
    const auto byte = static_cast<unsigned char>(text[i]);
    std::size_t length = byte >= 0x20 && byte < 0x7f ? 1 : 0;
    if (byte >= 0x80) length = utf8_sequence(text.substr(i));
    if (length > 0) {
      out.append(text, i, length);
      i += length;
      continue;
    }
    out += escape(byte);
    ++i;
  }
  return out;
}

}  // namespace

std::string printable(std::string_view text) {
  constexpr char digits[] = "0123456789abcdef";
  return replaced(text, [&](unsigned char byte) {
    return std::string{'\\', 'x', digits[byte >> 4], digits[byte & 15]};
  });
}

std::string terminal_safe(std::string_view text) {
  return replaced(text, [](unsigned char) { return '_'; });
}

}  // namespace fetchrig::cli
