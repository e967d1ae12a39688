// SPDX-License-Identifier: MIT
// ca_info_ex.cpp: describes certificate files in long form.
#include "cert/ca_info_ex.h"

#include <openssl/ssl.h>

#include <algorithm>

#include "cert/asn1_text.h"
#include "cert/ca_info.h"
#include "core/text.h"
#include "log/log.h"

namespace fetchrig {
namespace {

constexpr uint32_t with_private_key = 1;
constexpr int undescribed = 1;
constexpr int setup_failed = 2;

// The common name, failing that the organisational unit, failing that the organisation.
void fill_display_name(std::span<char, 64> field, const X509_NAME* name) {
  for (const int nid : {NID_commonName, NID_organizationalUnitName, NID_organizationName}) {
    const auto value = name_element(name, nid);
    if (!value) continue;
    if (!value->empty()) copy_text(field, *value);
    return;
  }
}

// The issuer's and the subject's display names; false (logged) without one of the names.
bool fill_names(dl_ca_info_ex& info, X509* certificate) {
  const X509_NAME* issuer = X509_get_issuer_name(certificate);
  if (!issuer) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "X509_get_issuer_name error\n");
    return false;
  }
  fill_display_name(info.issuer, issuer);
  const X509_NAME* subject = X509_get_subject_name(certificate);
  if (!subject) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "X509_get_subject_name error\n");
    return false;
  }
  fill_display_name(info.subject, subject);
  return true;
}

void fill_algorithms(dl_ca_info_ex& info, X509* certificate) {
  object_to_text(X509_get0_tbs_sigalg(certificate)->algorithm, info.sig_alg);
  ASN1_OBJECT* key_algorithm = nullptr;
  X509_PUBKEY_get0_param(&key_algorithm, nullptr, nullptr, nullptr, X509_get_X509_PUBKEY(certificate));
  object_to_text(key_algorithm, info.key_alg);
  const EVP_PKEY* key = X509_get0_pubkey(certificate);
  info.key_bits = key ? EVP_PKEY_get_bits(key) : 0;
}

// The key that follows the certificate in the stream, if there is one. 0, or 2 when OpenSSL did not start.
int fill_private_key(dl_ca_info_ex& info, const cert_source& source) {
  log_line(DL_LOG_CMN, DL_LOG_INFO, "client cert\n");
  if (OPENSSL_init_ssl(0, nullptr) != 1) {
    return log_and_return(DL_LOG_CMN, setup_failed, "SSL_library_init error\n");
  }
  const unique_pkey key = load_key_bio(encoding_pem, source.stream.get());
  if (!key) return 0;
  object_to_text(OBJ_nid2obj(EVP_PKEY_get_base_id(key.get())), info.priv_alg);
  info.priv_bits = EVP_PKEY_get_bits(key.get());
  return 0;
}

certificate_read describe(dl_ca_info_ex& info, const cert_source& source, const char* path) {
  unique_x509 certificate;
  const certificate_read outcome = read_described(certificate, source);
  if (outcome != certificate_read::fine) return outcome;
  if (!fill_ca_info_ex(info, certificate.get())) return certificate_read::unusable;
  info.hash = ca_file_hash(path);
  return certificate_read::fine;
}

}  // namespace

bool fill_ca_info_ex(dl_ca_info_ex& info, X509* certificate) {
  info.version = static_cast<uint8_t>(static_cast<unsigned long>(X509_get_version(certificate)) + 1);
  asn1_serial_to_text(X509_get0_serialNumber(certificate), info.serial);
  if (!fill_names(info, certificate)) return false;
  fill_date(info.not_after, X509_get0_notAfter(certificate));
  fill_date(info.not_before, X509_get0_notBefore(certificate));
  fill_algorithms(info, certificate);
  info.ext_count = static_cast<uint8_t>(std::clamp(X509_get_ext_count(certificate), 0, 255));
  return true;
}

certificate_read describe_ca_ex(dl_ca_info_ex& info, const char* path) {
  return describe(info, cert_source(path), path);
}

int get_ca_info_ex(dl_ca_info_ex& info, const char* path, uint32_t flags) {
  const cert_source source(path);
  if (describe(info, source, path) != certificate_read::fine) return undescribed;
  return (flags & with_private_key) != 0 ? fill_private_key(info, source) : 0;
}

}  // namespace fetchrig
