// tls_host.cpp: which certificates name which hosts.
#include "net/tls_host.h"

#include <gtest/gtest.h>
#include <openssl/x509v3.h>

#include <string>
#include <string_view>
#include <vector>

#include "core/openssl_owners.h"
#include "include/fetchrig.h"

namespace {

using namespace fetchrig;
using std::string_view;

struct names_deleter {
  void operator()(GENERAL_NAMES* names) const { GENERAL_NAMES_free(names); }
};

// One alternative name: "DNS:" or "IP:" (raw bytes) or "URI:" and the value.
GENERAL_NAME* make_name(string_view text) {
  const size_t colon = text.find(':');
  const string_view kind = text.substr(0, colon);
  const string_view value = text.substr(colon + 1);
  const int type = kind == "DNS" ? GEN_DNS : kind == "IP" ? GEN_IPADD : GEN_URI;
  ASN1_STRING* bytes = ASN1_STRING_type_new(type == GEN_IPADD ? V_ASN1_OCTET_STRING : V_ASN1_IA5STRING);
  ASN1_STRING_set(bytes, value.data(), static_cast<int>(value.size()));
  GENERAL_NAME* name = GENERAL_NAME_new();
  GENERAL_NAME_set0_value(name, type, bytes);
  return name;
}

// A certificate that carries these names and nothing else. A null common name is left out.
unique_x509 make_certificate(const char* common_name, const std::vector<string_view>& alternatives) {
  unique_x509 certificate(X509_new());
  X509_NAME* subject = X509_get_subject_name(certificate.get());
  X509_NAME_add_entry_by_txt(subject, "O", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("Test"), -1,
                             -1, 0);
  if (common_name) {
    X509_NAME_add_entry_by_NID(subject, NID_commonName, MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(common_name), -1, -1, 0);
  }
  if (!alternatives.empty()) {
    const std::unique_ptr<GENERAL_NAMES, names_deleter> names(GENERAL_NAMES_new());
    for (const string_view text : alternatives) sk_GENERAL_NAME_push(names.get(), make_name(text));
    EXPECT_EQ(X509_add1_ext_i2d(certificate.get(), NID_subject_alt_name, names.get(), 0, 0), 1);
  }
  return certificate;
}

struct host_row {
  const char* what;
  const char* common_name;
  std::vector<string_view> alternatives;
  const char* host;
  int result;
};

constexpr string_view ip_127_0_0_1("IP:\x7f\0\0\1", 7);
constexpr string_view ip_v6_one("IP:\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\1", 19);
constexpr string_view dns_with_nul("DNS:good.example\0.evil.example", 30);
constexpr string_view dns_only_nul("DNS:\0", 5);

const host_row host_rows[] = {
    {"alternative name", "x", {"DNS:host.example"}, "host.example", 0},
    {"letter case of either", "x", {"DNS:Host.Example"}, "hOST.eXAMPLE", 0},
    {"second alternative name",
     "x",
     {"URI:http://other/", "DNS:other", "DNS:host.example"},
     "host.example",
     0},
    {"another name", "x", {"DNS:host.example"}, "host.example2", -1},
    {"longer by a label", "x", {"DNS:host.example"}, "www.host.example", -1},
    {"a URI is no name", "x", {"URI:host.example"}, "host.example", -1},
    {"empty alternative name", "x", {"DNS:"}, "", -1},
    {"NUL inside an alternative name", "x", {dns_with_nul}, "good.example", -1},
    {"NUL alone", "x", {dns_only_nul}, "", -1},

    {"wildcard", "x", {"DNS:*.example.org"}, "www.example.org", 0},
    {"wildcard, letter case", "x", {"DNS:*.Example.org"}, "WWW.EXAMPLE.ORG", 0},
    {"wildcard for one label alone", "x", {"DNS:*.example.org"}, "a.b.example.org", -1},
    {"wildcard for at least one label", "x", {"DNS:*.example.org"}, "example.org", -1},
    {"wildcard and a bare tail", "x", {"DNS:*.example.org"}, ".example.org", 0},
    {"wildcard without dot", "x", {"DNS:*example.org"}, "wexample.org", -1},
    {"wildcard within a label", "x", {"DNS:w*.example.org"}, "www.example.org", -1},
    {"wildcard further in", "x", {"DNS:www.*.org"}, "www.example.org", -1},
    {"star alone", "x", {"DNS:*"}, "host", -1},
    {"star and dot", "x", {"DNS:*."}, "host", -1},
    {"host without dot matches no wildcard", "x", {"DNS:*.host"}, "host", -1},

    {"common name", "host.example", {}, "HOST.example", 0},
    {"common name after alternative names that differ", "host.example", {"DNS:other"}, "host.example", 0},
    {"common name wildcard", "*.example.org", {}, "www.example.org", 0},
    {"common name wildcard for one label", "*.example.org", {}, "a.b.example.org", -1},
    {"common name of another", "host.example", {}, "host", -1},
    {"no common name", nullptr, {}, "host.example", -1},
    {"no common name, alternative name matches", nullptr, {"DNS:h"}, "h", 0},

    {"IPv4 address", "x", {ip_127_0_0_1}, "127.0.0.1", 0},
    {"IPv4 address in short form", "x", {ip_127_0_0_1}, "127.1", 0},
    {"another IPv4 address", "x", {ip_127_0_0_1}, "127.0.0.2", -1},
    {"an IPv4 host ignores names", "x", {"DNS:127.0.0.1"}, "127.0.0.1", -1},
    {"a name host ignores addresses", "x", {ip_127_0_0_1}, "localhost", -1},
    {"common name spells the address", "127.0.0.1", {"DNS:other"}, "127.0.0.1", 0},
    {"IPv4 bytes are no IPv6 address", "x", {ip_127_0_0_1}, "::1", -1},
    {"four numbers out of range are a name", "x", {"DNS:1.2.3.400"}, "1.2.3.400", 0},
    {"a number without a dot is a name", "x", {"DNS:2130706433", ip_127_0_0_1}, "2130706433", 0},
    {"a host that ends with a dot is a name", "x", {"DNS:127.0.0.1."}, "127.0.0.1.", 0},
    {"digits at the front alone", "x", {"DNS:1.example"}, "1.example", 0},

    {"IPv6 address", "x", {ip_v6_one}, "::1", 0},
    {"IPv6 address in brackets", "x", {ip_v6_one}, "[::1]", 0},
    {"IPv6 address written out", "x", {ip_v6_one}, "[0:0:0:0:0:0:0:1]", 0},
    {"another IPv6 address", "x", {ip_v6_one}, "::2", -1},
    {"an IPv6 host ignores names", "x", {"DNS:::1"}, "::1", -1},
    {"a malformed IPv6 address is a name", "x", {"DNS:::1::"}, "::1::", 0},
    {"malformed in brackets compares with them", "x", {"DNS:[::g]"}, "[::g]", 0},
    {"malformed in brackets, name without them", "x", {"DNS:::g"}, "[::g]", -1},
    {"common name spells the IPv6 address", "::1", {}, "::1", 0},
};

TEST(host_name, is_compared_with_the_certificates_names) {
  for (const auto& row : host_rows) {
    const unique_x509 certificate = make_certificate(row.common_name, row.alternatives);
    EXPECT_EQ(ssl_check_host_name(certificate.get(), row.host), row.result) << row.what;
  }
}

// Common names longer than a certificate should have are cut before they are compared.
TEST(host_name, only_255_characters_of_a_common_name_count) {
  const unique_x509 certificate(X509_new());
  const std::string name(300, 'n');
  ASN1_STRING* bytes = ASN1_STRING_type_new(V_ASN1_UTF8STRING);
  ASN1_STRING_set(bytes, name.data(), static_cast<int>(name.size()));
  X509_NAME_ENTRY* entry = X509_NAME_ENTRY_create_by_NID(
      nullptr, NID_commonName, V_ASN1_UTF8STRING, ASN1_STRING_get0_data(bytes), ASN1_STRING_length(bytes));
  ASSERT_NE(entry, nullptr);
  X509_NAME_add_entry(X509_get_subject_name(certificate.get()), entry, -1, 0);
  X509_NAME_ENTRY_free(entry);
  ASN1_STRING_free(bytes);
  EXPECT_EQ(ssl_check_host_name(certificate.get(), name.c_str()), -1);
  EXPECT_EQ(ssl_check_host_name(certificate.get(), name.substr(0, 255).c_str()), 0);
}

std::string last_line;
int remember(const char* line, int32_t length) {
  last_line.assign(line, static_cast<size_t>(length));
  return 0;
}

TEST(host_name, a_certificate_without_common_name_is_logged) {
  dl_log_init(0, remember);
  const unique_x509 certificate = make_certificate(nullptr, {"DNS:other"});
  EXPECT_EQ(ssl_check_host_name(certificate.get(), "host"), -1);
  EXPECT_TRUE(last_line.ends_with("DCMN<3+error > TLS: unable to get common name from peer certificate.\n"))
      << last_line;
  qxfr_log_exit();
}

}  // namespace
