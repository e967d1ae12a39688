// Fuzzes the subject-text parser. What comes out as a name, written as a subject text again, must give the same name.
#include <openssl/err.h>
#include <openssl/x509.h>
#include <stdint.h>
#include <stdlib.h>

#include <string>
#include <string_view>

#include "cert/subject.h"
#include "core/openssl_owners.h"
#include "include/fetchrig_openssl.h"

using namespace fetchrig;

namespace {

void check(bool holds) {
  if (!holds) abort();
}

void append_escaped(std::string& text, std::string_view piece) {
  for (const char c : piece) {
    if (c == '/' || c == '=' || c == '\\') text += '\\';
    text += c;
  }
}

// The name as a subject text in UTF-8.
std::string text_of(const X509_NAME* name) {
  std::string text = "/";
  for (int i = 0; i < X509_NAME_entry_count(name); ++i) {
    const X509_NAME_ENTRY* entry = X509_NAME_get_entry(name, i);
    unsigned char* value = nullptr;
    const int length = ASN1_STRING_to_UTF8(&value, X509_NAME_ENTRY_get_data(entry));
    check(length > 0);
    append_escaped(text, OBJ_nid2sn(OBJ_obj2nid(X509_NAME_ENTRY_get_object(entry))));
    text += '=';
    append_escaped(text, {reinterpret_cast<const char*>(value), static_cast<std::size_t>(length)});
    text += '/';
    OPENSSL_free(value);
  }
  return text;
}

std::string der_of(const X509_NAME* name) {
  unsigned char* der = nullptr;
  const int length = i2d_X509_NAME(name, &der);
  check(length >= 0);
  std::string bytes(reinterpret_cast<const char*>(der), static_cast<std::size_t>(length));
  OPENSSL_free(der);
  return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const auto elements = parse_subject(text);
  if (elements) {
    std::string again = "/";
    for (const subject_element& element : *elements) {
      append_escaped(again, element.type);
      again += '=';
      append_escaped(again, element.value);
      again += '/';
    }
    const auto reparsed = parse_subject(again);
    check(reparsed && reparsed->size() == elements->size());
    for (std::size_t i = 0; i < elements->size(); ++i) {
      check((*reparsed)[i].type == (*elements)[i].type && (*reparsed)[i].value == (*elements)[i].value);
    }
  }

  const unique_x509_name name(do_subject(text.c_str(), MBSTRING_ASC));
  if (name) {
    const unique_x509_name again(do_subject(text_of(name.get()).c_str(), MBSTRING_UTF8));
    check(again && der_of(again.get()) == der_of(name.get()));
  }
  ERR_clear_error();
  return 0;
}
