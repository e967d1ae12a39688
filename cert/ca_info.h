// ca_info.h: describing one certificate file, with the reason when that fails: a listing of the store removes
// what holds no certificate but keeps what merely could not be read now. No state; one certificate operation
// at a time.
#ifndef FETCHRIG_CERT_CA_INFO_H
#define FETCHRIG_CERT_CA_INFO_H

#include <stdint.h>

#include <span>

#include "core/openssl_owners.h"
#include "include/fetchrig.h"

namespace fetchrig {

enum class certificate_read {
  fine,
  unusable,     // there is no file, or what it holds is no certificate
  failed,       // our own trouble: permissions, descriptors, memory, an I/O error, a directory
  setup_failed  // OpenSSL did not start
};

// An open certificate file; the stream stands where the certificate ended.
struct certificate_file {
  unique_bio bio;
  unique_x509 certificate;  // null unless `outcome` is fine
  certificate_read outcome = certificate_read::failed;
};

// Opens the file and reads its certificate; failures are logged.
[[nodiscard]] certificate_file open_certificate(const char* path);

// The date as text, left alone when there is none or it cannot be read.
void fill_date(std::span<char, 64> field, const ASN1_TIME* time);

// Fill what the certificate alone tells. The record is not cleared first. False (logged) when a name is
// missing.
[[nodiscard]] bool fill_ca_info(X509* certificate, dl_ca_info& info);
[[nodiscard]] bool fill_ca_info_ex(X509* certificate, dl_ca_info_ex& info);

// Fill the record of one file; failures are logged. `flags` bit 0: the private key too.
[[nodiscard]] certificate_read describe_ca(const char* path, dl_ca_info& info);
[[nodiscard]] certificate_read describe_ca_ex(const char* path, dl_ca_info_ex& info, uint32_t flags);

}  // namespace fetchrig
#endif
