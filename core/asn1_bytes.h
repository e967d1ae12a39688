// SPDX-License-Identifier: MIT
// asn1_bytes.h: the content of OpenSSL's strings as bytes. They come from certificates that nobody has verified, and
// may hold anything, a NUL included. No state; any thread.
#ifndef FETCHRIG_CORE_ASN1_BYTES_H
#define FETCHRIG_CORE_ASN1_BYTES_H

#include <openssl/asn1.h>

#include <cstddef>
#include <string_view>

namespace fetchrig {

// Borrowed from the string.
inline std::string_view asn1_bytes(const ASN1_STRING* string) {
  const int length = ASN1_STRING_length(string);
  if (length <= 0) return {};
  return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(string)), static_cast<std::size_t>(length)};
}

}  // namespace fetchrig
#endif
