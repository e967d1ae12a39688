// SPDX-License-Identifier: MIT
// cert_answer.h: the outcome of a certificate operation, told as text for people or as JSON for programs, and
// how certificate records look in both.
#ifndef FETCHRIG_CLI_CERT_ANSWER_H
#define FETCHRIG_CLI_CERT_ANSWER_H

#include <functional>
#include <nlohmann/json.hpp>
#include <span>
#include <string>

#include "fetchrig.h"
#include "report.h"

namespace fetchrig::cli {

struct answer {
  nlohmann::ordered_json json = nlohmann::ordered_json::object();
  std::string text;  // whole lines
  int status = exit_done;
};

// Runs the operation and writes its answer to standard output; JSON carries "ok" and, after a failure, "code"
// and "message". Returns the exit status; failures pass through after they have been written.
int tell_answer(bool json, const std::function<answer()>& operation);

// One certificate, as a JSON object and as lines of "name: value". `pem_path` is its file: the library's record is cut.
answer describe_certificate(const dl_ca_info_ex& info, const std::string& pem_path, bool with_private_key);

// A certificate in a store.
struct listed_certificate {
  nlohmann::ordered_json json;
  std::string links;
};

// Several certificates as a table with a heading.
std::string certificate_table(std::span<const listed_certificate> certificates);

// The hash as the store writes it.
std::string hash_name(std::uint32_t hash);

}  // namespace fetchrig::cli
#endif
