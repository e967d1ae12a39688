// SPDX-License-Identifier: MIT
// http_auth.h: the working record of one 401, which http_challenge.h fills from the server's challenge and
// http_answer.h answers. One thread at a time per record; secrets are wiped before their memory is given back.
#ifndef FETCHRIG_HTTP_HTTP_AUTH_H
#define FETCHRIG_HTTP_HTTP_AUTH_H

#include "include/fetchrig_types.h"

namespace fetchrig {

inline constexpr uint32_t auth_basic = 1;   // bit 0 of a picked scheme
inline constexpr uint32_t auth_digest = 2;  // bit 1

// The record: zeroed at the start, everything it owns released at the end.
struct auth_work : http_auth_state {
  auth_work() : http_auth_state{} {}
  ~auth_work();
  auth_work(const auth_work&) = delete;
  auth_work& operator=(const auth_work&) = delete;
};

// The fields that one side uses, the origin server's or the proxy's. Borrows from the record.
struct auth_side {
  const char* prefix;  // before the header name: empty or "Proxy-"
  const char* user;
  const char* password;
  digest_challenge& challenge;
  uint32_t& picked;
  char*& answer;
};
[[nodiscard]] auth_side side_of(http_auth_state& state, int proxy);

// Frees a challenge's texts and zeroes stale, nc and session.
void release_challenge(digest_challenge& challenge);
// Wipes and frees an answer line; the place becomes null.
void release_answer(char*& answer);

}  // namespace fetchrig
#endif
