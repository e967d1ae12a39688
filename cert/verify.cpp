// SPDX-License-Identifier: MIT
// verify.cpp: verifies certificate files.
#include "cert/verify.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <string_view>

#include "cert/asn1_text.h"
#include "cert/cert_file.h"
#include "cert/error_queue.h"
#include "cert/tls_check.h"
#include "cert/verify_problems.h"
#include "core/ca_directory.h"
#include "core/config.h"
#include "core/openssl_owners.h"
#include "core/result.h"
#include "core/text.h"
#include "log/log.h"
#include "log/printable.h"

namespace fetchrig {
namespace {

constexpr uint32_t flag_advance_check = 1;
constexpr std::size_t max_subject_len = 255;  // of a subject in the log

// Problems that do not make a certificate untrusted here.
constexpr int tolerated_errors[] = {
    X509_V_ERR_CRL_NOT_YET_VALID,
    X509_V_ERR_CRL_HAS_EXPIRED,
    X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT,
    X509_V_ERR_INVALID_CA,
    X509_V_ERR_PATH_LENGTH_EXCEEDED,
    X509_V_ERR_INVALID_PURPOSE,
    X509_V_ERR_UNHANDLED_CRITICAL_EXTENSION,
};

struct error_code {
  int error;
  dl_cert_verify_code code;
};

constexpr error_code error_codes[] = {
    {X509_V_ERR_CERT_SIGNATURE_FAILURE, DL_VERIFY_SIGNATURE},
    {X509_V_ERR_CERT_NOT_YET_VALID, DL_VERIFY_NOT_YET_VALID},
    {X509_V_ERR_CERT_HAS_EXPIRED, DL_VERIFY_EXPIRED},
    {X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, DL_VERIFY_UNKNOWN_ISSUER},
    {X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE, DL_VERIFY_UNKNOWN_ISSUER},
};

// OpenSSL's verdict on the certificate.
struct verdict {
  bool verified = false;
  int error = X509_V_OK;  // why not, when a verification has said so
};

// The advance check: 0, or -1 with the record filled.
int check_in_advance(dl_result& result, const char* path) {
  log_line(DL_LOG_CMN, DL_LOG_INFO, "verify advance\n");
  switch (check_tls_file(small_file(path), ssl_method())) {
    case tls_file_check::fine:
      return 0;
    case tls_file_check::wrong_method:
      return fail_with_text(&result, DL_VERIFY_METHOD, "");
    case tls_file_check::no_context:
    case tls_file_check::no_ca_file:
      return fail_with_text(&result, DL_VERIFY_SETUP, "");
    case tls_file_check::no_certificate:
      return fail_with_text(&result, DL_VERIFY_NO_CERTIFICATE, "Can't load public key\n");
    case tls_file_check::no_key:
      return fail_with_text(&result, DL_VERIFY_NO_KEY, "Can't load private key");
    case tls_file_check::key_mismatch:
      return fail_with_text(&result, DL_VERIFY_KEY_MISMATCH, "Private key does not match");
  }
  return -1;
}

// The file, with the reason in OpenSSL's queue when it cannot be read, as OpenSSL's own readers leave it.
cert_source open_source(const char* path) {
  cert_source source(path);
  if (!source.stream) ERR_raise_data(ERR_LIB_SYS, source.error, "reading %s", path);
  return source;
}

// OpenSSL's default place of CAs, which its own variable overrides.
const char* default_place(const char* variable, const char* built_in) {
  const char* chosen = ::secure_getenv(variable);
  return chosen ? chosen : built_in;
}

// Without a CA file OpenSSL's default one is used, if there is one.
bool add_ca_file(X509_STORE* store, const char* ca_file) {
  const char* path =
      ca_file ? ca_file : default_place(X509_get_default_cert_file_env(), X509_get_default_cert_file());
  if (add_ca_certificates(store, open_source(path).stream.get()) || !ca_file) return true;
  fprintf(stderr, "Error loading file %s\n", ca_file);
  print_error_queue();
  return false;
}

bool add_ca_directory(X509_STORE* store, const char* ca_dir) {
  X509_LOOKUP* lookup = add_ca_lookup(store);
  if (!lookup) return false;
  const char* path =
      ca_dir ? ca_dir : default_place(X509_get_default_cert_dir_env(), X509_get_default_cert_dir());
  if (add_ca_directories(lookup, path) || !ca_dir) return true;
  fprintf(stderr, "Error loading directory %s\n", ca_dir);
  print_error_queue();
  return false;
}

unique_x509_store make_store(const char* ca_dir, const char* ca_file) {
  unique_x509_store store(X509_STORE_new());
  if (!store) return nullptr;
  X509_STORE_set_verify_cb(store.get(), on_verification);
  if (!add_ca_file(store.get(), ca_file)) return nullptr;
  if (!add_ca_directory(store.get(), ca_dir)) return nullptr;
  return store;
}

unique_x509 read_certificate(const char* path) {
  const cert_source source = open_source(path);
  if (!source.stream) log_line(DL_LOG_CMN, DL_LOG_ERROR, "Bio_new_file error ca_file\n");
  unique_x509 certificate = source.certificate();
  if (!certificate) print_error_queue();
  return certificate;
}

// OpenSSL's library defaults decide: no purpose, depth, trust setting or revocation check of ours.
verdict verify(X509_STORE* store, X509* certificate) {
  const unique_x509_store_ctx context(X509_STORE_CTX_new());
  X509_STORE_set_flags(store, 0);
  if (!context || X509_STORE_CTX_init(context.get(), store, certificate, nullptr) != 1) {
    print_error_queue();
    return {};
  }
  const int answer = X509_verify_cert(context.get());
  if (answer > 0) {
    log_line(DL_LOG_CMN, DL_LOG_INFO, "OK\n");
    return {true, X509_V_OK};
  }
  print_error_queue();
  return {false, answer == 0 ? X509_STORE_CTX_get_error(context.get()) : X509_V_OK};
}

int fail_verification(dl_result& result, int error) {
  char message[sizeof result.message];
  snprintf(message, sizeof message, "verify err:%s",
           error == X509_V_OK ? "" : X509_verify_cert_error_string(error));
  return fail_with_text(&result, verify_code(error), message);
}

int verify_file(dl_result& result, const char* path, const char* ca_dir, const char* ca_file) {
  ERR_clear_error();
  const unique_x509_store store = make_store(ca_dir, ca_file);
  if (!store) return fail_with_text(&result, DL_VERIFY_SETUP, "");
  const unique_x509 certificate = read_certificate(path);
  if (!certificate) return fail_verification(result, X509_V_OK);
  fprintf(stdout, "%s: ", path);
  const verdict found = verify(store.get(), certificate.get());
  return found.verified ? 0 : fail_verification(result, found.error);
}

}  // namespace

dl_cert_verify_code verify_code(int error) {
  const auto* end = std::end(error_codes);
  const auto* found = std::find_if(std::begin(error_codes), end,
                                   [error](const error_code& entry) { return entry.error == error; });
  return found == end ? DL_VERIFY_OTHER : found->code;
}

int on_verification(int ok, X509_STORE_CTX* context) {
  if (ok) return ok;
  const X509* certificate = X509_STORE_CTX_get_current_cert(context);
  const unique_openssl_text subject(
      certificate ? X509_NAME_oneline(X509_get_subject_name(certificate), nullptr, 0) : nullptr);
  const std::string_view shown = or_empty(subject.get()).substr(0, max_subject_len);
  log_line(DL_LOG_CMN, DL_LOG_NOTICE, "%s\n", printable(shown).c_str());
  const int error = X509_STORE_CTX_get_error(context);
  note_verify_problem(error);
  log_line(DL_LOG_CMN, DL_LOG_NOTICE, "verify cb error %d at %d depth lookup:%s\n", error,
           X509_STORE_CTX_get_error_depth(context), X509_verify_cert_error_string(error));
  const auto* end = std::end(tolerated_errors);
  return std::find(std::begin(tolerated_errors), end, error) != end ? 1 : 0;
}

int verify_certificate(dl_result& result, const char* path, const char* ca_dir, const char* ca_file,
                       uint32_t flags) {
  clear_result(result);
  if (SSL_library_init() != 1) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "SSL_library_init error\n");
    return fail_with_text(&result, DL_VERIFY_SETUP, "");
  }
  if ((flags & flag_advance_check) && check_in_advance(result, path) != 0) return -1;
  return verify_file(result, path, ca_dir, ca_file);
}

}  // namespace fetchrig
