// SPDX-License-Identifier: MIT
// digest.cpp: SHA-256 by OpenSSL.
#include "digest.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <new>
#include <vector>

#include "report.h"

namespace fetchrig::cli {

sha256::sha256() : context_(EVP_MD_CTX_new()) {
  if (!context_ || EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) != 1) throw std::bad_alloc();
}

void sha256::add(std::span<const char> bytes) {
  EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size());
}

std::string sha256::hex() {
  std::array<unsigned char, 32> value = {};
  if (EVP_DigestFinal_ex(context_.get(), value.data(), nullptr) != 1) throw std::bad_alloc();
  return hex_text(value);
}

std::string sha256::of_file(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  sha256 digest;
  std::vector<char> buffer(65536);
  ssize_t count = -1;
  while (fd >= 0 && (count = read(fd, buffer.data(), buffer.size())) > 0)
    digest.add(std::span<const char>(buffer).first(static_cast<std::size_t>(count)));
  const int error = errno;
  if (fd >= 0) close(fd);
  if (count < 0) throw failed_file(printable(path) + ": " + strerror(error));
  return digest.hex();
}

std::string hex_text(std::span<const unsigned char> bytes, char separator) {
  constexpr char digits[] = "0123456789abcdef";
  std::string text;
  for (const unsigned char byte : bytes) {
    if (separator != 0 && !text.empty()) text += separator;
    text += {digits[byte >> 4], digits[byte & 15]};
  }
  return text;
}

std::string checked_sha256(const std::string& typed) {
  std::string digest = typed;
  std::transform(digest.begin(), digest.end(), digest.begin(),
                 [](char c) { return c >= 'A' && c <= 'F' ? static_cast<char>(c + ('a' - 'A')) : c; });
  if (digest.size() != 64 || digest.find_first_not_of("0123456789abcdef") != digest.npos)
    throw usage_error("--sha256 takes 64 hexadecimal digits");
  return digest;
}

}  // namespace fetchrig::cli
