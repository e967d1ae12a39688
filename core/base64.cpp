// SPDX-License-Identifier: MIT
// base64.cpp: base64 by OpenSSL, which counts in int: long inputs go through in pieces of whole groups.
#include "core/base64.h"

#include <openssl/evp.h>
#include <stdint.h>

#include <algorithm>
#include <optional>

namespace fetchrig {
namespace {

constexpr std::size_t encode_step = std::size_t{3} * 1024 * 1024;
constexpr std::size_t decode_step = std::size_t{4} * 1024 * 1024;
constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

const unsigned char* unsigned_bytes(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

// The number of "=" that end a well-formed text.
std::optional<std::size_t> padding_of(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  const auto symbols = std::min(text.find_first_not_of(alphabet), text.size());
  const auto padding = text.substr(symbols);
  if (padding.size() > 2 || padding.find_first_not_of('=') != std::string_view::npos) return std::nullopt;
  return padding.size();
}

}  // namespace

std::size_t base64_encode(unique_text& text, std::string_view bytes) {
  text.reset();
  if (bytes.size() > SIZE_MAX / 2) return 0;
  const std::size_t length = (bytes.size() + 2) / 3 * 4;
  text.reset(static_cast<char*>(malloc(length + 1)));
  if (!text) return 0;
  char* to = text.get();
  *to = '\0';
  for (; !bytes.empty(); bytes.remove_prefix(std::min(encode_step, bytes.size()))) {
    const int piece = static_cast<int>(std::min(encode_step, bytes.size()));
    to += EVP_EncodeBlock(reinterpret_cast<unsigned char*>(to), unsigned_bytes(bytes), piece);
  }
  return length;
}

std::size_t base64_decode(unique_malloc<unsigned char>& bytes, std::string_view text) {
  bytes.reset();
  const auto padding = padding_of(text);
  if (!padding) return 0;
  const std::size_t room = text.size() / 4 * 3;
  bytes.reset(static_cast<unsigned char*>(malloc(room + 1)));
  if (!bytes) return 0;
  unsigned char* to = bytes.get();
  for (; !text.empty(); text.remove_prefix(std::min(decode_step, text.size()))) {
    const int piece = static_cast<int>(std::min(decode_step, text.size()));
    to += EVP_DecodeBlock(to, unsigned_bytes(text), piece);
  }
  bytes.get()[room - *padding] = '\0';
  return room - *padding;
}

}  // namespace fetchrig
