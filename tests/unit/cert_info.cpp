// Certificates as text: what the records say is what the openssl tool says of the same file.
#include <openssl/asn1.h>
#include <string.h>
#include <filesystem>

#include <memory>

#include "cert/asn1_text.h"
#include "cert/ca_info.h"
#include "core/openssl_owners.h"
#include "include/fetchrig.h"
#include "tests/support/cert_fixture.h"

namespace fetchrig::test {
namespace {

using cert_info = cert_test;

struct string_deleter {
  void operator()(ASN1_STRING* string) const { ASN1_STRING_free(string); }
};

std::unique_ptr<ASN1_STRING, string_deleter> make_string(int type, std::string_view bytes) {
  std::unique_ptr<ASN1_STRING, string_deleter> made(ASN1_STRING_type_new(type));
  ASN1_STRING_set(made.get(), bytes.data(), static_cast<int>(bytes.size()));
  return made;
}

TEST_F(cert_info, Times) {
  constexpr int utc = V_ASN1_UTCTIME;
  constexpr int general = V_ASN1_GENERALIZEDTIME;
  struct {
    int type;
    const char* bytes;
    const char* text;  // null: refused
  } const cases[] = {
      {utc, "140301000000Z", "Mar  1 00:00:00 2014 GMT"},
      {utc, "491231235959Z", "Dec 31 23:59:59 2049 GMT"},
      {utc, "500101000000Z", "Jan  1 00:00:00 1950 GMT"},
      {utc, "9912312359Z", "Dec 31 23:59:00 1999 GMT"},
      {utc, "9912312359", "Dec 31 23:59:00 1999"},
      {utc, "99123123595Z", "Dec 31 23:59:00 1999 GMT"},
      {utc, "991231235958+0100", "Dec 31 23:59:58 1999"},
      {utc, "991331235959Z", nullptr},
      {utc, "990031235959Z", nullptr},
      {utc, "99123123", nullptr},
      {utc, "991231235", nullptr},
      {utc, "99-231235959Z", nullptr},
      {utc, "", nullptr},
      {general, "20500615112233Z", "Jun 15 11:22:33 2050 GMT"},
      {general, "205006151122Z", "Jun 15 11:22:00 2050 GMT"},
      {general, "20500615112233.5Z", "Jun 15 11:22:33 2050 GMT"},
      {general, "00010101000000", "Jan  1 00:00:00 1"},
      {general, "20501315112233Z", nullptr},
      {general, "20500615112", nullptr},
      {general, "2050061511 2Z", nullptr},
      {V_ASN1_OCTET_STRING, "140301000000Z", nullptr},
  };
  for (const auto& row : cases) {
    const auto time = make_string(row.type, row.bytes);
    char text[64] = "untouched";
    EXPECT_EQ(asn1_time_to_text(time.get(), text), row.text ? 0 : -1) << row.bytes;
    EXPECT_STREQ(text, row.text ? row.text : "untouched") << row.bytes;
    EXPECT_EQ(logged().empty(), row.text != nullptr) << row.bytes;
  }
  char text[64];
  EXPECT_EQ(asn1_time_to_text(nullptr, text), -1);
  EXPECT_TRUE(was_logged("3 Bad time value\n"));
}

TEST_F(cert_info, SerialNumbers) {
  struct {
    bool negative;
    std::string_view bytes;
    const char* text;
  } const cases[] = {
      {false, std::string_view("\0", 1), "0 (0x0)"},
      {false, "\x01", "1 (0x1)"},
      {false, std::string_view("\x10\0", 2), "4096 (0x1000)"},
      {true, "\x05", "-5 (-0x5)"},
      {false, "\x7f\xff\xff\xff", "2147483647 (0x7fffffff)"},
      {false, std::string_view("\x80\0\0\0", 4), "-2147483648 (-0x80000000)"},
      {false, "\xff\xff\xff\xfe", "-2 (-0x2)"},
      {false, "\x01\x02\x03\x04\x05", "01:02:03:04:05 "},
      {true, "\xa1\x02\x03\x04\xff", "(Negative)a1:02:03:04:ff "},
      {false, "aaaaaaaaaaaaaaaaaaaa", "61:61:61:61:61:61:61:61:61:61:61:61:61:61:61:61:61:61:61:61 "},
      {false, "aaaaaaaaaaaaaaaaaaaaaa", "61:61:61:61:61:61:61:61:61:61:61:61:61:61:61:61:61:61:61:61:61:"},
      {true, "aaaaaaaaaaaaaaaaaaaaaa", "(Negative)61:61:61:61:61:61:61:61:61:61:61:61:61:61:61:61:61:61"},
  };
  for (const auto& row : cases) {
    const auto serial = make_string(row.negative ? V_ASN1_NEG_INTEGER : V_ASN1_INTEGER, row.bytes);
    char text[64];
    asn1_serial_to_text(serial.get(), text);
    EXPECT_EQ(std::string(text), std::string(row.text).substr(0, 63));
  }
}

// The tool's names of algorithms, from the lines of its text form.
std::string text_value(const std::string& path, const std::string& label) {
  const std::string text = openssl("x509 -in " + path + " -noout -text");
  const std::size_t at = text.find(label) + label.size();
  return text.substr(at, text.find_first_of("\n (", at) - at);
}

// "0102AB" as "01:02:ab ".
std::string colons(const std::string& hex) {
  std::string text;
  for (std::size_t i = 0; i < hex.size(); ++i) {
    text += static_cast<char>(tolower(hex[i]));
    if (i % 2 == 1) text += i + 1 < hex.size() ? ':' : ' ';
  }
  return text;
}

TEST_F(cert_info, LongFormSaysWhatTheToolSays) {
  const std::string version_1 =
      "-newkey rsa:1024 -set_serial 77 -config " + write("v1.cnf", "[req]\ndistinguished_name=d\n[d]\n");
  const struct {
    const char* name;
    std::string request;
    int key_bits;
    int num_extensions;
  } cases[] = {
      {"ec", "-newkey ec -pkeyopt ec_paramgen_curve:secp384r1 -sha384", 384, 3},
      {"rsa", "-newkey rsa:1024 -md5 -set_serial 0x0102030405060708090a0b0c", 1024, 3},
      {"ed25519", "-newkey ed25519 -addext nsComment=hello -addext keyUsage=digitalSignature", 256, 5},
      {"version 1", version_1, 1024, 0},
  };
  for (const auto& row : cases) {
    const std::string file = make_cert("cert.pem", "/O=Acme/OU=Phones/CN=Unit 7", row.request);
    dl_ca_info_ex info{};
    dl_result result;
    ASSERT_EQ(dl_get_ca_info_ex(file.c_str(), &info, 0, &result), 0) << row.name;
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(std::to_string(info.version), text_value(file, "Version: ")) << row.name;
    const std::string serial = x509_value(file, "serial");
    EXPECT_EQ(std::string(info.serial), serial == "4D" ? "77 (0x4d)" : colons(serial)) << row.name;
    EXPECT_EQ(std::string(info.sig_alg), text_value(file, "Signature Algorithm: ")) << row.name;
    EXPECT_EQ(std::string(info.key_alg), text_value(file, "Public Key Algorithm: ")) << row.name;
    EXPECT_EQ(std::string(info.not_before), x509_value(file, "startdate")) << row.name;
    EXPECT_EQ(std::string(info.not_after), x509_value(file, "enddate")) << row.name;
    EXPECT_EQ(info.hash, std::stoul(x509_value(file, "subject_hash"), nullptr, 16)) << row.name;
    EXPECT_EQ(info.key_bits, row.key_bits) << row.name;
    EXPECT_EQ(info.ext_count, row.num_extensions) << row.name;
    EXPECT_STREQ(info.subject, "Unit 7");
    EXPECT_STREQ(info.path, "");
  }
}

TEST_F(cert_info, NamesInShortAndLongForm) {
  const std::string cn_64(64, 'c');
  const struct {
    std::string subject;
    std::string cn, org, shown;
  } cases[] = {
      {"/O=Acme/OU=Phones/CN=Unit 7", "Unit 7", "Acme", "Unit 7"},
      {"/O=Acme/OU=Phones", "", "Acme", "Phones"},
      {"/C=DE/O=Acme", "", "Acme", "Acme"},
      {"/C=DE/L=Berlin", "", "", ""},
      {"/CN=first/CN=second", "first", "", "first"},
      {"/CN=" + cn_64, cn_64.substr(1), "", cn_64.substr(1)},
      {"/CN=Gr\xc3\xb6\xc3\x9f"
       "e",
       "Gr\\xC3\\xB6\\xC3\\x9Fe", "", "Gr\\xC3\\xB6\\xC3\\x9Fe"},
      {"/CN=a\\+b\\/c", "a+b", "", "a+b"},
      {"/O=x\\/CN=forged/CN=true", "true", "x", "true"},
      {"/O=x\\\\/CN=true", "true", "x\\", "true"},
  };
  for (const auto& row : cases) {
    const std::string file = make_cert("cert.pem", row.subject, "-utf8");
    dl_ca_info brief{};
    dl_ca_info_ex full{};
    dl_result result;
    EXPECT_EQ(dl_get_ca_info(file.c_str(), &brief), 0) << row.subject;
    EXPECT_EQ(dl_get_ca_info_ex(file.c_str(), &full, 0, &result), 0) << row.subject;
    EXPECT_EQ(std::string(brief.cn), row.cn) << row.subject;
    EXPECT_EQ(std::string(brief.org), row.org) << row.subject;
    EXPECT_EQ(std::string(full.subject), row.shown) << row.subject;
    EXPECT_EQ(std::string(full.issuer), row.shown) << row.subject;
    EXPECT_EQ(std::string(brief.not_after), x509_value(file, "enddate"));
    EXPECT_EQ(brief.hash, full.hash);
  }
}

TEST_F(cert_info, ShortFormLeavesDerAndWhatItDoesNotFind) {
  const std::string der = to_der(make_cert("cert.pem", "/OU=No name"), "cert.der");
  const std::string before = read_file(der);
  dl_ca_info info{};
  strcpy(info.cn, "kept");
  strcpy(info.path, "kept too");
  EXPECT_EQ(dl_get_ca_info(der.c_str(), &info), 0);
  EXPECT_STREQ(info.cn, "kept");
  EXPECT_STREQ(info.path, "kept too");
  EXPECT_EQ(read_file(der), before);
  dl_ca_info_ex full{};
  dl_result result;
  EXPECT_EQ(dl_get_ca_info_ex(der.c_str(), &full, 0, &result), 0);
  EXPECT_EQ(full.hash, info.hash);
  EXPECT_EQ(read_file(der), read_file(path("cert.pem")));
}

TEST_F(cert_info, PrivateKeyAfterTheCertificate) {
  const std::string cert = make_cert("cert.pem", "/CN=Key", "-newkey rsa:1024");
  openssl("pkcs8 -topk8 -in " + cert + ".key -passout pass:opensesame -out " + path("locked"));
  dl_set_option(DL_OPT_KEY_PASSPHRASE, "opensesame");
  const std::string pem = read_file(cert), key = read_file(cert + ".key");
  const struct {
    const char* name;
    std::string content;
    uint32_t flags;
    int bits;
  } cases[] = {
      {"key", pem + key, 1, 1024},
      {"encrypted key", pem + read_file(path("locked")), 1, 1024},
      {"not asked for", pem + key, 0, 0},
      {"no key", pem, 1, 0},
      {"key before the certificate", key + pem, 1, 0},
  };
  for (const auto& row : cases) {
    dl_ca_info_ex info{};
    dl_result result;
    EXPECT_EQ(dl_get_ca_info_ex(write("both.pem", row.content).c_str(), &info, row.flags, &result), 0)
        << row.name;
    EXPECT_EQ(info.priv_bits, row.bits) << row.name;
    EXPECT_STREQ(info.priv_alg, row.bits ? "rsaEncryption" : "") << row.name;
    EXPECT_EQ(was_logged("6 client cert\n"), row.flags == 1) << row.name;
    logged();
  }
}

TEST_F(cert_info, UnreadableFiles) {
  const std::string der = read_file(to_der(make_cert("cert.pem", "/CN=Cut"), "cert.der"));
  write("half.der", der.substr(0, der.size() / 2));
  write("noise", "\x30\x84\xff\xff\xff\xffnoise");
  write("empty", "");
  struct {
    const char* file;
    const char* line;
  } const cases[] = {
      {"", "5 path is directory, ret\n"},
      {"missing", "3 Bio_new_file error filename\n"},
      {"half.der", "3 unable to load certificate filename\n"},
      {"noise", "3 unable to load certificate filename\n"},
      {"empty", "3 unable to load certificate filename\n"},
      {"cert.pem.key", "3 unable to load certificate filename\n"},
  };
  for (const auto& row : cases) {
    dl_ca_info brief{};
    dl_ca_info_ex full{};
    dl_result result;
    memset(&result, 'x', sizeof result);
    EXPECT_EQ(dl_get_ca_info(path(row.file).c_str(), &brief), -2) << row.file;
    EXPECT_EQ(dl_get_ca_info_ex(path(row.file).c_str(), &full, 0, &result), -1) << row.file;
    EXPECT_EQ(result.code, 1) << row.file;
    EXPECT_STREQ(result.message, "") << row.file;
    EXPECT_EQ(logged(), std::vector<std::string>(2, row.line)) << row.file;
  }
}

TEST_F(cert_info, NullArguments) {
  dl_ca_info brief{};
  dl_ca_info_ex full{};
  dl_result result{};
  EXPECT_EQ(dl_get_ca_info(nullptr, &brief), -1);
  EXPECT_EQ(dl_get_ca_info("/", nullptr), -1);
  EXPECT_EQ(dl_get_ca_info_ex(nullptr, &full, 0, nullptr), -1);
  EXPECT_EQ(dl_get_ca_info_ex("/", &full, 0, nullptr), -1);
  EXPECT_EQ(dl_get_ca_info_ex("/", nullptr, 0, &result), -1);
  EXPECT_EQ(result.code, 1);
  EXPECT_EQ(dl_get_ser_ca_info(nullptr), -1);
  EXPECT_EQ(logged(), std::vector<std::string>(6, "3 Invalid Parameter\n"));
}

TEST_F(cert_info, DeviceCertificateAndItsKey) {
  const std::string cert = make_cert("cert.pem", "/CN=Device");
  const std::string other = make_cert("other.pem", "/CN=Other");
  openssl("pkcs8 -topk8 -in " + cert + ".key -passout pass:opensesame -out " + path("locked"));
  dl_set_option(DL_OPT_KEY_PASSPHRASE, "opensesame");
  const std::string pem = read_file(cert), key = read_file(cert + ".key");
  const struct {
    const char* name;
    std::string content;
    int rc;
  } cases[] = {
      {"matching", pem + key, 0}, {"key first", key + pem, 0},
      {"no key", pem, -3},        {"key of another", pem + read_file(other + ".key"), -3},
      {"key only", key, -2},      {"encrypted key", pem + read_file(path("locked")), 0},
  };
  dl_ca_info info;
  for (const auto& row : cases) {
    dl_set_option(DL_OPT_DEVICE_CERT_FILE, write("device.pem", row.content).c_str());
    memset(&info, 'x', sizeof info);
    EXPECT_EQ(dl_get_ser_ca_info(&info), row.rc) << row.name;
    EXPECT_STREQ(info.cn, row.rc == -2 ? "" : "Device") << row.name;
    EXPECT_STREQ(info.path, "") << row.name;
    EXPECT_EQ(was_logged("4 private key doesn't match public key\n"), row.rc == -3) << row.name;
    logged();
  }
  dl_set_option(DL_OPT_DEVICE_CERT_FILE, path("missing").c_str());
  EXPECT_EQ(dl_get_ser_ca_info(&info), -2);
}

}  // namespace
}  // namespace fetchrig::test
