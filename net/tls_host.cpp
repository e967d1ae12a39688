// SPDX-License-Identifier: MIT
// tls_host.cpp: matching a certificate's names with the host. Names are compared with their lengths, so a
// terminator inside a name never matches.
#include "net/tls_host.h"

#include <arpa/inet.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <string_view>

#include "core/asn1_bytes.h"
#include "core/text.h"
#include "log/log.h"

namespace fetchrig {
namespace {

struct general_names_deleter {
  void operator()(GENERAL_NAMES* names) const { GENERAL_NAMES_free(names); }
};
using unique_general_names = std::unique_ptr<GENERAL_NAMES, general_names_deleter>;

// The host as its kind asks to be compared: an address by its bytes, anything else as a name.
struct host_identity {
  std::string name;
  std::array<unsigned char, 16> address = {};
  std::size_t address_len = 0;  // 0: a name; 4 or 16: an address
};

void classify_ipv6(host_identity& host, std::string_view text) {
  if (::inet_pton(AF_INET6, std::string(text).c_str(), host.address.data()) == 1) host.address_len = 16;
}

void classify_ipv4(host_identity& host) {
  in_addr address = {};
  if (!::inet_aton(host.name.c_str(), &address)) return;
  const auto* bytes = reinterpret_cast<const unsigned char*>(&address);
  std::copy_n(bytes, sizeof address, host.address.begin());
  host.address_len = sizeof address;
}

host_identity classify(const char* text) {
  host_identity host;
  host.name = or_empty(text);
  const auto bracket = host.name.find(']');
  const auto dot = host.name.rfind('.');
  if (host.name.starts_with('[') && bracket != std::string::npos) {
    classify_ipv6(host, std::string_view(host.name).substr(1, bracket - 1));
  } else if (host.name.find(':') != std::string::npos) {
    classify_ipv6(host, host.name);
  } else if (dot != std::string::npos && dot + 1 < host.name.size() && is_digit(host.name[dot + 1])) {
    classify_ipv4(host);
  }
  return host;
}

// The host from its first "." on; empty without one.
std::string_view tail_of(std::string_view host) {
  const auto dot = host.find('.');
  return dot == std::string_view::npos ? std::string_view() : host.substr(dot);
}

// Equal, or "*" and the host's tail.
bool name_matches(std::string_view pattern, std::string_view host) {
  if (pattern.empty()) return false;
  if (equal_ignoring_case(pattern, host)) return true;
  const auto tail = tail_of(host);
  return !tail.empty() && pattern.starts_with("*.") && equal_ignoring_case(pattern.substr(1), tail);
}

bool entry_matches(const GENERAL_NAME& entry, const host_identity& host) {
  if (host.address_len == 0)
    return entry.type == GEN_DNS && name_matches(asn1_bytes(entry.d.dNSName), host.name);
  if (entry.type != GEN_IPADD) return false;
  const auto* address = reinterpret_cast<const char*>(host.address.data());
  return asn1_bytes(entry.d.iPAddress) == std::string_view(address, host.address_len);
}

bool alternative_name_matches(X509* certificate, const host_identity& host) {
  const unique_general_names names(
      static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
  if (!names) return false;
  for (int i = 0; i < sk_GENERAL_NAME_num(names.get()); ++i) {
    if (entry_matches(*sk_GENERAL_NAME_value(names.get(), i), host)) return true;
  }
  return false;
}

// The subject's first common name, or null.
const ASN1_STRING* common_name(X509* certificate) {
  X509_NAME* subject = X509_get_subject_name(certificate);
  const int index = subject ? X509_NAME_get_index_by_NID(subject, NID_commonName, -1) : -1;
  return index < 0 ? nullptr : X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index));
}

}  // namespace

int ssl_check_host_name(X509* certificate, const char* host_text) {
  const host_identity host = classify(host_text);
  if (alternative_name_matches(certificate, host)) return 0;
  const ASN1_STRING* name = common_name(certificate);
  if (!name) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "TLS: unable to get common name from peer certificate.\n");
    return -1;
  }
  constexpr std::size_t max_common_name = 255;
  return name_matches(asn1_bytes(name).substr(0, max_common_name), host.name) ? 0 : -1;
}

}  // namespace fetchrig
