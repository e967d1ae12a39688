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

const std::string agent = "User-Agent: Korvane\r\n";
const std::string accept_any = "Accept: */*\r\n";
const std::string keep = "Connection: Keep-Alive\r\n";

class http_message : public test::leak_free {
 protected:
  unique_url url(const char* text, uint32_t method) const {
    unique_url parsed(dl_url_parse(text, nullptr, nullptr, nullptr));
    if (parsed) parsed->method = method;
    return parsed;
  }
  // Composes a request with `file` (or none) to send.
  int make(const char* where, uint32_t method, const char* headers, const char* body,
           const char* file = nullptr) {
    log_.clear();
    message_ = http_msg_new();
    message_->body.file_path = file;
    const dl_http_request request = {
        static_cast<int32_t>(method), where, nullptr, nullptr, nullptr, headers, body};
    const auto parsed = url(where, method);
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
    const char* name;
    const char* url;
    uint32_t method;
    const char* headers;
    const char* body;
    std::string bytes;
  } cases[] = {
      {"GET", "http://h:8080/a/b.cfg", 0, nullptr, nullptr,
       "GET /a/b.cfg HTTP/1.1\r\nHost: h:8080\r\n" + agent + accept_any + keep + "\r\n"},
      {"default port", "http://h:80", 0, nullptr, nullptr,
       "GET / HTTP/1.1\r\nHost: h\r\n" + agent + accept_any + keep + "\r\n"},
      {"the other scheme's port", "http://h:443/?q=a b", 3, nullptr, nullptr,
       "DELETE /?q=a%20b HTTP/1.1\r\nHost: h:443\r\n" + agent + accept_any + keep + "\r\n"},
      {"https", "https://h/x", 0, nullptr, nullptr,
       "GET /x HTTP/1.1\r\nHost: h\r\n" + agent + accept_any + "\r\n"},
      {"https on port 80", "https://h:80/x", 0, nullptr, nullptr,
       "GET /x HTTP/1.1\r\nHost: h:80\r\n" + agent + accept_any + "\r\n"},
      {"IPv6", "http://[::1]/", 0, nullptr, nullptr,
       "GET / HTTP/1.1\r\nHost: [::1]\r\n" + agent + accept_any + keep + "\r\n"},
      {"IPv6 and port", "http://[::1]:81/", 0, nullptr, nullptr,
       "GET / HTTP/1.1\r\nHost: [::1]:81\r\n" + agent + accept_any + keep + "\r\n"},
      {"body", "http://h/", 1, nullptr, "a=1&b=2",
       "POST / HTTP/1.1\r\nHost: h\r\n" + agent + accept_any + keep + "Content-Length: 7\r\n\r\na=1&b=2"},
      {"empty body", "http://h/", 1, nullptr, "",
       "POST / HTTP/1.1\r\nHost: h\r\n" + agent + accept_any + keep + "Content-Length: 0\r\n\r\n"},
      {"headers and body", "http://h/", 2, "X-A: 1\r\nX-B: 2\r\n", "data",
       "PUT / HTTP/1.1\r\nHost: h\r\n" + agent + accept_any + keep +
           "Content-Length: 4\r\nX-A: 1\r\nX-B: 2\r\n\r\ndata"},
      {"the caller's own length", "http://h/", 1, "Content-Length: 99\r\n", "data",
       "POST / HTTP/1.1\r\nHost: h\r\n" + agent + accept_any + keep + "Content-Length: 99\r\n\r\ndata"},
      {"a length in other letters is not seen", "http://h/", 1, "content-length: 4\r\n", "data",
       "POST / HTTP/1.1\r\nHost: h\r\n" + agent + accept_any + keep +
           "Content-Length: 4\r\ncontent-length: 4\r\n\r\ndata"},
      {"a body with GET", "http://h/", 0, nullptr, "data",
       "GET / HTTP/1.1\r\nHost: h\r\n" + agent + accept_any + keep + "Content-Length: 4\r\n\r\ndata"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(0, make(row.url, row.method, row.headers, row.body));
    EXPECT_EQ(row.bytes, bytes());
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
  for (int i = 0; i < 12; ++i) {
    EXPECT_EQ(0, http_set_header(*message_, "X-" + std::to_string(i), std::to_string(i).c_str()));
  }
  EXPECT_EQ(0, http_set_header(*message_, "Host", "other"));
  EXPECT_EQ(0, http_set_header(*message_, "X-3", "new"));
  EXPECT_EQ(0, http_set_header(*message_, "x-3", "case matters"));
  EXPECT_EQ(0, http_set_header(*message_, "X-Null", nullptr));
  http_remove_header(*message_, "X-0");
  http_remove_header(*message_, "not there");
  std::string expected = "GET / HTTP/1.1\r\nHost: other\r\n" + agent + accept_any + keep;
  for (int i = 1; i < 12; ++i) {
    expected += "X-" + std::to_string(i) + ": " + (i == 3 ? "new" : std::to_string(i)) + "\r\n";
  }
  EXPECT_EQ(expected + "x-3: case matters\r\n\r\n", bytes());
}

TEST_F(http_message, unknown_method_changes_nothing) {
  ASSERT_EQ(0, make("http://h/", 1, nullptr, nullptr));
  EXPECT_EQ(DL_ERR_URL, http_set_request_line(*message_, *url("http://h/y", 4)));
  EXPECT_EQ("POST / HTTP/1.1\r\n", message_->request_line);
  EXPECT_STREQ("POST", message_->method_text);
  EXPECT_EQ(DL_ERR_URL, make("http://h/", 4, nullptr, nullptr));
  EXPECT_EQ(lines{"make request error"}, log_.messages(DL_LOG_ERROR));
  EXPECT_EQ(DL_ERR_URL, make("http://h/", UINT32_MAX, nullptr, nullptr));
}

const std::string form_type = "Content-Type: multipart/form-data; boundary=";

class http_body_file : public http_message {
 protected:
  static std::string framed(const std::string& boundary, const std::string& name,
                            const std::string& content) {
    return "--" + boundary + "\r\nContent-Disposition: form-data; name=\"upload\"; filename=\"" + name +
           "\"\r\nContent-Type: application/octet-stream\r\nContent-Transfer-Encoding: binary\r\n\r\n" +
           content + "\r\n--" + boundary + "--\r\n";
  }
  std::string file(const std::string& content) const {
    const std::string path = place_.file("image.rom");
    test::write_file(path, content);
    return path;
  }
  std::string body() const { return message_->body.buffer.value_or("(none)"); }
};

TEST_F(http_body_file, put_and_post) {
  const std::string put_head = "PUT /x HTTP/1.1\r\nHost: h\r\n" + agent + accept_any + keep;
  for (const std::size_t size : {0u, 1u, 511u, 512u, 513u, 65536u, 200000u}) {
    SCOPED_TRACE(size);
    const std::string content = test::make_bytes(size);
    const std::string path = file(content);
    ASSERT_EQ(0, make("http://h/x", 2, "", nullptr, path.c_str()));
    EXPECT_TRUE(put_head + "Content-Length: " + std::to_string(size) + "\r\n\r\n" + content == bytes());
    const std::string headers = form_type + "XyZ\r\nX-A: 1\r\n";
    ASSERT_EQ(0, make("http://h/x", 1, headers.c_str(), nullptr, path.c_str()));
    EXPECT_TRUE(framed("XyZ", "image.rom", content) == body());
    EXPECT_NE(std::string::npos, bytes().find("Content-Length: " + std::to_string(body().size()) + "\r\n"));
  }
}

TEST_F(http_body_file, boundary_is_taken_as_it_stands) {
  const std::string path = file("x");
  const struct {
    const char* name;
    std::string boundary;
    std::string expected;
  } cases[] = {{"quotes", "\"q\"", "\"q\""},
               {"parameters", "b; charset=x", "b; charset=x"},
               {"line feed alone", "a\nb", "a\nb"},
               {"empty", "", ""},
               {"as long as is looked at", std::string(507, 'b'), std::string(507, 'b')}};
  for (const auto& row : cases) {
    SCOPED_TRACE(row.name);
    ASSERT_EQ(0, make("http://h/", 1, (form_type + row.boundary + "\r\n").c_str(), nullptr, path.c_str()));
    EXPECT_EQ(framed(row.expected, "image.rom", "x"), body());
  }
}

TEST_F(http_body_file, refusals_and_their_log_lines) {
  const std::string path = file("x");
  const std::string form = form_type + "b\r\n";
  const std::string missing = place_.file("missing");
  const std::string broken = place_.file("a\r\nb");
  test::write_file(broken, "x");
  const std::string addition = "body & post file or without addtion header";
  const struct {
    const char* name;
    uint32_t method;
    const char* headers;
    const char* body;
    const std::string& file;
    int code;
    std::string line;
  } cases[] = {
      {"body and file", 1, form.c_str(), "text", path, DL_ERR_PARAMETER, addition},
      {"file without headers", 1, nullptr, nullptr, path, DL_ERR_PARAMETER, addition},
      {"PUT without headers", 2, nullptr, nullptr, path, DL_ERR_PARAMETER, addition},
      {"no boundary", 1, "X: y\r\n", nullptr, path, DL_ERR_PARAMETER, "post file without boundary"},
      {"boundary in other letters", 1, "Boundary=x\r\n", nullptr, path, DL_ERR_PARAMETER,
       "post file without boundary"},
      {"no CRLF", 1, "boundary=x", nullptr, path, DL_ERR_PARAMETER, "header without CRLF"},
      {"no file, POST", 1, form.c_str(), nullptr, missing, DL_ERR_PARAMETER, "Can't open " + missing},
      {"no file, PUT", 2, "", nullptr, missing, DL_ERR_PARAMETER, "Can't open " + missing},
      {"a directory", 2, "", nullptr, place_.path(), DL_ERR_READ, "read file err"},
      {"line break in the name", 1, form.c_str(), nullptr, broken, DL_ERR_PARAMETER,
       "file name with a line break"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(row.code, make("http://h/", row.method, row.headers, row.body, row.file.c_str()));
    EXPECT_EQ(lines{row.line}, log_.messages(DL_LOG_ERROR));
  }
  const std::string too_long = form_type + std::string(508, 'b') + "\r\n";
  EXPECT_EQ(DL_ERR_PARAMETER, make("http://h/", 1, too_long.c_str(), nullptr, path.c_str()));
  for (const uint32_t method : {0u, 3u}) {
    EXPECT_EQ(0, make("http://h/", method, "", nullptr, path.c_str()));
    EXPECT_EQ("(none)", body());
    EXPECT_EQ(std::string::npos, bytes().find("Content-Length"));
  }
}

}  // namespace
