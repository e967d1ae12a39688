// http_download.cpp: downloads into files with their limits and clean-up, uploads of files, and the
// protocol-independent calls over both.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/http_fixture.h"

namespace {

using namespace test;

class http_download : public http_test {
 protected:
  // Downloads into `path` what the peer answers with.
  int32_t download(const std::string& answer, const char* path, const std::string& url_path = "/") {
    tcp_peer server({{expect_until("\r\n\r\n"), send(answer)}});
    const http_ask ask = {.url = server.url("http", url_path)};
    const dl_http_request request = ask.request();
    log_.clear();
    result_ = {};
    const int rc = dl_http_recv_to_file(&request, path, redirect_, &result_);
    EXPECT_TRUE(server.finish());
    return rc;
  }
  static std::string chunked(const std::string& body) {
    char size[16];
    snprintf(size, sizeof size, "%zx", body.size());
    return "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + std::string(size) + "\r\n" + body +
           "\r\n0\r\n\r\n";
  }
  bool logged_total(std::size_t total) const {
    return log_.contains("HTTP", DL_LOG_NOTICE, "recv : " + std::to_string(total) + " bytes");
  }
  const std::string path_ = place_.file("got");
  const std::string content_ = make_bytes(150000);
  const std::string file_ = place_.file("local.bin");
  char redirect_[DL_REDIRECT_SIZE] = {};
  dl_result result_ = {};
};

TEST_F(http_download, limit_is_judged_in_steps_of_512_bytes) {
  const struct {
    uint32_t limit;
    std::size_t size;
    std::size_t total;  // logged; beyond the limit: the file is refused
  } cases[] = {{1024, 0, 0},       {1024, 1024, 1024}, {1024, 1025, 1025}, {1024, 1536, 1536},
               {1024, 5000, 1536}, {1000, 1000, 1000}, {1000, 1024, 1024}, {1000, 1025, 1024},
               {511, 512, 512},    {1, 100000, 512},   {0, 1, 1}};
  for (const auto& row : cases) {
    const std::string content = make_bytes(row.size);
    for (const std::string& answer : {response("200 OK", content), chunked(content)}) {
      SCOPED_TRACE(::testing::Message() << row.limit << " " << row.size);
      set_option(DL_OPT_MAX_FILE_SIZE, row.limit);
      const bool fits = row.total <= row.limit;
      EXPECT_EQ(fits ? 0 : -1, download(answer, path_.c_str()));
      EXPECT_TRUE(logged_total(row.total)) << log_.all();
      EXPECT_EQ(lines(!fits, "exceed max size"), errors());
      EXPECT_EQ(fits ? 0 : DL_ERR_READ, result_.code);
      EXPECT_EQ(fits ? "" : "exceed max size " + std::to_string(row.limit), result_.message);
      ASSERT_EQ(fits, file_exists(path_));
      EXPECT_TRUE(!fits || content == read_file(path_));
    }
  }
}

TEST_F(http_download, what_is_in_the_file_then) {
  set_option(DL_OPT_MAX_FILE_SIZE, 700);
  const std::string content = make_bytes(1000);
  const std::string broken_chunks =
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n258\r\n" + content.substr(0, 600) + "\r\n";
  const std::string gone = "(no file)";
  const struct {
    const char* name;
    std::string answer;
    int32_t code;
    std::string left;
  } cases[] = {
      {"no length: cut", "HTTP/1.1 200 OK\r\n\r\n" + content, 0, content.substr(0, 700)},
      {"4 GiB", "HTTP/1.1 200 OK\r\nContent-Length: 4294967296\r\n\r\n" + content, DL_ERR_READ, gone},
      {"shorter than its length", "HTTP/1.1 200 OK\r\nContent-Length: 600\r\n\r\nshort", 0, "short"},
      {"no 200", response("303 See", "body of it"), 0, "body of it"},
      {"refused before it is touched", response("404 Not Found", "no"), 404, std::string(5000, 'k')},
      {"broken off", broken_chunks + std::string(200, '1'), DL_ERR_READ, gone},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.name);
    write_file(path_, std::string(5000, 'k'));
    EXPECT_EQ(row.code == 0 ? 0 : -1, download(row.answer, path_.c_str()));
    EXPECT_EQ(row.code, result_.code);
    EXPECT_TRUE(row.left == (file_exists(path_) ? read_file(path_) : gone));
  }
  EXPECT_STREQ("Read Error", result_.message);
  EXPECT_TRUE(logged_total(512)) << log_.all();
}

