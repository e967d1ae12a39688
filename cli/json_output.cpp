// SPDX-License-Identifier: MIT
// json_output.cpp: JSON, indented by two or on one line.
#include "json_output.h"

#include <stdio.h>

namespace fetchrig::cli {
namespace {

constexpr int one_line = -1;

// Control characters that JSON lets pass and a terminal may obey: DEL, and U+0080 to U+009F, in UTF-8 0xC2 and a byte.
std::string escaped(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
    const bool is_c1 = byte == 0xc2 && next >= 0x80 && next <= 0x9f;
    if (is_c1 || byte == 0x7f) {
      char code[8];
      snprintf(code, sizeof code, "\\u%04x", static_cast<unsigned>(is_c1 ? next : byte));
      out += code;
      i += is_c1 ? 1 : 0;
    } else {
      out += text[i];
    }
  }
  return out;
}

void print(const nlohmann::ordered_json& json, int indent) {
  puts(escaped(json.dump(indent, ' ', false, nlohmann::ordered_json::error_handler_t::replace)).c_str());
}

}  // namespace

void print_json(const nlohmann::ordered_json& json) {
  print(json, 2);
}

void print_json_line(const nlohmann::ordered_json& json) {
  print(json, one_line);
  fflush(stdout);
}

}  // namespace fetchrig::cli
