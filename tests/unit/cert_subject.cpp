// Subject texts: how they split, and the names and requests that come out of them.
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/x509.h>

#include <optional>
#include <string>
#include <vector>

#include "cert/subject.h"
#include "core/openssl_owners.h"
#include "include/fetchrig_openssl.h"

using namespace fetchrig;

namespace {

// The entries as "type=value" in their order; nothing for a null name.
std::optional<std::vector<std::string>> entries_of(const X509_NAME* name) {
  if (!name) return std::nullopt;
  std::vector<std::string> entries;
  for (int i = 0; i < X509_NAME_entry_count(name); ++i) {
    const X509_NAME_ENTRY* entry = X509_NAME_get_entry(name, i);
    const int nid = OBJ_obj2nid(X509_NAME_ENTRY_get_object(entry));
    const ASN1_STRING* value = X509_NAME_ENTRY_get_data(entry);
    EXPECT_EQ(X509_NAME_ENTRY_set(entry), i) << "each element is an entry of its own";
    entries.push_back(std::string(OBJ_nid2sn(nid)) + "=" +
                      std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(value)),
                                  static_cast<std::size_t>(ASN1_STRING_length(value))));
  }
  return entries;
}

struct subject_case {
  const char* name;
  std::string text;
  std::optional<std::vector<std::string>> entries;
};

const std::vector<std::string> none;

const subject_case subject_cases[] = {
    {"two elements", "/O=Acme/CN=0011AB", {{"O=Acme", "CN=0011AB"}}},
    {"order and repeats are kept", "/OU=b/O=x/OU=a/OU=b", {{"OU=b", "O=x", "OU=a", "OU=b"}}},
    {"long names", "/commonName=a/organizationName=b", {{"CN=a", "O=b"}}},
    {"dotted identifier", "/2.5.4.3=a", {{"CN=a"}}},
    {"slash at the end", "/CN=a/", {{"CN=a"}}},
    {"escaped slash", "/O=Acme/CN=ab\\/cd", {{"O=Acme", "CN=ab/cd"}}},
    {"escaped characters in the type", "/C\\N=a", {{"CN=a"}}},
    {"escaped equals sign ends no type", "/C\\=N=a/O=x", {{"O=x"}}},
    {"escaped backslash", "/CN=a\\\\b", {{"CN=a\\b"}}},
    {"equals sign within a value", "/CN=a=b", {{"CN=a=b"}}},
    {"slash within a type", "/x/CN=a/O=b", {{"O=b"}}},
    {"only a slash", "/", none},
    {"unknown type is skipped", "/frobnicate=1/O=x", {{"O=x"}}},
    {"empty type is skipped", "/=1/O=x", {{"O=x"}}},
    {"empty value is skipped", "/CN=/O=x", {{"O=x"}}},
    {"empty text", "", std::nullopt},
    {"no slash at the start", "CN=a", std::nullopt},
    {"empty last value", "/O=x/CN=", std::nullopt},
    {"no equals sign", "/CN", std::nullopt},
    {"no equals sign in the last element", "/CN=a/O", std::nullopt},
    {"two slashes at the end", "/CN=a//", std::nullopt},
    {"backslash ends the type", "/CN\\", std::nullopt},
    {"backslash ends the value", "/CN=a\\", std::nullopt},
    {"escaped slash ends the value", "/CN=a\\/", {{"CN=a/"}}},
    {"longest common name", "/CN=" + std::string(64, 'n'), {{"CN=" + std::string(64, 'n')}}},
    {"common name too long for X.509", "/CN=" + std::string(65, 'n'), std::nullopt},
    {"country of three letters", "/C=abc", std::nullopt},
};

