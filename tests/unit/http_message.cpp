// http_message.cpp: the bytes of a request: request line, headers in order, bodies.
#include "http/http_message.h"

#include <gtest/gtest.h>

#include "http/http_body.h"
#include "tests/support/descriptors.h"
#include "tests/support/log_capture.h"
#include "tests/support/options.h"
#include "tests/support/temp_dir.h"

namespace {

using namespace fetchrig;
using lines = std::vector<std::string>;

const std::string agent = "User-Agent: Korvane\r\nAccept: */*\r\n";
const std::string keep = "Connection: Keep-Alive\r\n";

class http_message : public test::leak_free {
 protected:
  // Composes a request with `file` (or none) to send.
  int make(const char* where, uint32_t method, const char* headers, const char* body,
           const char* file = nullptr) {
    log_.clear();
    message_ = http_msg_new();
    message_->body.file_path = file;
    const dl_http_request request = {
        static_cast<int32_t>(method), where, nullptr, nullptr, nullptr, headers, body};
    const unique_url parsed(dl_url_parse(where, nullptr, nullptr, nullptr));
    parsed->method = method;
    return http_make_request(parsed->scheme == scheme_https, *message_, request, *parsed);
  }
  std::string bytes() const { return http_serialise_head(*message_) + message_->body.buffer.value_or(""); }

