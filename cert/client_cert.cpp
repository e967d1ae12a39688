// SPDX-License-Identifier: MIT
// client_cert.cpp: the steps from a subject to a signed certificate.
#include "cert/client_cert.h"

#include <errno.h>
#include <openssl/asn1.h>
#include <openssl/crypto.h>
#include <time.h>

#include <string_view>

#include "cert/cert_file.h"
#include "cert/keygen.h"
#include "cert/private_file.h"
#include "cert/subject.h"
#include "core/boundary.h"
#include "core/cause.h"
#include "core/config.h"
#include "core/openssl_owners.h"
#include "log/log.h"

namespace fetchrig {
namespace {

constexpr time_t valid_from = 1393632000;               // 1 March 2014 00:00:00 UTC
constexpr time_t valid_until = valid_from + 630720000;  // 7300 days later
constexpr long x509_version_3 = 2;

// The key for `subject`: a generated one follows from the subject's common name and option 25 alone.
int device_key_for(device_key& result, const char* key_path, std::string_view subject, int bits) {
  option_text seed = key_seed();
  keygen_state start = initial_keygen_state(raw_common_name(subject).value_or(""), seed.data());
  OPENSSL_cleanse(seed.data(), seed.size());
  const int rc = build_rsa_key(result, key_path, bits, &start);
  OPENSSL_cleanse(&start, sizeof start);
  if (rc != 0) log_line(DL_LOG_CMN, DL_LOG_ERROR, "dl_cert_build_rsa_key() fail\n");
  return rc;
}

// A request for the subject, signed with the key; the signature has been tested. Null when a step fails.
unique_x509_req signed_request(EVP_PKEY* key, const char* subject) {
  unique_x509_req request(X509_REQ_new());
  if (!request || fill_request(request.get(), key, subject, MBSTRING_ASC) != 0) return nullptr;
  if (X509_REQ_sign(request.get(), key, EVP_md5()) <= 0) return nullptr;
  if (X509_REQ_verify(request.get(), key) <= 0) return nullptr;
  return request;
}

unique_x509 read_root_certificate(const char* path) {
  constexpr read_messages messages = {"Bio_new_file error root ca\n",
                                      "unable to load certificate filename\n"};
  unique_x509 certificate;
  (void)read_certificate(certificate, cert_source(path), messages);
  return certificate;
}

unique_pkey read_root_key(const char* path, const X509* root) {
  const cert_source source(path);
  if (!source.stream) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "Bio_new_file error filename\n");
    return nullptr;
  }
  unique_pkey key = source.plain_key();
  if (key && X509_check_private_key(root, key.get()) == 1) return key;
  log_line(DL_LOG_CMN, DL_LOG_ERROR, "CA certificate and CA private key do not match\n");
  return nullptr;
}

// The serial number is the common name: its characters are the content bytes of the INTEGER, 1 without one.
bool set_serial(X509* certificate, const char* subject) {
  ASN1_INTEGER* serial = X509_get_serialNumber(certificate);
  const auto name = raw_common_name(subject);
  if (!name) return ASN1_INTEGER_set(serial, 1) == 1;
  return ASN1_STRING_set(serial, name->data(), static_cast<int>(name->size())) == 1;
}

// Everything of the certificate but its signature.
bool fill_certificate(X509* certificate, X509_REQ* request, const X509* root, const char* subject) {
  return X509_set_version(certificate, x509_version_3) == 1 && set_serial(certificate, subject) &&
         ASN1_TIME_set(X509_getm_notBefore(certificate), valid_from) &&
         ASN1_TIME_set(X509_getm_notAfter(certificate), valid_until) &&
         X509_set_subject_name(certificate, X509_REQ_get_subject_name(request)) == 1 &&
         X509_set_pubkey(certificate, X509_REQ_get0_pubkey(request)) == 1 &&
         X509_set_issuer_name(certificate, X509_get_subject_name(root)) == 1;
}

// The certificate, signed; null when a step fails, so that an unsigned one is never written.
unique_x509 issue(X509_REQ* request, const X509* root, EVP_PKEY* root_key, const char* subject) {
  unique_x509 certificate(X509_new());
  if (!certificate || !fill_certificate(certificate.get(), request, root, subject)) return nullptr;
  if (X509_sign(certificate.get(), root_key, EVP_md5()) > 0) return certificate;
  log_line(DL_LOG_CMN, DL_LOG_ERROR, "Can't sign the client certificate\n");
  return nullptr;
}

}  // namespace

int fill_request(X509_REQ* request, EVP_PKEY* key, const char* subject, int string_type) {
  if (X509_REQ_set_version(request, 0) != 1) return -1;
  if (!set_subject(request, subject, string_type)) return -1;
  return X509_REQ_set_pubkey(request, key) == 1 ? 0 : -1;
}

int generate_client_cert(const char* ca_cert, const char* ca_key, const char* key_path, const char* cert_path,
                         const char* subject, int bits) {
  device_key device;
  if (device_key_for(device, key_path, subject, bits) != 0) return -1;
  const unique_x509_req request = signed_request(device.key.get(), subject);
  if (!request) return -1;
  const unique_x509 root = read_root_certificate(ca_cert);
  if (!root) return -1;
  const unique_pkey root_key = read_root_key(ca_key, root.get());
  if (!root_key) return -1;
  const unique_x509 certificate = issue(request.get(), root.get(), root_key.get(), subject);
  if (!certificate) return -1;

  const unique_bio text = pem_text(certificate.get(), device.key.get());
  if (!text) return -1;
  // A failure is in the log and changes nothing below; nor does one without memory.
  (void)write_private_file(cert_path, text_of(text.get()), at_link::replace_link);
  const auto no_memory = [] {
    note_cause(DL_CAUSE_LOCAL_FILE, ENOMEM);
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "Out of memory, no key file is written\n");
  };
  const auto write_new_key = [&] {
    if (write_key(key_path, device.key.get()) != 0) no_memory();
  };
  if (!device.reused) guarded(write_new_key, no_memory);
  return 0;
}

}  // namespace fetchrig
