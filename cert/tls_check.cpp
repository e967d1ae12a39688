// SPDX-License-Identifier: MIT
// tls_check.cpp: loads a certificate file into a TLS context, step by step.
#include "cert/tls_check.h"

#include "cert/cert_file.h"
#include "cert/tls_context.h"
#include "log/log.h"

namespace fetchrig {
namespace {

tls_file_check load_file(SSL_CTX* context, const small_file& file) {
  if (!add_ca_certificates(SSL_CTX_get_cert_store(context), file.stream().get())) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "Can't open ca file ser_ca_file\n");
    return tls_file_check::no_ca_file;
  }
  if (!use_certificate(context, file)) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "Can't load public key from ser_ca_file\n");
    return tls_file_check::no_certificate;
  }
  const unique_pkey key = read_key(file);
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
  if (!is_tls_method(method)) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "Wrong method");
    return tls_file_check::wrong_method;
  }
  const unique_ssl_ctx context = new_tls_context(TLS_method(), method);
  if (!context) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "SSL_CTX_new error\n");
    return tls_file_check::no_context;
  }
  SSL_CTX_set_security_level(context.get(),
                             0);  // certificates are judged elsewhere, whatever their signature
  set_pass_phrase(context.get());
  return load_file(context.get(), file);
}

}  // namespace fetchrig
