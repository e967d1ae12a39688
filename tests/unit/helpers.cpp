// The texts of result codes, the exported stand-ins for standard functions, and pointers that are null.
#include "core/text.h"

#include "core/owners.h"
#include "core/result.h"
#include "include/fetchrig_openssl.h"
#include "tests/support/options.h"

namespace {

using namespace fetchrig;

TEST(result, every_code_has_its_text) {
  // clang-format off
  const std::pair<int32_t, std::string> rows[] = {
      {-1, "Wrong host"}, {-2, "Create Socket Error"}, {-3, "Connect Failed"}, {-4, "Send Error"},
      {-5, "Recv invalid data"}, {-6, "Invalid Parameter"}, {-7, "Out of memory"}, {-8, "Read Error"},
      {-9, "Wrong URL"}, {-10, "Wrong port"}, {-11, "Auth Error"}, {-12, "Redirect to many times"},
      {-13, "Ipv6 is disable"}, {-14, "Config doesn't init"}, {-15, "Unknown Error"},
      {-16, "Host is not a tftp server"}, {-17, "Unknown Error"}, {0, "Unknown Error"}, {200, "200 OK"},
      {201, "Resource create success"}, {304, "Unknown Error"}, {400, "Invaild query"}, {403, "Forbidden"},
      {408, "request out of time"}, {500, "Server error"}, {501, "Server doesn't support method"}};
  // clang-format on
  dl_result result;
  for (const auto& [code, text] : rows) {
    memset(&result, 0x55, sizeof result);
    EXPECT_EQ(fail(&result, code), -1);
    EXPECT_EQ(std::pair(result.code, std::string(result.message)), std::pair(code, text));
  }
  char cut[6] = "#####";
  EXPECT_EQ(dl_get_error_string(-1, cut, 5), 10) << "the whole length";
  EXPECT_EQ(std::string(cut, 6), std::string("Wron\0", 6));
  EXPECT_EQ(dl_get_error_string(-1, cut, 0), 10);
  EXPECT_EQ(dl_get_error_string(-1, nullptr, 5), 10);
  EXPECT_STREQ(cut, "Wron") << "a buffer of no bytes is left alone";

  const std::string line(400, 'x');
  fail_with_text(&result, DL_ERR_FTP_REPLY, line.c_str());
  EXPECT_EQ(std::pair(result.code, std::string(result.message)), std::pair(-15, line.substr(0, 255)));
  fail_with_text(&result, DL_ERR_FTP_REPLY, nullptr);
  EXPECT_STREQ(result.message, "");
  EXPECT_EQ(fail(nullptr, -1) + fail_exceeded(nullptr, 1) + fail_with_text(nullptr, 1, "x"), -3);
}

TEST(helpers, base64) {
  const std::pair<std::string, const char*> rows[] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foobar", "Zm9vYmFy"}, {"\xfb\xff\xfe", "+//+"}};
  for (const auto& [plain, encoded] : rows) {
    char* text = nullptr;
    EXPECT_EQ(Curl_base64_encode(plain.data(), plain.size(), &text), strlen(encoded));
    const unique_text text_owner(text);
    EXPECT_STREQ(text, encoded);
    unsigned char* bytes = nullptr;
    EXPECT_EQ(Curl_base64_decode(encoded, &bytes), plain.size());
    const unique_malloc<unsigned char> owner(bytes);
    EXPECT_STREQ(reinterpret_cast<char*>(bytes), plain.c_str());
  }
  for (const char* text :
       {"Z", "Zg", "Zg=", "Zg===", "====", "Z===", "Zm=v", "Zm9v\n", "Zm9-", "Zm9vZg==Zm9v"}) {
    unsigned char* bytes = reinterpret_cast<unsigned char*>(&bytes);
    EXPECT_EQ(Curl_base64_decode(text, &bytes), 0U) << text;
    EXPECT_EQ(bytes, nullptr);
  }
}

TEST(helpers, stand_in_for_standard_functions) {
  unsigned char digest[16] = {};
  Curl_md5it(digest, nullptr);
  EXPECT_EQ(to_hex(digest), "d41d8cd98f00b204e9800998ecf8427e");
  Curl_md5it(digest, reinterpret_cast<const unsigned char*>("abc"));
  EXPECT_EQ(to_hex(digest), "900150983cd24fb0d6963f7d28e17f72");

  char buffer[8];
  EXPECT_EQ(curl_msprintf(buffer, "%d-%s", 7, "abc"), 5);
  EXPECT_EQ(curl_msnprintf(buffer + 5, 3, "%s", "0123456789"), 10) << "the length of the whole text";
  EXPECT_STREQ(buffer, "7-abc01");
  EXPECT_STREQ(unique_text(curl_maprintf("%s=%06ld", "time", 42L)).get(), "time=000042");
  testing::internal::CaptureStdout();
  EXPECT_EQ(curl_mprintf("%s\n", "line") + curl_mfprintf(stdout, "%c%u", 'x', 12U), 8);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "line\nx12");

