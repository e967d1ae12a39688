// helpers.cpp: the exported stand-ins for standard functions: base64, MD5 of a text, the printf family,
// comparison without regard to ASCII letter case and tokenising. Each is a thin layer over libc or OpenSSL
// that also accepts null where the standard function would crash. No state; any thread.
#include <limits.h>
#include <openssl/evp.h>
#include <openssl/md5.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "core/owners.h"
#include "core/text.h"
#include "include/fetchrig_openssl.h"
#include "log/cancel_hold.h"

namespace {

using fetchrig::lower;
using fetchrig::unique_malloc;

// OpenSSL counts in int, so long inputs go through in pieces of whole groups.
constexpr size_t encode_step = 3 * 1024 * 1024;
constexpr size_t decode_step = 4 * 1024 * 1024;

constexpr const char* base64_alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

const unsigned char* bytes_of(const char* text) {
  return reinterpret_cast<const unsigned char*>(text);
}

// The number of "=" that end a well-formed base64 text of `length` characters, or -1 for any other text.
int padding_of(const char* text, size_t length) {
  if (length % 4 != 0) return -1;
  const size_t symbols = strspn(text, base64_alphabet);
  const size_t padding = length - symbols;
  if (padding > 2 || strspn(text + symbols, "=") != padding) return -1;
  return static_cast<int>(padding);
}

// strncasecmp() == 0 for ASCII letters; null equals null alone.
int equal_up_to(const char* first, const char* second, size_t max) {
  if (!first || !second) return first == second ? 1 : 0;
  for (size_t i = 0; i < max; ++i) {
    if (lower(first[i]) != lower(second[i])) return 0;
    if (first[i] == '\0') return 1;
  }
  return 1;
}

}  // namespace

size_t Curl_base64_encode(const char* input, size_t size, char** out) {
  if (!out) return 0;
  *out = nullptr;
  if (!input) size = 0;
  if (size > SIZE_MAX / 2) return 0;
  const size_t length = (size + 2) / 3 * 4;
  unique_malloc<char> text(static_cast<char*>(malloc(length + 1)));
  if (!text) return 0;
  char* to = text.get();
  *to = '\0';
  for (size_t at = 0; at < size; at += encode_step) {
    const int piece = static_cast<int>(std::min(encode_step, size - at));
    to += EVP_EncodeBlock(reinterpret_cast<unsigned char*>(to), bytes_of(input + at), piece);
  }
  *out = text.release();
  return length;
}

size_t Curl_base64_decode(const char* text, unsigned char** out) {
  if (!out) return 0;
  *out = nullptr;
  if (!text) return 0;
  const size_t length = strlen(text);
  const int padding = padding_of(text, length);
  if (padding < 0) return 0;
  unique_malloc<unsigned char> bytes(static_cast<unsigned char*>(malloc(length / 4 * 3 + 1)));
  if (!bytes) return 0;
  unsigned char* to = bytes.get();
  for (size_t at = 0; at < length; at += decode_step) {
    const int piece = static_cast<int>(std::min(decode_step, length - at));
    to += EVP_DecodeBlock(to, bytes_of(text + at), piece);
  }
  const size_t size = length / 4 * 3 - static_cast<size_t>(padding);
  bytes.get()[size] = '\0';
  *out = bytes.release();
  return size;
}

void Curl_md5it(unsigned char* digest, const unsigned char* text) {
  if (!digest) return;
  const size_t length = text ? strlen(reinterpret_cast<const char*>(text)) : 0;
  MD5(length > 0 ? text : bytes_of(""), length, digest);
}

int curl_mvprintf(const char* format, va_list arguments) {
  return curl_mvfprintf(stdout, format, arguments);
}

int curl_mvfprintf(FILE* stream, const char* format, va_list arguments) {
  if (!stream || !format) return -1;
  const fetchrig::cancel_hold hold;
  return vfprintf(stream, format, arguments);
}

int curl_mvsprintf(char* buffer, const char* format, va_list arguments) {
  if (!buffer || !format) return -1;
  return vsprintf(buffer, format, arguments);
}

int curl_mvsnprintf(char* buffer, size_t size, const char* format, va_list arguments) {
  if (!format || (!buffer && size > 0)) return -1;
  return vsnprintf(buffer, size, format, arguments);
}

char* curl_mvaprintf(const char* format, va_list arguments) {
  char* text = nullptr;
  if (!format || vasprintf(&text, format, arguments) < 0) return nullptr;
  return text;
}

int curl_mprintf(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int written = curl_mvprintf(format, arguments);
  va_end(arguments);
  return written;
}

int curl_mfprintf(FILE* stream, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int written = curl_mvfprintf(stream, format, arguments);
  va_end(arguments);
  return written;
}

int curl_msprintf(char* buffer, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int written = curl_mvsprintf(buffer, format, arguments);
  va_end(arguments);
  return written;
}

int curl_msnprintf(char* buffer, size_t size, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int written = curl_mvsnprintf(buffer, size, format, arguments);
  va_end(arguments);
  return written;
}

char* curl_maprintf(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  char* const text = curl_mvaprintf(format, arguments);
  va_end(arguments);
  return text;
}

int Curl_raw_equal(const char* first, const char* second) {
  return equal_up_to(first, second, SIZE_MAX);
}

int Curl_raw_nequal(const char* first, const char* second, size_t max) {
  return equal_up_to(first, second, max);
}

char* Curl_strtok_r(char* text, const char* separators, char** rest) {
  if (!separators || !rest || (!text && !*rest)) return nullptr;
  return strtok_r(text, separators, rest);
}
