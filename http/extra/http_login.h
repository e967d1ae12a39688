// SPDX-License-Identifier: MIT
// http_login.h: what answers the challenges of one side, the server or the proxy: the strongest Digest of RFC 7616 that
// is offered, else Basic (RFC 7617). Once chosen, it answers in every further request of the call. One thread at a time
// per login; secrets are wiped before their memory is given back.
#ifndef FETCHRIG_HTTP_EXTRA_HTTP_LOGIN_H
#define FETCHRIG_HTTP_EXTRA_HTTP_LOGIN_H

#include <memory>
#include <string_view>

#include "http/extra/digest_rfc7616.h"
#include "http/http_message.h"

namespace fetchrig {

// The names of one side's fields; those of the response in lower case.
struct login_fields {
  const char* challenge;
  const char* answer;
  const char* proof;
};
inline constexpr login_fields server_fields = {"www-authenticate", "Authorization", "authentication-info"};
inline constexpr login_fields proxy_fields = {"proxy-authenticate", "Proxy-Authorization",
                                              "proxy-authentication-info"};

class http_login {
 public:
  explicit http_login(const login_fields& fields) : fields_(fields) {}
  ~http_login() { forget(); }
  http_login(const http_login&) = delete;
  http_login& operator=(const http_login&) = delete;

  // Chooses among the challenges of a header block. Returns 0, or DL_ERR_AUTH, logged: none can be answered, or this
  // user and password have been refused; a nonce may be stale once.
  [[nodiscard]] int choose(const char* headers, const char* user, const char* password);

  // Sets the message's answer, when there is one. `uri` is as in the request line. Returns 0 or a negative code.
  [[nodiscard]] int answer(http_msg& message, std::string_view uri);

  // Checks the server's proof in the header block of the answered request, where there is one, and takes its next
  // nonce. Returns 0, or DL_ERR_AUTH for a wrong proof.
  [[nodiscard]] int check(const char* headers);

  // Answers nothing any more.
  void forget();

  bool is_chosen() const { return digest_ || !basic_.empty(); }

 private:
  bool was_refused(const std::string& realm, bool stale, std::string_view login);
  int choose_digest(digest_terms terms, const char* user, const char* password);
  int choose_basic(std::string_view login);

  const login_fields& fields_;
  std::unique_ptr<digest_login> digest_;
  std::string basic_;  // the whole answer
  std::string login_;  // "user:password" of the last choice
  std::string realm_;
  bool was_stale_ = false;
};

}  // namespace fetchrig
#endif
