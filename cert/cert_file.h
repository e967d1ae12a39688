// cert_file.h: certificate and key files in PEM or DER. Encoding codes: 0 PEM, 1 DER, -1 cannot be opened. No
// state between calls.
#ifndef FETCHRIG_CERT_CERT_FILE_H
#define FETCHRIG_CERT_CERT_FILE_H

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <stdint.h>

#include <string_view>

#include "core/small_file.h"

namespace fetchrig {

inline constexpr int encoding_pem = 0;
inline constexpr int encoding_der = 1;
inline constexpr int encoding_none = -1;

// A certificate or key file, read whole, so that what is told of its encoding, its certificate and its key is
// told of the same bytes. The stream stands at their start; without it `error` is the errno.
struct cert_source {
  explicit cert_source(const char* path);

  small_file file;
  int encoding = encoding_none;
  unique_bio stream;
  int error = 0;
};

// PEM when a line contains "BEGIN", else DER.
[[nodiscard]] int encoding_of(std::string_view content);
// The same of a file; -1 when it cannot be opened.
[[nodiscard]] int cert_file_format(const char* path);
// The next certificate of the stream, the caller's; null for another code or when there is none.
[[nodiscard]] X509* load_cert_bio(int encoding, BIO* bio);
// The next private key, the caller's, opened with option 16; null as above.
[[nodiscard]] EVP_PKEY* load_key_bio(int encoding, BIO* bio);
// Adds all certificates and revocation lists of the PEM text to the store; false when there is none, or one
// could not be added.
[[nodiscard]] bool add_ca_certificates(X509_STORE* store, BIO* bio);
// The subject-name hash of the certificate in the file, 0 when there is none. A DER file is left rewritten as
// PEM.
[[nodiscard]] uint32_t ca_file_hash(const char* path);

}  // namespace fetchrig
#endif
