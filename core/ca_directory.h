// SPDX-License-Identifier: MIT
// ca_directory.h: trusted CAs in hashed directories, as a look-up of an X509_STORE. It reads what OpenSSL's own look-up
// reads, `HASH.0`, `HASH.1`, ... for certificates and `HASH.r0`, ... for revocation lists, PEM, until a name is missing
// or gives nothing, but only small regular files: OpenSSL's opens a pipe, a device or something huge under such a name
// too. What is found is kept by the store. The look-up is safe for several threads; adding directories is not.
#ifndef FETCHRIG_CORE_CA_DIRECTORY_H
#define FETCHRIG_CORE_CA_DIRECTORY_H

#include <openssl/x509_vfy.h>

namespace fetchrig {

// Adds a look-up without directories to the store, which owns it; null without memory.
[[nodiscard]] X509_LOOKUP* add_ca_lookup(X509_STORE* store);

// Adds the directories of a list separated by ":". A directory may be missing: it is an empty one. False, with the
// reason in OpenSSL's queue, for an empty list and without memory.
[[nodiscard]] bool add_ca_directories(X509_LOOKUP* lookup, const char* list);

}  // namespace fetchrig
#endif
