// SPDX-License-Identifier: MIT
// http_login.cpp: choosing a challenge and answering it.
#include "http/extra/http_login.h"

#include <openssl/err.h>
#include <openssl/rand.h>
#include <string.h>

#include <array>
#include <utility>

#include "core/base64.h"
#include "core/cause.h"
#include "core/openssl_owners.h"
#include "core/text.h"
#include "http/extra/streamed_body.h"
#include "http/http_headers.h"
#include "log/log.h"

namespace fetchrig {
namespace {

using std::string_view;

// Calls `take` with the value of each field of that name, in lower case.
template <typename Take>
void each_field(const char* headers, string_view name, Take take) {
  while ((headers = http_find_header(headers, name))) {
    take(trim_white_space(string_view(headers).substr(name.size() + 1)));
    headers += strlen(headers) + 1;
  }
}

// A client nonce of 128 bits; empty without randomness.
std::string new_cnonce() {
  std::array<unsigned char, 16> bytes;
  ERR_set_mark();
  const bool fine = RAND_bytes(bytes.data(), bytes.size()) == 1;
  ERR_pop_to_mark();
  return fine ? to_hex(bytes) : std::string();
}

// The strongest Digest that can be answered; of equals, the first.
std::optional<digest_terms> strongest(const std::vector<auth_challenge>& challenges) {
  std::optional<digest_terms> best;
  for (const auth_challenge& challenge : challenges) {
    auto terms = read_digest_terms(challenge);
    if (terms && (!best || terms->strength() > best->strength())) best = std::move(terms);
  }
  return best;
}

const auth_challenge* find_basic(const std::vector<auth_challenge>& challenges) {
  for (const auth_challenge& challenge : challenges) {
    if (equal_ignoring_case(challenge.scheme, "Basic")) return &challenge;
  }
  return nullptr;
}

// What would be sent is hashed.
class hashing_stream final : public stream {
 public:
  explicit hashing_stream(EVP_MD_CTX* context) : context_(context) {}
  io_result read(std::span<char> /*to*/, int /*timeout_s*/) override { return {}; }
  io_result peek(std::span<char> /*to*/, int /*timeout_s*/) override { return {}; }
  int write_all(std::span<const char> from) override {
    return EVP_DigestUpdate(context_, from.data(), from.size()) == 1 ? 0 : -1;
  }

 private:
  EVP_MD_CTX* context_;
};

// In hexadecimal digits; empty when the file cannot be read, or OpenSSL fails.
std::string hash_of(const http_body& body, const EVP_MD* hash) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> bytes;
  unsigned length = 0;
  ERR_set_mark();
  const unique_md_ctx context(EVP_MD_CTX_new());
  bool fine = context && EVP_DigestInit_ex(context.get(), hash, nullptr) == 1;
  hashing_stream to(context.get());
  if (body.streamed) {
    fine = fine && send_streamed(*body.streamed, to) == 0;
  } else if (body.buffer) {
    fine = fine && to.write_all(*body.buffer) == 0;
  }
  fine = fine && EVP_DigestFinal_ex(context.get(), bytes.data(), &length) == 1;
  ERR_pop_to_mark();
  return fine ? to_hex(std::span(bytes).first(length)) : std::string();
}

struct wiped_text {
  ~wiped_text() { wipe(text); }
  std::string text;
};

struct encoded_text {
  ~encoded_text() { wipe(text.get()); }
  unique_text text;
};

int refuse(const char* why) {
  return log_and_return(DL_LOG_HTTP, DL_ERR_AUTH, "%s\n", why);
}

void join_login(std::string& login, string_view user, string_view password) {
  login.reserve(user.size() + password.size() + 1);
  login.append(user).append(":").append(password);
}

}  // namespace

void http_login::forget() {
  digest_.reset();
  wipe(basic_);
  wipe(login_);
  realm_.clear();
  was_stale_ = false;
}

// The same login for the same realm again, unless its nonce was too old.
bool http_login::was_refused(const std::string& realm, bool stale, string_view login) {
  const bool again = is_chosen() && realm == realm_ && login == login_;
  const bool excused = again && stale && !was_stale_;
  was_stale_ = excused;
  return again && !excused;
}

int http_login::choose_digest(digest_terms terms, const char* user, const char* password) {
  std::string cnonce = new_cnonce();
  if (cnonce.empty()) return log_and_return(DL_LOG_HTTP, DL_ERR_AUTH, "no randomness for a nonce\n");
  log_line(DL_LOG_HTTP, DL_LOG_INFO, "%s: Digest\n", fields_.answer);
  wipe(basic_);
  digest_ =
      std::make_unique<digest_login>(std::move(terms), or_empty(user), or_empty(password), std::move(cnonce));
  return 0;
}

int http_login::choose_basic(string_view login) {
  encoded_text encoded;
  base64_encode(encoded.text, login);
  if (!encoded.text) return DL_ERR_MEMORY;
  log_line(DL_LOG_HTTP, DL_LOG_INFO, "%s: Basic\n", fields_.answer);
  digest_.reset();
  wipe(basic_);
  const string_view text = encoded.text.get();
  basic_.reserve(text.size() + strlen("Basic "));
  basic_.append("Basic ").append(text);
  return 0;
}

int http_login::choose(const char* headers, const char* user, const char* password) {
  if (!user && !password) return refuse("no login for the challenge");
  std::vector<auth_challenge> challenges;
  each_field(headers, fields_.challenge, [&](string_view value) { read_challenges(value, challenges); });
  auto terms = strongest(challenges);
  const auth_challenge* basic = terms ? nullptr : find_basic(challenges);
  if (!terms && !basic) {
    note_cause(DL_CAUSE_CHALLENGE);
    return refuse("Input Auth Error");
  }
  const std::string* basic_realm = basic ? basic->find("realm") : nullptr;
  std::string realm = terms ? terms->realm : basic_realm ? *basic_realm : std::string();
  wiped_text login;
  join_login(login.text, or_empty(user), or_empty(password));
  if (was_refused(realm, terms && terms->is_stale, login.text)) return refuse("login refused");
  const int rc = terms ? choose_digest(std::move(*terms), user, password) : choose_basic(login.text);
  if (rc < 0) return rc;
  realm_.swap(realm);
  login_.swap(login.text);
  return 0;
}

int http_login::answer(http_msg& message, string_view uri) {
  if (!is_chosen()) return 0;
  if (!digest_) return http_set_header(message, fields_.answer, basic_.c_str());
  const bool hashes_body = digest_->terms().qop == digest_qop::auth_int;
  const std::string body_hash = hashes_body ? hash_of(message.body, digest_->hash()) : std::string();
  if (hashes_body && body_hash.empty()) return DL_ERR_READ;
  wiped_text value{digest_->answer({message.method_text, uri, body_hash})};
  if (value.text.empty()) return log_and_return(DL_LOG_HTTP, DL_ERR_AUTH, "Output Auth Error\n");
  return http_set_header(message, fields_.answer, value.text.c_str());
}

int http_login::check(const char* headers) {
  if (!digest_) return 0;
  auth_challenge info;
  each_field(headers, fields_.proof, [&](string_view value) { info = read_auth_info(value); });
  const std::string *proof = info.find("rspauth"), *next = info.find("nextnonce");
  if (proof && !digest_->is_proven_by(*proof))
    return log_and_return(DL_LOG_HTTP, DL_ERR_AUTH, "the server does not know the password\n");
  if (!next) return 0;
  std::string cnonce = new_cnonce();
  if (!cnonce.empty()) digest_->renew(*next, std::move(cnonce));
  return 0;
}

}  // namespace fetchrig
