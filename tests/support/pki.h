// pki.h: certificates and keys for tests, made with OpenSSL alone. One thread at a time per object.
#ifndef FETCHRIG_TESTS_SUPPORT_PKI_H
#define FETCHRIG_TESTS_SUPPORT_PKI_H

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace test {

// A certificate with its private key; copies share both.
struct identity {
  std::shared_ptr<EVP_PKEY> key;
  std::shared_ptr<X509> certificate;
};

struct identity_options {
  const identity* issuer = nullptr;                                  // null: self-signed
  std::vector<std::pair<std::string, std::string>> extensions = {};  // as in OpenSSL's configuration files
  long valid_from_s = -3600;                                         // from now
  long valid_until_s = 86400;
  const EVP_MD* digest = EVP_sha256();
  std::string subject = {};              // "/C=DE/O=Acme"; a backslash takes the next character as it is
  long version = 2;                      // its field: one less than people say
  long serial = 0;                       // 0: the next one
  std::function<void(X509*)> edit = {};  // what is changed before it is signed
};

// The extensions of a CA.
inline const std::vector<std::pair<std::string, std::string>> ca_extensions = {
    {"basicConstraints", "critical,CA:TRUE"}};

// A P-256 key; quick to make.
std::shared_ptr<EVP_PKEY> new_ec_key();
std::shared_ptr<EVP_PKEY> new_rsa_key(unsigned bits);

// A version 3 certificate for "/O=Test/CN=common_name" and `key`.
identity make_identity(const std::string& common_name, std::shared_ptr<EVP_PKEY> key = new_ec_key(),
                       const identity_options& options = {});

// The certificate's name in a hashed directory, "0123abcd.0".
std::string hash_name_of(const identity& who);
std::string pem_of(const identity& who);
// PKCS #8, encrypted when `passphrase` is given.
std::string pem_of(const EVP_PKEY* key, const char* passphrase = nullptr);
// An empty revocation list of the CA.
std::string crl_pem_of(const identity& ca);
std::string der_of(const identity& who);
std::string der_of(const EVP_PKEY* key, const char* passphrase = nullptr);

// The first certificate of a PEM text, or of DER; null when there is none.
std::shared_ptr<X509> certificate_in(const std::string& text);

}  // namespace test
#endif
