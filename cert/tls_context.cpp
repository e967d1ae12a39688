// SPDX-License-Identifier: MIT
// tls_context.cpp: methods, certificates and keys for TLS contexts.
#include "cert/tls_context.h"

#include <openssl/pem.h>

#include "cert/cert_file.h"
#include "cert/passphrase.h"

namespace fetchrig {
namespace {

bool pin_tls_1_0(SSL_CTX* context) {
  SSL_CTX_set_security_level(context, 0);
  return SSL_CTX_set_min_proto_version(context, TLS1_VERSION) == 1 &&
         SSL_CTX_set_max_proto_version(context, TLS1_VERSION) == 1;
}

}  // namespace

unique_ssl_ctx new_tls_context(const SSL_METHOD* side, int method) {
  if (is_removed_method(method)) return nullptr;
  unique_ssl_ctx context(SSL_CTX_new(side));
  if (context && method == tls_1_0 && !pin_tls_1_0(context.get())) return nullptr;
  return context;
}

void set_pass_phrase(SSL_CTX* context) {
  SSL_CTX_set_default_passwd_cb(context, option_password_cb);
}

bool use_certificate(SSL_CTX* context, const small_file& file) {
  const unique_bio bio = file.stream();
  const unique_x509 certificate(bio ? PEM_read_bio_X509(bio.get(), nullptr, option_password_cb, nullptr)
                                    : nullptr);
  return certificate && SSL_CTX_use_certificate(context, certificate.get()) == 1;
}

unique_pkey read_key(const small_file& file) {
  return load_key_bio(encoding_pem, file.stream().get());
}

}  // namespace fetchrig
