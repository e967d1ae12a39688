// SPDX-License-Identifier: MIT
// cert_generate.cpp: "fetchrig cert generate", which issues a client certificate. The library's generator
// makes keys that can be computed from the certificate; here a key is random unless a seed is given.
#include <linux/magic.h>
#include <openssl/objects.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <memory>
#include <system_error>
#include <vector>

#include "cert_answer.h"
#include "cert_options.h"
#include "client_key.h"
#include "fetchrig_openssl.h"
#include "options.h"
#include "report.h"

namespace fetchrig::cli {
namespace {

struct generate_options {
  cert_options common;
  std::string ca, ca_key, key, cert, subject, seed;
  int bits = 2048;
};

constexpr const char* nature =
    "Such a certificate is signed with MD5 and valid from 1 March 2014 to 24 February 2034, whatever the "
    "date;\n"
    "many programs refuse it. The CA must have an RSA key without a pass phrase. The subject must start "
    "with\n"
    "\"/\" and be ASCII.\n"
    "A key made from a seed can be computed by anyone who has the certificate: it is for provisioning tests "
    "and\n"
    "old systems only. Without a seed the key is random.\n"
    "The certificate file holds the key too, without encryption even where the key file is encrypted.";

bool same_file(const std::string& path, const std::string& other) {
  struct stat status, other_status;
  return stat(path.c_str(), &status) == 0 && stat(other.c_str(), &other_status) == 0 &&
         status.st_dev == other_status.st_dev && status.st_ino == other_status.st_ino;
}

// Whether the name leads through a descriptor of a process, as /dev/stdout does, whatever is behind it.
bool names_descriptor(std::filesystem::path path) {
  constexpr int max_links = 40;
  std::error_code error;
  for (int links = 0; links < max_links; ++links) {
    const std::filesystem::path folder = path.has_parent_path() ? path.parent_path() : ".";
    struct statfs system;
    if (statfs(folder.c_str(), &system) == 0 && system.f_type == PROC_SUPER_MAGIC) return true;
    const std::filesystem::path target = std::filesystem::read_symlink(path, error);
    if (error) return false;
    path = folder / target;
  }
  return true;
}

// An output file must be a regular one, or not there yet.
void check_output(const std::string& path) {
  struct stat status;
  if (names_descriptor(path)) {
    throw failure(-1, printable(path) + " is a descriptor; a certificate and a key want files of their own");
  }
  if (stat(path.c_str(), &status) == 0) {
    if (!S_ISREG(status.st_mode)) throw failure(-1, printable(path) + " is not a regular file");
  } else if (lstat(path.c_str(), &status) == 0) {
    throw failure(-1, printable(path) + " is a link that leads nowhere");
  }
}

// Nothing that is needed, or cannot be had again, is written over.
void check_files(const generate_options& options) {
  for (const std::string& path : {options.key, options.cert}) {
    check_output(path);
    for (const std::string& issuer : {options.ca, options.ca_key}) {
      if (same_file(path, issuer)) throw failure(-1, printable(path) + " belongs to the CA");
    }
  }
  std::error_code error;
  const auto absolute = [&](const std::string& path) {
    return std::filesystem::weakly_canonical(std::filesystem::absolute(path, error), error);
  };
  if (same_file(options.key, options.cert) || absolute(options.key) == absolute(options.cert)) {
    throw failure(-1, "--key and --cert name the same file");
  }
  if (const std::string why = why_irreplaceable(options.cert); !why.empty()) {
    throw failure(-1, printable(options.cert) + ": " + why + "; the file is left as it is");
  }
}

struct subject_part {
  std::string type, value;
};

// The parts of a text that the library's own reader takes: "/TYPE=VALUE/TYPE=VALUE",
// "\\" before what is meant as it stands.
std::vector<subject_part> parts_of(const std::string& subject) {
  std::vector<subject_part> parts;
  std::string* piece = nullptr;
  for (std::size_t i = 0; i < subject.size(); ++i) {
    const char c = subject[i];
    const bool in_type = piece && piece == &parts.back().type;
    if (!piece || (!in_type && c == '/')) {
      piece = &parts.emplace_back().type;
    } else if (in_type && c == '=') {
      piece = &parts.back().value;
    } else {
      piece->push_back(c == '\\' && i + 1 < subject.size() ? subject[++i] : c);
    }
  }
  if (!parts.empty() && parts.back().type.empty() && parts.back().value.empty()) parts.pop_back();
  return parts;
}

// The library leaves out what it does not know, and says of a value of the wrong length that it is no subject.
void check_part(const std::string& subject, const subject_part& part) {
  const int nid = OBJ_txt2nid(part.type.c_str());
  const std::string type = printable(part.type);
  if (nid == NID_undef) throw failed_operation(subject, -1, "\"" + type + "\" is no type of a subject");
  if (part.value.empty()) throw failed_operation(subject, -1, type + " has no value");
  const ASN1_STRING_TABLE* limits = ASN1_STRING_TABLE_get(nid);
  if (!limits) return;
  const long length = static_cast<long>(part.value.size());
  if (length >= limits->minsize && (limits->maxsize < 0 || length <= limits->maxsize)) return;
  throw failed_operation(subject, -1,
                         type + " has " + std::to_string(length) + " characters, and takes " +
                             std::to_string(std::max(limits->minsize, 1L)) + " to " +
                             std::to_string(limits->maxsize));
}

// Refuses what the library would refuse, or leave out, without a word.
void check_subject(const std::string& subject) {
  const auto is_ascii = [](char c) { return static_cast<unsigned char>(c) < 0x80; };
  if (!subject.starts_with('/')) throw failed_operation(subject, -1, "the subject must start with \"/\"");
  if (!std::all_of(subject.begin(), subject.end(), is_ascii)) {
    throw failed_operation(subject, -1, "the subject must be ASCII");
  }
  using unique_name = std::unique_ptr<X509_NAME, openssl_free<X509_NAME_free>>;
  const unique_name name(do_subject(subject.c_str(), MBSTRING_ASC));
  const bool ends_early = subject.ends_with('=') || subject.find('=') == subject.npos;
  if (!ends_early)
    std::ranges::for_each(parts_of(subject), [&](const auto& part) { check_part(subject, part); });
  if (name) return;
  throw failed_operation(subject, -1, "the subject is not of the form /TYPE=VALUE/TYPE=VALUE");
}

void check_ca_key(const std::string& path) {
  const secret_text content = read_small_file(path);
  const unique_pkey key = pem_key(content.bytes(), passphrase::none);
  if (!key) throw failed_operation(path, -1, "the CA's key must be in PEM, without a pass phrase");
  if (!EVP_PKEY_is_a(key.get(), "RSA")) {
    throw failed_operation(path, -1, "the CA's key must be an RSA key, for the signature with MD5");
  }
}

// The call succeeds also when it could not write a file.
void check_written(const generate_options& options, const client_key& key) {
  if (dl_last_cause(nullptr) == DL_CAUSE_LOCAL_FILE)
    throw failed_operation(options.cert, 0, "not everything could be written");
  if (!key.belongs_to(options.cert)) {
    throw failed_operation(options.cert, 0,
                           "the certificate and " + printable(options.key) + " do not agree");
  }
}

answer generate(const generate_options& options) {
  check_subject(options.subject);
  check_files(options);
  check_ca_key(options.ca_key);
  set_text_option(DL_OPT_KEY_SEED, options.seed);
  client_key key(options.key);
  if (!key.found() && options.seed.empty()) key.make_random(options.bits);
  if (!key.found() && !options.seed.empty()) {
    tell(
        "warning: anyone can compute a key made from a seed; it is for provisioning tests and old systems "
        "only");
  }
  forget_log();
  if (dl_generate_client_cert(options.ca.c_str(), options.ca_key.c_str(), key.library_path(),
                              options.cert.c_str(), options.subject.c_str(), options.bits) != 0) {
    throw failed_operation(options.subject, -1, "no certificate was issued");
  }
  check_written(options, key);
  key.keep();
  dl_ca_info_ex record = {};
  dl_result result = {};
  if (dl_get_ca_info_ex(options.cert.c_str(), &record, 1, &result) != 0) {
    throw failed_operation(options.cert, result.code, "the new certificate cannot be read back");
  }
  answer told = describe_certificate(record, options.cert, true);
  told.json["file"] = options.cert;
  told.json["key_file"] = options.key;
  told.json["key_generated"] = !key.found();
  return told;
}

}  // namespace

void add_cert_generate(CLI::App& cert, action& chosen) {
  const auto options = std::make_shared<generate_options>();
  CLI::App* app = cert.add_subcommand("generate", "Issue a client certificate signed by a CA of yours");
  app->add_option("--ca", options->ca, "CA certificate (PEM or DER)")->required()->check(CLI::ExistingFile);
  app->add_option("--ca-key", options->ca_key, "Its private key (RSA, PEM)")
      ->required()
      ->check(CLI::ExistingFile);
  app->add_option("--key", options->key, "RSA key of the client; a random one is made when there is no file")
      ->required();
  app->add_option("--cert", options->cert, "File for the new certificate and its key")->required();
  app->add_option("--subject", options->subject, "Such as /O=Acme/CN=0011AB")->required();
  app->add_option("--bits", options->bits, "Length of a new RSA key")
      ->check(CLI::Range(1024, 16384))
      ->capture_default_str();
  app->add_option("--seed", options->seed,
                  "Make the key from this text and the common name instead; 16 characters count")
      ->envname("FETCHRIG_KEY_SEED");
  app->footer(nature);
  add_json_option(*app, options->common);
  app->callback([options, &chosen] {
    chosen = [options] {
      configure(options->common);
      return tell_answer(options->common.json, [&] { return generate(*options); });
    };
  });
}

}  // namespace fetchrig::cli