TEST_F(http_download, local_files_that_cannot_be_written) {
  const std::string absent = place_.file("no/such/dir");
  const std::string link = place_.file("link");
  ASSERT_EQ(0, symlink("/dev/full", link.c_str()));
  const struct {
    std::string path;
    std::size_t size;
    int32_t code;
    std::string line;
  } cases[] = {{absent, 1, 0, "Can't open " + absent},
               {place_.path(), 1, 0, "Can't open " + place_.path()},
               {link, 1, DL_ERR_READ, "write error on " + link + ", errno 28"},
               {link, 200000, DL_ERR_READ, "write error on " + link + ", errno 28"}};
  for (const auto& row : cases) {
    SCOPED_TRACE(row.line);
    EXPECT_EQ(-1, download(response("200 OK", make_bytes(row.size)), row.path.c_str()));
    EXPECT_EQ(row.code, result_.code);
    EXPECT_STREQ(row.code == 0 ? "" : "Read Error", result_.message);
    EXPECT_EQ(1u, log_.count(row.line)) << log_.all();
  }
  EXPECT_TRUE(file_exists(link)) << "what is no regular file is not removed";
}

TEST_F(http_download, name_from_the_url) {
  const int before = open(".", O_PATH | O_CLOEXEC);
  ASSERT_EQ(0, chdir(place_.path().c_str()));
  EXPECT_EQ(0, download(response("200 OK", "q"), nullptr, "/d/a?x=1"));
  EXPECT_EQ("q", read_file(place_.file("a?x=1")));
  EXPECT_EQ(-1, download(response("200 OK", "x"), nullptr, "/dir/"));
  EXPECT_EQ(0, result_.code);
  EXPECT_EQ(lines{"Can't open "}, errors());
  EXPECT_EQ(0, fchdir(before));
  close(before);
}

TEST_F(http_download, the_extended_form_takes_304) {
  tcp_peer server({{expect_until("\r\n\r\n"), send(response("304 Same"))}});
  const http_ask ask = {.url = server.url("http", "/")};
  const dl_http_request request = ask.request();
  const dl_http_request_ex extended = {&request, 0};
  EXPECT_EQ(0, dl_http_recv_to_file_ex(&extended, path_.c_str(), redirect_, &result_));
  EXPECT_EQ("", read_file(path_));
}

const char* const form = "Content-Type: multipart/form-data; boundary=XyZ\r\n";

TEST_F(http_download, put_is_sent_again_to_a_redirect_and_for_a_challenge) {
  write_file(file_, content_);
  const auto put_to = [&](const std::string& path, const std::string& more) {
    return expect(request_head("PUT", path, "Content-Length: 150000\r\n" + more) + content_);
  };
  tcp_peer server(
      {{put_to("/up", ""), send(redirect_to("http://127.0.0.1:@PORT@/moved"))},
       {put_to("/moved", ""), send(unauthorized("Basic realm=\"x\""))},
       {put_to("/moved", "Authorization: Basic cGhvbmU6czNjcmV0\r\n"), send(response("201 Created"))}});
  const std::string url = server.url("http", "/up");
  const dl_http_request put = {DL_METHOD_PUT, url.c_str(), "phone", "s3cret", nullptr, "", nullptr};
  dl_http_session* session = reinterpret_cast<dl_http_session*>(this);
  EXPECT_EQ(0, dl_http_post_file(&session, &put, file_.c_str(), redirect_, &result_));
  EXPECT_EQ(nullptr, session);
  EXPECT_EQ(0, result_.code);
  EXPECT_TRUE(server.finish());
  EXPECT_EQ(server.url("http", "/moved"), redirect_);
}

TEST_F(http_download, uploads) {
  write_file(file_, content_);
  const struct {
    int32_t mode;
    const char* headers;
    std::string answer;  // empty: nothing is sent
    int32_t code;
    lines error_lines;
  } cases[] = {{DL_HTTP_PUT, "", response("304 Same"), 0, {}},
               {DL_HTTP_PUT, "", response("413 Too Large"), 413, {"Client error"}},
               {DL_HTTP_POST, "X: y\r\n", "", DL_ERR_SEND, {"post file without boundary"}},
               {DL_HTTP_POST, form, response("200 OK"), 0, {}},
               {7, form, response("200 OK"), 0, {}}};
  for (const auto& row : cases) {
    SCOPED_TRACE(&row - cases);
    log_.clear();
    const bool put = row.mode == DL_HTTP_PUT;
    const connection_script taken = {expect(put ? "PUT /up HTTP/1.1\r\n" : "POST /up HTTP/1.1\r\n"),
                                     expect_until(put ? content_ : content_ + "\r\n--XyZ--\r\n"),
                                     send(row.answer)};
    tcp_peer server({row.answer.empty() ? connection_script{stall()} : taken});
    const std::string url = server.url("http", "/up");
    const dl_request upload = {url.c_str(), nullptr, nullptr, nullptr};
    EXPECT_EQ(row.code == 0 ? 0 : -1,
              dl_upload(&upload, file_.c_str(), nullptr, redirect_, &result_, row.headers, row.mode, 0));
    EXPECT_EQ(row.code, result_.code);
    EXPECT_EQ(row.error_lines, errors());
    EXPECT_TRUE(server.finish());
    EXPECT_EQ(row.answer.empty(), server.received(0).empty()) << "nothing is sent after a failed composition";
  }
}

