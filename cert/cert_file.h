// SPDX-License-Identifier: MIT
// cert_file.h: certificate and key files in PEM or DER, read whole. Encoding codes: 0 PEM, 1 DER, -1 cannot be opened.
// No state between calls; one certificate operation at a time.
#ifndef FETCHRIG_CERT_CERT_FILE_H
#define FETCHRIG_CERT_CERT_FILE_H

#include <openssl/bio.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <stdint.h>

#include "core/openssl_owners.h"
#include "core/small_file.h"

namespace fetchrig {

inline constexpr int encoding_pem = 0;
inline constexpr int encoding_der = 1;
inline constexpr int encoding_none = -1;

// A certificate or key file, read whole, so that what is told of its encoding, its certificate and its key is told of
// the same bytes. The stream stands at their start; without it `error` is the errno.
struct cert_source {
  explicit cert_source(const char* path);

  // The certificate that comes next in the stream; null without one.
  [[nodiscard]] unique_x509 certificate() const;
  // The private key, wherever it stands in the file, opened with option 16; null without one.
  [[nodiscard]] unique_pkey key() const;
  // The PEM private key that comes next in the stream; null without one, and when it is encrypted.
  [[nodiscard]] unique_pkey plain_key() const;

  small_file file;
  int encoding = encoding_none;
  unique_bio stream;
  int error = 0;
};

enum class certificate_read {
  fine,
  unusable,  // there is no file, or it was read to its end and holds no certificate
  failed,    // not read: permissions, descriptors, memory, an I/O error, not a regular file, too large
};

// What is logged when a file cannot be opened, and when it holds no certificate.
struct read_messages {
  const char* not_opened;
  const char* no_certificate;
};

// The certificate of a file; the source's stream then stands where it ended. Empties OpenSSL's error queue.
[[nodiscard]] certificate_read read_certificate(unique_x509& certificate, const cert_source& source,
                                                const read_messages& messages);

// The next certificate of the stream; null for another code or when there is none.
[[nodiscard]] unique_x509 load_cert_bio(int encoding, BIO* bio);
// The next private key, opened with option 16; null as above.
[[nodiscard]] unique_pkey load_key_bio(int encoding, BIO* bio);
// Adds all certificates and revocation lists of the PEM text to the store; false when there is
// none, or one could not be added.
[[nodiscard]] bool add_ca_certificates(X509_STORE* store, BIO* bio);
// Rewrites a DER file as PEM, in place: a link at `path` becomes a regular file. Returns the subject-name hash of the
// certificate in the file; 0 when there is none, or it could not be rewritten.
[[nodiscard]] uint32_t ca_file_hash(const char* path);

}  // namespace fetchrig
#endif
