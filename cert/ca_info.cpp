// ca_info.cpp: the short description of a certificate file, and the check of the device certificate.
#include "cert/ca_info.h"

#include <errno.h>
#include <openssl/err.h>
#include <string.h>

#include "cert/asn1_text.h"
#include "cert/error_queue.h"
#include "core/boundary.h"
#include "core/config.h"
#include "core/text.h"
#include "include/fetchrig.h"
#include "log/log.h"

namespace fetchrig {
namespace {

// Why a source has no stream: the file is gone (or a link to nothing), or it is there but out of reach for
// now.
certificate_read why_not_opened(int error) {
  const bool gone = error == ENOENT || error == ENOTDIR || error == ELOOP;
  return gone ? certificate_read::unusable : certificate_read::failed;
}

// Why a file that was read gave no certificate. Empties OpenSSL's error queue, which was empty before.
certificate_read why_not_read(const small_file& file) {
  const bool is_empty = file.bytes().empty();  // the one refusal without a reason
  return !is_empty && ran_out_of_memory() ? certificate_read::failed : certificate_read::unusable;
}

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
  const unique_x509 certificate(load_cert_bio(source.encoding, source.stream.get()));
  const unique_pkey key(load_key_bio(source.encoding, source.file.stream().get()));
  return certificate && key && X509_check_private_key(certificate.get(), key.get()) == 1;
}

int result_of(certificate_read outcome) {
  return outcome == certificate_read::fine ? 0 : -2;
}

int invalid_parameter() {
  log_line(DL_LOG_CMN, DL_LOG_ERROR, "Invalid Parameter\n");
  return -1;
}

int describe_device(dl_ca_info& info) {
  memset(&info, 0, sizeof info);
  const option_text path = device_cert_file();
  if (const int rc = result_of(describe_ca(path.data(), info)); rc < 0) return rc;
  if (device_key_matches(path.data())) return 0;
  log_line(DL_LOG_CMN, DL_LOG_WARNING, "private key doesn't match public key\n");
  return -3;
}

}  // namespace

certificate_read read_certificate(const cert_source& source, unique_x509& certificate) {
  if (source.error == EISDIR) {
    log_line(DL_LOG_CMN, DL_LOG_NOTICE, "path is directory, ret\n");
    return certificate_read::failed;
  }
  if (!source.stream) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "Bio_new_file error filename\n");
    return why_not_opened(source.error);
  }
  ERR_clear_error();
  certificate.reset(load_cert_bio(source.encoding, source.stream.get()));
  if (certificate) return certificate_read::fine;
  const certificate_read outcome = why_not_read(source.file);
  log_line(DL_LOG_CMN, DL_LOG_ERROR, "unable to load certificate filename\n");
  return outcome;
}

void fill_date(std::span<char, 64> field, const ASN1_TIME* time) {
  if (time) (void)asn1_time_to_text(time, field);
}

bool fill_ca_info(X509* certificate, dl_ca_info& info) {
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

certificate_read describe_ca(const char* path, dl_ca_info& info) {
  const cert_source source(path);
  unique_x509 certificate;
  const certificate_read outcome = read_certificate(source, certificate);
  if (outcome != certificate_read::fine) return outcome;
  return fill_ca_info(certificate.get(), info) ? certificate_read::fine : certificate_read::unusable;
}

}  // namespace fetchrig

int dl_get_ca_info(const char* path, dl_ca_info* info) {
  using namespace fetchrig;
  if (!path || !info) return invalid_parameter();
  const clean_error_queue after;
  return guarded([&] { return result_of(describe_ca(path, *info)); }, [] { return -2; });
}

int dl_get_ser_ca_info(dl_ca_info* info) {
  using namespace fetchrig;
  if (!info) return invalid_parameter();
  const clean_error_queue after;
  return guarded([&] { return describe_device(*info); }, [] { return -2; });
}
