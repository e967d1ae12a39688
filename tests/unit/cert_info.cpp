// Certificates as text: what the records say is what the openssl tool says of the same file.
#include <openssl/asn1.h>
#include <string.h>

#include "cert/asn1_text.h"
#include "tests/support/cert_fixture.h"

namespace test {
namespace {

using namespace fetchrig;
using namespace std::string_literals;

class cert_info : public cert_test {
 protected:
  // A self-signed certificate in the file `name` (PEM) and its key in `name`.key; `request` goes to "openssl
  // req".
  std::string make_cert(const std::string& name, const std::string& subject, std::string request = "") const {
    const std::string file = path(name);
    if (request.find("-newkey") == request.npos)
      request += " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1";
    openssl("req -x509 -nodes -days 3650 -subj '" + subject + "' -keyout " + file + ".key -out " + file +
            " " + request);
    return file;
  }
};

TEST_F(cert_info, times_and_serial_numbers) {
  constexpr int utc = V_ASN1_UTCTIME, general = V_ASN1_GENERALIZEDTIME;
  constexpr int positive = V_ASN1_INTEGER, negative = V_ASN1_NEG_INTEGER;
  const std::string refused = "refused", long_serial(22, 'a');
  const std::string cut = "61:61:61:61:61:61:61:61:61:61:61:61:61:61:61:61:61:61:61:61:61:";
  // clang-format off
  const struct { int type; std::string bytes, text; } rows[] = {
      {utc, "491231235959Z", "Dec 31 23:59:59 2049 GMT"},  {utc, "500101000000Z", "Jan  1 00:00:00 1950 GMT"},
      {utc, "991231235958+0100", "Dec 31 23:59:58 1999"},  {general, "205006151122.5Z", "Jun 15 11:22:00 2050 GMT"},
      {utc, "991331235959Z", refused},                     {utc, "990031235959Z", refused},
      {utc, "991231235", refused},                         {utc, "99-231235959Z", refused},
      {utc, "", refused},                                  {V_ASN1_OCTET_STRING, "140301000000Z", refused},
      {positive, "\0"s, "0 (0x0)"},                        {negative, "\5", "-5 (-0x5)"},
      {positive, "\x7f\xff\xff\xff", "2147483647 (0x7fffffff)"},
      {positive, "\x80\0\0\0"s, "-2147483648 (-0x80000000)"},
      {positive, "\1\2\3\4\5", "01:02:03:04:05 "},         {negative, "\xa1\2\3\4\5", "(Negative)a1:02:03:04:05 "},
      {positive, long_serial, cut},                        {negative, long_serial, "(Negative)" + cut.substr(0, 53)},
  };
  // clang-format on
  for (const auto& row : rows) {
    ASN1_STRING* string = ASN1_STRING_type_new(row.type);
    ASN1_STRING_set(string, row.bytes.data(), static_cast<int>(row.bytes.size()));
    char text[64] = "refused";
    forget_log();
    if (row.type == positive || row.type == negative) {
      asn1_serial_to_text(string, text);
    } else {
      EXPECT_EQ(asn1_time_to_text(string, text), row.text == refused ? -1 : 0) << row.bytes;
    }
    EXPECT_EQ(text, row.text);
    EXPECT_EQ(was_logged("3 Bad time value\n"), row.text == refused) << row.bytes;
    ASN1_STRING_free(string);
  }
}

TEST_F(cert_info, records_say_what_the_tool_says) {
  const std::string long_name(64, 'c'), cut_name(63, 'c');
  const std::string version_1 =
      "-newkey rsa:1024 -set_serial 77 -config " + write("v1", "[req]\ndistinguished_name=d\n[d]\n");
  // clang-format off
  const struct { std::string subject, cn, org, shown, request = "-utf8"; int bits = 256, extensions = 3; } rows[] = {
      {"/O=Acme/OU=Phones/CN=a\\+b\\/c", "a+b", "Acme", "a+b", "-newkey rsa:1024 -md5", 1024},
      {"/O=Acme/OU=Phones", "", "Acme", "Phones", "-newkey ec -pkeyopt ec_paramgen_curve:secp384r1", 384},
      {"/C=DE/O=Acme", "", "Acme", "Acme", "-newkey ed25519 -addext nsComment=hello", 256, 4},
      {"/C=DE/L=Berlin", "", "", "", version_1, 1024, 0},
      {"/CN=first/CN=second", "first", "", "first"},
      {"/CN=" + long_name, cut_name, "", cut_name},
      {"/CN=Gr\xc3\xbc", "Gr\\xC3\\xBC", "", "Gr\\xC3\\xBC"},
      {"/O=x\\/CN=forged/CN=true", "true", "x", "true"},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.subject);
    const std::string file = make_cert("cert.pem", row.subject, row.request);
    const std::string before = der_of(certificate_in(read_file(file)).get()), der = write("cert.der", before);
    dl_ca_info brief{};
    EXPECT_EQ(dl_get_ca_info(der.c_str(), &brief), 0);
    EXPECT_EQ(read_file(der), before) << "the short form does not make it PEM";
    dl_ca_info_ex info{};
    dl_result result;
    EXPECT_EQ(dl_get_ca_info_ex(file.c_str(), &info, 0, &result), 0);
    std::string serial = info.serial;
    if (serial.ends_with(' ')) serial.pop_back();
    const std::string text = openssl("x509 -noout -text -in " + file);
    for (const std::string& line :
         {"Version: " + std::to_string(info.version) + " (", " " + serial + "\n",
          "Signature Algorithm: "s + info.sig_alg + "\n", "Public Key Algorithm: "s + info.key_alg + "\n",
          "Not Before: "s + info.not_before + "\n", "Not After : "s + info.not_after + "\n"}) {
      EXPECT_NE(text.find(line), text.npos) << line << text;
    }
    EXPECT_EQ(info.hash, std::stoul(openssl("x509 -noout -subject_hash -in " + file), nullptr, 16));
    EXPECT_EQ(info.subject, row.shown);
    EXPECT_EQ(info.issuer, row.shown);
    EXPECT_EQ(brief.cn, row.cn);
    EXPECT_EQ(brief.org, row.org);
    EXPECT_STREQ(brief.not_after, info.not_after);
    EXPECT_EQ(info.key_bits, row.bits);
    EXPECT_EQ(info.ext_count, row.extensions);
    EXPECT_EQ(brief.hash, info.hash);
  }
}

TEST_F(cert_info, files_with_and_without_certificate_and_key) {
  const std::string file = make_cert("cert.pem", "/CN=Device", "-newkey rsa:1024");
  const std::string other = read_file(make_cert("other.pem", "/CN=Other") + ".key");
  openssl("pkcs8 -topk8 -in " + file + ".key -passout pass:opensesame -out " + path("locked"));
  dl_set_option(DL_OPT_KEY_PASSPHRASE, "opensesame");
  const std::string pem = read_file(file), key = read_file(file + ".key"), locked = read_file(path("locked"));
  const std::string mismatch = "4 private key doesn't match public key\n";
  const std::string unreadable = "3 unable to load certificate filename\n";
  // clang-format off
  const struct { const char* name; std::string content; int device_rc, key_bits; std::string logged; } rows[] = {
      {"encrypted key", pem + locked, 0, 1024, "6 client cert\n"},
      {"key first", key + pem, 0, 0, "6 client cert\n"},
      {"no key", pem, -3, 0, mismatch},
      {"key of another", pem + other, -3, 256, mismatch},
      {"key alone", key, -2, 0, unreadable},
      {"cut DER", der_of(certificate_in(pem).get()).substr(0, 200), -2, 0, unreadable},
      {"empty", "", -2, 0, unreadable},
      {"absent", "", -2, 0, "3 Bio_new_file error filename\n"},
      {".", "", -2, 0, "5 path is directory, ret\n"},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const bool readable = row.device_rc != -2;
    const std::string tried = path(row.name);
    if (row.name != "absent"s && row.name != "."s) write(row.name, row.content);
    dl_set_option(DL_OPT_DEVICE_CERT_FILE, tried.c_str());
    forget_log();
    dl_ca_info info;
    memset(&info, 'x', sizeof info);
    EXPECT_EQ(dl_get_ser_ca_info(&info), row.device_rc);
    EXPECT_EQ(info.cn + "|"s + info.path, readable ? "Device|" : "|");
    EXPECT_EQ(dl_get_ca_info(tried.c_str(), &info), readable ? 0 : -2);
    for (const bool with_key : {false, true}) {
      dl_ca_info_ex info_ex{};
      dl_result result;
      EXPECT_EQ(dl_get_ca_info_ex(tried.c_str(), &info_ex, with_key, &result), readable ? 0 : -1);
      EXPECT_EQ(result.code, readable ? 0 : 1);
      EXPECT_EQ(info_ex.priv_bits, with_key ? row.key_bits : 0);
    }
    EXPECT_TRUE(was_logged(row.logged));
  }
  dl_ca_info_ex unused{};
  forget_log();
  EXPECT_EQ(dl_get_ca_info("/", nullptr), -1);
  EXPECT_EQ(dl_get_ser_ca_info(nullptr), -1);
  EXPECT_EQ(dl_get_ca_info_ex("/", &unused, 0, nullptr), -1);
  EXPECT_EQ(logged(), std::vector<std::string>(3, "3 Invalid Parameter\n"));
}

}  // namespace
}  // namespace test
