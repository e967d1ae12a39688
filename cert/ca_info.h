// SPDX-License-Identifier: MIT
// ca_info.h: the short description of a certificate file, and the check of the device certificate. Texts are cut to
// 63 characters. No state; one certificate operation at a time.
#ifndef FETCHRIG_CERT_CA_INFO_H
#define FETCHRIG_CERT_CA_INFO_H

#include <openssl/x509.h>

#include <span>

#include "cert/cert_file.h"
#include "core/openssl_owners.h"
#include "include/fetchrig_types.h"

namespace fetchrig {

// The date as text; the field is left alone when there is no date or it cannot be read.
void fill_date(std::span<char, 64> field, const ASN1_TIME* time);

// read_certificate() for a description; a directory is told apart in the log.
[[nodiscard]] certificate_read read_described(unique_x509& certificate, const cert_source& source);

// Fills what the certificate alone tells. The record is not cleared first. False (logged) without a subject.
[[nodiscard]] bool fill_ca_info(dl_ca_info& info, X509* certificate);

// The same from a file; failures are logged.
[[nodiscard]] certificate_read describe_ca(dl_ca_info& info, const char* path);

// The same with the code of the exported call: 0, or -2 when the file holds no certificate or cannot be read.
[[nodiscard]] int get_ca_info(dl_ca_info& info, const char* path);

// Describes the device certificate, option 2, in a cleared record. 0, -2 as above, or -3 when its private key is
// missing, cannot be opened or belongs to another certificate; the record is filled then.
[[nodiscard]] int get_device_ca_info(dl_ca_info& info);

}  // namespace fetchrig
#endif
