// SPDX-License-Identifier: MIT
// asn1_text.cpp: parts of a certificate as text.
#include "cert/asn1_text.h"

#include <openssl/objects.h>
#include <stdint.h>
#include <stdio.h>

#include <new>
#include <string_view>

#include "core/asn1_bytes.h"
#include "core/cursor.h"
#include "core/openssl_owners.h"
#include "core/text.h"
#include "log/log.h"

namespace fetchrig {
namespace {

constexpr const char* month_names[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

struct calendar_time {
  unsigned year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
};

// The next `count` characters as a number; all must be digits.
bool read_digits(cursor& in, std::size_t count, unsigned& number) {
  const auto digits = in.take(count);
  const auto value = digits ? whole_number(*digits, 9999) : std::nullopt;
  if (value) number = static_cast<unsigned>(*value);
  return value.has_value();
}

// Month to minute, which both kinds of time have, and the seconds, which either may lack.
bool read_after_year(cursor& in, calendar_time& time) {
  if (!read_digits(in, 2, time.month) || !read_digits(in, 2, time.day) || !read_digits(in, 2, time.hour) ||
      !read_digits(in, 2, time.minute)) {
    return false;
  }
  if (!read_digits(in, 2, time.second)) time.second = 0;
  return time.month >= 1 && time.month <= 12;
}

// RFC 5280, 4.1.2.5.1: the two-digit years 00 to 49 belong to this century.
bool read_utc_time(cursor in, calendar_time& time) {
  if (!read_digits(in, 2, time.year)) return false;
  time.year += time.year < 50 ? 2000 : 1900;
  return read_after_year(in, time);
}

bool read_generalized_time(cursor in, calendar_time& time) {
  return read_digits(in, 4, time.year) && read_after_year(in, time);
}

bool read_time(const ASN1_TIME* time, calendar_time& into) {
  switch (time ? ASN1_STRING_type(time) : V_ASN1_UNDEF) {
    case V_ASN1_UTCTIME:
      return read_utc_time(cursor(asn1_bytes(time)), into);
    case V_ASN1_GENERALIZEDTIME:
      return read_generalized_time(cursor(asn1_bytes(time)), into);
    default:
      return false;
  }
}

// The wrap at 32 bits is meant: a serial number of 0x80000000 and above has always been shown as negative.
void short_serial_to_text(const ASN1_INTEGER* serial, std::span<char> text) {
  int64_t value = 0;
  if (ASN1_INTEGER_get_int64(&value, serial) != 1) value = 0;
  const auto narrow = static_cast<uint32_t>(value);
  const bool negative = static_cast<int32_t>(narrow) < 0;
  const unsigned long shown = negative ? static_cast<uint32_t>(0u - narrow) : narrow;
  const char* sign = negative ? "-" : "";
  snprintf(text.data(), text.size(), "%s%lu (%s0x%lx)", sign, shown, sign, shown);
}

void long_serial_to_text(const ASN1_INTEGER* serial, std::span<char> text) {
  std::size_t used = 0;
  const auto append = [&](std::string_view piece) {
    used = copy_text(text.subspan(used), piece) ? used + piece.size() : text.size() - 1;
  };
  append(ASN1_STRING_type(serial) == V_ASN1_NEG_INTEGER ? "(Negative)" : "");
  const std::string_view content = asn1_bytes(serial);
  for (std::size_t i = 0; i < content.size() && used + 1 < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(content[i]);
    append(to_hex({&byte, 1}));
    append(i + 1 < content.size() ? ":" : " ");
  }
}

// OpenSSL writes a backslash before each "/" and "+" of a value; the first "/" ends what is shown.
std::string shown_value(std::string_view rendered) {
  std::string value;
  for (const char c : rendered) {
    if ((c == '/' || c == '+') && value.ends_with('\\')) value.pop_back();
    if (c == '/') break;
    value += c;
  }
  return value;
}

}  // namespace

int asn1_time_to_text(const ASN1_TIME* time, std::span<char> text) {
  calendar_time read;
  if (!read_time(time, read)) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "Bad time value\n");
    return -1;
  }
  snprintf(text.data(), text.size(), "%s %2u %02u:%02u:%02u %u%s", month_names[read.month - 1], read.day,
           read.hour, read.minute, read.second, read.year, asn1_bytes(time).ends_with('Z') ? " GMT" : "");
  return 0;
}

void asn1_serial_to_text(const ASN1_INTEGER* serial, std::span<char> text) {
  if (asn1_bytes(serial).size() <= 4) {
    short_serial_to_text(serial, text);
  } else {
    long_serial_to_text(serial, text);
  }
}

// A name of the one element is rendered rather than the whole name, because in the rendering of a whole name a value
// can look like the start of another element.
std::optional<std::string> name_element(const X509_NAME* name, int nid) {
  const int at = X509_NAME_get_index_by_NID(name, nid, -1);
  if (at < 0) return std::nullopt;
  const unique_x509_name alone(X509_NAME_new());
  const X509_NAME_ENTRY* entry = X509_NAME_get_entry(name, at);
  if (!alone || X509_NAME_add_entry(alone.get(), entry, -1, 0) != 1) throw std::bad_alloc();
  const unique_openssl_text line(X509_NAME_oneline(alone.get(), nullptr, 0));
  if (!line) throw std::bad_alloc();
  cursor in(or_empty(line.get()));
  if (!in.take_until('=')) return std::nullopt;
  return shown_value(in.rest());
}

void object_to_text(const ASN1_OBJECT* object, std::span<char> text) {
  text[0] = '\0';
  if (object) OBJ_obj2txt(text.data(), static_cast<int>(text.size()), object, 0);
}

}  // namespace fetchrig
