// url.cpp: "http" and "https" URLs and the text routines beside them.
#include <gtest/gtest.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <string>

#include "core/owners.h"
#include "include/fetchrig.h"
#include "tests/support/log_capture.h"
#include "tests/support/options.h"

namespace {

struct url_deleter {
  void operator()(dl_url* url) const { dl_url_free(url); }
};
using unique_url = std::unique_ptr<dl_url, url_deleter>;

struct good_row {
  const char* url;
  uint32_t scheme;
  const char* host;
  uint32_t port;
  const char* path;
};

const good_row good_rows[] = {
    {"HTTP://Example/a b", 0, "Example", 80, "/a%20b"},
    {"https://h", 1, "h", 443, "/"},
    {"hTTpS://h/", 1, "h", 443, "/"},
    {"http://h:/x", 0, "h", 80, "/x"},
    {"https://h:", 1, "h", 443, "/"},
    {"http://h:65535/", 0, "h", 65535, "/"},
    {"http://h:0/", 0, "h", 0, "/"},
    {"http://h:000000000000080", 0, "h", 80, "/"},
    {"http://h:443/a:b@c", 0, "h", 443, "/a:b@c"},
    {"http://h/?x=1#f", 0, "h", 80, "/?x=1#f"},
    {"http://h//a/../b", 0, "h", 80, "//a/../b"},
    {"http://a b/c", 0, "a%20b", 80, "/c"},
    {"http://h/  ", 0, "h", 80, "/%20%20"},
    {"http://h/a%20b\t\xff", 0, "h", 80, "/a%20b\t\xff"},
    {"http://user@h/x", 0, "user@h", 80, "/x"},
    {"http://[fe80::1]:443", 0, "fe80::1", 443, "/"},
    {"https://[::1]/x", 1, "::1", 443, "/x"},
    {"http://[x]:8/y", 0, "x", 8, "/y"},
};

TEST(url, parts) {
  const test::library library;
  test::set_option(DL_OPT_IPV6, 1);
  for (const auto& row : good_rows) {
    SCOPED_TRACE(row.url);
    int32_t code = 1;
    const unique_url url(dl_url_parse(row.url, nullptr, nullptr, &code));
    ASSERT_TRUE(url);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(url->scheme, row.scheme);
    EXPECT_EQ(url->method, 0U);
    EXPECT_STREQ(url->host, row.host);
    EXPECT_EQ(url->port, row.port);
    EXPECT_STREQ(url->path, row.path);
    EXPECT_EQ(url->user, nullptr);
    EXPECT_EQ(url->password, nullptr);
    const unique_url without_code(dl_url_parse(row.url, nullptr, nullptr, nullptr));
    EXPECT_TRUE(without_code);
  }
}

struct bad_row {
  const char* url;
  int32_t code;
  const char* message;
};

const bad_row bad_rows[] = {
    {"ftp://h/x", -9, "Invalid URL"},
    {"h/x", -9, "Invalid URL"},
    {"", -9, "Invalid URL"},
    {"http:/h", -9, "Invalid URL"},
    {" http://h", -9, "Invalid URL"},
    {"httpss://h", -9, "Invalid URL"},
    {"http://", -9, "Invalid Host"},
    {"http:///x", -9, "Invalid Host"},
    {"http://:80/x", -9, "Invalid Host"},
    {"http://?x", -9, "Invalid Host"},
    {"http://[]/x", -9, "Invalid Host"},
    {"http://[fe80::1/x", -9, "Invalid Host"},
    {"http://a\nb/x", -9, "Invalid Host"},
    {"http://h:65536/", -9, "BAD_PORT_NUMBER"},
    {"http://h:8a/", -9, "BAD_PORT_NUMBER"},
    {"http://h:-1/", -9, "BAD_PORT_NUMBER"},
    {"http://h: 80/", -9, "BAD_PORT_NUMBER"},
    {"http://h:80?x", -9, "BAD_PORT_NUMBER"},
    {"http://h:99999999999999999999/", -9, "BAD_PORT_NUMBER"},
    {"http://user:pw@h/x", -9, "BAD_PORT_NUMBER"},
    {"http://h?x=1", -9, "Bad file name"},
    {"http://h#f", -9, "Bad file name"},
    {"http://[::1]x", -9, "Bad file name"},
    {"http://[::1]?x", -9, "Bad file name"},
    {"http://h/x\r\nHost: y", -9, "Bad file name"},
};

TEST(url, rejected) {
  const test::library library;
  test::set_option(DL_OPT_IPV6, 1);
  test::log_capture log;
  for (const auto& row : bad_rows) {
    SCOPED_TRACE(row.url);
    log.clear();
    int32_t code = 1;
    const unique_url url(dl_url_parse(row.url, "u", "p", &code));
    EXPECT_FALSE(url);
    EXPECT_EQ(code, row.code);
    EXPECT_TRUE(log.contains("DCMN", DL_LOG_ERROR, row.message)) << log.all();
    EXPECT_EQ(dl_url_parse(row.url, nullptr, nullptr, nullptr), nullptr);
  }
}

TEST(url, addresses_in_brackets_need_the_ipv6_option) {
  const test::library library;
  test::log_capture log;
  int32_t code = 0;
  EXPECT_EQ(dl_url_parse("http://[fe80::1]:443", nullptr, nullptr, &code), nullptr);
  EXPECT_EQ(code, DL_ERR_IPV6_DISABLED);
  EXPECT_EQ(log.messages(DL_LOG_ERROR), std::vector<std::string>{"can't use ipv6 when ipv6 is diable"});
  EXPECT_EQ(dl_url_parse("http://[]", nullptr, nullptr, &code), nullptr);
  EXPECT_EQ(code, DL_ERR_IPV6_DISABLED);
  EXPECT_EQ(dl_url_parse("http://[fe80::1", nullptr, nullptr, &code), nullptr);
  EXPECT_EQ(code, DL_ERR_URL) << "the bracket is looked for first";
}

TEST(url, credentials_are_copied) {
  const test::library library;
  char user[] = "user";
  const unique_url url(dl_url_parse("http://h", user, "", nullptr));
  ASSERT_TRUE(url);
  user[0] = '#';
  EXPECT_STREQ(url->user, "user");
  EXPECT_STREQ(url->password, "");
  int32_t code = 0;
  EXPECT_EQ(dl_url_parse(nullptr, "u", "p", &code), nullptr);
  EXPECT_EQ(code, DL_ERR_URL);
  dl_url_free(nullptr);
}

TEST(url, routines_beside_it) {
  EXPECT_EQ(scheme_default_port(0), 80);
  EXPECT_EQ(scheme_default_port(1), 443);
  const char* text = "host:80";
  const fetchrig::unique_text host(strdupdelim(text, text + 4));
  EXPECT_STREQ(host.get(), "host");
  const fetchrig::unique_text nothing(strdupdelim(text, text));
  EXPECT_STREQ(nothing.get(), "");

  const struct {
    const char* text;
    int count;
    char stop;
    const char* lowered;
  } rows[] = {
      {"Content-Type: Text", 100, ':', "content-type: Text"},
      {"ABCDEF", 3, ':', "abcDEF"},
      {"ABC", 0, ':', "ABC"},
      {"ABC", -1, ':', "ABC"},
      {"A[\xc4Z", 100, ':', "a[\xc4z"},
  };
  for (const auto& row : rows) {
    char buffer[32] = {};
    memcpy(buffer, row.text, strlen(row.text));
    str2lower(buffer, row.count, row.stop);
    EXPECT_STREQ(buffer, row.lowered);
  }
}

}  // namespace
