// SPDX-License-Identifier: MIT
// digest_rfc7616.cpp: the hashes and the field's text. Section numbers are those of RFC 7616.
#include "http/extra/digest_rfc7616.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <stdio.h>

#include <algorithm>
#include <array>
#include <initializer_list>
#include <new>

#include "core/openssl_owners.h"
#include "core/text.h"

namespace fetchrig {

struct digest_algorithm {
  std::string_view name;
  const EVP_MD* (*hash)();
  bool session;
  int strength;
};

namespace {

using std::string_view;

constexpr digest_algorithm algorithms[] = {
    {"MD5", EVP_md5, false, 1},
    {"MD5-sess", EVP_md5, true, 1},
    {"SHA-256", EVP_sha256, false, 2},
    {"SHA-256-sess", EVP_sha256, true, 2},
    {"SHA-512-256", EVP_sha512_256, false, 3},
    {"SHA-512-256-sess", EVP_sha512_256, true, 3},
};

// The hash of the parts with ":" between them, in hexadecimal digits. Throws when OpenSSL fails, which is for want of
// memory.
std::string hashed(const EVP_MD* hash, std::initializer_list<string_view> parts) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> bytes;
  unsigned length = 0;
  ERR_set_mark();
  const unique_md_ctx context(EVP_MD_CTX_new());
  bool fine = context && EVP_DigestInit_ex(context.get(), hash, nullptr) == 1;
  string_view separator;
  for (const string_view part : parts) {
    fine = fine && EVP_DigestUpdate(context.get(), separator.data(), separator.size()) == 1 &&
           EVP_DigestUpdate(context.get(), part.data(), part.size()) == 1;
    separator = ":";
  }
  fine = fine && EVP_DigestFinal_ex(context.get(), bytes.data(), &length) == 1;
  ERR_pop_to_mark();
  if (!fine) throw std::bad_alloc();  // an answer without its hash says something else
  std::string digits = to_hex(std::span(bytes).first(length));
  OPENSSL_cleanse(bytes.data(), bytes.size());
  return digits;
}

bool is_plain(string_view text) {
  return std::none_of(text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; });
}

bool is_ascii(string_view text) {
  return std::none_of(text.begin(), text.end(), [](char c) { return (c & 0x80) != 0; });
}

bool says(const auth_challenge& challenge, string_view name, string_view value) {
  const std::string* said = challenge.find(name);
  return said && equal_ignoring_case(*said, value);
}

// False for a list without anything known in it.
bool read_qop(const std::string* items, digest_qop& qop) {
  if (!items) return true;
  if (lists(*items, "auth")) {
    qop = digest_qop::auth;
  } else if (lists(*items, "auth-int")) {
    qop = digest_qop::auth_int;
  }
  return qop != digest_qop::none;
}

constexpr const char* name_of(digest_qop qop) {
  return qop == digest_qop::auth_int ? "auth-int" : "auth";
}

std::string quoted(string_view text) {
  std::string all(1, '"');
  for (const char c : text) {
    if (c == '"' || c == '\\') all += '\\';
    all += c;
  }
  all += '"';
  return all;
}

// The ext-value of RFC 8187.
std::string percent_encoded(string_view text) {
  constexpr string_view kept = "!#$&+-.^_`|~";
  std::string all = "UTF-8''";
  for (const char c : text) {
    const bool plain =
        is_digit(c) || (lower(c) >= 'a' && lower(c) <= 'z') || kept.find(c) != string_view::npos;
    char code[4] = {c, '\0'};
    if (!plain) snprintf(code, sizeof code, "%%%02X", static_cast<unsigned char>(c));
    all += code;
  }
  return all;
}

void add(std::string& text, std::initializer_list<string_view> parts) {
  for (const string_view part : parts) text += part;
}

std::string nc_text(uint32_t nc) {
  char digits[9];
  snprintf(digits, sizeof digits, "%08x", nc);
  return digits;
}

}  // namespace

int digest_terms::strength() const {
  return algorithm->strength;
}

