// named_certificate.h: a certificate that carries names and nothing else.
#ifndef FETCHRIG_TESTS_SUPPORT_NAMED_CERTIFICATE_H
#define FETCHRIG_TESTS_SUPPORT_NAMED_CERTIFICATE_H

#include <openssl/x509v3.h>

#include <optional>
#include <string>
#include <vector>

#include "core/openssl_owners.h"

namespace test {

// An alternative name is "DNS:", "URI:" or "IP:" (raw bytes) and the value, which may hold anything.
inline fetchrig::unique_x509 named_certificate(const std::optional<std::string>& common_name,
                                               const std::vector<std::string>& alternatives) {
  fetchrig::unique_x509 certificate(X509_new());
  if (common_name) {
    X509_NAME_add_entry_by_NID(X509_get_subject_name(certificate.get()), NID_commonName, V_ASN1_UTF8STRING,
                               reinterpret_cast<const unsigned char*>(common_name->data()),
                               static_cast<int>(common_name->size()), -1, 0);
  }
  GENERAL_NAMES* names = GENERAL_NAMES_new();
  for (const std::string& text : alternatives) {
    const std::string value = text.substr(text.find(':') + 1);
    const int type = text.starts_with("DNS") ? GEN_DNS : text.starts_with("IP") ? GEN_IPADD : GEN_URI;
    ASN1_STRING* bytes = ASN1_STRING_type_new(type == GEN_IPADD ? V_ASN1_OCTET_STRING : V_ASN1_IA5STRING);
    ASN1_STRING_set(bytes, value.data(), static_cast<int>(value.size()));
    GENERAL_NAME* name = GENERAL_NAME_new();
    GENERAL_NAME_set0_value(name, type, bytes);
    sk_GENERAL_NAME_push(names, name);
  }
  X509_add1_ext_i2d(certificate.get(), NID_subject_alt_name, names, 0, 0);
  GENERAL_NAMES_free(names);
  return certificate;
}

}  // namespace test
#endif
