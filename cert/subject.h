// SPDX-License-Identifier: MIT
// subject.h: subject texts, "/type=value/type=value", and the OpenSSL names made from them. A backslash makes the next
// character literal. Splitting knows bytes only. No state; any thread.
#ifndef FETCHRIG_CERT_SUBJECT_H
#define FETCHRIG_CERT_SUBJECT_H

#include <openssl/x509.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/openssl_owners.h"

namespace fetchrig {

struct subject_element {
  std::string type;
  std::string value;
};

// The elements in order, escapes resolved; none for "/" alone. Nothing when the text is malformed: no "/" at its start,
// an element without "=", an empty last value, or a backslash at the end.
[[nodiscard]] std::optional<std::vector<subject_element>> parse_subject(std::string_view text);

// The text after the first "CN=", wherever that stands, up to the next "/" and at most 511 characters; escapes are left
// as they are. Nothing without "CN=".
[[nodiscard]] std::optional<std::string_view> raw_common_name(std::string_view subject);

// The name of the elements; those of an unknown type or without a value are left out. `string_type` is MBSTRING_ASC and
// the like. Null for null and malformed texts and when OpenSSL refuses a value.
[[nodiscard]] unique_x509_name subject_name(const char* text, int string_type);

// Makes that name the request's subject; false when there is none.
[[nodiscard]] bool set_subject(X509_REQ* request, const char* text, int string_type);

}  // namespace fetchrig
#endif
