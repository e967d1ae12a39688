// http_message.cpp, http_request_body.cpp and http_headers.cpp: the bytes of a request with its body, and the
// numbers in the head of a response.
#include "http/http_message.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "core/url.h"
#include "http/http_headers.h"
#include "tests/support/descriptors.h"
#include "tests/support/log_capture.h"
#include "tests/support/options.h"
#include "tests/support/temp_dir.h"

namespace {

using namespace fetchrig;
using std::string;
using lines = std::vector<string>;

const string agent = "\r\nUser-Agent: Korvane\r\nAccept: */*\r\n";
const string keep = agent + "Connection: Keep-Alive\r\n";
const string form_type = "Content-Type: multipart/form-data; boundary=";

class http_message : public test::leak_free {
 protected:
  // Composes a request with `file` (or none) to send.
  int make(const char* where, uint32_t method, const char* headers, const char* body, const char* file) {
    log_.clear();
    message_ = http_msg_new();
    message_->body.file_path = file;
    const dl_http_request request = {0, where, nullptr, nullptr, nullptr, headers, body};
    const unique_url parsed(dl_url_parse(where, nullptr, nullptr, nullptr));
    parsed->method = method;
    return http_make_request(parsed->scheme == scheme_https, *message_, request, *parsed);
  }
  string bytes() const { return http_serialise_head(*message_) + message_->body.buffer.value_or(""); }

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
    string sent;
    const char *headers = nullptr, *body = nullptr;
  } rows[] = {
      // clang-format off
      {"http://h:80", 0, "GET / HTTP/1.1\r\nHost: h" + keep + "\r\n"},
      {"http://h:443/?q=a b", 3, "DELETE /?q=a%20b HTTP/1.1\r\nHost: h:443" + keep + "\r\n"},
      {"https://h/x", 0, "GET /x HTTP/1.1\r\nHost: h" + agent + "\r\n"},
      {"http://[::1]:81/", 0, "GET / HTTP/1.1\r\nHost: [::1]:81" + keep + "\r\n"},
      {"http://h/", 1, "POST / HTTP/1.1\r\nHost: h" + keep + "Content-Length: 0\r\n\r\n", nullptr, ""},
      {"http://h", 2, "PUT / HTTP/1.1\r\nHost: h" + keep + "Content-Length: 1\r\nA: 1\r\n\r\nd", "A: 1\r\n", "d"},
      {"http://h", 1, "POST / HTTP/1.1\r\nHost: h" + keep + "Content-Length: 9\r\n\r\na", "Content-Length: 9\r\n", "a"},
      // clang-format on
  };
  for (const auto& row : rows) {
    EXPECT_EQ(0, make(row.url, row.method, row.headers, row.body, nullptr));
    EXPECT_EQ(row.sent, bytes());
  }
  test::set_option(DL_OPT_USER_AGENT, "P (\n)");
  EXPECT_EQ(0, make("http://h:81/x", 1, nullptr, "ab", nullptr));
  const lines logged = {"Request Line: POST /x HTTP/1.1\r", "Host: h:81", "User-Agent: P (?)",
                        "Content-Length: 2"};
  EXPECT_EQ(logged, log_.messages());
}

TEST_F(http_message, headers_are_replaced_in_place) {
  ASSERT_EQ(0, make("http://h/", 0, nullptr, nullptr, nullptr));
  const std::pair<const char*, const char*> set[] = {{"X-0", "a"}, {"X-1", "b"},  {"x-1", "c"},
                                                     {"X-1", "d"}, {"Host", "e"}, {"X-2", nullptr}};
  for (const auto& [name, value] : set) EXPECT_EQ(0, http_set_header(*message_, name, value));
  http_remove_header(*message_, "X-0");
  http_remove_header(*message_, "not there");
  EXPECT_EQ("GET / HTTP/1.1\r\nHost: e" + keep + "X-1: d\r\nx-1: c\r\n\r\n", bytes());
}

