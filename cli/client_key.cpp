// SPDX-License-Identifier: MIT
// client_key.cpp: finding, making and checking the key of a client certificate.
#include "client_key.h"

#include <openssl/rsa.h>

#include "report.h"

namespace fetchrig::cli {
namespace {

unique_pkey der_key(const std::string& content) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(content.data());
  return unique_pkey(d2i_AutoPrivateKey(nullptr, &bytes, static_cast<long>(content.size())));
}

std::string why_unusable(const std::string& content) {
  if (std::string locked = locked_key_words(content); !locked.empty()) return locked;
  if (der_key(content)) return "its private key is in DER, and only PEM can be used";
  return "it holds no private key that can be read";
}

failure refusal(const std::string& path, const std::string& why) {
  return failure(-1, printable(path) + ": " + why + "; the file is left as it is");
}

}  // namespace

client_key::client_key(const std::string& path) : path_(path) {
  const auto content = find_small_file(path);
  if (!content) return;
  unique_pkey key = pem_key(content->bytes(), passphrase::none);
  const bool is_plain = key != nullptr;
  if (!is_plain) key = pem_key(content->bytes(), passphrase::from_option_16);
  if (!key) throw refusal(path, why_unusable(content->bytes()));
  if (!EVP_PKEY_is_a(key.get(), "RSA")) throw refusal(path, "its private key is no RSA key");
  if (!is_plain) copy_ = std::make_unique<scratch_copy>(pem_of(key.get()));
  found_ = true;
}

void client_key::make_random(int bits) {
  const unique_pkey key(EVP_RSA_gen(static_cast<unsigned>(bits)));
  if (!key) throw failure(-1, "no random RSA key of " + std::to_string(bits) + " bits can be made");
  write_new_file(path_, pem_of(key.get()).bytes());
  made_ = temporary_path(path_);
}

bool client_key::belongs_to(const std::string& certificate_path) const {
  const secret_text key_file = read_small_file(path_);
  const secret_text certificate_file = read_small_file(certificate_path);
  const unique_pkey key = pem_key(key_file.bytes(), passphrase::from_option_16);
  const unique_x509 certificate = pem_certificate(certificate_file.bytes());
  return key && certificate && X509_check_private_key(certificate.get(), key.get()) == 1;
}

std::string why_irreplaceable(const std::string& certificate_path) {
  const auto content = find_small_file(certificate_path);
  if (!content) return "";
  const std::string& bytes = content->bytes();
  if (der_key(bytes)) return "it holds a private key in DER";
  if (bytes.find("PRIVATE KEY-----") == bytes.npos) return "";
  const unique_pkey key = pem_key(bytes, passphrase::from_option_16);
  if (!key) return "its private key cannot be opened (a pass phrase comes from FETCHRIG_KEY_PASSPHRASE)";
  const unique_x509 certificate = pem_certificate(bytes);
  if (certificate && X509_check_private_key(certificate.get(), key.get()) == 1) return "";
  return "it holds a private key of another certificate";
}

}  // namespace fetchrig::cli
