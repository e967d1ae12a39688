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

}  // namespace
}  // namespace test
