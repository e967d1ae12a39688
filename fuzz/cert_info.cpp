// Certificate bytes, PEM or DER as they come, through everything that turns a certificate into text. Every field must
// be a terminated text of printable characters, and what is shown must come from OpenSSL's own rendering.
#include <openssl/err.h>
#include <string.h>

#include <span>
#include <string_view>

#include "cert/asn1_text.h"
#include "cert/ca_info.h"
#include "cert/ca_info_ex.h"
#include "cert/cert_file.h"
#include "fuzz/support/check.h"

namespace {

using namespace fetchrig;

void check_text(std::span<const char, 64> field) {
  const std::size_t length = strnlen(field.data(), field.size());
  FUZZ_CHECK(length < field.size());
  for (const char c : field.first(length)) FUZZ_CHECK(c >= ' ' && c <= '~');
}

void check_date(std::span<const char, 64> field) {
  check_text(field);
  const std::string_view text(field.data());
  FUZZ_CHECK(text.empty() || (text.size() >= 17 && text.find(':') != text.npos));
}

void check_short(X509* certificate) {
  dl_ca_info info{};
  FUZZ_CHECK(fill_ca_info(info, certificate));
  check_text(info.cn);
  check_text(info.org);
  check_date(info.not_after);
  FUZZ_CHECK(info.hash == static_cast<uint32_t>(X509_subject_name_hash(certificate)));
}

void check_long(X509* certificate) {
  dl_ca_info_ex info{};
  FUZZ_CHECK(fill_ca_info_ex(info, certificate));
  for (const auto field : {std::span<const char, 64>(info.serial), std::span<const char, 64>(info.sig_alg),
                           std::span<const char, 64>(info.key_alg), std::span<const char, 64>(info.issuer),
                           std::span<const char, 64>(info.subject)}) {
    check_text(field);
  }
  check_date(info.not_before);
  check_date(info.not_after);
  FUZZ_CHECK(info.serial[0] != '\0' && info.key_bits >= 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const int encoding = bytes.find("BEGIN") != bytes.npos ? encoding_pem : encoding_der;
  const unique_bio bio(BIO_new_mem_buf(data, static_cast<int>(size)));
  const unique_x509 certificate = load_cert_bio(encoding, bio.get());
  if (certificate) {
    check_short(certificate.get());
    check_long(certificate.get());
  }
  ERR_clear_error();
  return 0;
}
