// tls_check.cpp: loads a certificate file into a TLS context, step by step.
#include "cert/tls_check.h"

#include <openssl/pem.h>
#include <openssl/ssl.h>

#include "cert/cert_file.h"
#include "core/openssl_owners.h"
#include "include/fetchrig_openssl.h"
#include "log/log.h"

namespace fetchrig {
namespace {

// Numbers of option 3.
constexpr int method_tls1 = 0;
constexpr int method_ssl3 = 2;
constexpr int method_any = 3;

// A context for one of option 3's methods. OpenSSL 3 has neither SSL 2.0 nor SSL 3.0; TLS 1.0 is pinned by
// version.
unique_ssl_ctx make_context(int method) {
  if (method > method_tls1 && method <= method_ssl3) return nullptr;
  unique_ssl_ctx context(SSL_CTX_new(TLS_method()));
  if (!context) return nullptr;
  SSL_CTX_set_security_level(context.get(), 0);
  SSL_CTX_set_default_passwd_cb(context.get(), password_cb);
  if (method == method_tls1 && (SSL_CTX_set_min_proto_version(context.get(), TLS1_VERSION) != 1 ||
                                SSL_CTX_set_max_proto_version(context.get(), TLS1_VERSION) != 1)) {
    return nullptr;
  }
  return context;
}

// Takes the certificate that the PEM text has first.
bool use_certificate(SSL_CTX* context, BIO* bio) {
  const unique_x509 certificate(bio ? PEM_read_bio_X509(bio, nullptr, password_cb, nullptr) : nullptr);
  return certificate && SSL_CTX_use_certificate(context, certificate.get()) == 1;
}

tls_file_check load_file(SSL_CTX* context, const small_file& file) {
  if (!add_ca_certificates(SSL_CTX_get_cert_store(context), file.stream().get())) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "Can't open ca file ser_ca_file\n");
    return tls_file_check::no_ca_file;
  }
  if (!use_certificate(context, file.stream().get())) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "Can't load public key from ser_ca_file\n");
    return tls_file_check::no_certificate;
  }
  // The context's own key loader refuses a mismatch itself and would hide it behind "no key".
  const unique_pkey key(load_key_bio(encoding_pem, file.stream().get()));
  if (!key) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "Can't load private key from ser_ca_file");
    return tls_file_check::no_key;
  }
  if (X509_check_private_key(SSL_CTX_get0_certificate(context), key.get()) != 1) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "Private key does not match the certificate public key\n");
    return tls_file_check::key_mismatch;
  }
  return tls_file_check::fine;
}

}  // namespace

tls_file_check check_tls_file(const small_file& file, int method) {
  if (method < method_tls1 || method > method_any) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "Wrong method");
    return tls_file_check::wrong_method;
  }
  const unique_ssl_ctx context = make_context(method);
  if (!context) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "SSL_CTX_new error\n");
    return tls_file_check::no_context;
  }
  return load_file(context.get(), file);
}

}  // namespace fetchrig
