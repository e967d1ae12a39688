// SPDX-License-Identifier: MIT
// x509_text.h: what a certificate says, as texts in UTF-8: its whole names, where the library's records hold one part
// of them, and what those records leave out. The texts may hold control characters: see printable.h. Any thread.
#ifndef FETCHRIG_CLI_X509_TEXT_H
#define FETCHRIG_CLI_X509_TEXT_H

#include <string>
#include <vector>

#include "pem.h"

namespace fetchrig::cli {

struct x509_text {
  std::string subject;  // "CN=www.example.com, O=Example"
  std::string issuer;
  std::string common_name;                     // empty when there is none
  std::vector<std::string> alternative_names;  // "DNS:www.example.com"
  bool is_ca = false;
  std::string sha256;      // of the DER form, in hexadecimal digits
  std::string not_before;  // "2034-02-24T00:00:00Z", empty when it is no date
  std::string not_after;
  int days_left = 0;  // whole days, below 0 when it has expired
};

x509_text texts_of(X509* certificate);

// The same of the first certificate of a PEM file; all empty when there is none.
x509_text texts_of_file(const std::string& path);

}  // namespace fetchrig::cli
#endif
