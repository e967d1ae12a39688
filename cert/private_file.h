// private_file.h: output files that hold private keys. New files get mode 0600; special files (devices,
// pipes) are written to but never removed. The text is complete in memory before a file is touched. No state;
// any thread.
#ifndef FETCHRIG_CERT_PRIVATE_FILE_H
#define FETCHRIG_CERT_PRIVATE_FILE_H

#include <openssl/evp.h>
#include <openssl/x509.h>

#include "core/openssl_owners.h"

namespace fetchrig {

// The certificate, when not null, then the key without encryption, when not null, as PEM text in a memory
// stream (which OpenSSL wipes when it is freed). Null when that fails.
[[nodiscard]] unique_bio pem_text(X509* certificate, EVP_PKEY* key);

// Whether the name stands, also through links, for a device, a pipe or a socket.
[[nodiscard]] bool is_special_file(const char* path);

// Removes a regular file or a link; anything else stays.
void remove_plain_file(const char* path);

// Creates the file when there is none, also the one that a link leads to, so that what is copied there later
// is for the owner alone.
void reserve_private_file(const char* path);

// Creates or truncates the file and writes the text. False, with an error in the log, when that fails.
[[nodiscard]] bool write_private_file(const char* path, BIO* text);

}  // namespace fetchrig
#endif
