// SPDX-License-Identifier: MIT
// ca_info_ex.h: the long description of a certificate file. Texts are cut to 63 characters. No state; one certificate
// operation at a time.
#ifndef FETCHRIG_CERT_CA_INFO_EX_H
#define FETCHRIG_CERT_CA_INFO_EX_H

#include <openssl/x509.h>
#include <stdint.h>

#include "cert/cert_file.h"
#include "include/fetchrig_types.h"

namespace fetchrig {

// Fills what the certificate alone tells. The record is not cleared first. False (logged) without issuer or subject.
[[nodiscard]] bool fill_ca_info_ex(dl_ca_info_ex& info, X509* certificate);

// Rewrites a DER file as PEM, and fills the record from it; failures are logged.
[[nodiscard]] certificate_read describe_ca_ex(dl_ca_info_ex& info, const char* path);

// The same with the code of the exported call: 0, 1 when the file holds no certificate or cannot be read, 2 when
// OpenSSL did not start. `flags` bit 0: the private key that follows the certificate is described too, if there is one.
[[nodiscard]] int get_ca_info_ex(dl_ca_info_ex& info, const char* path, uint32_t flags);

}  // namespace fetchrig
#endif
