// SPDX-License-Identifier: MIT
// cert_files.cpp: "fetchrig cert info" and "verify", which work on single certificate files.
#include <errno.h>
#include <openssl/x509.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <sstream>
#include <vector>

#include "cert_answer.h"
#include "cert_options.h"
#include "fetchrig.h"
#include "hashed_directory.h"
#include "pem.h"
#include "report.h"
#include "scratch_copy.h"
#include "silenced_stream.h"
#include "temporary_path.h"

namespace fetchrig::cli {
namespace {

struct info_options {
  cert_options common;
  std::string file;
  bool key = false;
};

answer info(const info_options& options) {
  const scratch_copy file(options.file);
  dl_ca_info_ex record = {};
  dl_result result = {};
  if (dl_get_ca_info_ex(file.path(), &record, options.key ? 1 : 0, &result) != 0) {
    throw failed_operation(options.file, result.code, "no certificate can be read");
  }
  answer told = describe_certificate(record, file.path(), options.key);
  told.json["file"] = options.file;
  const std::size_t number = pem_certificates(read_small_file(file.path()).bytes()).size();
  if (number > 1) {
    told.json["certificates_in_file"] = number;
    told.text += "in the file:  the first of " + std::to_string(number) + " certificates\n";
  }
  return told;
}

struct verify_options {
  cert_options common;
  std::string file;
  std::string ca_dir;
  std::string ca_file;
  bool with_key = false;
  bool strict = false;
};

// OpenSSL takes a CA directory that is missing for an empty one, and tells of a missing CA file no more than
// that it cannot be loaded.
void check_readable(const std::string& path) {
  if (access(path.c_str(), R_OK) == 0) return;
  throw failure(DL_VERIFY_SETUP, printable(path) + ": " + strerror(errno));
}

// The parts of a list, as OpenSSL takes it.
std::vector<std::string> directories_in(const std::string& list) {
  std::vector<std::string> directories;
  std::istringstream rest(list);
  for (std::string directory; std::getline(rest, directory, ':');) directories.push_back(directory);
  return directories;
}

void check_places(const verify_options& options) {
  if (!options.ca_file.empty()) check_readable(options.ca_file);
  for (const std::string& directory : directories_in(options.ca_dir)) check_readable(directory);
}

// Why an issuer may not have been found.
std::string issuer_remark(const verify_options& options) {
  for (const std::string& directory : directories_in(options.ca_dir)) {
    if (std::string fault = hashed_directory_fault(directory); !fault.empty()) return fault;
  }
  return "";
}

std::string verification_words(const dl_result& result) {
  constexpr const char* words[] = {
      "",
      "no certificate file was named",
      "the CA file, the CA directory or the certificate cannot be loaded",
      "its signature is wrong",
      "it is not valid yet",
      "it has expired",
      "its issuer is not among the trusted CAs",
      "the TLS method is unknown",
      "the file holds no certificate",
      "the file holds no private key that can be loaded",
      "the private key does not belong to the certificate",
      "it does not verify, or no certificate can be read",
  };
  constexpr std::string_view prefix = "verify err:";
  const bool known = result.code > 0 && result.code < static_cast<int>(std::size(words));
  std::string text = known ? words[result.code] : "it does not verify";
  const std::string_view message = result.message;
  if (message.size() > prefix.size() && message.starts_with(prefix)) {
    text += " (" + printable(message.substr(prefix.size())) + ")";
  }
  return text;
}

// The problems that the verification met, let pass or not.
std::vector<std::string> verification_remarks() {
  std::array<std::int32_t, DL_MAX_VERIFY_PROBLEMS> numbers = {};
  const int count = dl_cert_verify_problems(numbers.data(), static_cast<int>(numbers.size()));
  std::vector<std::string> remarks;
  for (const std::int32_t number : std::span(numbers).first(static_cast<std::size_t>(count))) {
    remarks.emplace_back(X509_verify_cert_error_string(number));
  }
  return remarks;
}

nlohmann::ordered_json verification_json(const verify_options& options, bool verified) {
  const std::vector<std::string> let_pass = verification_remarks();
  return {{"file", options.file},
          {"verified", verified},
          {"trusted", verified && let_pass.empty()},
          {"remarks", let_pass}};
}

answer refusal(const verify_options& options, const failure& why) {
  answer told;
  told.json = verification_json(options, false);
  told.json["code"] = why.code();
  told.json["message"] = why.what();
  told.status = exit_failed;
  tell(why.what());
  return told;
}

// What dl_cert_verify is to take. Where nothing is named it takes OpenSSL's default place, which is wanted only
// when neither a directory nor a file is named.
class trusted_places {
 public:
  explicit trusted_places(const verify_options& options)
      : directory_(options.ca_dir), file_(options.ca_file) {
    if (directory_.empty() && !file_.empty()) directory_ = empty_.emplace().path();
    const bool default_file = file_.empty() && !directory_.empty();
    if (default_file && setenv(X509_get_default_cert_file_env(), "/dev/null", 1) != 0) throw std::bad_alloc();
  }
  const char* directory() const { return directory_.empty() ? nullptr : directory_.c_str(); }
  const char* file() const { return file_.empty() ? nullptr : file_.c_str(); }

