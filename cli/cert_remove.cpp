// SPDX-License-Identifier: MIT
// cert_remove.cpp: "fetchrig cert remove": by file, by hash or by name.
#include <algorithm>
#include <filesystem>
#include <iterator>
#include <optional>
#include <vector>

#include "cert_store.h"
#include "fetchrig.h"
#include "hashed_directory.h"
#include "pem.h"
#include "report.h"
#include "scratch_copy.h"
#include "silenced_stream.h"
#include "store_entries.h"
#include "x509_text.h"

namespace fetchrig::cli {
namespace {

// "1a2b3c4d" or "1a2b3c4d.0", in lower case and without the ending.
std::optional<std::string> as_hash(std::string text) {
  if (text.ends_with(".0")) text.resize(text.size() - 2);
  std::transform(text.begin(), text.end(), text.begin(),
                 [](char c) { return c >= 'A' && c <= 'F' ? static_cast<char>(c + ('a' - 'A')) : c; });
  if (text.size() != 8 || text.find_first_not_of("0123456789abcdef") != text.npos) return std::nullopt;
  return text;
}

bool lies_in(const std::string& path, const std::string& store) {
  std::error_code error;
  const std::filesystem::path folder = std::filesystem::absolute(path, error).parent_path();
  return std::filesystem::equivalent(folder, store, error);
}

// The hash of the CA in the store that has this common name, or this whole subject; throws failure when several have.
std::optional<std::string> hash_of_name(const std::string& store, const std::string& name) {
  std::vector<std::string> hashes;
  for (const std::string& entry : listed_names(store)) {
    const auto content = is_hashed_name(entry) ? find_small_file(store + entry) : std::nullopt;
    const unique_x509 certificate = content ? pem_certificate(content->bytes()) : nullptr;
    const x509_text texts = certificate ? texts_of(certificate.get()) : x509_text();
    if (certificate && (texts.common_name == name || texts.subject == name))
      hashes.push_back(entry.substr(0, 8));
  }
  hashes.erase(std::unique(hashes.begin(), hashes.end()), hashes.end());  // the names were in order
  if (hashes.size() > 1)
    throw failure(0, printable(name) + " is the name of several CAs, remove them by hash: " + joined(hashes));
  return hashes.empty() ? std::nullopt : std::optional(hashes.front());
}

// A certificate file outside the store only tells the hash and is itself left alone: the library removes the
// very path that it is given.
std::string hash_of_file(const std::string& path) {
  const scratch_copy file(path);
  dl_ca_info record = {};
  if (dl_get_ca_info(file.path(), &record) != 0)
    throw failed_operation(path, -2, "no certificate can be read");
  return hash_name(record.hash);
}

bool is_certificate_file(const std::string& path) {
  dl_ca_info record = {};
  return dl_get_ca_info(scratch_copy(path).path(), &record) == 0;
}

// The names in the store that are to go for what was typed; those that are not there are left out.
std::vector<std::string> names_to_remove(const store_options& options, const std::string& store) {
  const std::string& target = options.target;
  std::vector<std::string> names;
  if (name_exists(target) && lies_in(target, store)) {
    const std::string name = std::filesystem::path(target).filename().string();
    const bool is_entry = is_hashed_name(name) || as_hash(name);
    dl_ca_info record = {};
    const bool is_certificate =
        (is_entry || is_certificate_file(target)) && dl_get_ca_info(target.c_str(), &record) == 0;
    if (!is_entry && !is_certificate) {
      throw failed_operation(target, 0,
                             "neither the name of a store's entry nor a certificate; it is left as it is");
    }
    names.push_back(target);
    if (!is_certificate) return names;
    std::ranges::copy(names_of(store, hash_name(record.hash)), std::back_inserter(names));
  } else {
    auto hash = name_exists(target) ? hash_of_file(target) : as_hash(target);
    if (!hash) hash = hash_of_name(store, target);
    if (!hash) {
      throw failure(
          0, printable(target) + ": no such file, and neither the hash nor the name of an installed CA");
    }
    names = names_of(store, *hash);
  }
  std::erase_if(names, [](const std::string& name) { return !name_exists(name); });
  return names;
}

}  // namespace

answer remove_ca(const store_options& options) {
  const std::string store = options.common.store_dir();
  std::vector<std::string> names = names_to_remove(options, store);
  if (names.empty()) throw failure(0, printable(options.target) + " is not in the store");
  const std::string entry = names.front();
  forget_log();
  for (const std::string& name : names) {
    // One call removes all names of a CA; the others are there for what an earlier removal left.
    const silenced_stream shell(stderr, options.common.verbosity == 0);
    if (name_exists(name)) dl_del_ca(name.c_str());
  }
  std::erase_if(names, [](const std::string& name) { return !name_exists(name); });
  if (!names.empty())
    throw failed_operation(joined(names), 0, "could not be removed, the CA may still be trusted");
  answer told;
  told.json = {{"removed", entry}};
  told.text = "removed " + printable(entry) + "\n";
  return told;
}

}  // namespace fetchrig::cli
