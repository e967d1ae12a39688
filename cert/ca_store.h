// SPDX-License-Identifier: MIT
// ca_store.h: installing CA certificates into the trusted-CA store, option 1, and removing them. The store is a
// directory tree in the hashed form that OpenSSL looks certificates up in: the file <hash>, beside it the link <hash>.0
// to it, and in the "ca/" subdirectory a link to that link; "phoneca/" holds the factory's CAs. Two certificates are
// the same CA when their subject-name hashes are equal. One certificate operation at a time.
#ifndef FETCHRIG_CERT_CA_STORE_H
#define FETCHRIG_CERT_CA_STORE_H

namespace fetchrig {

// Rewrites a DER file at `path`, and every DER entry it compares it with, as PEM, and installs it. 0, -1 when the file
// holds no certificate or the store cannot be opened, -2 when the CA is installed already, -3 when it is the factory's.
[[nodiscard]] int install_ca(const char* path);

// Rewrites a DER file at `path` as PEM, then removes it with every name of its certificate in the store.
void remove_ca(const char* path);

}  // namespace fetchrig
#endif