TEST_F(http_message, a_posted_file_is_one_part_of_a_form) {
  const string path = place_.file("image.rom");
  const string boundary = "\"q\"; charset=" + string(494, 'b');  // 507 characters, the longest
  const string form = form_type + boundary + "\r\n";
  for (const std::size_t size : {0u, 1u, 200000u}) {
    test::write_file(path, test::make_bytes(size));
    ASSERT_EQ(0, make("http://h/", 1, form.c_str(), nullptr, path.c_str()));
    const string part =
        "--" + boundary +
        "\r\nContent-Disposition: form-data; name=\"upload\"; filename=\"image.rom\"\r\n"
        "Content-Type: application/octet-stream\r\nContent-Transfer-Encoding: binary\r\n\r\n" +
        test::make_bytes(size) + "\r\n--" + boundary + "--\r\n";
    const string length = "Content-Length: " + std::to_string(part.size()) + "\r\n";
    EXPECT_TRUE("POST / HTTP/1.1\r\nHost: h" + keep + length + form + "\r\n" + part == bytes());
  }
}

TEST_F(http_message, refusals) {
  const string path = place_.file("image.rom"), missing = place_.file("missing"), broken = place_.file("\n");
  const string pipe = place_.file("pipe"), huge = place_.file("huge"), zero = "/dev/zero";
  for (const auto& file : {path, broken, huge}) test::write_file(file, "x");
  ASSERT_EQ(0, mkfifo(pipe.c_str(), 0600) + truncate(huge.c_str(), off_t{1} << 31));
  const string form = form_type + "b\r\n", long_form = form_type + string(508, 'b') + "\r\n";
  const char* const addition = "body & post file or without addtion header";
  const struct {
    uint32_t method;
    const char *headers, *body;
    const string& file;
    int code;
    string error_line;
  } rows[] = {
      // clang-format off
      {1, form.c_str(), "text", path, DL_ERR_PARAMETER, addition},
      {2, nullptr, nullptr, path, DL_ERR_PARAMETER, addition},
      {1, "Boundary=x\r\n", nullptr, path, DL_ERR_PARAMETER, "post file without boundary"},
      {1, long_form.c_str(), nullptr, path, DL_ERR_PARAMETER, "header without CRLF"},
      {1, form.c_str(), nullptr, missing, DL_ERR_PARAMETER, "Can't open " + missing},
      {2, "", nullptr, place_.path(), DL_ERR_READ, "read file err"},
      {2, "", nullptr, pipe, DL_ERR_READ, "read file err"},
      {1, form.c_str(), nullptr, zero, DL_ERR_READ, "read file err"},
      {2, "", nullptr, huge, DL_ERR_MEMORY, "local file of 2 GiB or more"},
      {1, form.c_str(), nullptr, broken, DL_ERR_PARAMETER, "file name with a line break"},
      {4, "", nullptr, path, DL_ERR_URL, "make request error"},
      {3, "", nullptr, path, 0, ""},  // DELETE leaves the file alone
      // clang-format on
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    EXPECT_EQ(row.code, make("http://h/", row.method, row.headers, row.body, row.file.c_str()));
    EXPECT_EQ(row.code ? lines{row.error_line} : lines{}, log_.messages(DL_LOG_ERROR));
    EXPECT_FALSE(message_->body.buffer);
  }
}

// clang-format off
TEST(http_headers, numbers) {
  const std::pair<string, std::optional<int>> status_lines[] = {
      {"HTTP/1.99 302 Found", 302}, {"HTTP/1.1 \t 7", 7}, {"HTTP/1.1 +12", 12}, {"HTTP/1.1 -1234", -12},
      {string("HTTP/1.1 2\0" "00", 13), 2}, {"HTTP/1.1 -", {}}, {"HTTP/1.1 ", {}}, {"HTTP/1.1", {}},
      {"HTTP/1.1 abc", {}}, {"HTTP/1. 200", {}}, {"HTTP/2 200", {}}, {"http/1.1 2", {}}, {" HTTP/1.1 2", {}}};
  for (const auto& [line, status] : status_lines) EXPECT_EQ(status, parse_status_line(line)) << line;
  const std::pair<const char*, std::optional<uint32_t>> lengths[] = {
      {"l:10", 10u}, {"l:  \t 7 ", 7u}, {"l: 0x10", 0u}, {"l: 4294967295", UINT32_MAX}, {"l: 4294967296", {}},
      {"l: -1", {}}, {"l: ", {}}, {"l: ten", {}}, {"l", {}}};
  for (const auto& [line, length] : lengths) EXPECT_EQ(length, parse_content_length(line)) << line;
}
// clang-format on

}  // namespace
