// cert_file.cpp: reading certificates and keys whatever their encoding.
#include "cert/cert_file.h"

#include <errno.h>
#include <openssl/pem.h>

#include "cert/der_to_pem.h"
#include "cert/passphrase.h"
#include "core/openssl_owners.h"
#include "include/fetchrig_openssl.h"
#include "log/log.h"

namespace fetchrig {
namespace {

struct x509_infos_deleter {
  void operator()(STACK_OF(X509_INFO) * infos) const { sk_X509_INFO_pop_free(infos, X509_INFO_free); }
};
using unique_x509_infos = std::unique_ptr<STACK_OF(X509_INFO), x509_infos_deleter>;

}  // namespace

cert_source::cert_source(const char* path)
    : file(path), encoding(file.error() == 0 ? encoding_of(file.bytes()) : encoding_none) {
  stream = file.stream();
  if (!stream) error = file.error() == 0 ? ENOMEM : file.error();
}

// Lines are looked at in parts of at most 1023 characters, each up to its first NUL.
int encoding_of(std::string_view content) {
  constexpr std::size_t max_part_len = 1023;
  while (!content.empty()) {
    std::string_view part = content.substr(0, max_part_len);
    if (const std::size_t end = part.find('\n'); end != std::string_view::npos)
      part = part.substr(0, end + 1);
    content.remove_prefix(part.size());
    if (part.substr(0, part.find('\0')).find("BEGIN") != std::string_view::npos) return encoding_pem;
  }
  return encoding_der;
}

int cert_file_format(const char* path) {
  return path ? cert_source(path).encoding : encoding_none;
}

X509* load_cert_bio(int encoding, BIO* bio) {
  if (!bio) return nullptr;
  if (encoding == encoding_pem) return PEM_read_bio_X509(bio, nullptr, no_password_cb, nullptr);
  if (encoding == encoding_der) return d2i_X509_bio(bio, nullptr);
  return nullptr;
}

EVP_PKEY* load_key_bio(int encoding, BIO* bio) {
  if (!bio) return nullptr;
  if (encoding == encoding_pem) return PEM_read_bio_PrivateKey(bio, nullptr, option_password_cb, nullptr);
  if (encoding == encoding_der) return d2i_PrivateKey_bio(bio, nullptr);
  return nullptr;
}

bool add_ca_certificates(X509_STORE* store, BIO* bio) {
  if (!bio) return false;
  const unique_x509_infos infos(PEM_X509_INFO_read_bio(bio, nullptr, no_password_cb, nullptr));
  const int count = infos ? sk_X509_INFO_num(infos.get()) : 0;
  int added = 0;
  for (int i = 0; i < count; ++i) {
    const X509_INFO* info = sk_X509_INFO_value(infos.get(), i);
    if (info->x509 && X509_STORE_add_cert(store, info->x509) != 1) return false;
    if (info->crl && X509_STORE_add_crl(store, info->crl) != 1) return false;
    added += (info->x509 ? 1 : 0) + (info->crl ? 1 : 0);
  }
  return added > 0;
}

uint32_t ca_file_hash(const char* path) {
  if (path && dl_path_is_directory(path)) {
    log_line(DL_LOG_CMN, DL_LOG_NOTICE, "path is directory, ret\n");
    return 0;
  }
  const cert_source source(path ? path : "");
  if (!source.stream) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "Bio_new_file error ca_file\n");
    return 0;
  }
  const unique_x509 certificate(load_cert_bio(source.encoding, source.stream.get()));
  if (!certificate) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "unable to load certificate ca_file\n");
    return 0;
  }
  if (source.encoding == encoding_der && !rewrite_as_pem(path, certificate.get())) return 0;
  return static_cast<uint32_t>(X509_subject_name_hash(certificate.get()));
}

}  // namespace fetchrig
