// SPDX-License-Identifier: MIT
// cert_store.cpp: "fetchrig cert list", and the head of what works on the trusted-CA store.
#include "cert_store.h"

#include <errno.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iterator>
#include <memory>
#include <vector>

#include "fetchrig.h"
#include "report.h"
#include "scratch_copy.h"
#include "store_entries.h"

namespace fetchrig::cli {
namespace {

bool holds_no_certificate(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) return errno == ENOENT || errno == ELOOP;  // a link to nothing
  if (!S_ISREG(status.st_mode)) return false;
  dl_ca_info record = {};
  return dl_get_ca_info(scratch_copy(path).path(), &record) != 0;
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

// Has the library look at the store, which removes what is no certificate, and returns what it removed.
std::vector<std::string> pruned(const std::string& store) {
  std::vector<std::string> names = listed_names(store);
  const auto found = std::make_unique<dl_trust_ca_list_ex>();
  dl_result result = {};
  if (dl_get_trust_ca_info_ex(found.get(), &result) != 0) {
    const std::string trouble = opening_trouble(store);
    throw failed_operation(store, result.code, "the store cannot be opened" + trouble);
  }
  std::erase_if(names, [&](const std::string& name) { return name_exists(store + name); });
  return names;
}

// The library's list ends after ten; the certificates themselves are read here.
std::vector<listed_certificate> certificates_in(const std::string& store) {
  std::vector<listed_certificate> found;
  for (const std::string& name : listed_names(store)) {
    const std::string path = store + name;
    dl_ca_info_ex info = {};
    dl_result result = {};
    if (holds_no_certificate(path)) continue;
    const scratch_copy file(path);
    if (dl_get_ca_info_ex(file.path(), &info, 0, &result) != 0) continue;
    found.push_back({describe_certificate(info, file.path(), false).json, link_kind(store, name)});
  }
  return found;
}

struct store_command {
  const char* name;
  const char* help;
  const char* target;  // name of the argument, or null
  answer (*run)(const store_options&);
};
constexpr store_command store_commands[] = {
    {"list", "List the trusted-CA store; entries that hold no certificate are removed and named", nullptr,
     list_store},
    {"install", "Install the CA certificates of a file into the store", "FILE", install_cas},
    {"remove", "Remove a CA from the store; a FILE outside the store stays", "FILE-or-HASH-or-NAME",
     remove_ca},
};

void add_options(CLI::App& app, const store_command& command, store_options& options) {
  if (command.target) app.add_option(command.target, options.target)->required();
  if (command.run == list_store) {
    app.add_flag("--prune", options.prune,
                 "Also in a directory with other names: remove what has \".0\" in its name and is no "
                 "certificate");
  }
  if (command.run != remove_ca) {
    app.add_flag("--relocatable", options.relocatable,
                 "Make the store's links relative, so that it can be copied");
  }
  add_store_option(app, options.common);
  add_json_option(app, options.common);
}

}  // namespace

answer list_store(const store_options& options) {
  const std::string store = options.common.store_dir();
  if (!options.prune) refuse_foreign(store, listed_names(store));
  if (options.relocatable) make_relocatable(store);
  const std::vector<std::string> removed = pruned(store);
  const std::vector<listed_certificate> certificates = certificates_in(store);
  answer told;
  told.json = {{"store", store}, {"certificates", nlohmann::ordered_json::array()}, {"removed", removed}};
  for (const listed_certificate& each : certificates) {
    told.json["certificates"].push_back(each.json);
    told.json["certificates"].back()["links"] = each.links;
  }
  told.text = certificates.empty() ? "no certificates\n" : certificate_table(certificates);
  for (const std::string& name : removed) {
    told.text += "removed " + printable(name) + ", which held no certificate\n";
  }
  return told;
}

void add_cert_store(CLI::App& cert, action& chosen) {
  for (const store_command& command : store_commands) {
    const auto options = std::make_shared<store_options>();
    CLI::App* app = cert.add_subcommand(command.name, command.help);
    add_options(*app, command, *options);
    app->callback([options, run = command.run, &chosen] {
      chosen = [options, run] {
        configure(options->common);
        return tell_answer(options->common.json, [&] { return run(*options); });
      };
    });
  }
}

}  // namespace fetchrig::cli
