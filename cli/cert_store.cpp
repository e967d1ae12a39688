// cert_store.cpp: "fetchrig cert list", "install" and "remove", which work on the trusted-CA store.
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <memory>
#include <optional>

#include "cert_answer.h"
#include "cert_options.h"
#include "fetchrig.h"
#include "report.h"
#include "scratch_copy.h"
#include "silenced_stream.h"

namespace fetchrig::cli {
namespace {

struct store_options {
  cert_options common;
  std::string target;  // a file, or the hash of an installed certificate
};

// True for a name in a directory, also that of a link that leads nowhere.
bool name_exists(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0;
}

answer list(const store_options& options) {
  const std::string store = options.common.store_dir();
  const auto found = std::make_unique<dl_trust_ca_list_ex>();
  dl_result result = {};
  if (dl_get_trust_ca_info_ex(found.get(), &result) != 0) {
    throw failed_operation(store, result.code, "the store cannot be opened");
  }
  const std::span<const dl_ca_info_ex> certificates(found->entries, found->count);
  const bool cut = logged_errors().find("number of ca file") != std::string::npos;
  answer told;
  told.json = {{"store", store}, {"certificates", nlohmann::ordered_json::array()}, {"more", cut}};
  for (const dl_ca_info_ex& info : certificates) {
    told.json["certificates"].push_back(describe_certificate(info, false).json);
  }
  told.text = certificates.empty() ? "no certificates\n" : certificate_table(certificates);
  if (cut) told.text += "The store holds more; only the first 10 are listed.\n";
  return told;
}

answer install(const store_options& options) {
  const std::string store = options.common.store_dir();
  const scratch_copy file(options.target);
  int rc = 0;
  {
    const silenced_stream shell(stderr, options.common.verbosity == 0);
    rc = dl_install_ca(file.path());
  }
  if (rc == -2) throw failed_operation(options.target, rc, "a CA of this name is installed already");
  if (rc == -3) throw failed_operation(options.target, rc, "a CA of this name is among the factory CAs");
  if (rc != 0) throw failed_operation(options.target, rc, "cannot be installed");

  // The library does not tell when copying or linking went wrong, so the store is asked.
  dl_ca_info record = {};
  dl_ca_info installed = {};
  dl_get_ca_info(file.path(), &record);
  const std::string entry = store + hash_name(record.hash) + ".0";
  if (dl_get_ca_info(entry.c_str(), &installed) != 0) {
    throw failed_operation(options.target, 0, "the store could not be written");
  }
  answer told;
  told.json = {{"hash", hash_name(record.hash)}, {"subject", record.cn}, {"entry", entry}};
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

// The store's entry for what was typed. The library removes the very path it is given, so a certificate file
// outside the store only tells the hash and is itself left alone.
std::string entry_to_remove(const store_options& options, const std::string& store) {
  const std::string& target = options.target;
  if (name_exists(target)) {
    if (lies_in(target, store)) return target;
    const scratch_copy file(target);
    dl_ca_info record = {};
    if (dl_get_ca_info(file.path(), &record) != 0)
      throw failed_operation(target, -2, "no certificate can be read");
    return store + hash_name(record.hash) + ".0";
  }
  const auto hash = as_hash(target);
  if (!hash) throw failure(0, printable(target) + ": no such file, and not the hash of a certificate");
  return store + *hash + ".0";
}

answer remove_entry(const store_options& options) {
  const std::string store = options.common.store_dir();
  const std::string entry = entry_to_remove(options, store);
  if (!name_exists(entry)) throw failure(0, printable(options.target) + " is not in the store");
  {
    // The library removes every name that the entry may have; the shell complains about those it has not.
    const silenced_stream shell(stderr, options.common.verbosity == 0);
    dl_del_ca(entry.c_str());
  }
  if (name_exists(entry)) throw failed_operation(entry, 0, "could not be removed");
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
    {"list", "List the trusted-CA store; entries that hold no certificate are removed", nullptr, list},
    {"install", "Install a CA certificate into the store", "FILE", install},
    {"remove", "Remove a CA from the store; a FILE outside the store stays", "FILE-or-HASH", remove_entry},
};

}  // namespace

void add_cert_store(CLI::App& cert, action& chosen) {
  for (const store_command& command : store_commands) {
    const auto options = std::make_shared<store_options>();
    CLI::App* app = cert.add_subcommand(command.name, command.help);
    if (command.target) app->add_option(command.target, options->target)->required();
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
