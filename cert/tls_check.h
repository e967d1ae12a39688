// SPDX-License-Identifier: MIT
// tls_check.h: would TLS set-up accept a PEM file as certificate and private key? Loads it the way a TLS
// context does, at security level 0, so that the MD5 signature of our own certificates is no obstacle. No
// network, no state between calls; any thread.
#ifndef FETCHRIG_CERT_TLS_CHECK_H
#define FETCHRIG_CERT_TLS_CHECK_H

#include "core/small_file.h"

namespace fetchrig {

// Outcomes in the order of the steps; the first that fails ends the check and has been logged.
enum class tls_file_check {
  fine,
  wrong_method,  // `method` is none of option 3's numbers
  no_context,    // OpenSSL has no such method any more (SSL 2.0, SSL 3.0) or no memory
  no_ca_file,    // the file cannot be read, or holds nothing that could be loaded as CA
  no_certificate,
  no_key,  // no private key, or its pass phrase is not option 16
  key_mismatch,
};

// Checks the file with the method that option 3 names by `method`.
[[nodiscard]] tls_file_check check_tls_file(const small_file& file, int method);

}  // namespace fetchrig
#endif
