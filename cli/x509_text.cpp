// SPDX-License-Identifier: MIT
// x509_text.cpp: asking OpenSSL for the parts of a certificate.
#include "x509_text.h"

#include <openssl/x509v3.h>
#include <time.h>

#include <array>
#include <new>
#include <span>

#include "digest.h"

namespace fetchrig::cli {
namespace {

constexpr int seconds_per_day = 24 * 60 * 60;

// What `print` writes.
template <typename Print>
std::string printed(Print print) {
  const unique_bio text(BIO_new(BIO_s_mem()));
  if (!text) throw std::bad_alloc();
  print(text.get());
  char* bytes = nullptr;
  const long length = BIO_get_mem_data(text.get(), &bytes);
  return std::string(bytes, static_cast<std::size_t>(length));
}

// As RFC 2253 has it, but in the certificate's order, and with letters beyond ASCII as they are.
std::string name_text(const X509_NAME* name) {
  constexpr unsigned long form = (ASN1_STRFLGS_RFC2253 & ~static_cast<unsigned long>(ASN1_STRFLGS_ESC_MSB)) |
                                 XN_FLAG_SEP_CPLUS_SPC | XN_FLAG_FN_SN;
  return printed([&](BIO* text) { X509_NAME_print_ex(text, name, 0, form); });
}

std::string common_name(const X509_NAME* name) {
  const int at = X509_NAME_get_index_by_NID(name, NID_commonName, -1);
  const ASN1_STRING* value = at < 0 ? nullptr : X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, at));
  unsigned char* bytes = nullptr;
  const int length = value ? ASN1_STRING_to_UTF8(&bytes, value) : -1;
  if (length < 0) return "";
  std::string text(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length));
  OPENSSL_free(bytes);
  return text;
}

std::vector<std::string> alternative_names(X509* certificate) {
  const std::unique_ptr<GENERAL_NAMES, openssl_free<GENERAL_NAMES_free>> names(
      static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
  std::vector<std::string> found;
  for (int i = 0; names && i < sk_GENERAL_NAME_num(names.get()); ++i) {
    GENERAL_NAME* name = sk_GENERAL_NAME_value(names.get(), i);
    found.push_back(printed([&](BIO* text) { GENERAL_NAME_print(text, name); }));
  }
  return found;
}

std::string date_text(const ASN1_TIME* time) {
  struct tm parts = {};
  std::array<char, 32> text = {};
  if (ASN1_TIME_to_tm(time, &parts) != 1) return "";
  strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text.data();
}

int days_until(const ASN1_TIME* time) {
  int days = 0, seconds = 0;
  if (ASN1_TIME_diff(&days, &seconds, nullptr, time) != 1) return 0;
  return seconds < 0 && seconds > -seconds_per_day ? days - 1 : days;
}

std::string fingerprint(X509* certificate) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> value = {};
  unsigned length = 0;
  if (X509_digest(certificate, EVP_sha256(), value.data(), &length) != 1) throw std::bad_alloc();
  return hex_text(std::span<const unsigned char>(value).first(length));
}

}  // namespace

x509_text texts_of(X509* certificate) {
  const X509_NAME* subject = X509_get_subject_name(certificate);
  return {.subject = name_text(subject),
          .issuer = name_text(X509_get_issuer_name(certificate)),
          .common_name = common_name(subject),
          .alternative_names = alternative_names(certificate),
          .is_ca = X509_check_ca(certificate) != 0,
          .sha256 = fingerprint(certificate),
          .not_before = date_text(X509_get0_notBefore(certificate)),
          .not_after = date_text(X509_get0_notAfter(certificate)),
          .days_left = days_until(X509_get0_notAfter(certificate))};
}

x509_text texts_of_file(const std::string& path) {
  const unique_x509 certificate = pem_certificate(read_small_file(path).bytes());
  return certificate ? texts_of(certificate.get()) : x509_text();
}

}  // namespace fetchrig::cli
