// subject.h: subject texts, "/type=value/type=value". A backslash makes the next character literal. Splitting
// knows bytes only; do_subject() and build_subject() of fetchrig_openssl.h turn the elements into OpenSSL
// names. No state; any thread.
#ifndef FETCHRIG_CERT_SUBJECT_H
#define FETCHRIG_CERT_SUBJECT_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace fetchrig {

struct subject_element {
  std::string type;
  std::string value;
};

// The elements in order, escapes resolved; none for "/" alone. Nothing when the text is malformed: no "/" at
// its start, an element without "=", an empty last value, or a backslash at the end.
[[nodiscard]] std::optional<std::vector<subject_element>> parse_subject(std::string_view text);

// The text after the first "CN=", wherever that stands, up to the next "/" and at most 511 characters;
// escapes are left as they are. Nothing without "CN=".
[[nodiscard]] std::optional<std::string_view> raw_common_name(std::string_view subject);

}  // namespace fetchrig
#endif
