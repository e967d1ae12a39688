// SPDX-License-Identifier: MIT
// cert_file.cpp: reading certificates and keys whatever their encoding.
#include "cert/cert_file.h"

#include <errno.h>
#include <openssl/pem.h>

#include <string_view>

#include "cert/der_to_pem.h"
#include "cert/error_queue.h"
#include "cert/passphrase.h"
#include "core/cause.h"
#include "core/files.h"
#include "log/log.h"

namespace fetchrig {
namespace {

struct x509_infos_deleter {
  void operator()(STACK_OF(X509_INFO) * infos) const { sk_X509_INFO_pop_free(infos, X509_INFO_free); }
};
using unique_x509_infos = std::unique_ptr<STACK_OF(X509_INFO), x509_infos_deleter>;

// Why a source has no stream: the file is gone (or a link to nothing), or it is there but out of reach for now.
certificate_read why_not_opened(int error) {
  const bool gone = error == ENOENT || error == ENOTDIR || error == ELOOP;
  return gone ? certificate_read::unusable : certificate_read::failed;
}

// Why a file that was read gave no certificate. Empties OpenSSL's error queue, which was empty before.
certificate_read why_not_read(const small_file& file) {
  const bool is_empty = file.bytes().empty();  // the one refusal without a reason
  return !is_empty && ran_out_of_memory() ? certificate_read::failed : certificate_read::unusable;
}

// PEM when a line contains "BEGIN", else DER. Lines are looked at in parts of at most 1023 characters, each up to its
// first NUL.
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

}  // namespace

cert_source::cert_source(const char* path)
    : file(path), encoding(file.error() == 0 ? encoding_of(file.bytes()) : encoding_none) {
  stream = file.stream();
  if (!stream) error = file.error() == 0 ? ENOMEM : file.error();
}

unique_x509 cert_source::certificate() const {
  return load_cert_bio(encoding, stream.get());
}

unique_pkey cert_source::key() const {
  return load_key_bio(encoding, file.stream().get());
}

unique_pkey cert_source::plain_key() const {
  return unique_pkey(PEM_read_bio_PrivateKey(stream.get(), nullptr, no_password_cb, nullptr));
}

certificate_read read_certificate(unique_x509& certificate, const cert_source& source,
                                  const read_messages& messages) {
  if (!source.stream) {
    const certificate_read outcome = why_not_opened(source.error);
    if (outcome == certificate_read::failed) note_cause(DL_CAUSE_LOCAL_FILE, source.error);
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "%s", messages.not_opened);
    return outcome;
  }
  ERR_clear_error();
  certificate = source.certificate();
  if (certificate) return certificate_read::fine;
  const certificate_read outcome = why_not_read(source.file);
  if (outcome == certificate_read::failed) note_cause(DL_CAUSE_LOCAL_FILE, ENOMEM);
  log_line(DL_LOG_CMN, DL_LOG_ERROR, "%s", messages.no_certificate);
  return outcome;
}

unique_x509 load_cert_bio(int encoding, BIO* bio) {
  if (!bio) return nullptr;
  if (encoding == encoding_pem) return unique_x509(PEM_read_bio_X509(bio, nullptr, no_password_cb, nullptr));
  if (encoding == encoding_der) return unique_x509(d2i_X509_bio(bio, nullptr));
  return nullptr;
}

unique_pkey load_key_bio(int encoding, BIO* bio) {
  if (!bio) return nullptr;
  if (encoding == encoding_pem) {
    return unique_pkey(PEM_read_bio_PrivateKey(bio, nullptr, option_password_cb, nullptr));
  }
  if (encoding == encoding_der) return unique_pkey(d2i_PrivateKey_bio(bio, nullptr));
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
  if (path && is_directory(path)) {
    log_line(DL_LOG_CMN, DL_LOG_NOTICE, "path is directory, ret\n");
    return 0;
  }
  const cert_source source(path ? path : "");
  constexpr read_messages messages = {"Bio_new_file error ca_file\n", "unable to load certificate ca_file\n"};
  unique_x509 certificate;
  if (read_certificate(certificate, source, messages) != certificate_read::fine) return 0;
  if (source.encoding == encoding_der && !rewrite_as_pem(path, certificate.get())) return 0;
  return static_cast<uint32_t>(X509_subject_name_hash(certificate.get()));
}

}  // namespace fetchrig