  EXPECT_TRUE(Curl_raw_equal("Digest", "dIGEST") && Curl_raw_equal(nullptr, nullptr));
  EXPECT_FALSE(Curl_raw_equal("Digest", "Digest ") || Curl_raw_equal(nullptr, ""));
  EXPECT_FALSE(Curl_raw_equal("[", "{") || Curl_raw_equal("\xc4", "\xe4"))
      << "32 apart, yet no ASCII letters";
  EXPECT_TRUE(Curl_raw_nequal("Basic realm", "basic", 5) && Curl_raw_nequal("abc", "ABC", SIZE_MAX));
  EXPECT_FALSE(Curl_raw_nequal("Basi", "basic", 5));

  char list[] = ",,auth, auth-int,,x,";
  std::string joined;
  char* rest = nullptr;
  for (char* part = Curl_strtok_r(list, ",", &rest); part; part = Curl_strtok_r(nullptr, ",", &rest))
    joined += part + std::string("|");
  EXPECT_EQ(joined, "auth| auth-int|x|");

  EXPECT_EQ(scheme_default_port(0) + scheme_default_port(1) + scheme_default_port(2), 80 + 443 - 1);
  const char* host = "host:80";
  EXPECT_STREQ(unique_text(strdupdelim(host, host + 4)).get(), "host");
  char header[] = "A[\xc4-B: Text";
  str2lower(header, 3, ':');
  EXPECT_STREQ(header, "a[\xc4-B: Text");
  str2lower(header, 100, ':');
  EXPECT_STREQ(header, "a[\xc4-b: Text");
}

