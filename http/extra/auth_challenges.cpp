// SPDX-License-Identifier: MIT
// auth_challenges.cpp: a scheme and a parameter both begin with a token; what follows the token tells them apart.
#include "http/extra/auth_challenges.h"

#include <algorithm>
#include <optional>

#include "core/text.h"

namespace fetchrig {
namespace {

using std::string_view;

constexpr std::size_t max_challenges = 16;
constexpr std::size_t max_parameters = 32;

constexpr bool is_letter(char c) {
  return lower(c) >= 'a' && lower(c) <= 'z';
}
constexpr bool is_token_char(char c) {
  return is_letter(c) || is_digit(c) || string_view("!#$%&'*+-.^_`|~").find(c) != string_view::npos;
}
constexpr bool is_token68_char(char c) {
  return is_letter(c) || is_digit(c) || string_view("-._~+/").find(c) != string_view::npos;
}

class list_reader {
 public:
  list_reader(string_view field, std::vector<auth_challenge>& into) : rest_(field), into_(into) {}

  // Reads schemes with their parameters; false at a fault.
  bool read_schemes();
  // Reads parameters up to what is none.
  bool read_parameters(auth_challenge& challenge);

 private:
  void skip_blanks() { rest_.remove_prefix(std::min(rest_.find_first_not_of(" \t"), rest_.size())); }
  void skip_commas() { rest_.remove_prefix(std::min(rest_.find_first_not_of(" \t,"), rest_.size())); }
  bool at_separator() const { return rest_.empty() || rest_.front() == ','; }
  string_view take(bool (*belongs)(char));
  bool take_equals();
  bool begin_scheme(string_view token);
  void skip_token68();
  std::optional<std::string> take_value();
  std::optional<std::string> take_quoted();
  bool take_parameter(auth_challenge& challenge, string_view name);

  string_view rest_;
  std::vector<auth_challenge>& into_;
};

string_view list_reader::take(bool (*belongs)(char)) {
  const auto end = std::find_if_not(rest_.begin(), rest_.end(), belongs);
  const string_view taken = rest_.substr(0, static_cast<std::size_t>(end - rest_.begin()));
  rest_.remove_prefix(taken.size());
  return taken;
}

// "=" with blanks around it; nothing is taken without it.
bool list_reader::take_equals() {
  const string_view before = rest_;
  skip_blanks();
  if (!rest_.starts_with('=')) {
    rest_ = before;
    return false;
  }
  rest_.remove_prefix(1);
  skip_blanks();
  return true;
}

std::optional<std::string> list_reader::take_quoted() {
  std::string value;
  for (std::size_t at = 1; at < rest_.size(); ++at) {
    if (rest_[at] == '"') {
      rest_.remove_prefix(at + 1);
      return value;
    }
    if (rest_[at] == '\\' && ++at == rest_.size()) break;
    value += rest_[at];
  }
  return std::nullopt;
}

std::optional<std::string> list_reader::take_value() {
  if (rest_.starts_with('"')) return take_quoted();
  // Some servers leave out the quotes of what is no token.
  const string_view value = rest_.substr(0, rest_.find_first_of(" \t,\""));
  if (value.empty()) return std::nullopt;
  rest_.remove_prefix(value.size());
  return std::string(value);
}

bool list_reader::take_parameter(auth_challenge& challenge, string_view name) {
  auto value = take_value();
  skip_blanks();
  if (!value || !at_separator() || challenge.parameters.size() == max_parameters) return false;
  challenge.parameters.push_back({std::string(name), std::move(*value)});
  return true;
}

bool list_reader::read_parameters(auth_challenge& challenge) {
  for (skip_commas(); !rest_.empty(); skip_commas()) {
    const string_view name = take(is_token_char);
    if (name.empty() || !take_equals() || !take_parameter(challenge, name)) return false;
  }
  return true;
}

// Credentials of another kind: nothing that is answered has them.
void list_reader::skip_token68() {
  const string_view before = rest_;
  const bool some = !take(is_token68_char).empty();
  rest_.remove_prefix(std::min(rest_.find_first_not_of('='), rest_.size()));
  skip_blanks();
  if (!some || !at_separator()) rest_ = before;
}

bool list_reader::begin_scheme(string_view token) {
  if (into_.size() == max_challenges) return false;
  into_.push_back({std::string(token), {}});
  if (at_separator()) return true;
  if (rest_.front() != ' ' && rest_.front() != '\t') return false;
  skip_blanks();
  skip_token68();
  if (at_separator()) return true;
  const string_view name = take(is_token_char);
  return !name.empty() && take_equals() && take_parameter(into_.back(), name);
}

bool list_reader::read_schemes() {
  const std::size_t before = into_.size();
  for (skip_commas(); !rest_.empty(); skip_commas()) {
    const string_view token = take(is_token_char);
    if (token.empty()) return false;
    const bool has_scheme = into_.size() > before;
    auto* parameters = has_scheme ? &into_.back().parameters : nullptr;
    if (has_scheme && take_equals()) {
      if (!take_parameter(into_.back(), token)) return false;
    } else if (at_separator() && parameters && !parameters->empty() &&
               equal_ignoring_case(parameters->back().name, "qop")) {
      parameters->back().value.append(",").append(token);  // a list whose quotes were left out
    } else if (!begin_scheme(token)) {
      return false;
    }
  }
  return true;
}

}  // namespace

const std::string* auth_challenge::find(string_view name) const {
  const auto found = std::find_if(parameters.begin(), parameters.end(), [name](const auth_parameter& one) {
    return equal_ignoring_case(one.name, name);
  });
  return found == parameters.end() ? nullptr : &found->value;
}

void read_challenges(string_view field, std::vector<auth_challenge>& into) {
  const std::size_t before = into.size();
  if (!list_reader(field, into).read_schemes() && into.size() > before) into.pop_back();
}

auth_challenge read_auth_info(string_view field) {
  std::vector<auth_challenge> none;
  auth_challenge info;
  static_cast<void>(list_reader(field, none).read_parameters(info));
  return info;
}

}  // namespace fetchrig
