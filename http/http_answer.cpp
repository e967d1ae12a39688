// SPDX-License-Identifier: MIT
// http_answer.cpp: the three kinds of answer.
#include "http/http_answer.h"

#include <openssl/crypto.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <initializer_list>

#include "core/base64.h"
#include "core/md5.h"
#include "core/owners.h"
#include "core/text.h"
#include "log/clock.h"

namespace fetchrig {
namespace {

using std::string_view;

// Base64 of a secret; wiped at the end.
class encoded_secret {
 public:
  explicit encoded_secret(string_view secret) { base64_encode(text_, secret); }
  ~encoded_secret() { wipe(text_.get()); }
  encoded_secret(const encoded_secret&) = delete;
  encoded_secret& operator=(const encoded_secret&) = delete;
  explicit operator bool() const { return text_ != nullptr; }
  const char* text() const { return text_.get(); }

 private:
  unique_text text_;
};

// The MD5 of texts with ":" between them; wiped at the end.
class md5_hex {
 public:
  explicit md5_hex(std::initializer_list<string_view> parts) {
    md5_digest digest;
    string_view separator;
    for (const string_view part : parts) {
      digest.add(separator);
      digest.add(part);
      separator = ":";
    }
    digest.finish(digits_);
  }
  ~md5_hex() { OPENSSL_cleanse(digits_.data(), digits_.size()); }
  md5_hex(const md5_hex&) = delete;
  md5_hex& operator=(const md5_hex&) = delete;
  operator string_view() const { return digits_.data(); }

