// SPDX-License-Identifier: MIT
// netrc.h: finding a host's login in a .netrc file, which holds "machine HOST" or "default", each followed by "login",
// "password" and "account" with their values; a value may stand in double quotes, where a backslash takes the next
// character as it is. "macdef NAME" goes on up to an empty line, "#" where a word should begin to the end of its line.
// Stateless; any thread.
#ifndef FETCHRIG_CLI_NETRC_H
#define FETCHRIG_CLI_NETRC_H

#include <optional>
#include <string>
#include <string_view>

namespace fetchrig::cli {

struct netrc_login {
  std::string user;
  std::string password;
};

// The first entry for `host`, or "default" after it; only one for `user` when that is given.
std::optional<netrc_login> find_netrc_login(std::string_view text, const std::string& host,
                                            const std::optional<std::string>& user);

}  // namespace fetchrig::cli
#endif
