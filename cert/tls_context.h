// SPDX-License-Identifier: MIT
// tls_context.h: the steps of making a TLS context that connections and the checks of certificate files share, so that
// a file which passes a check serves a connection too: the method of option 3, then certificate and private key of one
// PEM file, opened with option 16. The one header of cert/ that net/ includes. No network, no state; any thread.
#ifndef FETCHRIG_CERT_TLS_CONTEXT_H
#define FETCHRIG_CERT_TLS_CONTEXT_H

#include <openssl/ssl.h>

#include "core/openssl_owners.h"
#include "core/small_file.h"

namespace fetchrig {

// The numbers of option 3.
enum tls_method { tls_1_0 = 0, ssl_2_0 = 1, ssl_3_0 = 2, any_tls = 3 };

constexpr bool is_tls_method(int method) {
  return method >= tls_1_0 && method <= any_tls;
}
// OpenSSL 3 has neither SSL 2.0 nor SSL 3.0.
constexpr bool is_removed_method(int method) {
  return method == ssl_2_0 || method == ssl_3_0;
}

// A context of OpenSSL's `side` (TLS_client_method() and its like) for option 3's `method`: TLS 1.0 alone, at security
// level 0, where alone it hand-shakes, or whatever the system allows. Null for a removed method and without memory.
[[nodiscard]] unique_ssl_ctx new_tls_context(const SSL_METHOD* side, int method);

// Has option 16 answer when OpenSSL asks for a pass phrase on behalf of the context.
void set_pass_phrase(SSL_CTX* context);

// Takes the certificate that the PEM file has first. False, with OpenSSL's reason in its queue, when that fails.
[[nodiscard]] bool use_certificate(SSL_CTX* context, const small_file& file);

// The private key that the PEM file has first; null, with OpenSSL's reason in its queue, without one. It is read here
// and not by the context's own loader, which takes a key of another certificate for an unreadable one.
[[nodiscard]] unique_pkey read_key(const small_file& file);

}  // namespace fetchrig
#endif
