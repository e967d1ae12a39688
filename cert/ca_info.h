// ca_info.h: describing one certificate file, with the reason when that fails: a listing of the store removes
// what holds no certificate but keeps what merely could not be read now. No state; one certificate operation
// at a time.
#ifndef FETCHRIG_CERT_CA_INFO_H
#define FETCHRIG_CERT_CA_INFO_H

#include <stdint.h>

#include <span>

#include "cert/cert_file.h"
#include "core/openssl_owners.h"
#include "include/fetchrig_types.h"

namespace fetchrig {

enum class certificate_read {
  fine,
  unusable,     // there is no file, or it was read to its end and holds no certificate
  failed,       // not read: permissions, descriptors, memory, an I/O error, not a regular file, too large
  setup_failed  // OpenSSL did not start
};

// The date as text, left alone when there is none or it cannot be read.
void fill_date(std::span<char, 64> field, const ASN1_TIME* time);

// The certificate of a file; the source's stream then stands where it ended. Failures are logged.
[[nodiscard]] certificate_read read_certificate(const cert_source& source, unique_x509& certificate);

// Fill what the certificate alone tells. The record is not cleared first. False (logged) when a name is
// missing.
[[nodiscard]] bool fill_ca_info(X509* certificate, dl_ca_info& info);
[[nodiscard]] bool fill_ca_info_ex(X509* certificate, dl_ca_info_ex& info);

// Fill the record of one file; failures are logged. `flags` bit 0: the private key too.
[[nodiscard]] certificate_read describe_ca(const char* path, dl_ca_info& info);
[[nodiscard]] certificate_read describe_ca_ex(const char* path, dl_ca_info_ex& info, uint32_t flags);

}  // namespace fetchrig
#endif
