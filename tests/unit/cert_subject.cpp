// Subject texts: how they split, and the names and requests that come out of them.
#include "cert/subject.h"

#include <gtest/gtest.h>
#include <openssl/err.h>

#include "core/openssl_owners.h"
#include "include/fetchrig_openssl.h"

using namespace fetchrig;

namespace {

// The entries as "/type=value" in their order; "refused" for a null name.
std::string text_of(const X509_NAME* name) {
  if (!name) return "refused";
  std::string text;
  for (int i = 0; i < X509_NAME_entry_count(name); ++i) {
    const X509_NAME_ENTRY* entry = X509_NAME_get_entry(name, i);
    const ASN1_STRING* value = X509_NAME_ENTRY_get_data(entry);
    EXPECT_EQ(X509_NAME_ENTRY_set(entry), i) << "each element is an entry of its own";
    text += std::string("/") + OBJ_nid2sn(OBJ_obj2nid(X509_NAME_ENTRY_get_object(entry))) + "=";
    text.append(reinterpret_cast<const char*>(value->data), static_cast<std::size_t>(value->length));
  }
  return text;
}

TEST(cert_subject, names_from_texts) {
  const std::string refused = "refused", longest = "/CN=" + std::string(64, 'n');
  // clang-format off
  const struct { const char* name; std::string text, entries; int string_type = MBSTRING_ASC; } rows[] = {
      {"order and repeats are kept", "/OU=b/O=x/OU=a/OU=b", "/OU=b/O=x/OU=a/OU=b"},
      {"long and dotted types", "/organizationName=b/2.5.4.3=a", "/O=b/CN=a"},
      {"slash at the end", "/CN=a/", "/CN=a"},
      {"escaped slash", "/O=Acme/CN=ab\\/cd\\/", "/O=Acme/CN=ab/cd/"},
      {"escaped backslash", "/CN=a\\\\b", "/CN=a\\b"},
      {"escaped equals sign ends no type", "/C\\=N=a/O=x", "/O=x"},
      {"equals sign within a value", "/CN=a=b", "/CN=a=b"},
      {"slash within a type", "/x/CN=a/O=b", "/O=b"},
      {"unknown and empty types are skipped", "/frobnicate=1/=1/O=x", "/O=x"},
      {"empty value is skipped", "/CN=/O=x", "/O=x"},
      {"only a slash", "/", ""},
      {"empty text", "", refused},
      {"no slash at the start", "CN=a", refused},
      {"empty last value", "/O=x/CN=", refused},
      {"no equals sign in the last element", "/CN=a/O", refused},
      {"two slashes at the end", "/CN=a//", refused},
      {"backslash ends the type", "/CN\\", refused},
      {"backslash ends the value", "/CN=a\\", refused},
      {"longest common name", longest, longest},
      {"too long for X.509", longest + "n", refused},
      {"two characters of Latin-1", "/CN=\xc3\xa9", "/CN=\xc3\x83\xc2\xa9"},
      {"one character of UTF-8", "/CN=\xc3\xa9", "/CN=\xc3\xa9", MBSTRING_UTF8},
      {"cut UTF-8", "/CN=\xc3", refused, MBSTRING_UTF8},
  };
  // clang-format on
  const unique_pkey key(EVP_EC_gen("P-256"));
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    ERR_clear_error();
    const unique_x509_name name(do_subject(row.text.c_str(), row.string_type));
    EXPECT_EQ(text_of(name.get()), row.entries);
    EXPECT_TRUE(!name || ERR_peek_error() == 0) << "a skipped type is no error";
    const unique_x509_req request(X509_REQ_new());
    ASSERT_EQ(make_REQ(request.get(), key.get(), row.text.c_str(), 1, row.string_type), name ? 0 : -1);
    EXPECT_EQ(text_of(X509_REQ_get_subject_name(request.get())), name ? row.entries : "");
    EXPECT_EQ(X509_REQ_get_version(request.get()), 0);
    EXPECT_EQ(X509_REQ_get0_pubkey(request.get()) != nullptr, name != nullptr) << "the first failure ends it";
  }
  const unique_x509_req request(X509_REQ_new());
  EXPECT_EQ(make_REQ(request.get(), nullptr, "/CN=x", 1, MBSTRING_ASC), -1);
  EXPECT_EQ(do_subject(nullptr, MBSTRING_ASC), nullptr);
}

TEST(cert_subject, raw_common_name) {
  EXPECT_EQ(raw_common_name("/O=xCN=y/CN=z"), "y") << "wherever it stands";
  EXPECT_EQ(raw_common_name("/CN=" + std::string(512, 'n')).value().size(), 511u);
}

}  // namespace
