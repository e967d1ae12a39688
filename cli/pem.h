// SPDX-License-Identifier: MIT
// pem.h: certificates and keys of the command's own: what small files hold, and PEM texts. Keys are wiped
// from memory when their owner goes. Any thread.
#ifndef FETCHRIG_CLI_PEM_H
#define FETCHRIG_CLI_PEM_H

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace fetchrig::cli {

template <auto Free>
struct openssl_free {
  template <typename Object>
  void operator()(Object* object) const {
    Free(object);
  }
};
using unique_bio = std::unique_ptr<BIO, openssl_free<BIO_free>>;
using unique_pkey = std::unique_ptr<EVP_PKEY, openssl_free<EVP_PKEY_free>>;
using unique_x509 = std::unique_ptr<X509, openssl_free<X509_free>>;

// Bytes that may hold a private key.
class secret_text {
 public:
  explicit secret_text(std::string bytes) : bytes_(std::move(bytes)) {}
  secret_text(secret_text&&) = default;
  secret_text& operator=(secret_text&&) = delete;
  ~secret_text();
  const std::string& bytes() const { return bytes_; }

 private:
  std::string bytes_;
};

// The content of a certificate or key file; nothing when there is no such file. Throws failure for one that
// cannot be read, is no regular file or is larger than 16 MiB.
std::optional<secret_text> find_small_file(const std::string& path);
// The same, and a missing file is a failure too.
secret_text read_small_file(const std::string& path);
// Makes the file, for the owner alone. Throws failure when there is one already (a link too) or it cannot be
// written whole; nothing of it is left then.
void write_new_file(const std::string& path, const std::string& content);

// Null when the content does not begin with a certificate in DER.
unique_x509 der_certificate(const std::string& content);
// The first certificate of a PEM text, or null.
unique_x509 pem_certificate(const std::string& content);
// All of them, up to the first that cannot be read.
std::vector<unique_x509> pem_certificates(const std::string& content);
std::string pem_of(X509* certificate);

enum class passphrase { none, from_option_16 };
// The first private key of a PEM text, or null. Nobody is ever asked for a pass phrase.
unique_pkey pem_key(const std::string& content, passphrase source);
// Says that a file holds a private key that the pass phrase of option 16 does not open; else empty.
std::string locked_key_words(const std::string& content);
// The same of the file with this name; empty also for what is no regular file.
std::string locked_key_words_of_file(const std::string& path);
// Unencrypted.
secret_text pem_of(EVP_PKEY* key);

}  // namespace fetchrig::cli
#endif
