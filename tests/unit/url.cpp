// url.cpp and dispatch_url.cpp: the HTTP client's strict URLs and the dispatcher's lenient ones: what they
// are taken apart into, what is refused with which log lines, and the clean URL that HTTP gets.
#include "core/url.h"

#include "core/dispatch_request.h"
#include "core/owners.h"
#include "include/fetchrig.h"
#include "tests/support/log_capture.h"
#include "tests/support/options.h"

namespace {

using namespace fetchrig;
using lines = std::vector<std::string>;

class url : public testing::Test {
 protected:
  url() { test::set_option(DL_OPT_IPV6, 1); }
  unique_url parse(const char* text, const char* user = nullptr, const char* password = nullptr) {
    return unique_url(dl_url_parse(text, user, password, &code));
  }

  test::library library;
  test::log_capture log;
  int32_t code = 1;
};

TEST_F(url, of_http_is_split) {
  // clang-format off
  const struct { const char* text; uint32_t scheme; const char* host; uint32_t port; const char* path; } rows[] = {
      {"HTTP://Example/a b", 0, "Example", 80, "/a%20b"},
      {"https://h", 1, "h", 443, "/"},
      {"http://h:/x", 0, "h", 80, "/x"},
      {"https://h:", 1, "h", 443, "/"},
      {"http://h:65535/", 0, "h", 65535, "/"},
      {"http://h:000000000000080", 0, "h", 80, "/"},
      {"http://h:443/a:b@c?x=1#f", 0, "h", 443, "/a:b@c?x=1#f"},
      {"http://a b//a/../b%20\t\xff ", 0, "a%20b", 80, "//a/../b%20\t\xff%20"},
      {"http://user@h/x", 0, "user@h", 80, "/x"},
      {"http://[fe80::1]:443", 0, "fe80::1", 443, "/"},
      {"https://[::1]/x", 1, "::1", 443, "/x"},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    const unique_url parsed = parse(row.text);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(std::tuple(code, parsed->scheme, parsed->port, parsed->method),
              std::tuple(0, row.scheme, row.port, 0U));
    EXPECT_STREQ(parsed->host, row.host);
    EXPECT_STREQ(parsed->path, row.path);
    EXPECT_TRUE(!parsed->user && !parsed->password);
  }
  char user[] = "user";
  const unique_url parsed(dl_url_parse("http://h", user, "", nullptr));
  user[0] = '#';
  EXPECT_STREQ(parsed->user, "user") << "copied";
  EXPECT_STREQ(parsed->password, "");
}

TEST_F(url, of_http_is_refused) {
  // clang-format off
  const struct { const char* message; int32_t code; uint32_t ipv6; std::vector<const char*> texts; } rows[] = {
      {"Invalid URL", -9, 1, {"ftp://h/x", "h/x", "", "http:/h", " http://h", "httpss://h", nullptr}},
      {"Invalid Host", -9, 1, {"http://", "http://:80/", "http://?x", "http://[]/x", "http://[::1/x", "http://a\nb/x"}},
      {"BAD_PORT_NUMBER", -9, 1, {"http://h:65536", "http://h:8a/", "http://h:-1/", "http://h:80?x", "http://u:p@h/x"}},
      {"Bad file name", -9, 1, {"http://h?x=1", "http://h#f", "http://[::1]x", "http://h/x\r\nHost: y"}},
      {"can't use ipv6 when ipv6 is diable", DL_ERR_IPV6_DISABLED, 0, {"http://[::1]:443", "http://[]"}},
      {"Invalid Host", -9, 0, {"http://[::1"}}};  // the bracket is looked for first
  // clang-format on
  for (const auto& row : rows) {
    test::set_option(DL_OPT_IPV6, row.ipv6);
    for (const char* text : row.texts) {
      SCOPED_TRACE(text ? text : "(null)");
      log.clear();
      EXPECT_FALSE(parse(text, "u", "p"));
      EXPECT_EQ(code, row.code);
      EXPECT_EQ(log.messages(), lines{row.message});
    }
  }
}

TEST_F(url, of_the_dispatcher_is_split) {
  constexpr uint32_t https = DL_PROTO_HTTPS, http = DL_PROTO_HTTP, tftp = DL_PROTO_TFTP, ftp = DL_PROTO_FTP;
  // clang-format off
  const struct {
    const char* text; uint32_t proto; std::string host; uint32_t port; std::string path;
    std::optional<std::string> user = {}, password = {};
    const char* clean = nullptr;  // http and https
  } rows[] = {
      {"host", tftp, "host", 69, "/"},
      {" \t\r\nhost:70", tftp, "host", 70, "/"},
      {"TFTP://h/x", tftp, "h", 69, "/x"},
      {"http://h/a#f?q", http, "h", 80, "/a", {}, {}, "http://h/a"},
      {"http://h?q=/x", http, "h?q=", 80, "/x", {}, {}, "http://h?q=/x"},
      {"https://h:80/", https, "h", 80, "/", {}, {}, "https://h:80/"},
      {"https://h: 443", https, "h", 443, "/", {}, {}, "https://h/"},
      {"https://u:p@[fe80::1]:8443/a", https, "fe80::1", 8443, "/a", "u", "p", "https://[fe80::1]:8443/a"},
      {"ftp:// u:p:q@r@ h:2121/f", ftp, "h", 2121, "/f", "u", "p:q@r"},
      {"ftp://:@h/f", ftp, "h", 21, "/f", "", ""},
      {"ftp://u:p@[::1]:22/f@g:h", ftp, "::1", 22, "/f@g:h", "u", "p"},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    dl_url_parts parts;
    ASSERT_EQ(dl_url_split(row.text, parts), 0);
    EXPECT_EQ(std::tuple(row.proto, row.host, row.port, row.path, row.user, row.password),
              std::tuple(parts.proto, parts.host, parts.port, parts.path, parts.user, parts.password));
    if (!row.clean) continue;
    std::string clean;
    dl_http_request request = {};
    ASSERT_EQ(dl_url_rebuild({row.text, "ru", "rp", "http://proxy"}, request, parts, clean), 0);
    EXPECT_STREQ(request.url, row.clean);
    EXPECT_EQ(request.user, row.user.value_or("ru"));
    EXPECT_EQ(request.password, row.password.value_or("rp"));
    EXPECT_STREQ(request.proxy, "http://proxy");
    EXPECT_TRUE(log.contains("DCMN", DL_LOG_INFO, "URL After Modify = " + std::string(row.clean)));
  }
  log.clear();
  dl_url_parts parts;
  ASSERT_EQ(dl_url_split("ftp://me:hush@h/x", parts), 0);
  EXPECT_EQ(log.messages(),
            (lines{"Enter Func dl_url_parse....", "Skip Space Success!",
                   "url = ftp://me:******@h/x, protl = 3, host = h, port = 21, path = /x, user = me, "
                   "passwd = ******"}));
}

TEST_F(url, of_the_dispatcher_is_refused) {
  const std::string failed = "Login_Host_Port Info Parsing Fail!";
  // clang-format off
  const struct { lines texts, errors; uint32_t ipv6 = 1; } rows[] = {
      {{"sftp://h/x"}, {"Protocol Not Support!"}}, {{"", "ftp://\t"}, {"URL Invalid!"}},
      {{"ftp://@h/"}, {"Login Info Invalid!", failed}}, {{"http:///p", "http://h:/"}, {"Host Info Invalid!", failed}},
      {{"ftp://user@h/", "http://:80/", "http://[::1/", "ftp://h:8x/", "ftp://h:65536/", "ftp://h:-1/"}, {failed}},
      {{"http://[::1]/"}, {failed}, 0}};
  // clang-format on
  for (const auto& row : rows) {
    test::set_option(DL_OPT_IPV6, row.ipv6);
    for (const std::string& text : row.texts) {
      log.clear();
      dl_url_parts parts;
      EXPECT_EQ(dl_url_split(text.c_str(), parts), -1);
      EXPECT_EQ(log.messages(DL_LOG_ERROR), row.errors) << text;
    }
  }
}

}  // namespace
