// ca_info_ex.cpp: the long description of a certificate file.
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <algorithm>

#include "cert/asn1_text.h"
#include "cert/ca_info.h"
#include "cert/cert_file.h"
#include "cert/error_queue.h"
#include "cert/passphrase.h"
#include "core/boundary.h"
#include "core/result.h"
#include "core/text.h"
#include "include/fetchrig_openssl.h"
#include "log/log.h"

namespace fetchrig {
namespace {

constexpr uint32_t with_private_key = 1;

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
bool fill_names(X509* certificate, dl_ca_info_ex& info) {
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

void fill_algorithms(X509* certificate, dl_ca_info_ex& info) {
  object_to_text(X509_get0_tbs_sigalg(certificate)->algorithm, info.sig_alg);
  ASN1_OBJECT* key_algorithm = nullptr;
  X509_PUBKEY_get0_param(&key_algorithm, nullptr, nullptr, nullptr, X509_get_X509_PUBKEY(certificate));
  object_to_text(key_algorithm, info.key_alg);
  const EVP_PKEY* key = X509_get0_pubkey(certificate);
  info.key_bits = key ? EVP_PKEY_get_bits(key) : 0;
}

// The key that follows the certificate in the stream, if there is one.
certificate_read fill_private_key(BIO* bio, dl_ca_info_ex& info) {
  log_line(DL_LOG_CMN, DL_LOG_INFO, "client cert\n");
  if (OPENSSL_init_ssl(0, nullptr) != 1) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "SSL_library_init error\n");
    return certificate_read::setup_failed;
  }
  const unique_pkey key(PEM_read_bio_PrivateKey(bio, nullptr, option_password_cb, nullptr));
  if (!key) return certificate_read::fine;
  object_to_text(OBJ_nid2obj(EVP_PKEY_get_base_id(key.get())), info.priv_alg);
  info.priv_bits = EVP_PKEY_get_bits(key.get());
  return certificate_read::fine;
}

int code_of(certificate_read outcome) {
  switch (outcome) {
    case certificate_read::fine:
      return 0;
    case certificate_read::unusable:
    case certificate_read::failed:
      return 1;
    case certificate_read::setup_failed:
      return 2;
  }
  return 1;
}

}  // namespace

bool fill_ca_info_ex(X509* certificate, dl_ca_info_ex& info) {
  info.version = static_cast<uint8_t>(static_cast<unsigned long>(X509_get_version(certificate)) + 1);
  asn1_serial_to_text(X509_get0_serialNumber(certificate), info.serial);
  if (!fill_names(certificate, info)) return false;
  fill_date(info.not_after, X509_get0_notAfter(certificate));
  fill_date(info.not_before, X509_get0_notBefore(certificate));
  fill_algorithms(certificate, info);
  info.ext_count = static_cast<uint8_t>(std::clamp(X509_get_ext_count(certificate), 0, 255));
  return true;
}

certificate_read describe_ca_ex(const char* path, dl_ca_info_ex& info, uint32_t flags) {
  const cert_source source(path);
  unique_x509 certificate;
  const certificate_read outcome = read_certificate(source, certificate);
  if (outcome != certificate_read::fine) return outcome;
  if (!fill_ca_info_ex(certificate.get(), info)) return certificate_read::unusable;
  info.hash = ca_file_hash(path);
  return flags & with_private_key ? fill_private_key(source.stream.get(), info) : certificate_read::fine;
}

}  // namespace fetchrig

int dl_get_ca_info_ex(const char* path, dl_ca_info_ex* info, uint32_t flags, dl_result* result) {
  using namespace fetchrig;
  if (result && path && info) {
    const clean_error_queue after;
    clear_result(*result);
    result->code = guarded([&] { return code_of(describe_ca_ex(path, *info, flags)); }, [] { return 1; });
    return result->code == 0 ? 0 : -1;
  }
  log_line(DL_LOG_CMN, DL_LOG_ERROR, "Invalid Parameter\n");
  if (result) result->code = 1;
  return -1;
}
