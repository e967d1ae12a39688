// dispatch_url.cpp: the dispatcher's URLs: what the splitter takes them apart into, what it refuses with
// which log lines, and the clean URL that HTTP gets.
#include "core/dispatch_url.h"

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"
#include "tests/support/options.h"

namespace {

using namespace fetchrig;
using lines = std::vector<std::string>;

constexpr uint32_t https = DL_PROTO_HTTPS, http = DL_PROTO_HTTP, tftp = DL_PROTO_TFTP, ftp = DL_PROTO_FTP;

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
    std::string host;
    uint32_t port;
    std::string path;
    std::optional<std::string> user = {}, password = {};
    const char* clean = nullptr;  // http and https
  } cases[] = {
      {"host", tftp, "host", 69, "/"},
      {" \t\r\nhost:70", tftp, "host", 70, "/"},
      {"TFTP://h/x", tftp, "h", 69, "/x"},
      {"http://h/a#f?q", http, "h", 80, "/a", {}, {}, "http://h/a"},
      {"http://h?q=/x", http, "h?q=", 80, "/x", {}, {}, "http://h?q=/x"},
      {"https://h:80/", https, "h", 80, "/", {}, {}, "https://h:80/"},
      {"https://h:443", https, "h", 443, "/", {}, {}, "https://h/"},
      {"http://h: 8080/", http, "h", 8080, "/", {}, {}, "http://h:8080/"},
      {"https://u:p@[fe80::1]:8443/a", https, "fe80::1", 8443, "/a", "u", "p", "https://[fe80::1]:8443/a"},
      {"ftp://u:p:q@r@h:2121/f", ftp, "h", 2121, "/f", "u", "p:q@r"},
      {"ftp://:@h/f", ftp, "h", 21, "/f", "", ""},
      {"ftp:// u:p@ h/f", ftp, "h", 21, "/f", "u", "p"},
      {"ftp://u:p@[::1]:22/f@g:h", ftp, "::1", 22, "/f@g:h", "u", "p"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.url);
    dl_url_parts parts;
    ASSERT_EQ(0, dl_url_split(row.url, parts));
    EXPECT_EQ(std::tuple(row.proto, row.host, row.port, row.path, row.user, row.password),
              std::tuple(parts.proto, parts.host, parts.port, parts.path, parts.user, parts.password));
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
      // clang-format off
      {"sftp://h/x", {"Protocol Not Support!"}}, {"", {"URL Invalid!"}},
      {"ftp://@h/", {"Login Info Invalid!", failed}},
      {"http:///path", {"Host Info Invalid!", failed}}, {"http://h:/", {"Host Info Invalid!", failed}},
      {"ftp://user@h/", {failed}}, {"http://:80/", {failed}},
      {"http://[::1/", {failed}}, {"http://h:8x/", {failed}},
      {"http://h:65536/", {failed}}, {"http://h:-1/", {failed}}, {"http://[::1]/", {failed}, 0},
      // clang-format on
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
}

}  // namespace
