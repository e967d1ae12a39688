// SPDX-License-Identifier: MIT
// digest.h: the SHA-256 of what passes by. One thread.
#ifndef FETCHRIG_CLI_DIGEST_H
#define FETCHRIG_CLI_DIGEST_H

#include <openssl/evp.h>

#include <span>
#include <string>

#include "pem.h"

namespace fetchrig::cli {

class sha256 {
 public:
  sha256();
  void add(std::span<const char> bytes);
  // In lower-case hexadecimal digits; nothing may be added after it.
  std::string hex();

  static std::string of_file(const std::string& path);  // throws failure

 private:
  std::unique_ptr<EVP_MD_CTX, openssl_free<EVP_MD_CTX_free>> context_;
};

// Bytes in hexadecimal digits, two a byte, with `separator` between them unless it is 0.
std::string hex_text(std::span<const unsigned char> bytes, char separator = 0);

// The digest that was typed, in lower case; throws usage_error when it is none.
std::string checked_sha256(const std::string& typed);

}  // namespace fetchrig::cli
#endif
