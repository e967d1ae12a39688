// SPDX-License-Identifier: MIT
// der_to_pem.h: turns a certificate file from DER into PEM in place. There is one scratch name per machine; a
// lock keeps other processes and threads from using it at the same time.
#ifndef FETCHRIG_CERT_DER_TO_PEM_H
#define FETCHRIG_CERT_DER_TO_PEM_H

#include <openssl/x509.h>

namespace fetchrig {

// Replaces the file at `path` (a link there, not its target) by the certificate in PEM, its access mode kept.
// False (logged), with the file untouched, when that fails.
[[nodiscard]] bool rewrite_as_pem(const char* path, X509* certificate);

}  // namespace fetchrig
#endif
