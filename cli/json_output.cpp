// SPDX-License-Identifier: MIT
// json_output.cpp: JSON, indented by two.
#include "json_output.h"

#include <stdio.h>

namespace fetchrig::cli {

void print_json(const nlohmann::ordered_json& json) {
  puts(json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace).c_str());
}

}  // namespace fetchrig::cli