TEST(CertSubject, NamesFromTexts) {
  for (const subject_case& row : subject_cases) {
    SCOPED_TRACE(row.name);
    const unique_x509_name name(do_subject(row.text.c_str(), MBSTRING_ASC));
    EXPECT_EQ(entries_of(name.get()), row.entries);

    const unique_x509_req request(X509_REQ_new());
    ASSERT_EQ(build_subject(request.get(), row.text.c_str(), MBSTRING_ASC), row.entries ? 1 : 0);
    EXPECT_EQ(entries_of(X509_REQ_get_subject_name(request.get())), row.entries.value_or(none));
  }
  EXPECT_EQ(do_subject(nullptr, MBSTRING_ASC), nullptr);
  ERR_clear_error();
  const unique_x509_name skipped(do_subject("/frobnicate=1/CN=a", MBSTRING_ASC));
  EXPECT_EQ(ERR_peek_error(), 0u) << "a skipped type is no error";
}

TEST(CertSubject, StringTypeDecidesHowBytesAreRead) {
  const char* text = "/CN=\xc3\xa9";  // e acute in UTF-8, two characters in Latin-1
  const unique_x509_name as_utf8(do_subject(text, MBSTRING_UTF8));
  const unique_x509_name as_latin1(do_subject(text, MBSTRING_ASC));
  EXPECT_EQ(entries_of(as_utf8.get()), (std::vector<std::string>{"CN=\xc3\xa9"}));
  EXPECT_EQ(entries_of(as_latin1.get()), (std::vector<std::string>{"CN=\xc3\x83\xc2\xa9"}));
  EXPECT_EQ(do_subject("/CN=\xc3", MBSTRING_UTF8), nullptr) << "cut UTF-8";
}

TEST(CertSubject, EveryCutOfATextEndsInANameOrNone) {
  const std::string text = "/O=A\\/c\\\\me/CN=00\\=11/";
  // Whether the first 0, 1, 2 ... characters are whole: after a value, never behind a lone backslash.
  const std::string whole = "nynnynyynyyyynnnyynyyyy";
  ASSERT_EQ(whole.size(), text.size() + 1);
  for (std::size_t length = 0; length <= text.size(); ++length) {
    EXPECT_EQ(parse_subject(text.substr(0, length)).has_value(), whole[length] == 'y')
        << text.substr(0, length);
  }
}

struct common_name_case {
  const char* name;
  std::string subject;
  std::optional<std::string> common_name;
};

const common_name_case common_name_cases[] = {
    {"last element", "/O=Acme/CN=0011AB", "0011AB"},
    {"cut at the slash", "/CN=0011AB/O=Acme", "0011AB"},
    {"escapes are left alone", "/O=Acme/CN=ab\\/cd", "ab\\"},
    {"first of two", "/CN=a/CN=b", "a"},
    {"anywhere in the text", "/O=xCN=y/CN=z", "y"},
    {"empty", "/CN=/O=x", ""},
    {"none", "/O=Acme", std::nullopt},
    {"511 characters", "/CN=" + std::string(600, 'n'), std::string(511, 'n')},
};

TEST(CertSubject, RawCommonName) {
  for (const common_name_case& row : common_name_cases) {
    SCOPED_TRACE(row.name);
    const auto found = raw_common_name(row.subject);
    EXPECT_EQ(found ? std::optional<std::string>(*found) : std::nullopt, row.common_name);
  }
}

TEST(CertSubject, RequestCarriesVersionSubjectAndKey) {
  const unique_pkey key(EVP_EC_gen("P-256"));
  const unique_x509_req request(X509_REQ_new());
  ASSERT_EQ(make_REQ(request.get(), key.get(), "/O=Acme/CN=x", 1, MBSTRING_ASC), 0);
  EXPECT_EQ(X509_REQ_get_version(request.get()), 0);
  EXPECT_EQ(entries_of(X509_REQ_get_subject_name(request.get())),
            (std::vector<std::string>{"O=Acme", "CN=x"}));
  EXPECT_EQ(EVP_PKEY_eq(X509_REQ_get0_pubkey(request.get()), key.get()), 1);

  const unique_x509_req refused(X509_REQ_new());
  EXPECT_EQ(make_REQ(refused.get(), key.get(), "/CN=", 1, MBSTRING_ASC), -1);
  EXPECT_EQ(X509_REQ_get0_pubkey(refused.get()), nullptr) << "the first failing step ends it";
  EXPECT_EQ(make_REQ(refused.get(), nullptr, "/CN=x", 1, MBSTRING_ASC), -1);
}

}  // namespace