// The pointers that stories cannot leave out; names of headers of any length.
TEST(exports, refuse_null) {
  const test::library initialised;
  char text[8] = "", *list = nullptr, *out = nullptr;
  const char* const none = nullptr;
  unsigned char* bytes = nullptr;
  int32_t number = 0;
  EVP_PKEY* key = nullptr;
  dl_result result;
  dl_ca_info info;
  dl_ca_info_ex more;
  dl_handle* handle = nullptr;
  dl_http_session* http = nullptr;
  const dl_request no_url = {}, url = {"http://h/", nullptr, nullptr, nullptr};
  const dl_http_request get = {DL_METHOD_GET, "http://h/", nullptr, nullptr, nullptr, nullptr, nullptr};
  const dl_http_request_ex extended = {&get, 0};
  // clang-format off
  for (const int rc : {
      dl_open(&no_url, &handle, text, &result), dl_open(&url, nullptr, text, &result),
      dl_open(&url, &handle, text, nullptr), dl_download(&no_url, text, text, &result),
      dl_download(&url, nullptr, text, &result), dl_download(&url, text, text, nullptr),
      dl_upload(&no_url, text, text, text, &result, text, 0, 0), dl_upload(&url, text, text, text, nullptr, text, 0, 0),
      dl_http_open(&http, &get, nullptr, &result), dl_http_open(&http, &get, text, nullptr),
      dl_http_open_ex(nullptr, &extended, text, &result), dl_http_recv_to_file(&get, text, nullptr, &result),
      dl_http_recv_to_file_ex(nullptr, text, text, &result),
      dl_http_post_multi_auth(nullptr, &get, nullptr, 1, text, &result),
      dl_http_post_multi_auth(&http, &get, nullptr, 1, nullptr, &result), dl_install_ca(nullptr),
      dl_get_ca_info(nullptr, &info), dl_get_ca_info(text, nullptr), dl_get_ca_info_ex(nullptr, &more, 0, &result),
      dl_get_ca_info_ex(text, nullptr, 0, &result), dl_get_ca_info_ex(text, &more, 0, nullptr),
      dl_generate_client_cert(nullptr, text, text, text, text, 512),
      dl_generate_client_cert(text, nullptr, text, text, text, 512),
      dl_generate_client_cert(text, text, nullptr, text, text, 512),
      dl_generate_client_cert(text, text, text, nullptr, text, 512),
      dl_cert_build_rsa_key(nullptr, 512, &key, &number), dl_cert_build_rsa_key(text, 512, nullptr, &number),
      dl_cert_build_rsa_key(text, 512, &key, nullptr), dl_cert_write_key(text, 0, nullptr, 0),
      curl_mfprintf(nullptr, "x"), curl_msprintf(nullptr, "x"), curl_msnprintf(nullptr, 1, "x"),
      curl_mprintf(none), curl_msprintf(text, none), curl_msnprintf(text, 1, none)}) EXPECT_EQ(rc, -1);
  // clang-format on
  EXPECT_EQ(dl_cert_verify_problems(nullptr, 1) + dl_cert_verify_problems(&number, -1) + dl_del_ca(nullptr),
            0);
  EXPECT_EQ(Curl_base64_encode("x", 1, nullptr) + Curl_base64_decode("x", nullptr), 0U);
  EXPECT_EQ(Curl_base64_encode(nullptr, 1, &out) + Curl_base64_decode(nullptr, &bytes), 0U);
  Curl_safefree(out);
  Curl_safefree(bytes);
  EXPECT_FALSE(strdupdelim(nullptr, text) || strdupdelim(text + 1, text) ||
               Curl_strtok_r(text, nullptr, &list) || Curl_strtok_r(text, ",", nullptr) ||
               Curl_strtok_r(nullptr, ",", &list) || curl_maprintf(none) || Curl_raw_equal("", nullptr));
  EXPECT_FALSE(dl_look_up_host(nullptr, 0, 0));
  SSL* ssl = nullptr;
  SSL_CTX* ctx = nullptr;
  EXPECT_EQ(dl_do_SSL_connect(-1, nullptr, nullptr, 0, 0, 0, nullptr, nullptr, &ctx), DL_ERR_CONNECT);
  EXPECT_EQ(dl_do_SSL_connect(-1, nullptr, nullptr, 0, 0, 0, nullptr, &ssl, nullptr), DL_ERR_CONNECT);
  EXPECT_EQ(Curl_input_auth(nullptr, 0, "Basic"), HTTP_CHALLENGE_UNKNOWN);
  for (const int answer : {Curl_output_auth(nullptr, 0, "GET", "/"),
                           Curl_output_digest(nullptr, 0, "GET", "/"), Curl_output_xsi_auth(nullptr)})
    EXPECT_EQ(answer, HTTP_ANSWER_SCHEME);
  dl_http_session found = {};
  const std::string longest(127, 'y');
  EXPECT_EQ(dl_http_find_header_by_name(&found, longest.c_str()), nullptr);
  std::string header = longest + ": 1";
  found.headers = header.data();
  EXPECT_EQ(dl_http_find_header_by_name(&found, (longest + "cut off").c_str()), found.headers);
  EXPECT_FALSE(dl_http_find_header_by_name(nullptr, "y") || dl_http_find_header_by_name(&found, nullptr) ||
               dl_http_find_header_by_name(&found, ""));
  dl_url_free(dl_url_parse("http://h/", nullptr, nullptr, nullptr));
  dl_last_cause(nullptr);
  Curl_digest_cleanup_one(nullptr);
  get_all_qop_content(nullptr, 0, text);
  str2lower(nullptr, 1, 0);
  Curl_md5it(nullptr, nullptr);
  EXPECT_STREQ(text, "");
}

}  // namespace