std::optional<digest_terms> read_digest_terms(const auth_challenge& challenge) {
  if (!equal_ignoring_case(challenge.scheme, "Digest")) return std::nullopt;
  const std::string *algorithm = challenge.find("algorithm"), *realm = challenge.find("realm"),
                    *nonce = challenge.find("nonce"), *opaque = challenge.find("opaque");
  const string_view wanted = algorithm ? string_view(*algorithm) : "MD5";
  const auto* known =
      std::find_if(std::begin(algorithms), std::end(algorithms),
                   [wanted](const digest_algorithm& one) { return equal_ignoring_case(one.name, wanted); });
  if (known == std::end(algorithms) || !nonce) return std::nullopt;
  digest_terms terms;
  terms.algorithm = known;
  terms.names_algorithm = algorithm != nullptr;
  if (realm) terms.realm = *realm;
  terms.nonce = *nonce;
  if (opaque) terms.opaque = *opaque;
  if (!read_qop(challenge.find("qop"), terms.qop)) return std::nullopt;
  // A session's hash needs a nonce of the client's, which goes out with a qop alone.
  if (known->session && terms.qop == digest_qop::none) return std::nullopt;
  if (!is_plain(terms.realm) || !is_plain(terms.nonce) || !is_plain(terms.opaque.value_or("")))
    return std::nullopt;
  terms.hashes_user = says(challenge, "userhash", "true");
  terms.is_utf8 = says(challenge, "charset", "UTF-8");
  terms.is_stale = says(challenge, "stale", "true");
  return terms;
}

digest_login::digest_login(digest_terms terms, string_view user, string_view password, std::string cnonce)
    : terms_(std::move(terms)), user_(user), cnonce_(std::move(cnonce)) {
  const EVP_MD* const hash = terms_.algorithm->hash();
  login_hash_ = hashed(hash, {user, terms_.realm, password});
  if (terms_.algorithm->session) session_hash_ = hashed(hash, {login_hash_, terms_.nonce, cnonce_});
}

const EVP_MD* digest_login::hash() const {
  return terms_.algorithm->hash();
}

digest_login::~digest_login() {
  wipe(login_hash_);
  wipe(session_hash_);
  wipe(user_);
}

void digest_login::renew(std::string nonce, std::string cnonce) {
  if (!is_plain(nonce)) return;
  terms_.nonce = std::move(nonce);
  cnonce_ = std::move(cnonce);
  nc_ = 0;
}

// Sections 3.4.1 to 3.4.3; the hash of the body with auth-int.
std::string digest_login::response(string_view method, string_view uri, string_view body_hash) const {
  const EVP_MD* const hash = terms_.algorithm->hash();
  const std::string& key = terms_.algorithm->session ? session_hash_ : login_hash_;
  const std::string request = terms_.qop == digest_qop::auth_int ? hashed(hash, {method, uri, body_hash})
                                                                 : hashed(hash, {method, uri});
  if (key.empty() || request.empty()) return "";
  if (terms_.qop == digest_qop::none) return hashed(hash, {key, terms_.nonce, request});
  return hashed(hash, {key, terms_.nonce, nc_text(nc_), cnonce_, name_of(terms_.qop), request});
}

std::string digest_login::answer(const digest_request& request) {
  if (!is_plain(user_) || !is_plain(request.uri)) return "";
  ++nc_;
  uri_ = request.uri;
  const EVP_MD* const hash = terms_.algorithm->hash();
  const std::string proof = response(request.method, request.uri, request.body_hash);
  if (proof.empty()) return "";
  const bool extended = terms_.is_utf8 && !terms_.hashes_user && !is_ascii(user_);
  std::string text = "Digest username";
  if (terms_.hashes_user) {
    add(text, {"=", quoted(hashed(hash, {user_, terms_.realm}))});
  } else if (extended) {
    add(text, {"*=", percent_encoded(user_)});
  } else {
    add(text, {"=", quoted(user_)});
  }
  add(text, {", realm=", quoted(terms_.realm), ", nonce=", quoted(terms_.nonce), ", uri=", quoted(uri_)});
  add(text, {", response=", quoted(proof)});
  if (terms_.names_algorithm) add(text, {", algorithm=", terms_.algorithm->name});
  if (terms_.opaque) add(text, {", opaque=", quoted(*terms_.opaque)});
  if (terms_.qop != digest_qop::none)
    add(text, {", qop=", name_of(terms_.qop), ", nc=", nc_text(nc_), ", cnonce=", quoted(cnonce_)});
  if (terms_.hashes_user) add(text, {", userhash=true"});
  return text;
}

// Section 3.5: as the response, without a method.
bool digest_login::is_proven_by(const std::string& proof) const {
  if (terms_.qop == digest_qop::auth_int) return true;
  const std::string own = response("", uri_, "");
  return !own.empty() && equal_ignoring_case(own, proof);
}

}  // namespace fetchrig
