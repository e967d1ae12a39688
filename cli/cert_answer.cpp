// SPDX-License-Identifier: MIT
// cert_answer.cpp: certificate records as text and JSON.
#include "cert_answer.h"

#include <stdio.h>

#include <algorithm>
#include <array>
#include <vector>

#include "json_output.h"

namespace fetchrig::cli {
namespace {

constexpr std::size_t label_width = 14;

std::string line(std::string label, const std::string& value) {
  label += ':';
  label.resize(std::max(label.size() + 1, label_width), ' ');
  return label + printable(value) + "\n";
}

std::string key_text(const char* algorithm, int32_t bits) {
  return std::string(algorithm) + ", " + std::to_string(bits) + " bits";
}

std::string trimmed(std::string text) {
  text.erase(text.find_last_not_of(' ') + 1);
  return text;
}

}  // namespace

int tell_answer(bool json, const std::function<answer()>& operation) {
  try {
    answer told = operation();
    if (json) {
      told.json["ok"] = told.status == exit_done;
      print_json(told.json);
    } else {
      fputs(told.text.c_str(), stdout);
    }
    return told.status;
  } catch (const failure& error) {
    if (json) print_json({{"ok", false}, {"code", error.code()}, {"message", error.what()}});
    throw;
  }
}

answer describe_certificate(const dl_ca_info_ex& info, bool with_private_key) {
  answer told;
  told.json = {{"subject", info.subject},
               {"issuer", info.issuer},
               {"serial", trimmed(info.serial)},
               {"version", info.version},
               {"not_before", info.not_before},
               {"not_after", info.not_after},
               {"signature_algorithm", info.sig_alg},
               {"key_algorithm", info.key_alg},
               {"key_bits", info.key_bits},
               {"hash", hash_name(info.hash)},
               {"extensions", info.ext_count}};
  told.text = line("subject", info.subject) + line("issuer", info.issuer) +
              line("serial", trimmed(info.serial)) + line("version", std::to_string(info.version)) +
              line("valid from", info.not_before) + line("valid until", info.not_after) +
              line("signature", info.sig_alg) + line("key", key_text(info.key_alg, info.key_bits)) +
              line("hash", hash_name(info.hash)) + line("extensions", std::to_string(info.ext_count));
  if (!with_private_key) return told;
  const bool has_key = info.priv_alg[0] != '\0';
  told.json["private_key"] = nullptr;
  if (has_key) told.json["private_key"] = {{"algorithm", info.priv_alg}, {"bits", info.priv_bits}};
  told.text +=
      line("private key", has_key ? key_text(info.priv_alg, info.priv_bits) : "none that can be read");
  return told;
}

std::string certificate_table(std::span<const dl_ca_info_ex> certificates) {
  using row = std::array<std::string, 4>;
  std::vector<row> rows = {{"HASH", "SUBJECT", "ISSUER", "VALID UNTIL"}};
  for (const dl_ca_info_ex& info : certificates) {
    rows.push_back(
        {hash_name(info.hash), printable(info.subject), printable(info.issuer), printable(info.not_after)});
  }
  std::array<std::size_t, 4> widths = {};
  for (const row& cells : rows) {
    for (std::size_t i = 0; i < cells.size(); ++i) widths[i] = std::max(widths[i], cells[i].size());
  }
  std::string table;
  for (const row& cells : rows) {
    for (std::size_t i = 0; i < cells.size(); ++i) {
      table += cells[i];
      if (i + 1 < cells.size()) table.append(widths[i] - cells[i].size() + 2, ' ');
    }
    table += '\n';
  }
  return table;
}

std::string hash_name(std::uint32_t hash) {
  char text[9];
  snprintf(text, sizeof text, "%08x", static_cast<unsigned>(hash));
  return text;
}

}  // namespace fetchrig::cli
