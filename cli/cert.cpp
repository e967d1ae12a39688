// SPDX-License-Identifier: MIT
// cert.cpp: "fetchrig cert", the head of the certificate subcommands and their common options.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <system_error>

#include "cert_options.h"
#include "fetchrig.h"
#include "options.h"
#include "report.h"

namespace fetchrig::cli {

std::string cert_options::store_dir() const {
  if (store.empty()) throw usage_error("name the store with --store DIR or FETCHRIG_STORE");
  // Absolute, because the store's links carry the path they are made with.
  std::error_code error;
  const std::string dir = std::filesystem::absolute(store, error).string();
  return dir.back() == '/' ? dir : dir + "/";
}

const std::string& cert_options::device_cert_file() const {
  if (device_cert.empty()) throw usage_error("name the file with --device-cert FILE or FETCHRIG_DEVICE_CERT");
  return device_cert;
}

std::string cert_options::device_cert_path() const {
  const auto slashes = std::count(device_cert.begin(), device_cert.end(), '/');
  if (device_cert.empty() || device_cert.front() == '/' || slashes > 1) return device_cert;
  if (slashes == 1) return "./" + device_cert;
  std::error_code error;
  return std::filesystem::absolute(device_cert, error).string();
}

void add_json_option(CLI::App& app, cert_options& options) {
  app.add_flag("--json", options.json, "Answer in JSON");
  add_verbosity(app, options.verbosity);
}

void add_store_option(CLI::App& app, cert_options& options) {
  app.add_option("--store", options.store, "Directory of the trusted-CA store")
      ->envname("FETCHRIG_STORE")
      ->type_name("DIR");
}

void add_device_option(CLI::App& app, cert_options& options) {
  app.add_option("--device-cert", options.device_cert,
                 "The device certificate file, such as certs/server/WebServer.pem; "
                 "for install-part the path up to its first \"server\" must be a directory")
      ->envname("FETCHRIG_DEVICE_CERT")
      ->type_name("FILE");
}

void configure(const cert_options& options) {
  start_log(options.verbosity);
  set_number_option(DL_OPT_SSL_METHOD, 3);
  if (!options.store.empty()) set_text_option(DL_OPT_TRUST_CA_DIR, options.store_dir());
  if (!options.device_cert.empty()) set_text_option(DL_OPT_DEVICE_CERT_FILE, options.device_cert_path());
  take_key_passphrase();
}

void add_cert(CLI::App& app, action& chosen) {
  CLI::App* cert = app.add_subcommand("cert", "Show, verify, issue, install and remove certificates");
  cert->require_subcommand(1);
  add_cert_files(*cert, chosen);
  add_cert_generate(*cert, chosen);
  add_cert_store(*cert, chosen);
  add_cert_device(*cert, chosen);
}

}  // namespace fetchrig::cli
