// SPDX-License-Identifier: MIT
// cert_answer.cpp: certificate records as text and JSON.
#include "cert_answer.h"

#include <stdio.h>

#include <algorithm>
#include <array>
#include <vector>

#include "json_output.h"
#include "x509_text.h"

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

std::string days_words(int days) {
  return days < 0 ? "expired " + std::to_string(-days) + " days ago" : std::to_string(days) + " days left";
}

// Of a text in UTF-8.
std::size_t num_letters(const std::string& text) {
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xc0) != 0x80; }));
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
    throw failure(error.code(), error.what());
  }
}

answer describe_certificate(const dl_ca_info_ex& info, const std::string& pem_path, bool with_private_key) {
  const x509_text texts = texts_of_file(pem_path);
  answer told;
  told.json = {{"subject", texts.subject},
               {"issuer", texts.issuer},
               {"common_name", texts.common_name},
               {"alternative_names", texts.alternative_names},
               {"ca", texts.is_ca},
               {"serial", trimmed(info.serial)},
               {"version", info.version},
               {"not_before", texts.not_before},
               {"not_after", texts.not_after},
               {"days_left", texts.days_left},
               {"signature_algorithm", info.sig_alg},
               {"key_algorithm", info.key_alg},
               {"key_bits", info.key_bits},
               {"sha256", texts.sha256},
               {"hash", hash_name(info.hash)},
               {"extensions", info.ext_count}};
  told.text = line("subject", texts.subject) + line("issuer", texts.issuer);
  for (const std::string& name : texts.alternative_names) told.text += line("also named", name);
  told.text += line("CA", texts.is_ca ? "yes" : "no") + line("serial", trimmed(info.serial)) +
               line("version", std::to_string(info.version)) + line("valid from", texts.not_before) +
               line("valid until", texts.not_after + " (" + days_words(texts.days_left) + ")") +
               line("signature", info.sig_alg) + line("key", key_text(info.key_alg, info.key_bits)) +
               line("SHA-256", texts.sha256) + line("hash", hash_name(info.hash)) +
               line("extensions", std::to_string(info.ext_count));
  if (!with_private_key) return told;
  const bool has_key = info.priv_alg[0] != '\0';
  told.json["private_key"] = nullptr;
  if (has_key) told.json["private_key"] = {{"algorithm", info.priv_alg}, {"bits", info.priv_bits}};
  told.text +=
      line("private key", has_key ? key_text(info.priv_alg, info.priv_bits) : "none that can be read");
  return told;
}

std::string certificate_table(std::span<const listed_certificate> certificates) {
  using row = std::array<std::string, 5>;
  std::vector<row> rows = {{"HASH", "SUBJECT", "ISSUER", "VALID UNTIL", "LINKS"}};
  for (const auto& [json, links] : certificates) {
    const bool own = json["subject"] == json["issuer"];
    rows.push_back({json["hash"], printable(json["subject"].get<std::string>()),
                    own ? "itself" : printable(json["issuer"].get<std::string>()), json["not_after"], links});
  }
  std::array<std::size_t, 5> widths = {};
  for (const row& cells : rows) {
    for (std::size_t i = 0; i < cells.size(); ++i) widths[i] = std::max(widths[i], num_letters(cells[i]));
  }
  std::string table;
  for (const row& cells : rows) {
    for (std::size_t i = 0; i < cells.size(); ++i) {
      table += cells[i];
      if (i + 1 < cells.size()) table.append(widths[i] - num_letters(cells[i]) + 2, ' ');
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
