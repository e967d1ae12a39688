// SPDX-License-Identifier: MIT
// cert_install.cpp: "fetchrig cert install": every certificate of a file goes into the store, whole or not at all.
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <vector>

#include "cert_store.h"
#include "fetchrig.h"
#include "pem.h"
#include "report.h"
#include "scratch_copy.h"
#include "silenced_stream.h"
#include "store_entries.h"
#include "x509_text.h"

namespace fetchrig::cli {
namespace {

constexpr int known_already = -2;
constexpr int known_to_the_factory = -3;

// The library does not tell when copying or linking went wrong, so the store is asked. A CA that was
// installed in part is taken out again: what has a name that was free before.
void check_installed(const std::string& target, std::uint32_t hash, const std::vector<std::string>& names,
                     const std::vector<std::string>& free_names) {
  const auto is_missing = [hash](const std::string& entry) {
    dl_ca_info record = {};
    return dl_get_ca_info(entry.c_str(), &record) != 0 || record.hash != hash;
  };
  const std::string cause = logged_errors();
  if (!is_missing(names[0]) && !is_missing(names[1])) return;
  for (const std::string& name : free_names) unlink(name.c_str());
  throw failure(0, printable(target) + ": the store could not be written, nothing was installed" +
                       (cause.empty() ? "" : ": " + cause));
}

// What others may read: the certificates without what else the file holds, a private key above all. The library
// judges what holds none.
std::vector<secret_text> public_parts(const std::string& path) {
  secret_text content = read_small_file(path);
  std::vector<unique_x509> certificates;
  if (auto only = der_certificate(content.bytes())) certificates.push_back(std::move(only));
  if (certificates.empty()) certificates = pem_certificates(content.bytes());
  std::vector<secret_text> parts;
  parts.reserve(certificates.size());
  for (const unique_x509& each : certificates) parts.emplace_back(pem_of(each.get()));
  if (parts.empty()) parts.push_back(std::move(content));
  return parts;
}

[[noreturn]] void refuse(const store_options& options, const std::string& store, int code) {
  // It tells of other entries.
  if (code == known_already || code == known_to_the_factory) forget_log();
  const std::string& target = options.target;
  if (code == known_already) throw failed_operation(target, code, "a CA of this name is installed already");
  if (code == known_to_the_factory)
    throw failed_operation(target, code, "a CA of this name is among the factory CAs");
  if (const std::string trouble = opening_trouble(store); !trouble.empty())
    throw failure(code, printable(store) + ": the store cannot be opened or made" + trouble);
  throw failed_operation(target, code, "cannot be installed");
}

// Installs the certificate of the file, and returns the name it has in the store.
std::string install_one(const store_options& options, const std::string& store, const scratch_copy& file) {
  forget_log();
  dl_ca_info record = {};
  if (dl_get_ca_info(file.path(), &record) != 0)
    throw failed_operation(options.target, -1, "no certificate can be read");
  const std::vector<std::string> names = names_of(store, hash_name(record.hash));
  std::vector<std::string> free_names;
  std::remove_copy_if(names.begin(), names.end(), std::back_inserter(free_names), name_exists);
  int rc = 0;
  {
    const silenced_stream shell(stderr, options.common.verbosity == 0);
    rc = dl_install_ca(file.path());
  }
  if (rc != 0) refuse(options, store, rc);
  check_installed(options.target, record.hash, names, free_names);
  return names.front();
}

void warn_of_leaf(const x509_text& texts) {
  if (texts.is_ca) return;
  tell("warning: " + printable(texts.subject) +
       " is no CA: no certificate can be verified with it but itself");
}

// What becomes of the certificates of one file.
class installation {
 public:
  explicit installation(const store_options& options)
      : options_(options), store_(options.common.store_dir()) {
    // The library converts each such file to PEM, and takes its certificate for an installed one.
    if (const auto foreign = foreign_among(listed_names(store_)); !foreign.empty())
      throw failed_operation(store_, 0, foreign_words(foreign) + "; nothing was installed");
    told_.json = {{"certificates", nlohmann::ordered_json::array()}};
  }

  answer run() {
    for (const secret_text& part : public_parts(options_.target)) add(part);
    if (failures_.size() == told_.json["certificates"].size()) throw failures_.front();
    if (options_.relocatable) make_relocatable(store_);
    for (const failure& why : failures_) {
      if (why.code() == known_already || why.code() == known_to_the_factory) continue;
      tell(why.what());
      told_.status = exit_failed;
    }
    return std::move(told_);
  }

 private:
  void add(const secret_text& part) {
    const scratch_copy file(part);
    const unique_x509 certificate = pem_certificate(part.bytes());
    const x509_text texts = certificate ? texts_of(certificate.get()) : x509_text();
    nlohmann::ordered_json one = {{"subject", texts.subject}, {"ca", texts.is_ca}, {"installed", false}};
    try {
      const std::string entry = install_one(options_, store_, file);
      one["installed"] = true;
      one["entry"] = entry;
      one["hash"] = entry.substr(store_.size(), hash_len);
      if (!told_.json.contains("entry"))
        told_.json.update({{"subject", one["subject"]}, {"hash", one["hash"]}, {"entry", entry}});
      told_.text += "installed " + printable(texts.subject) + " as " + printable(entry) + "\n";
      warn_of_leaf(texts);
    } catch (const failure& why) {
      one["message"] = why.what();
      told_.text += "left out " + printable(texts.subject) + ": " + why.what() + "\n";
      failures_.push_back(why);
    }
    told_.json["certificates"].push_back(one);
  }

  static constexpr std::size_t hash_len = 8;
  const store_options& options_;
  const std::string store_;
  answer told_;
  std::vector<failure> failures_;
};

}  // namespace

answer install_cas(const store_options& options) {
  return installation(options).run();
}

}  // namespace fetchrig::cli
