// SPDX-License-Identifier: MIT
// netrc.cpp: reading .netrc word by word.
#include "netrc.h"

#include <strings.h>

#include <algorithm>

namespace fetchrig::cli {
namespace {

constexpr std::string_view blanks = " \t\r\n";

class netrc_reader {
 public:
  explicit netrc_reader(std::string_view text) : rest_(text) {}

  // The next word, without its quotes; nothing at the end.
  std::optional<std::string> word() {
    skip_blanks();
    if (rest_.empty()) return std::nullopt;
    return rest_.front() == '"' ? quoted_word() : plain_word();
  }
  // The next word that is no comment's.
  std::optional<std::string> keyword() {
    for (skip_blanks(); rest_.starts_with('#'); skip_blanks()) skip_past("\n");
    return word();
  }
  void skip_macro() { skip_past("\n\n"); }

 private:
  void skip(std::size_t count) { rest_.remove_prefix(std::min(count, rest_.size())); }
  void skip_blanks() { skip(rest_.find_first_not_of(blanks)); }
  void skip_past(std::string_view mark) {
    const std::size_t at = rest_.find(mark);
    skip(at == rest_.npos ? at : at + mark.size());
  }
  std::string plain_word() {
    std::string found(rest_.substr(0, rest_.find_first_of(blanks)));
    skip(found.size());
    return found;
  }
  std::string quoted_word() {
    std::string found;
    for (skip(1); !rest_.empty() && rest_.front() != '"'; skip(1)) {
      if (rest_.front() == '\\' && rest_.size() > 1) skip(1);
      found += rest_.front();
    }
    skip(1);
    return found;
  }

  std::string_view rest_;
};

struct entry {
  bool matches = false;  // the host
  netrc_login login;
};

bool fits(const entry& found, const std::optional<std::string>& user) {
  return found.matches && (user ? found.login.user == *user : !found.login.user.empty());
}

}  // namespace

std::optional<netrc_login> find_netrc_login(std::string_view text, const std::string& host,
                                            const std::optional<std::string>& user) {
  netrc_reader reader(text);
  entry current;
  while (const auto key = reader.keyword()) {
    const bool starts = *key == "machine" || *key == "default";
    if (starts && fits(current, user)) return current.login;
    if (*key == "default") current = {true, {}};
    if (*key == "macdef") reader.skip_macro();
    if (*key == "default" || *key == "macdef") continue;
    const std::string value = reader.word().value_or("");
    if (*key == "machine") current = {strcasecmp(value.c_str(), host.c_str()) == 0, {}};
    if (*key == "login") current.login.user = value;
    if (*key == "password") current.login.password = value;
  }
  if (fits(current, user)) return current.login;
  return std::nullopt;
}

}  // namespace fetchrig::cli
