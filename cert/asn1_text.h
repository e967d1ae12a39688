// SPDX-License-Identifier: MIT
// asn1_text.h: parts of a certificate as text for display: times, serial numbers, elements of names, algorithms.
// Everything is cut to the room given and terminated; the bytes come from certificates that nobody has verified. No
// state; any thread.
#ifndef FETCHRIG_CERT_ASN1_TEXT_H
#define FETCHRIG_CERT_ASN1_TEXT_H

#include <openssl/asn1.h>
#include <openssl/crypto.h>
#include <openssl/x509.h>

#include <memory>
#include <optional>
#include <span>
#include <string>

namespace fetchrig {

struct openssl_text_deleter {
  void operator()(char* text) const { OPENSSL_free(text); }
};
// A text that OpenSSL allocated.
using unique_openssl_text = std::unique_ptr<char, openssl_text_deleter>;

// The time as "Mar  1 00:00:00 2014 GMT". Returns 0, or -1 (logged, nothing written) for a time it cannot read.
[[nodiscard]] int asn1_time_to_text(const ASN1_TIME* time, std::span<char> text);

// A serial number of at most 4 bytes as "4096 (0x1000)", a longer one as "01:a2:ff " with "(Negative)"
// before it when it is below zero.
void asn1_serial_to_text(const ASN1_INTEGER* serial, std::span<char> text);

// The value of the first element of type `nid`, with bytes outside printable ASCII written "\xC3", up to its first "/".
// Nothing when the name has no such element.
[[nodiscard]] std::optional<std::string> name_element(const X509_NAME* name, int nid);

// OpenSSL's long name of the object, or its dotted numbers when it has none.
void object_to_text(const ASN1_OBJECT* object, std::span<char> text);

}  // namespace fetchrig
#endif
