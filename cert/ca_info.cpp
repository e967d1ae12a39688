// SPDX-License-Identifier: MIT
// ca_info.cpp: describes certificate files in short form.
#include "cert/ca_info.h"

#include <errno.h>
#include <string.h>

#include "cert/asn1_text.h"
#include "core/config.h"
#include "core/text.h"
#include "log/log.h"

namespace fetchrig {
namespace {

constexpr int not_described = -2;
constexpr int no_matching_key = -3;

void fill_element(std::span<char, 64> field, const X509_NAME* name, int nid) {
  if (const auto value = name_element(name, nid)) copy_text(field, *value);
}

// Whether the device file's private key is there, opens and belongs to its certificate.
bool device_key_matches(const char* path) {
  const cert_source source(path);
  if (!source.stream) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "Bio_new_file error dev cert\n");
    return false;
  }
  const unique_x509 certificate = source.certificate();
  const unique_pkey key = source.key();
  return certificate && key && X509_check_private_key(certificate.get(), key.get()) == 1;
}

}  // namespace

void fill_date(std::span<char, 64> field, const ASN1_TIME* time) {
  if (time) (void)asn1_time_to_text(time, field);
}

certificate_read read_described(unique_x509& certificate, const cert_source& source) {
  if (source.error == EISDIR) {
    log_line(DL_LOG_CMN, DL_LOG_NOTICE, "path is directory, ret\n");
    return certificate_read::failed;
  }
  return read_certificate(certificate, source,
                          {"Bio_new_file error filename\n", "unable to load certificate filename\n"});
}

bool fill_ca_info(dl_ca_info& info, X509* certificate) {
  info.hash = static_cast<uint32_t>(X509_subject_name_hash(certificate));
  const X509_NAME* subject = X509_get_subject_name(certificate);
  if (!subject) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "X509_get_issuer_name error\n");
    return false;
  }
  fill_element(info.cn, subject, NID_commonName);
  fill_element(info.org, subject, NID_organizationName);
  fill_date(info.not_after, X509_get0_notAfter(certificate));
  return true;
}

certificate_read describe_ca(dl_ca_info& info, const char* path) {
  const cert_source source(path);
  unique_x509 certificate;
  const certificate_read outcome = read_described(certificate, source);
  if (outcome != certificate_read::fine) return outcome;
  return fill_ca_info(info, certificate.get()) ? certificate_read::fine : certificate_read::unusable;
}

int get_ca_info(dl_ca_info& info, const char* path) {
  return describe_ca(info, path) == certificate_read::fine ? 0 : not_described;
}

int get_device_ca_info(dl_ca_info& info) {
  memset(&info, 0, sizeof info);
  const option_text path = device_cert_file();
  if (const int rc = get_ca_info(info, path.data()); rc < 0) return rc;
  if (device_key_matches(path.data())) return 0;
  log_line(DL_LOG_CMN, DL_LOG_WARNING, "private key doesn't match public key\n");
  return no_matching_key;
}

}  // namespace fetchrig
