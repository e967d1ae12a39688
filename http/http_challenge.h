// SPDX-License-Identifier: MIT
// http_challenge.h: parses the value of a WWW-Authenticate header: Basic (RFC 7617) or Digest (RFC 2617). Names of
// parameters have at most 255 characters, values 1023. Knows texts, not sockets. One thread at a time per record.
#ifndef FETCHRIG_HTTP_HTTP_CHALLENGE_H
#define FETCHRIG_HTTP_HTTP_CHALLENGE_H

#include <cstddef>
#include <string_view>

#include "http/http_auth.h"

namespace fetchrig {

// The longest value of a parameter.
inline constexpr std::size_t max_value_len = 1023;

// Notes the scheme that the value names, and a Digest challenge's parameters. An http_challenge_result.
[[nodiscard]] int read_challenge(const auth_side& side, std::string_view value);

// Completes an unquoted qop list: `parameters` begins at the parameter's name of `name_len` characters, `value`
// (max_value_len + 1 bytes, terminated) holds what was read up to the first comma; the items behind it are
// appended. Does nothing for a quoted value.
void gather_qop_list(std::string_view parameters, std::size_t name_len, char* value);

}  // namespace fetchrig
#endif