TEST_F(http_download, downloads_with_credentials_of_the_url) {
  tcp_peer server({{expect(request_head("GET", "/a")), send(unauthorized("Basic realm=\"x\""))},
                   {expect(request_head("GET", "/a", "Authorization: Basic dTpwOnFAcg==\r\n")),
                    send(response("200 OK", content_))}});
  const std::string authority = "127.0.0.1:" + std::to_string(server.port());
  const std::string url = "HTTP:// u:p:q@r@" + authority + "/a?dropped#too";
  const dl_request request = {url.c_str(), "other", "credentials", nullptr};
  EXPECT_EQ(0, dl_download(&request, path_.c_str(), redirect_, &result_));
  EXPECT_TRUE(content_ == read_file(path_));
  EXPECT_TRUE(server.finish());
  EXPECT_EQ(1u, log_.count("URL After Modify = http://" + authority + "/a"));
  EXPECT_EQ(0u, log_.count("p:q@r")) << log_.all();
}

TEST_F(http_download, refusals_never_reach_the_network) {
  const dl_request good = {"http://127.0.0.1:1/", nullptr, nullptr, nullptr};
  const dl_request bad = {"http://h:x/", nullptr, nullptr, nullptr};
  const dl_http_request put = {DL_METHOD_PUT, good.url, nullptr, nullptr, nullptr, "", nullptr};
  const dl_http_request get = http_ask{.url = good.url}.request();
  const dl_http_request post = {DL_METHOD_POST, good.url, nullptr, nullptr, nullptr, "", nullptr};
  const dl_auth_info list = {"u", "p"};
  dl_handle other = {4, nullptr}, *handle = &other;
  dl_http_session* session = nullptr;
  char* const r = redirect_;
  dl_result* const out = &result_;
  constexpr int32_t untouched = 77, invalid = DL_ERR_PARAMETER;
  const char* const no_header = "New Url Or Header Null!";
  const char* const no_list = "auth info count nonpositive";
  const char* const no_post = "http post file with invalid parameter";
  const struct {
    std::function<int()> call;
    std::string line;
    int32_t code;
  } cases[] = {
      // clang-format off
      {[&] { return dl_http_post_file(nullptr, &put, "x", r, out); }, no_post, invalid},
      {[&] { return dl_http_post_file(&session, &put, "x", nullptr, out); }, no_post, invalid},
      {[&] { return dl_http_post_file(&session, &get, "x", r, out); }, no_post, invalid},
      {[&] { return dl_http_post_multi_auth(&session, &put, &list, 1, r, out); }, no_post, invalid},
      {[&] { return dl_http_post_multi_auth(&session, &post, &list, 0, r, out); }, no_list, invalid},
      {[&] { return dl_open(nullptr, &handle, r, out); }, "Invalid Param!", untouched},
      {[&] { return dl_open(&bad, &handle, r, out); }, "URL Parsing Fail!", 0},
      {[&] { return dl_open(&good, &handle, nullptr, out); }, "New Url NULL!", 0},
      {[&] { return dl_read(nullptr, r, 8, out); }, "Invalid Param!", untouched},
      {[&] { return dl_read(&other, nullptr, 8, out); }, "Invalid Param!", untouched},
      {[&] { return dl_read(&other, r, 0, out); }, "Invalid Param!", untouched},
      {[&] { return dl_read(&other, r, 8, nullptr); }, "Invalid Param!", untouched},
      {[&] { return dl_read(&other, r, 8, out); }, "Protocol Type Not Support!", untouched},
      {[&] { return dl_close(nullptr), -1; }, "Invalid Param!", untouched},
      {[&] { return dl_download(nullptr, "f", r, out); }, "Invalid Param!", untouched},
      {[&] { return dl_download(&bad, "f", r, out); }, "URL Pasing Fail!", untouched},
      {[&] { return dl_download(&good, "f", nullptr, out); }, "New Url Null!", untouched},
      {[&] { return dl_upload(&good, nullptr, "r", r, out, form, 1, 1); }, "Invalid Param!", untouched},
      {[&] { return dl_upload(&bad, "f", "r", r, out, form, 1, 1); }, "URL Pasing Fail!", untouched},
      {[&] { return dl_upload(&good, "f", "r", r, out, nullptr, 1, 1); }, no_header, untouched},
      {[&] { return dl_upload(&good, "f", "r", nullptr, out, form, 1, 1); }, no_header, untouched},
      // clang-format on
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(&row - cases);
    log_.clear();
    result_.code = untouched;
    EXPECT_EQ(-1, row.call());
    EXPECT_EQ(row.code, result_.code);
    EXPECT_EQ(row.line, log_.messages().back());
    EXPECT_EQ(0u, log_.count("Connecting"));
  }
  EXPECT_EQ(nullptr, handle);
}

}  // namespace
