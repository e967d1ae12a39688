// SPDX-License-Identifier: MIT
// auth_challenges.h: the list of challenges that a WWW-Authenticate or Proxy-Authenticate field holds (RFC 9110 section
// 11.6.1), and the list of parameters of an Authentication-Info field. At most 16 challenges of 32 parameters. Knows
// texts, not sockets. Any thread.
#ifndef FETCHRIG_HTTP_EXTRA_AUTH_CHALLENGES_H
#define FETCHRIG_HTTP_EXTRA_AUTH_CHALLENGES_H

#include <string>
#include <string_view>
#include <vector>

namespace fetchrig {

struct auth_parameter {
  std::string name;
  std::string value;  // without quotes and their backslashes
};

struct auth_challenge {
  std::string scheme;
  std::vector<auth_parameter> parameters;

  // The value of the first parameter of that name in any letter case, or null.
  const std::string* find(std::string_view name) const;
};

// Adds the challenges of one field to `into`. From a fault on, the field counts for nothing; the challenge in which the
// fault is does neither.
void read_challenges(std::string_view field, std::vector<auth_challenge>& into);

// The parameters of a field without schemes, up to a fault.
[[nodiscard]] auth_challenge read_auth_info(std::string_view field);

}  // namespace fetchrig
#endif
