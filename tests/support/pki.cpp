// pki.cpp: makes certificates and keys for tests.
#include "tests/support/pki.h"

#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <stdio.h>

#include <cstring>
#include <stdexcept>

namespace test {
namespace {

using bio = std::unique_ptr<BIO, decltype(&BIO_free_all)>;

void require(bool holds) {
  if (!holds) throw std::runtime_error("OpenSSL refused a step of the test's own certificates");
}

std::shared_ptr<EVP_PKEY> owned(EVP_PKEY* key) {
  require(key != nullptr);
  return {key, EVP_PKEY_free};
}

template <typename Write>
std::string written(const Write& write) {
  const bio memory(BIO_new(BIO_s_mem()), BIO_free_all);
  require(memory && write(memory.get()) == 1);
  char* bytes = nullptr;
  const long length = BIO_get_mem_data(memory.get(), &bytes);
  return {bytes, static_cast<std::size_t>(length)};
}

void add_entry(X509_NAME* name, const std::string& element) {
  const std::size_t equals = element.find('=');
  require(equals != std::string::npos);
  const std::string value = element.substr(equals + 1);
  require(X509_NAME_add_entry_by_txt(name, element.substr(0, equals).c_str(), MBSTRING_UTF8,
                                     reinterpret_cast<const unsigned char*>(value.data()),
                                     static_cast<int>(value.size()), -1, 0) == 1);
}

void set_name(X509_NAME* name, const std::string& subject) {
  std::string element;
  for (std::size_t at = 1; at < subject.size(); ++at) {
    if (subject[at] == '/') {
      add_entry(name, std::exchange(element, {}));
    } else {
      if (subject[at] == '\\') ++at;
      element += subject.at(at);
    }
  }
  add_entry(name, element);
}

}  // namespace

std::shared_ptr<EVP_PKEY> new_ec_key() {
  return owned(EVP_EC_gen("P-256"));
}
std::shared_ptr<EVP_PKEY> new_rsa_key(unsigned bits) {
  return owned(EVP_RSA_gen(bits));
}

identity make_identity(const std::string& common_name, std::shared_ptr<EVP_PKEY> key,
                       const identity_options& options) {
  static long serial = 1000;
  const std::shared_ptr<X509> certificate(X509_new(), X509_free);
  X509* x = certificate.get();
  require(x && X509_set_version(x, options.version) == 1);
  require(ASN1_INTEGER_set(X509_get_serialNumber(x), options.serial ? options.serial : ++serial) == 1);
  set_name(X509_get_subject_name(x), options.subject.empty() ? "/O=Test/CN=" + common_name : options.subject);
  const X509_NAME* issuer = X509_get_subject_name(options.issuer ? options.issuer->certificate.get() : x);
  require(X509_set_issuer_name(x, issuer) == 1 && X509_set_pubkey(x, key.get()) == 1);
  require(X509_gmtime_adj(X509_getm_notBefore(x), options.valid_from_s) != nullptr);
  require(X509_gmtime_adj(X509_getm_notAfter(x), options.valid_until_s) != nullptr);
  for (const auto& [name, value] : options.extensions) {
    const std::unique_ptr<X509_EXTENSION, decltype(&X509_EXTENSION_free)> extension(
        X509V3_EXT_nconf(nullptr, nullptr, name.c_str(), value.c_str()), X509_EXTENSION_free);
    require(extension && X509_add_ext(x, extension.get(), -1) == 1);
  }
  if (options.edit) options.edit(x);
  EVP_PKEY* signer = options.issuer ? options.issuer->key.get() : key.get();
  require(X509_sign(x, signer, options.digest) > 0);
  return {std::move(key), certificate};
}

std::string hash_name_of(const identity& who) {
  char name[16];
  snprintf(name, sizeof name, "%08lx.0", X509_subject_name_hash(who.certificate.get()));
  return name;
}

std::string pem_of(const identity& who) {
  return written([&](BIO* to) { return PEM_write_bio_X509(to, who.certificate.get()); });
}

std::string pem_of(const EVP_PKEY* key, const char* passphrase) {
  return written([&](BIO* to) {
    return PEM_write_bio_PKCS8PrivateKey(to, key, passphrase ? EVP_aes_128_cbc() : nullptr, passphrase,
                                         passphrase ? static_cast<int>(strlen(passphrase)) : 0, nullptr,
                                         nullptr);
  });
}

std::string crl_pem_of(const identity& ca) {
  const std::unique_ptr<X509_CRL, decltype(&X509_CRL_free)> crl(X509_CRL_new(), X509_CRL_free);
  const std::unique_ptr<ASN1_TIME, decltype(&ASN1_TIME_free)> now(X509_gmtime_adj(nullptr, 0),
                                                                  ASN1_TIME_free);
  require(X509_CRL_set_version(crl.get(), 1) == 1 && X509_CRL_set1_lastUpdate(crl.get(), now.get()) == 1);
  require(X509_CRL_set_issuer_name(crl.get(), X509_get_subject_name(ca.certificate.get())) == 1);
  require(X509_CRL_sign(crl.get(), ca.key.get(), EVP_sha256()) > 0);
  return written([&](BIO* to) { return PEM_write_bio_X509_CRL(to, crl.get()); });
}

std::string der_of(const identity& who) {
  return written([&](BIO* to) { return i2d_X509_bio(to, who.certificate.get()); });
}

std::string der_of(const EVP_PKEY* key, const char* passphrase) {
  const auto encrypted = [&](BIO* to) {
    return i2d_PKCS8PrivateKey_bio(to, key, EVP_aes_128_cbc(), passphrase,
                                   static_cast<int>(strlen(passphrase)), nullptr, nullptr);
  };
  return passphrase ? written(encrypted) : written([&](BIO* to) { return i2d_PrivateKey_bio(to, key); });
}

std::shared_ptr<X509> certificate_in(const std::string& text) {
  const bio memory(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())), BIO_free_all);
  X509* pem = PEM_read_bio_X509(memory.get(), nullptr, nullptr, nullptr);
  if (!pem) BIO_reset(memory.get());
  return {pem ? pem : d2i_X509_bio(memory.get(), nullptr), X509_free};
}

}  // namespace test
