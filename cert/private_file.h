// SPDX-License-Identifier: MIT
// private_file.h: output files that hold private keys. They are replaced as a whole by a file for the owner alone; a
// mode that lets a group in stays where the owner, this process's user, had chosen it. Devices, pipes and open
// descriptors (/dev/stdout) are written to and stay. The text is complete in memory before a file is touched. No
// state; any thread.
#ifndef FETCHRIG_CERT_PRIVATE_FILE_H
#define FETCHRIG_CERT_PRIVATE_FILE_H

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <string_view>

#include "core/openssl_owners.h"

namespace fetchrig {

// The certificate, when not null, then the key without encryption, when not null, as PEM text in a memory
// stream (which OpenSSL wipes when it is freed). Null when that fails.
[[nodiscard]] unique_bio pem_text(X509* certificate, EVP_PKEY* key);

// What a memory stream holds.
[[nodiscard]] std::string_view text_of(BIO* memory);

// Whether the name stands, also through links, for a device, a pipe, a socket or an open descriptor.
[[nodiscard]] bool is_special_file(const char* path);

// Removes a regular file or a link; anything else stays, and the links that stand for descriptors.
void remove_plain_file(const char* path);

// What happens where the path is a link to a regular file, or to nothing yet. A file that an administrator
// has placed elsewhere keeps its place; a name that others may have planted becomes a file of our own.
enum class at_link { replace_target, replace_link };

// Replaces the file by one with that text. False, with an error in the log and the old file untouched, when that fails.
[[nodiscard]] bool write_private_file(const char* path, std::string_view text, at_link choice);

}  // namespace fetchrig
#endif
