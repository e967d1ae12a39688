// SPDX-License-Identifier: MIT
// passphrase.cpp: what OpenSSL's PEM readers get when they ask for a pass phrase.
#include "cert/passphrase.h"

#include <openssl/crypto.h>
#include <string.h>

#include <span>

#include "core/config.h"
#include "core/text.h"
#include "log/log.h"

namespace fetchrig {
namespace {

// The caller's pass phrase, as many bytes as fit; OpenSSL counts them, so no terminator is added.
int copy_given(std::span<char> to, const char* given) {
  const std::size_t count = strnlen(given, to.size());
  memcpy(to.data(), given, count);
  return static_cast<int>(count);
}

// Option 16 as a terminated text, cut to what fits.
int copy_configured(std::span<char> to) {
  option_text configured = key_passphrase();
  copy_text(to, configured.data());
  OPENSSL_cleanse(configured.data(), configured.size());
  return static_cast<int>(strlen(to.data()));
}

}  // namespace

int option_password_cb(char* buffer, int size, int, void* user_data) {
  if (!buffer || size < 1) return 0;
  const std::span<char> to(buffer, static_cast<std::size_t>(size));
  if (user_data) return copy_given(to, static_cast<const char*>(user_data));
  const int length = copy_configured(to);
  log_line(DL_LOG_CMN, DL_LOG_INFO, "num is %d, pwd length:%d\n", size, length);
  return length;
}

int no_password_cb(char*, int, int, void*) {
  return -1;
}

}  // namespace fetchrig
