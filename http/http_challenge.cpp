// SPDX-License-Identifier: MIT
// http_challenge.cpp: a Digest challenge is a list of name="value" or name=value parameters; every step works on
// what is left of the text and cannot leave it.
#include "http/http_challenge.h"

#include <stdlib.h>
#include <string.h>

#include <optional>

#include "core/owners.h"
#include "core/text.h"

namespace fetchrig {
namespace {

using std::string_view;

constexpr std::size_t max_name_len = 255;

// One parameter as it stands in the challenge.
struct parameter {
  string_view name;
  string_view value;
  bool quoted;
};

// Reads the parameter that `text` starts with: a name of 1 to 255 characters, "=", and a value, either in
// double quotes or up to a comma or line end. A value that is longer than 1023 characters, or whose closing
// quote is missing, counts as far as it could be read. Nothing when the name is empty or too long, or when
// the value is empty and has no quotes.
std::optional<parameter> read_parameter(string_view text) {
  const std::size_t name_len = text.find('=');
  if (name_len == string_view::npos || name_len == 0 || name_len > max_name_len) return std::nullopt;
  const string_view name = text.substr(0, name_len);
  const string_view rest = text.substr(name_len + 1);
  if (rest.starts_with('"')) {
    const string_view value = rest.substr(1, max_value_len);
    const string_view quoted = value.substr(0, value.find('"'));
    if (!quoted.empty()) return parameter{name, quoted, true};
  }
  const string_view cut = rest.substr(0, max_value_len);
  const string_view plain = cut.substr(0, cut.find_first_of("\r\n,"));
  if (plain == "\"\"") return parameter{name, plain.substr(1, 0), true};
  if (plain.empty()) return std::nullopt;
  return parameter{name, plain, false};
}

// Replaces an owned text by a copy; false without memory.
bool keep(char*& place, string_view text) {
  unique_text copy = duplicate_text(text);
  if (!copy) return false;
  free(place);
  place = copy.release();
  return true;
}

// Of the protections that are offered, picks the one that is answered; "auth" wins.
bool keep_qop(digest_challenge& challenge, string_view items) {
  for (const string_view known : {"auth", "auth-int"}) {
    if (lists(items, known)) return keep(challenge.qop, known);
  }
  free(challenge.qop);
  challenge.qop = nullptr;
  return true;
}

int keep_algorithm(digest_challenge& challenge, string_view value) {
  if (!keep(challenge.algorithm, value)) return HTTP_CHALLENGE_MEMORY;
  if (equal_ignoring_case(value, "MD5-sess")) {
    challenge.session = 1;
  } else if (equal_ignoring_case(value, "MD5")) {
    challenge.session = 0;
  } else {
    return HTTP_CHALLENGE_ALGORITHM;
  }
  return HTTP_CHALLENGE_FINE;
}

// Stores one parameter. Returns HTTP_CHALLENGE_FINE, or the result that ends the parse.
int store(digest_challenge& challenge, string_view name, string_view value) {
  bool kept = true;
  if (equal_ignoring_case(name, "nonce")) {
    kept = keep(challenge.nonce, value);
  } else if (equal_ignoring_case(name, "realm")) {
    kept = keep(challenge.realm, value);
  } else if (equal_ignoring_case(name, "opaque")) {
    kept = keep(challenge.opaque, value);
  } else if (equal_ignoring_case(name, "qop")) {
    kept = keep_qop(challenge, value);
  } else if (equal_ignoring_case(name, "algorithm")) {
    return keep_algorithm(challenge, value);
  } else if (equal_ignoring_case(name, "stale") && equal_ignoring_case(value, "true")) {
    challenge.stale = 1;
    challenge.nc = 1;
  }
  return kept ? HTTP_CHALLENGE_FINE : HTTP_CHALLENGE_MEMORY;
}

// Reads and stores the parameter that `text` starts with and steps past it and the comma behind it. Returns
// HTTP_CHALLENGE_FINE, HTTP_CHALLENGE_UNKNOWN when there is no parameter, or the result that ends the parse.
int take_parameter(digest_challenge& challenge, string_view& text) {
  text = skip_white_space(text);
  const auto found = read_parameter(text);
  if (!found) return HTTP_CHALLENGE_UNKNOWN;
  // From here on the value lives in a buffer: an unquoted qop list grows beyond what was read.
  char value[max_value_len + 1];
  copy_text(value, found->value);
  if (equal_ignoring_case(found->name, "qop")) gather_qop_list(text, found->name.size(), value);
  const string_view whole(value);
  if (const int rc = store(challenge, found->name, whole); rc != HTTP_CHALLENGE_FINE) return rc;
  const std::size_t quotes = found->quoted ? 2 : 0;
  const std::size_t step = found->name.size() + 1 + whole.size() + quotes;
  text = step < text.size() ? skip_white_space(text.substr(step)) : string_view();
  if (text.starts_with(',')) text.remove_prefix(1);
  return HTTP_CHALLENGE_FINE;
}

// `text` is what follows the scheme word. A challenge for a nonce that we already answered is only worth
// another answer when the server calls that nonce stale.
int parse_digest(digest_challenge& challenge, string_view text) {
  const bool answered_before = challenge.nonce != nullptr;
  release_challenge(challenge);
  int rc = HTTP_CHALLENGE_FINE;
  while (rc == HTTP_CHALLENGE_FINE) rc = take_parameter(challenge, text);
  if (rc != HTTP_CHALLENGE_UNKNOWN) return rc;
  if (answered_before && !challenge.stale) return HTTP_CHALLENGE_BAD;
  return challenge.nonce ? HTTP_CHALLENGE_FINE : HTTP_CHALLENGE_BAD;
}

}  // namespace

int read_challenge(const auth_side& side, string_view value) {
  side.picked = 0;
  const string_view text = skip_white_space(value);
  constexpr string_view digest = "Digest";
  if (starts_ignoring_case(text, digest)) {
    side.picked = auth_digest;
    return parse_digest(side.challenge, text.substr(digest.size()));
  }
  if (starts_ignoring_case(text, "Basic")) {
    side.picked = auth_basic;
    return HTTP_CHALLENGE_FINE;
  }
  return HTTP_CHALLENGE_UNKNOWN;
}

void gather_qop_list(string_view parameters, std::size_t name_len, char* value) {
  const std::size_t held = strnlen(value, max_value_len);
  if (parameters.size() < name_len + 1 || parameters.size() - name_len - 1 < held) return;
  string_view more = parameters.substr(name_len + 1);
  if (more.starts_with('"')) return;
  more.remove_prefix(held);
  // Behind the last comma before the next "=" stands the next parameter's name. Without a "=" all are items.
  if (const std::size_t next = more.find('='); next != string_view::npos) {
    const std::size_t comma = more.substr(0, next).rfind(',');
    more = more.substr(0, comma == string_view::npos ? 0 : comma);
  }
  // Only whole items are taken: a cut "auth-int" would read "auth".
  const std::size_t room = max_value_len - held;
  if (more.size() > room) {
    const std::size_t comma = more.substr(0, room + 1).rfind(',');
    more = more.substr(0, comma == string_view::npos ? 0 : comma);
  }
  if (more.empty() || more == string_view(value, held)) return;
  memcpy(value + held, more.data(), more.size());
  value[held + more.size()] = '\0';
}

}  // namespace fetchrig
