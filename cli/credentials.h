// SPDX-License-Identifier: MIT
// credentials.h: who logs in: from the URL, the options, the environment, ~/.netrc or a question at the terminal, so
// that a password need not stand in the process list. The password is wiped when the record goes.
#ifndef FETCHRIG_CLI_CREDENTIALS_H
#define FETCHRIG_CLI_CREDENTIALS_H

#include <optional>
#include <string>

#include "location.h"
#include "netrc.h"

namespace fetchrig::cli {

class credentials {
 public:
  // The URL's own win over `user` and `password`; a user without a password takes it from FETCHRIG_PASSWORD or, if
  // that is wanted, ~/.netrc, or is asked when standard input and standard error are terminals. FTP without a user
  // takes both from ~/.netrc. Throws failure when the question is cancelled.
  credentials(const location& where, const std::optional<std::string>& user,
              const std::optional<std::string>& password, bool use_netrc);
  // What ~/.netrc has for a host that wants a login.
  explicit credentials(netrc_login found);
  credentials(const credentials&) = delete;
  credentials& operator=(const credentials&) = delete;
  ~credentials();

  const char* user() const { return user_ ? user_->c_str() : nullptr; }
  const char* password() const { return password_ ? password_->c_str() : nullptr; }
  // It is for one host, and must not follow a redirect.
  bool is_for_one_host() const { return from_netrc_; }

 private:
  void take(netrc_login found);

  std::optional<std::string> user_;
  std::optional<std::string> password_;
  bool from_netrc_ = false;
};

}  // namespace fetchrig::cli
#endif
