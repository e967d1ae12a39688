// SPDX-License-Identifier: MIT
// md5.cpp: MD5 by OpenSSL.
#include "core/md5.h"

#include <openssl/crypto.h>

#include "core/text.h"

namespace fetchrig {

md5_digest::md5_digest() {
  MD5_Init(&context_);
}

md5_digest::~md5_digest() {
  OPENSSL_cleanse(&context_, sizeof context_);
}

void md5_digest::add(std::string_view bytes) {
  MD5_Update(&context_, bytes.data(), bytes.size());
}

void md5_digest::finish(md5_text& digits) {
  std::array<unsigned char, MD5_DIGEST_LENGTH> bytes;
  MD5_Final(bytes.data(), &context_);
  write_hex(digits, bytes);
  digits.back() = '\0';
  OPENSSL_cleanse(bytes.data(), bytes.size());
}

}  // namespace fetchrig
