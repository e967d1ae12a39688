// SPDX-License-Identifier: MIT
// md5.h: MD5 (RFC 1321) written as 32 lower-case hexadecimal digits. What has been added may be a secret: nothing
// of it stays behind. One thread at a time per digest.
#ifndef FETCHRIG_CORE_MD5_H
#define FETCHRIG_CORE_MD5_H

#include <openssl/md5.h>

#include <array>
#include <string_view>

namespace fetchrig {

// The digits and a terminator.
using md5_text = std::array<char, 2 * MD5_DIGEST_LENGTH + 1>;

class md5_digest {
 public:
  md5_digest();
  ~md5_digest();
  md5_digest(const md5_digest&) = delete;
  md5_digest& operator=(const md5_digest&) = delete;

  void add(std::string_view bytes);
  // The digest of all that was added. Once.
  void finish(md5_text& digits);

 private:
  MD5_CTX context_;
};

}  // namespace fetchrig
#endif