  test::temp_dir place_;
  test::library library_;
  test::log_capture log_;
  std::unique_ptr<http_msg> message_;
};

TEST_F(http_message, requests_byte_for_byte) {
  test::set_option(DL_OPT_IPV6, 1);
  const struct {
    const char* url;
    uint32_t method;
    const char* headers;
    const char* body;
    std::string start;
    std::string end;
  } cases[] = {
      // clang-format off
      {"http://h:8080/a/b.cfg", 0, nullptr, nullptr, "GET /a/b.cfg HTTP/1.1\r\nHost: h:8080", keep + "\r\n"},
      {"http://h:80", 0, nullptr, nullptr, "GET / HTTP/1.1\r\nHost: h", keep + "\r\n"},
      {"http://h:443/?q=a b", 3, nullptr, nullptr, "DELETE /?q=a%20b HTTP/1.1\r\nHost: h:443", keep + "\r\n"},
      {"https://h/x", 0, nullptr, nullptr, "GET /x HTTP/1.1\r\nHost: h", "\r\n"},
      {"https://h:80/x", 0, nullptr, nullptr, "GET /x HTTP/1.1\r\nHost: h:80", "\r\n"},
      {"http://[::1]/", 0, nullptr, nullptr, "GET / HTTP/1.1\r\nHost: [::1]", keep + "\r\n"},
      {"http://[::1]:81/", 0, nullptr, nullptr, "GET / HTTP/1.1\r\nHost: [::1]:81", keep + "\r\n"},
      {"http://h/", 1, nullptr, "", "POST / HTTP/1.1\r\nHost: h", keep + "Content-Length: 0\r\n\r\n"},
      {"http://h/", 2, "X-A: 1\r\nX-B: 2\r\n", "data", "PUT / HTTP/1.1\r\nHost: h",
       keep + "Content-Length: 4\r\nX-A: 1\r\nX-B: 2\r\n\r\ndata"},
      {"http://h/", 1, "Content-Length: 99\r\n", "data", "POST / HTTP/1.1\r\nHost: h",
       keep + "Content-Length: 99\r\n\r\ndata"},
      {"http://h/", 1, "content-length: 4\r\n", "data", "POST / HTTP/1.1\r\nHost: h",
       keep + "Content-Length: 4\r\ncontent-length: 4\r\n\r\ndata"},
      {"http://h/", 0, nullptr, "data", "GET / HTTP/1.1\r\nHost: h", keep + "Content-Length: 4\r\n\r\ndata"},
      // clang-format on
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(&row - cases);
    EXPECT_EQ(0, make(row.url, row.method, row.headers, row.body));
    EXPECT_EQ(row.start + "\r\n" + agent + row.end, bytes());
    EXPECT_EQ(lines{}, log_.messages(DL_LOG_ERROR));
  }
}

TEST_F(http_message, logs_what_it_composes) {
  test::set_option(DL_OPT_USER_AGENT, "Phone/1.0 (\n)");
  EXPECT_EQ(0, make("http://h:81/x", 1, nullptr, "ab"));
  EXPECT_EQ((lines{"Request Line: POST /x HTTP/1.1\r", "Host: h:81", "User-Agent: Phone/1.0 (?)",
                   "Content-Length: 2"}),
            log_.messages(DL_LOG_INFO));
}

TEST_F(http_message, headers_are_replaced_in_place) {
  ASSERT_EQ(0, make("http://h/", 0, nullptr, nullptr));
  for (const char* name : {"X-0", "X-1", "X-2", "x-1"}) EXPECT_EQ(0, http_set_header(*message_, name, "old"));
  EXPECT_EQ(0, http_set_header(*message_, "Host", "other"));
  EXPECT_EQ(0, http_set_header(*message_, "X-1", "new"));
  EXPECT_EQ(0, http_set_header(*message_, "X-Null", nullptr));
  http_remove_header(*message_, "X-0");
  http_remove_header(*message_, "not there");
  EXPECT_EQ("GET / HTTP/1.1\r\nHost: other\r\n" + agent + keep + "X-1: new\r\nX-2: old\r\nx-1: old\r\n\r\n",
            bytes());
}

TEST_F(http_message, unknown_method_changes_nothing) {
  ASSERT_EQ(0, make("http://h/", 1, nullptr, nullptr));
  const unique_url other(dl_url_parse("http://h/y", nullptr, nullptr, nullptr));
  other->method = 4;
  EXPECT_EQ(DL_ERR_URL, http_set_request_line(*message_, *other));
  EXPECT_EQ("POST / HTTP/1.1\r\n", message_->request_line);
  EXPECT_STREQ("POST", message_->method_text);
  EXPECT_EQ(DL_ERR_URL, make("http://h/", 4, nullptr, nullptr));
  EXPECT_EQ(lines{"make request error"}, log_.messages(DL_LOG_ERROR));
}

const std::string form_type = "Content-Type: multipart/form-data; boundary=";

TEST_F(http_message, files_to_put_and_post) {
  const std::string path = place_.file("image.rom");
  for (const std::size_t size : {0u, 1u, 512u, 513u, 200000u}) {
    const std::string content = test::make_bytes(size);
    test::write_file(path, content);
    ASSERT_EQ(0, make("http://h/x", 2, "", nullptr, path.c_str()));
    EXPECT_TRUE("PUT /x HTTP/1.1\r\nHost: h\r\n" + agent + keep + "Content-Length: " + std::to_string(size) +
                    "\r\n\r\n" + content ==
                bytes());
    for (const std::string& boundary :
         {std::string("\"q\"; charset=x"), std::string("a\nb"), std::string(507, 'b')}) {
      SCOPED_TRACE(boundary);
      const std::string headers = form_type + boundary + "\r\n";
      ASSERT_EQ(0, make("http://h/", 1, headers.c_str(), nullptr, path.c_str()));
      const std::string body =
          "--" + boundary +
          "\r\nContent-Disposition: form-data; name=\"upload\"; filename=\"image.rom\"\r\n"
          "Content-Type: application/octet-stream\r\nContent-Transfer-Encoding: binary\r\n\r\n" +
          content + "\r\n--" + boundary + "--\r\n";
      EXPECT_TRUE(body == message_->body.buffer);
      EXPECT_NE(std::string::npos, bytes().find("Content-Length: " + std::to_string(body.size()) + "\r\n"));
    }
  }
}

TEST_F(http_message, refused_files) {
  const std::string path = place_.file("image.rom"), missing = place_.file("missing"),
                    broken = place_.file("a\r\nb");
  for (const auto& file : {path, broken}) test::write_file(file, "x");
  const std::string form = form_type + "b\r\n", long_form = form_type + std::string(508, 'b') + "\r\n";
  const std::string addition = "body & post file or without addtion header";
  const std::string no_boundary = "post file without boundary";
  const struct {
    uint32_t method;
    const char* headers;
    const char* body;
    const std::string& file;
    int code;
    lines error_lines;
  } cases[] = {
      // clang-format off
      {1, form.c_str(), "text", path, DL_ERR_PARAMETER, {addition}},
      {1, nullptr, nullptr, path, DL_ERR_PARAMETER, {addition}},
      {2, nullptr, nullptr, path, DL_ERR_PARAMETER, {addition}},
      {1, "X: y\r\n", nullptr, path, DL_ERR_PARAMETER, {no_boundary}},
      {1, "Boundary=x\r\n", nullptr, path, DL_ERR_PARAMETER, {no_boundary}},
      {1, "boundary=x", nullptr, path, DL_ERR_PARAMETER, {"header without CRLF"}},
      {1, form.c_str(), nullptr, missing, DL_ERR_PARAMETER, {"Can't open " + missing}},
      {2, "", nullptr, missing, DL_ERR_PARAMETER, {"Can't open " + missing}},
      {2, "", nullptr, place_.path(), DL_ERR_READ, {"read file err"}},
      {1, form.c_str(), nullptr, broken, DL_ERR_PARAMETER, {"file name with a line break"}},
      {1, long_form.c_str(), nullptr, path, DL_ERR_PARAMETER, {"header without CRLF"}},
      {0, "", nullptr, path, 0, {}},  // GET and DELETE leave the file alone
      {3, "", nullptr, path, 0, {}},
      // clang-format on
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(&row - cases);
    EXPECT_EQ(row.code, make("http://h/", row.method, row.headers, row.body, row.file.c_str()));
    EXPECT_EQ(row.error_lines, log_.messages(DL_LOG_ERROR));
    EXPECT_TRUE(row.code != 0 || !message_->body.buffer);
  }
}

}  // namespace
