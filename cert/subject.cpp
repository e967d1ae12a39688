// SPDX-License-Identifier: MIT
// subject.cpp: splits subject texts and builds OpenSSL names from them.
#include "cert/subject.h"

#include <openssl/err.h>
#include <openssl/objects.h>

#include <utility>

namespace fetchrig {
namespace {

constexpr std::size_t max_common_name_len = 511;

enum class piece_end { delimiter, text_end, malformed };

// Appends the characters before the next unescaped `delimiter` to `piece` and consumes them with the delimiter.
piece_end take_piece(std::string_view& rest, char delimiter, std::string& piece) {
  while (!rest.empty()) {
    char c = rest.front();
    rest.remove_prefix(1);
    if (c == delimiter) return piece_end::delimiter;
    if (c == '\\') {
      if (rest.empty()) return piece_end::malformed;
      c = rest.front();
      rest.remove_prefix(1);
    }
    piece.push_back(c);
  }
  return piece_end::text_end;
}

// Adds the element at the end of the name. Unknown types and empty values are skipped; false when OpenSSL
// refuses the value.
bool add_element(X509_NAME* name, const subject_element& element, int string_type) {
  ERR_set_mark();
  const int nid = OBJ_txt2nid(element.type.c_str());
  ERR_pop_to_mark();  // an unknown type is no error
  if (nid == NID_undef || element.value.empty()) return true;
  const auto* value = reinterpret_cast<const unsigned char*>(element.value.c_str());
  return X509_NAME_add_entry_by_NID(name, nid, string_type, value, -1, -1, 0) == 1;
}

}  // namespace

std::optional<std::vector<subject_element>> parse_subject(std::string_view text) {
  if (text.empty() || text.front() != '/') return std::nullopt;
  text.remove_prefix(1);
  std::vector<subject_element> elements;
  while (!text.empty()) {
    subject_element element;
    if (take_piece(text, '=', element.type) != piece_end::delimiter || text.empty()) return std::nullopt;
    if (take_piece(text, '/', element.value) == piece_end::malformed) return std::nullopt;
    elements.push_back(std::move(element));
  }
  return elements;
}

std::optional<std::string_view> raw_common_name(std::string_view subject) {
  constexpr std::string_view mark = "CN=";
  const std::size_t at = subject.find(mark);
  if (at == std::string_view::npos) return std::nullopt;
  const std::string_view name = subject.substr(at + mark.size(), max_common_name_len);
  return name.substr(0, name.find('/'));
}

unique_x509_name subject_name(const char* text, int string_type) {
  const auto elements = text ? parse_subject(text) : std::nullopt;
  if (!elements) return nullptr;
  unique_x509_name name(X509_NAME_new());
  if (!name) return nullptr;
  for (const subject_element& element : *elements) {
    if (!add_element(name.get(), element, string_type)) return nullptr;
  }
  return name;
}

bool set_subject(X509_REQ* request, const char* text, int string_type) {
  const unique_x509_name name = subject_name(text, string_type);
  return name && X509_REQ_set_subject_name(request, name.get()) == 1;
}

}  // namespace fetchrig
