// SPDX-License-Identifier: MIT
// environment.h: what the user's surroundings say about a transfer: the proxy in http_proxy and its kin, the logins in
// ~/.netrc. One thread.
#ifndef FETCHRIG_CLI_ENVIRONMENT_H
#define FETCHRIG_CLI_ENVIRONMENT_H

#include <optional>
#include <string>

#include "location.h"
#include "netrc.h"

namespace fetchrig::cli {

// A word of a list or a file, without the blanks around it.
std::string without_blanks(const std::string& text);

// The proxy for an http URL by http_proxy, for an https one by https_proxy or HTTPS_PROXY, for both by all_proxy or
// ALL_PROXY, unless no_proxy excepts the host; else empty. HTTP_PROXY is not looked at: in a CGI program it is a header
// line of the client's.
std::string environment_proxy(const location& where);

// The login for the host in ~/.netrc, that of `user` when there is one. A file that others may read, or that is no
// regular one, is left alone with a warning.
std::optional<netrc_login> environment_login(const location& where, const std::optional<std::string>& user);

}  // namespace fetchrig::cli
#endif
