// SPDX-License-Identifier: MIT
// verify.h: verifies a certificate file against a CA file and a CA directory, with OpenSSL's defaults for depth, trust
// and revocation. OpenSSL's reasons go to standard error. No state; one certificate operation at a time.
#ifndef FETCHRIG_CERT_VERIFY_H
#define FETCHRIG_CERT_VERIFY_H

#include <openssl/x509_vfy.h>
#include <stdint.h>

#include "include/fetchrig_types.h"

namespace fetchrig {

// 0 when the certificate verifies, else -1 with the record filled. Without CA file or directory OpenSSL's default ones
// are searched. `flags` bit 0: first checks that the file would serve a TLS connection.
[[nodiscard]] int verify_certificate(dl_result& result, const char* path, const char* ca_dir,
                                     const char* ca_file, uint32_t flags);

// OpenSSL's verification callback: logs a problem and lets a fixed set of errors pass. Not 0 to go on.
[[nodiscard]] int on_verification(int ok, X509_STORE_CTX* context);

// The code for one of OpenSSL's X509_V_ERR_ values; DL_VERIFY_OTHER for X509_V_OK, as only a positive verdict verifies.
[[nodiscard]] dl_cert_verify_code verify_code(int error);

}  // namespace fetchrig
#endif
