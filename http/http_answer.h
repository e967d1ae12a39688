// SPDX-License-Identifier: MIT
// http_answer.h: builds the Authorization line that answers a challenge: Basic (RFC 7617), Digest (RFC 2617, MD5 and
// MD5-sess, qop "auth") or BroadWorks XSI. Knows texts, not sockets. One thread at a time per record; answers and
// everything they are computed from are wiped before their memory is given back.
#ifndef FETCHRIG_HTTP_HTTP_ANSWER_H
#define FETCHRIG_HTTP_HTTP_ANSWER_H

#include <string_view>

#include "http/http_auth.h"

namespace fetchrig {

// Each stores the whole line as the side's answer and returns an http_answer_result.

// Answers with the scheme that the challenge picked, Basic before Digest.
[[nodiscard]] int build_answer(const auth_side& side, std::string_view method, std::string_view path);

// Without a nonce there is no answer, which is no failure.
[[nodiscard]] int build_digest_answer(const auth_side& side, std::string_view method, std::string_view path);

// Needs a Basic challenge and a user and password that are not empty. Has no proxy form.
[[nodiscard]] int build_xsi_answer(const auth_side& side);

}  // namespace fetchrig
#endif