 private:
  std::optional<private_directory> empty_;
  std::string directory_, file_;
};

answer verify(const verify_options& options) {
  check_places(options);
  read_small_file(options.file);  // what is missing or no file at all is told as that
  const trusted_places places(options);
  dl_result result = {};
  int rc = 0;
  {
    // The library writes the path to standard output and OpenSSL's diagnostics to standard error.
    const silenced_stream out(stdout, true);
    const silenced_stream diagnostics(stderr, options.common.verbosity == 0);
    rc = dl_cert_verify(options.file.c_str(), places.directory(), places.file(), options.with_key ? 1 : 0,
                        &result);
  }
  if (rc != 0) {
    std::string words = verification_words(result);
    const std::string locked = result.code == DL_VERIFY_NO_KEY ? locked_key_words_of_file(options.file) : "";
    if (!locked.empty()) words = locked;
    if (result.code == DL_VERIFY_UNKNOWN_ISSUER) words += issuer_remark(options);
    return refusal(options, failed_operation(options.file, result.code, words));
  }
  const std::vector<std::string> let_pass = verification_remarks();
  if (options.strict && !let_pass.empty()) {
    return refusal(options, failure(0, printable(options.file) + ": not trusted: " + let_pass.front()));
  }
  answer told;
  told.json = verification_json(options, true);
  told.text = printable(options.file) + ": verified\n";
  for (const std::string& remark : let_pass) told.text += "  let pass: " + remark + "\n";
  return told;
}

void add_info(CLI::App& cert, action& chosen) {
  const auto options = std::make_shared<info_options>();
  CLI::App* app = cert.add_subcommand("info", "Describe a certificate file (PEM or DER)");
  app->add_option("FILE", options->file, "The certificate file")->required();
  app->add_flag("--key", options->key, "Also describe the private key that follows the certificate");
  add_json_option(*app, options->common);
  app->callback([options, &chosen] {
    chosen = [options] {
      configure(options->common);
      return tell_answer(options->common.json, [&] { return info(*options); });
    };
  });
}

void add_verify(CLI::App& cert, action& chosen) {
  const auto options = std::make_shared<verify_options>();
  CLI::App* app = cert.add_subcommand("verify", "Tell whether a certificate file would be trusted");
  app->add_option("FILE", options->file, "The certificate file (PEM or DER)")->required();
  app->add_option("--ca-dir", options->ca_dir, "Hashed directory of trusted CAs, in place of the system's");
  app->add_option("--ca-file", options->ca_file, "PEM file of trusted CAs, in place of the system's");
  app->add_flag("--with-key", options->with_key, "Require the matching private key in the file");
  app->add_flag("--strict", options->strict,
                "Fail what is only let pass, such as a stranger's own signature");
  add_json_option(*app, options->common);
  app->callback([options, &chosen] {
    chosen = [options] {
      configure(options->common);
      return tell_answer(options->common.json, [&] { return verify(*options); });
    };
  });
}

}  // namespace

void add_cert_files(CLI::App& cert, action& chosen) {
  add_info(cert, chosen);
  add_verify(cert, chosen);
}

}  // namespace fetchrig::cli
