// SPDX-License-Identifier: MIT
// digest_rfc7616.h: Digest by RFC 7616: MD5, SHA-256 and SHA-512-256, each with -sess, qop "auth" and "auth-int",
// hashed user names. Knows texts, not sockets. One thread at a time per object; secrets are wiped before their memory
// is given back.
#ifndef FETCHRIG_HTTP_EXTRA_DIGEST_RFC7616_H
#define FETCHRIG_HTTP_EXTRA_DIGEST_RFC7616_H

#include <openssl/evp.h>
#include <stdint.h>

#include <optional>
#include <string>
#include <string_view>

#include "http/extra/auth_challenges.h"

namespace fetchrig {

struct digest_algorithm;

enum class digest_qop { none, auth, auth_int };

// What a challenge asks for.
struct digest_terms {
  const digest_algorithm* algorithm = nullptr;
  bool names_algorithm = false;
  std::string realm;
  std::string nonce;
  std::optional<std::string> opaque;
  digest_qop qop = digest_qop::none;
  bool hashes_user = false;
  bool is_utf8 = false;
  bool is_stale = false;

  // The higher, the stronger.
  int strength() const;
};

// Nothing for a challenge that cannot be answered, or whose values would break a header line.
[[nodiscard]] std::optional<digest_terms> read_digest_terms(const auth_challenge& challenge);

// One request that is to be answered for.
struct digest_request {
  std::string_view method;
  std::string_view uri;        // as in the request line
  std::string_view body_hash;  // with auth-int
};

// A login by one challenge, for as many requests as its nonces last.
class digest_login {
 public:
  // `cnonce` is for the first request.
  digest_login(digest_terms terms, std::string_view user, std::string_view password, std::string cnonce);
  ~digest_login();
  digest_login(const digest_login&) = delete;
  digest_login& operator=(const digest_login&) = delete;

  // The value of the Authorization field that answers for the next request; empty when OpenSSL cannot compute it.
  [[nodiscard]] std::string answer(const digest_request& request);
  // Whether the server's proof fits the last request. One that takes the answer's body is not looked at.
  [[nodiscard]] bool is_proven_by(const std::string& proof) const;
  // Goes on with another nonce of the server's.
  void renew(std::string nonce, std::string cnonce);

  const digest_terms& terms() const { return terms_; }
  const EVP_MD* hash() const;

 private:
  std::string response(std::string_view method, std::string_view uri, std::string_view body_hash) const;

  digest_terms terms_;
  std::string user_;
  std::string login_hash_;    // of user, realm and password
  std::string session_hash_;  // with -sess: of the first nonces too
  std::string cnonce_;
  std::string uri_;  // of the last request
  uint32_t nc_ = 0;
};

}  // namespace fetchrig
#endif
