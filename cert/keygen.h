// SPDX-License-Identifier: MIT
// keygen.h: the device's RSA key, loaded from its key file or generated. One thread at a time per key file.
#ifndef FETCHRIG_CERT_KEYGEN_H
#define FETCHRIG_CERT_KEYGEN_H

#include <openssl/evp.h>

#include "cert/seeded_rand.h"
#include "core/openssl_owners.h"

namespace fetchrig {

struct device_key {
  unique_pkey key;
  bool reused = false;  // it came from the key file
};

// The key in the file at `path`, else a new one of `bits` bits: drawn from the generator that begins in `start`, or
// from OpenSSL's own randomness when `start` is null. A file without a readable key is removed. Returns 0 or -1; a file
// that exists but cannot be read is kept.
[[nodiscard]] int build_rsa_key(device_key& result, const char* path, int bits, const keygen_state* start);

// Writes the key to `path` in PEM without encryption. Returns 0, also when the file cannot be written (logged), or -1.
[[nodiscard]] int write_key(const char* path, EVP_PKEY* key);

}  // namespace fetchrig
#endif
