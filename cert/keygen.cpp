// SPDX-License-Identifier: MIT
// keygen.cpp: loads, generates and writes the device's RSA key.
#include "cert/keygen.h"

#include <errno.h>
#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/rsa.h>

#include <memory>

#include "cert/cert_file.h"
#include "cert/error_queue.h"
#include "cert/private_file.h"
#include "log/log.h"

namespace fetchrig {
namespace {

using unique_bignum = std::unique_ptr<BIGNUM, openssl_deleter<BN_free>>;
using unique_rsa = std::unique_ptr<RSA, openssl_deleter<RSA_free>>;

enum class key_file { absent, unusable, without_key, with_key };

// What is written to a device is not to be found there again, and reading it may never end.
key_file read_key_file(unique_pkey& key, const char* path) {
  if (is_special_file(path)) return key_file::without_key;
  const cert_source source(path);
  if (!source.stream) {
    return source.error == ENOENT || source.error == ENOTDIR ? key_file::absent : key_file::unusable;
  }
  ERR_clear_error();
  key = source.plain_key();
  if (key) return key_file::with_key;
  return ran_out_of_memory() ? key_file::unusable : key_file::without_key;
}

unique_rsa generate_rsa(int bits, BIGNUM* exponent) {
  unique_rsa rsa(RSA_new());
  if (rsa && RSA_generate_key_ex(rsa.get(), bits, exponent, nullptr) != 1) rsa.reset();
  return rsa;
}

unique_rsa generate_seeded_rsa(int bits, BIGNUM* exponent, const keygen_state& start) {
  const seeded_rand_scope seeded(start);
  return seeded.installed() ? generate_rsa(bits, exponent) : nullptr;
}

unique_pkey generate_key(int bits, const keygen_state* start) {
  if (bits > OPENSSL_RSA_MAX_MODULUS_BITS)
    return nullptr;  // OpenSSL would work for hours on a key it cannot use
  const unique_bignum exponent(BN_new());
  if (!exponent || BN_set_word(exponent.get(), RSA_F4) != 1) return nullptr;
  const unique_rsa rsa =
      start ? generate_seeded_rsa(bits, exponent.get(), *start) : generate_rsa(bits, exponent.get());
  unique_pkey key(EVP_PKEY_new());
  if (!rsa || !key || EVP_PKEY_set1_RSA(key.get(), rsa.get()) != 1) return nullptr;
  return key;
}

}  // namespace

int build_rsa_key(device_key& result, const char* path, int bits, const keygen_state* start) {
  // An application may have called OPENSSL_cleanup(): the random method cannot be replaced any more.
  if (OPENSSL_init_crypto(0, nullptr) != 1) return -1;
  switch (read_key_file(result.key, path)) {
    case key_file::with_key:
      result.reused = true;
      return 0;
    case key_file::unusable:
      return -1;
    case key_file::without_key:
      log_line(DL_LOG_CMN, DL_LOG_ERROR, "prikey err,create new\n");
      remove_plain_file(path);
      break;
    case key_file::absent:
      break;
  }
  result.key = generate_key(bits, start);
  return result.key ? 0 : -1;
}

int write_key(const char* path, EVP_PKEY* key) {
  const unique_bio text = pem_text(nullptr, key);
  if (!text) return -1;
  (void)write_private_file(path, text_of(text.get()), at_link::replace_link);  // a failure is in the log only
  return 0;
}

}  // namespace fetchrig
