// dispatch_url.cpp: the dispatcher's URLs: what the splitter takes them apart into, what it refuses with
// which log lines, and the clean URL that HTTP gets.
#include "core/dispatch_url.h"

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"
#include "tests/support/options.h"

namespace {

using namespace fetchrig;
using lines = std::vector<std::string>;

constexpr uint32_t https = DL_PROTO_HTTPS;
constexpr uint32_t http = DL_PROTO_HTTP;
constexpr uint32_t tftp = DL_PROTO_TFTP;
constexpr uint32_t ftp = DL_PROTO_FTP;

class dispatch_url : public ::testing::Test {
 protected:
  dispatch_url() { test::set_option(DL_OPT_IPV6, 1); }
  test::library library_;
  test::log_capture log_;
};

TEST_F(dispatch_url, splits) {
  const struct {
    const char* url;
    uint32_t proto;
    const char* host;
    uint32_t port;
    const char* path;
    std::optional<std::string> user = {}, password = {};
    const char* clean = nullptr;  // http and https
  } cases[] = {
      {"10.0.0.1/boot.cfg", tftp, "10.0.0.1", 69, "/boot.cfg"},
      {"host", tftp, "host", 69, "/"},
      {" \t\r\nhost:70", tftp, "host", 70, "/"},
      {"ftp://h/x", ftp, "h", 21, "/x"},
      {"TFTP://h/x", tftp, "h", 69, "/x"},
      {"http://h/a?q=1#f", http, "h", 80, "/a", {}, {}, "http://h/a"},
      {"http://h/a#f?q", http, "h", 80, "/a", {}, {}, "http://h/a"},
      {"http://h?q=/x", http, "h?q=", 80, "/x", {}, {}, "http://h?q=/x"},
      {"HtTp://h:80/", http, "h", 80, "/", {}, {}, "http://h/"},
      {"https://h:80/", https, "h", 80, "/", {}, {}, "https://h:80/"},
      {"https://h:443", https, "h", 443, "/", {}, {}, "https://h/"},
      {"http:// \th:0/", http, "h", 0, "/", {}, {}, "http://h:0/"},
      {"http://h: 8080/", http, "h", 8080, "/", {}, {}, "http://h:8080/"},
      {"http://h:65535/a//b", http, "h", 65535, "/a//b", {}, {}, "http://h:65535/a//b"},
      {"http://[::1]/a", http, "::1", 80, "/a", {}, {}, "http://[::1]/a"},
      {"https://[fe80::1]:8443/a", https, "fe80::1", 8443, "/a", {}, {}, "https://[fe80::1]:8443/a"},
      {"tftp://[::1]", tftp, "::1", 69, "/"},
      {"http://u:p@h/", http, "h", 80, "/", "u", "p", "http://h/"},
      {"ftp://u:p:q@r@h:2121/f", ftp, "h", 2121, "/f", "u", "p:q@r"},
      {"ftp://:@h/f", ftp, "h", 21, "/f", "", ""},
      {"ftp:// u:p@ h/f", ftp, "h", 21, "/f", "u", "p"},
      {"ftp://u:p@[::1]:22/f@g:h", ftp, "::1", 22, "/f@g:h", "u", "p"},
      {"h/x://y", tftp, nullptr, 0, nullptr},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.url);
    dl_url_parts parts;
    if (!row.host) {
      EXPECT_EQ(-1, dl_url_split(row.url, parts));
      continue;
    }
    ASSERT_EQ(0, dl_url_split(row.url, parts));
    EXPECT_EQ(row.proto, parts.proto);
    EXPECT_EQ(row.host, parts.host);
    EXPECT_EQ(row.port, parts.port);
    EXPECT_EQ(row.path, parts.path);
    EXPECT_EQ(row.user, parts.user);
    EXPECT_EQ(row.password, parts.password);
    if (!row.clean) continue;
    std::string url;
    dl_http_request request = {};
    ASSERT_EQ(0, dl_url_rebuild({row.url, "ru", "rp", "http://proxy"}, request, parts, url));
    EXPECT_STREQ(row.clean, request.url);
    EXPECT_EQ(row.user.value_or("ru"), request.user);
    EXPECT_EQ(row.password.value_or("rp"), request.password);
    EXPECT_STREQ("http://proxy", request.proxy);
    EXPECT_TRUE(log_.contains("DCMN", DL_LOG_INFO, "URL After Modify = " + std::string(row.clean)));
  }
}

const std::string failed = "Login_Host_Port Info Parsing Fail!";

TEST_F(dispatch_url, refuses) {
  const struct {
    const char* url;
    lines errors;
    uint32_t ipv6 = 1;
  } cases[] = {
      {"sftp://h/x", {"Protocol Not Support!"}},
      {"://h", {"Protocol Not Support!"}},
      {" http://h/", {"Protocol Not Support!"}},
      {"", {"URL Invalid!"}},
      {"http:// \t", {"URL Invalid!"}},
      {"ftp://@h/", {"Login Info Invalid!", failed}},
      {"ftp:// @h/", {"Login Info Invalid!", failed}},
      {"ftp://user@h/", {failed}},
      {"http:///path", {"Host Info Invalid!", failed}},
      {"ftp://u:p@/x", {"Host Info Invalid!", failed}},
      {"ftp://u:p@ /x", {"Host Info Invalid!", failed}},
      {"http://:80/", {failed}},
      {"http://[::1/", {failed}},
      {"http://[]/", {failed}},
      {"http://[::1]/", {failed}, 0},
      {"http://h:/", {"Host Info Invalid!", failed}},
      {"http://h: \t/", {"Host Info Invalid!", failed}},
      {"http://h:8x/", {failed}},
      {"http://h:80 /", {failed}},
      {"http://h:65536/", {failed}},
      {"http://h:99999999999999999999/", {failed}},
      {"http://h:-1/", {failed}},
      {"http://h:80:90/", {failed}},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.url);
    test::set_option(DL_OPT_IPV6, row.ipv6);
    log_.clear();
    dl_url_parts parts;
    EXPECT_EQ(-1, dl_url_split(row.url, parts));
    EXPECT_EQ(row.errors, log_.messages(DL_LOG_ERROR));
  }
}

TEST_F(dispatch_url, logs_its_steps_without_the_password) {
  dl_url_parts parts;
  ASSERT_EQ(0, dl_url_split("ftp://me:hush@h/x", parts));
  EXPECT_EQ((lines{"Enter Func dl_url_parse....", "Skip Space Success!",
                   "url = ftp://me:******@h/x, protl = 3, host = h, port = 21, path = /x, user = me, passwd "
                   "= ******"}),
            log_.messages(DL_LOG_INFO));
  log_.clear();
  dl_url_parts bare;
  ASSERT_EQ(0, dl_url_split("h", bare));
  EXPECT_EQ("url = h, protl = 2, host = h, port = 69, path = /, user = , passwd = ******",
            log_.messages().back());
}

}  // namespace
