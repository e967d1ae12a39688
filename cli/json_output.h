// SPDX-License-Identifier: MIT
// json_output.h: how answers in JSON are written. One thread.
#ifndef FETCHRIG_CLI_JSON_OUTPUT_H
#define FETCHRIG_CLI_JSON_OUTPUT_H

#include <nlohmann/json.hpp>

namespace fetchrig::cli {

// Writes the object to standard output; bytes that are no UTF-8 are replaced.
void print_json(const nlohmann::ordered_json& json);

// The same on one line.
void print_json_line(const nlohmann::ordered_json& json);

}  // namespace fetchrig::cli
#endif
