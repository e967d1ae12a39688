// SPDX-License-Identifier: MIT
// client_cert.h: issues the device's client certificate: key, request, certificate signed by a given root CA. One
// certificate operation at a time.
#ifndef FETCHRIG_CERT_CLIENT_CERT_H
#define FETCHRIG_CERT_CLIENT_CERT_H

#include <openssl/evp.h>
#include <openssl/x509.h>

namespace fetchrig {

// Sets version 0, subject and public key of the request. Returns 0 or -1.
[[nodiscard]] int fill_request(X509_REQ* request, EVP_PKEY* key, const char* subject, int string_type);

// Writes certificate and key to `cert_path`, and the key to `key_path` unless it came from there. Returns 0, also when
// a file could not be written (logged), or -1 with nothing written; an unreadable key file has been removed then.
[[nodiscard]] int generate_client_cert(const char* ca_cert, const char* ca_key, const char* key_path,
                                       const char* cert_path, const char* subject, int bits);

}  // namespace fetchrig
#endif