 private:
  md5_text digits_;
};

// Replaces the answer by the parts put together. Returns an answer result.
int store_answer(char*& answer, std::initializer_list<string_view> parts) {
  std::size_t size = 1;
  for (const string_view part : parts) size += part.size();
  char* const text = static_cast<char*>(malloc(size));
  if (!text) return HTTP_ANSWER_MEMORY;
  char* to = text;
  for (const string_view part : parts) {
    if (part.empty()) continue;
    memcpy(to, part.data(), part.size());
    to += part.size();
  }
  *to = '\0';
  release_answer(answer);
  answer = text;
  return HTTP_ANSWER_OK;
}

int build_basic(const auth_side& side) {
  char credentials[512];
  snprintf(credentials, sizeof credentials, "%s:%s", side.user ? side.user : "",
           side.password ? side.password : "");
  const encoded_secret encoded{string_view(credentials)};
  OPENSSL_cleanse(credentials, sizeof credentials);
  if (!encoded) return HTTP_ANSWER_MEMORY;
  return store_answer(side.answer, {side.prefix, "Authorization: Basic ", encoded.text(), "\r\n"});
}

// A client nonce from the first six digits of the time in seconds. Returns an answer result.
int make_cnonce(digest_challenge& challenge) {
  constexpr std::size_t num_digits = 6;
  char digits[24];
  const long long seconds = time_of_day().tv_sec;
  snprintf(digits, sizeof digits, "%06lld", seconds);
  unique_text encoded;
  base64_encode(encoded, {digits, num_digits});
  challenge.cnonce = encoded.release();
  return challenge.cnonce ? HTTP_ANSWER_OK : HTTP_ANSWER_MEMORY;
}

// The texts of a Digest answer; borrowed.
struct digest_texts {
  string_view user, realm, nonce, path, cnonce, qop, opaque, algorithm;
};

// False when one of the texts would break the header line.
bool fits_one_line(const digest_texts& texts) {
  for (const string_view text : {texts.user, texts.realm, texts.nonce, texts.path, texts.cnonce, texts.qop,
                                 texts.opaque, texts.algorithm}) {
    if (has_line_break(text)) return false;
  }
  return true;
}

// Puts the line together; the parts that a challenge did not ask for are left out.
int store_digest(const auth_side& side, const digest_texts& texts, string_view nc, string_view response) {
  const digest_challenge& challenge = side.challenge;
  const auto given = [](const char* text, string_view part) { return text ? part : string_view(); };
  const auto qop = [&](string_view part) { return given(challenge.qop, part); };
  const auto opaque = [&](string_view part) { return given(challenge.opaque, part); };
  const auto algorithm = [&](string_view part) { return given(challenge.algorithm, part); };
  return store_answer(side.answer, {side.prefix,
                                    "Authorization: Digest username=\"",
                                    texts.user,
                                    "\", realm=\"",
                                    texts.realm,
                                    "\", nonce=\"",
                                    texts.nonce,
                                    "\", uri=\"",
                                    texts.path,
                                    qop("\", cnonce=\""),
                                    qop(texts.cnonce),
                                    qop("\", nc="),
                                    qop(nc),
                                    qop(", qop=\""),
                                    texts.qop,
                                    "\", response=\"",
                                    response,
                                    "\"",
                                    opaque(", opaque=\""),
                                    texts.opaque,
                                    opaque("\""),
                                    algorithm(", algorithm=\""),
                                    texts.algorithm,
                                    algorithm("\""),
                                    "\r\n"});
}

// RFC 2617, 3.2.2.1 to 3.2.2.3. The body is never hashed, so "auth-int" is computed like "auth".
int answer_digest(const auth_side& side, const digest_texts& texts, string_view method) {
  const digest_challenge& challenge = side.challenge;
  const md5_hex login({texts.user, texts.realm, or_empty(side.password)});
  const md5_hex session({login, texts.nonce, texts.cnonce});
  const string_view ha1 = challenge.session ? session : login;
  const md5_hex ha2({method, texts.path});
  char nc[9];
  snprintf(nc, sizeof nc, "%08x", challenge.nc);
  if (!challenge.qop) return store_digest(side, texts, nc, md5_hex({ha1, texts.nonce, ha2}));
  return store_digest(side, texts, nc, md5_hex({ha1, texts.nonce, nc, texts.cnonce, texts.qop, ha2}));
}

}  // namespace

int build_answer(const auth_side& side, string_view method, string_view path) {
  if (side.picked & auth_basic) return build_basic(side);
  if (side.picked & auth_digest) return build_digest_answer(side, method, path);
  return HTTP_ANSWER_SCHEME;
}

int build_digest_answer(const auth_side& side, string_view method, string_view path) {
  digest_challenge& challenge = side.challenge;
  release_answer(side.answer);
  if (!challenge.nonce) return HTTP_ANSWER_OK;
  if (challenge.nc == 0) challenge.nc = 1;
  if (!challenge.cnonce) {
    if (const int rc = make_cnonce(challenge); rc != HTTP_ANSWER_OK) return rc;
  }
  const digest_texts texts = {or_empty(side.user),
                              or_empty(challenge.realm),
                              challenge.nonce,
                              path,
                              challenge.cnonce,
                              or_empty(challenge.qop),
                              or_empty(challenge.opaque),
                              or_empty(challenge.algorithm)};
  if (!fits_one_line(texts)) return HTTP_ANSWER_SCHEME;
  const int rc = answer_digest(side, texts, method);
  if (rc == HTTP_ANSWER_OK && equal_ignoring_case(texts.qop, "auth")) ++challenge.nc;
  return rc;
}

int build_xsi_answer(const auth_side& side) {
  if (!(side.picked & auth_basic)) return HTTP_ANSWER_SCHEME;
  const string_view user = or_empty(side.user);
  const string_view password = or_empty(side.password);
  if (user.empty() || password.empty()) return HTTP_ANSWER_MEMORY;
  const encoded_secret encoded_password(password);
  const encoded_secret encoded_user(user);
  if (!encoded_password || !encoded_user) return HTTP_ANSWER_MEMORY;
  return store_answer(side.answer, {"Authorization: BroadWorksSIP basic=\"", encoded_password.text(),
                                    "\", sipUser=\"", encoded_user.text(), "\"\r\n"});
}

}  // namespace fetchrig
