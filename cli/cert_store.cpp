// SPDX-License-Identifier: MIT
// cert_store.cpp: "fetchrig cert list", "install" and "remove", which work on the trusted-CA store.
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <iterator>
#include <memory>
#include <optional>
#include <vector>

#include "cert_answer.h"
#include "cert_options.h"
#include "fetchrig.h"
#include "hashed_directory.h"
#include "pem.h"
#include "report.h"
#include "scratch_copy.h"
#include "silenced_stream.h"

namespace fetchrig::cli {
namespace {

struct store_options {
  cert_options common;
  std::string target;  // a file, or the hash of an installed certificate
  bool prune = false;
};

// True for a name in a directory, also that of a link that leads nowhere,
// and for one in a directory that tells nothing.
bool name_exists(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

// What a listing looks at, and removes when it is no certificate: every name with ".0" in it.
std::vector<std::string> listed_names(const std::string& store) {
  std::vector<std::string> names;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(store, error), end; entry != end; entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if (name.find(".0") != name.npos) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string joined(const std::vector<std::string>& names) {
  std::string all;
  for (const std::string& name : names) all += (all.empty() ? "" : ", ") + printable(name);
  return all;
}

bool holds_no_certificate(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) return errno == ENOENT || errno == ELOOP;  // a link to nothing
  if (!S_ISREG(status.st_mode)) return false;
  dl_ca_info record = {};
  return dl_get_ca_info(scratch_copy(path).path(), &record) != 0;
}

std::vector<std::string> foreign_among(const std::vector<std::string>& names) {
  std::vector<std::string> foreign;
  std::remove_copy_if(names.begin(), names.end(), std::back_inserter(foreign), is_hashed_name);
  return foreign;
}

std::string foreign_words(const std::vector<std::string>& foreign) {
  return "holds names that are no entries of a store: " + joined(foreign);
}

// A directory with other files in it is listed only by somebody who said that they may go.
void refuse_foreign(const std::string& store, const std::vector<std::string>& names) {
  const std::vector<std::string> foreign = foreign_among(names);
  if (foreign.empty()) return;
  std::vector<std::string> doomed;
  std::copy_if(names.begin(), names.end(), std::back_inserter(doomed),
               [&](const std::string& name) { return holds_no_certificate(store + name); });
  forget_log();
  std::string words = foreign_words(foreign);
  if (!doomed.empty()) words += "; --prune lists it all the same, which removes " + joined(doomed);
  throw failed_operation(store, 0, words);
}

std::string opening_trouble(const std::string& store) {
  return access(store.c_str(), R_OK | X_OK) == 0 ? "" : std::string(": ") + strerror(errno);
}

answer list(const store_options& options) {
  const std::string store = options.common.store_dir();
  std::vector<std::string> removed = listed_names(store);
  if (!options.prune) refuse_foreign(store, removed);
  const auto found = std::make_unique<dl_trust_ca_list_ex>();
  dl_result result = {};
  if (dl_get_trust_ca_info_ex(found.get(), &result) != 0) {
    const std::string trouble = opening_trouble(store);
    throw failed_operation(store, result.code, "the store cannot be opened" + trouble);
  }
  std::erase_if(removed, [&](const std::string& name) { return name_exists(store + name); });
  const std::span<const dl_ca_info_ex> certificates(found->entries, found->count);
  const bool cut = dl_last_cause(nullptr) == DL_CAUSE_LIST_FULL;
  answer told;
  told.json = {{"store", store}, {"certificates", nlohmann::ordered_json::array()}, {"more", cut}};
  told.json["removed"] = removed;
  for (const dl_ca_info_ex& info : certificates) {
    told.json["certificates"].push_back(describe_certificate(info, false).json);
  }
  told.text = certificates.empty() ? "no certificates\n" : certificate_table(certificates);
  if (cut) told.text += "The store holds more; only the first 10 are listed.\n";
  for (const std::string& name : removed) {
    told.text += "removed " + printable(name) + ", which held no certificate\n";
  }
  return told;
}

// Every name that an installed CA has.
std::vector<std::string> names_of(const std::string& store, const std::string& hash) {
  return {store + hash + ".0", store + "ca/" + hash + ".0", store + hash, store + "ca/" + hash};
}

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

// What others may read: the certificate without what else the file holds, a private key above all. The library
// judges what holds none.
secret_text public_part(const std::string& path) {
  secret_text content = read_small_file(path);
  unique_x509 certificate = der_certificate(content.bytes());
  if (!certificate) certificate = pem_certificate(content.bytes());
  if (!certificate) return content;
  return secret_text(pem_of(certificate.get()));
}

answer install(const store_options& options) {
  const std::string store = options.common.store_dir();
  // The library converts each such file to PEM, and takes its certificate for an installed one.
  if (const auto foreign = foreign_among(listed_names(store)); !foreign.empty()) {
    throw failed_operation(store, 0, foreign_words(foreign) + "; nothing was installed");
  }
  const scratch_copy file(public_part(options.target));
  dl_ca_info record = {};
  if (dl_get_ca_info(file.path(), &record) != 0) {
    throw failed_operation(options.target, -1, "no certificate can be read");
  }
  const std::string hash = hash_name(record.hash);
  const std::vector<std::string> names = names_of(store, hash);
  std::vector<std::string> free_names;
  std::remove_copy_if(names.begin(), names.end(), std::back_inserter(free_names), name_exists);
  int rc = 0;
  {
    const silenced_stream shell(stderr, options.common.verbosity == 0);
    rc = dl_install_ca(file.path());
  }
  if (rc == -2 || rc == -3) forget_log();  // it tells of other entries
  if (rc == -2) throw failed_operation(options.target, rc, "a CA of this name is installed already");
  if (rc == -3) throw failed_operation(options.target, rc, "a CA of this name is among the factory CAs");
  if (const std::string trouble = opening_trouble(store); rc != 0 && !trouble.empty()) {
    throw failure(rc, printable(store) + ": the store cannot be opened or made" + trouble);
  }
  if (rc != 0) throw failed_operation(options.target, rc, "cannot be installed");
  check_installed(options.target, record.hash, names, free_names);
  const std::string& entry = names.front();
  answer told;
  told.json = {{"hash", hash}, {"subject", record.cn}, {"entry", entry}};
  told.text = "installed " + printable(record.cn) + " as " + printable(entry) + "\n";
  return told;
}

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

// A certificate file outside the store only tells the hash and is itself left alone: the library removes the
// very path that it is given.
std::string hash_of_file(const std::string& path) {
  const scratch_copy file(path);
  dl_ca_info record = {};
  if (dl_get_ca_info(file.path(), &record) != 0)
    throw failed_operation(path, -2, "no certificate can be read");
  return hash_name(record.hash);
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
        (is_entry || !holds_no_certificate(target)) && dl_get_ca_info(target.c_str(), &record) == 0;
    if (!is_entry && !is_certificate) {
      throw failed_operation(target, 0,
                             "neither the name of a store's entry nor a certificate; it is left as it is");
    }
    names.push_back(target);
    if (!is_certificate) return names;
    std::ranges::copy(names_of(store, hash_name(record.hash)), std::back_inserter(names));
  } else {
    const auto hash = name_exists(target) ? hash_of_file(target) : as_hash(target);
    if (!hash) throw failure(0, printable(target) + ": no such file, and not the hash of a certificate");
    names = names_of(store, *hash);
  }
  std::erase_if(names, [](const std::string& name) { return !name_exists(name); });
  return names;
}

answer remove_entry(const store_options& options) {
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

using store_operation = answer (*)(const store_options&);

struct store_command {
  const char* name;
  const char* help;
  const char* target;  // name of the argument, or null
  store_operation run;
};
constexpr store_command store_commands[] = {
    {"list", "List the trusted-CA store; entries that hold no certificate are removed and named", nullptr,
     list},
    {"install", "Install a CA certificate into the store", "FILE", install},
    {"remove", "Remove a CA from the store; a FILE outside the store stays", "FILE-or-HASH", remove_entry},
};

}  // namespace

void add_cert_store(CLI::App& cert, action& chosen) {
  for (const store_command& command : store_commands) {
    const auto options = std::make_shared<store_options>();
    CLI::App* app = cert.add_subcommand(command.name, command.help);
    if (command.target) app->add_option(command.target, options->target)->required();
    if (command.run == list) {
      app->add_flag("--prune", options->prune,
                    "Also in a directory with other names: remove what has \".0\" in its name and is no "
                    "certificate");
    }
    add_store_option(*app, options->common);
    add_json_option(*app, options->common);
    app->callback([options, run = command.run, &chosen] {
      chosen = [options, run] {
        configure(options->common);
        return tell_answer(options->common.json, [&] { return run(*options); });
      };
    });
  }
}

}  // namespace fetchrig::cli
