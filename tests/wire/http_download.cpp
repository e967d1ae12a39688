// http_download.cpp: downloads into files with their limits and clean-up, uploads of files, and the
// protocol-independent calls over both.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/http_fixture.h"

namespace {

using namespace test;

class http_download : public http_test {
 protected:
  // Downloads into `path` what the peer answers with.
  int32_t download(const std::string& answer, const char* path,
                   const std::string& url_path = "/fw/image.rom") {
    tcp_peer server({{expect_until("\r\n\r\n"), send(answer)}});
    const http_ask ask = {.url = server.url("http", url_path)};
    const dl_http_request request = ask.request();
    log_.clear();
    result_ = {};
    char redirect[DL_REDIRECT_SIZE] = {};
    const int rc = dl_http_recv_to_file(&request, path, redirect, &result_);
    EXPECT_TRUE(server.finish());
    return rc;
  }
  static std::string unsized(const std::string& body) { return "HTTP/1.1 200 OK\r\n\r\n" + body; }
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
  dl_result result_ = {};
};

TEST_F(http_download, limit_is_judged_in_steps_of_512_bytes) {
  const struct {
    uint32_t limit;
    std::size_t size;
    std::size_t total;  // logged; beyond the limit: the file is refused
  } cases[] = {{1024, 0, 0},          {1024, 1, 1},       {1024, 1023, 1023}, {1024, 1024, 1024},
               {1024, 1025, 1025},    {1024, 1536, 1536}, {1024, 5000, 1536}, {1000, 1000, 1000},
               {1000, 1001, 1001},    {1000, 1024, 1024}, {1000, 1025, 1024}, {511, 511, 511},
               {511, 512, 512},       {1, 2, 2},          {1, 100000, 512},   {0, 1, 1},
               {100000, 70000, 70000}};
  for (const auto& row : cases) {
    const std::string content = make_bytes(row.size);
    for (const std::string& answer : {response("200 OK", content), chunked(content)}) {
      SCOPED_TRACE(::testing::Message() << row.limit << " " << row.size);
      if (row.size == 0 && answer.find("chunked") != std::string::npos) continue;
      set_option(DL_OPT_MAX_FILE_SIZE, row.limit);
      const bool fits = row.total <= row.limit;
      EXPECT_EQ(fits ? 0 : -1, download(answer, path_.c_str()));
      EXPECT_TRUE(logged_total(row.total)) << log_.all();
      EXPECT_EQ(fits ? lines{} : lines{"exceed max size"}, errors());
      EXPECT_EQ(fits ? 0 : DL_ERR_READ, result_.code);
      EXPECT_EQ(fits ? "" : "exceed max size " + std::to_string(row.limit), result_.message);
      ASSERT_EQ(fits, file_exists(path_));
      EXPECT_TRUE(!fits || content == read_file(path_));
    }
  }
}

// Symptom: a server's one huge chunk fills the memory although files are limited to 2 MiB.
TEST_F(http_download, a_chunk_beyond_the_limit_is_not_received_to_its_end) {
  set_option(DL_OPT_MAX_FILE_SIZE, 1000);
  tcp_peer server(
      {{expect_until("\r\n\r\n"),
        send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n10000000\r\n" + make_bytes(3000)),
        stall()}});
  const std::string url = server.url("http", "/");
  const dl_request request = {url.c_str(), nullptr, nullptr, nullptr};
  char redirect[DL_REDIRECT_SIZE] = {};
  EXPECT_EQ(-1, dl_download(&request, path_.c_str(), redirect, &result_));
  EXPECT_STREQ("exceed max size 1000", result_.message);
  EXPECT_TRUE(logged_total(1024)) << log_.all();
  EXPECT_FALSE(file_exists(path_));
}

TEST_F(http_download, ends_of_the_body) {
  set_option(DL_OPT_MAX_FILE_SIZE, 700);
  const std::string content = make_bytes(1000);
  EXPECT_EQ(0, download(unsized(content), path_.c_str())) << "without a length the file is cut at the limit";
  EXPECT_TRUE(content.substr(0, 700) == read_file(path_));
  write_file(path_, make_bytes(5000));
  EXPECT_EQ(0, download("HTTP/1.1 200 OK\r\nContent-Length: 600\r\n\r\nshort", path_.c_str()));
  EXPECT_EQ("short", read_file(path_)) << "an existing file is truncated";
  EXPECT_EQ(0, download(response("303 See", "body of it"), path_.c_str()));
  EXPECT_EQ("body of it", read_file(path_));
}

TEST_F(http_download, failures_remove_what_this_call_wrote) {
  EXPECT_EQ(-1, download("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n258\r\n" + make_bytes(600) +
                             "\r\n" + std::string(200, '1'),
                         path_.c_str()));
  EXPECT_EQ(DL_ERR_READ, result_.code);
  EXPECT_STREQ("Read Error", result_.message);
  EXPECT_FALSE(file_exists(path_));
  EXPECT_TRUE(logged_total(512)) << log_.all();

  write_file(path_, "keep me");
  EXPECT_EQ(-1, download(response("404 Not Found", "no"), path_.c_str()));
  EXPECT_EQ(404, result_.code);
  EXPECT_EQ("keep me", read_file(path_)) << "the open failed before the file was touched";
}

TEST_F(http_download, local_files_that_cannot_be_written) {
  EXPECT_EQ(-1, download(response("200 OK", "body"), place_.file("no/such/dir").c_str()));
  EXPECT_EQ(0, result_.code);
  EXPECT_STREQ("", result_.message);
  EXPECT_EQ(lines{"Can't open " + place_.file("no/such/dir")}, errors());
  EXPECT_EQ(-1, download(response("200 OK", "body"), place_.path().c_str()));
  EXPECT_TRUE(file_exists(place_.path()));

  for (const std::size_t size : {1u, 200000u}) {
    EXPECT_EQ(-1, download(response("200 OK", make_bytes(size)), "/dev/full"));
    EXPECT_EQ(DL_ERR_READ, result_.code);
    EXPECT_STREQ("Read Error", result_.message);
    EXPECT_EQ(1u, log_.count("write error on /dev/full, errno 28"));
    EXPECT_TRUE(file_exists("/dev/full"));
  }
  const std::string link = place_.file("link");
  ASSERT_EQ(0, symlink("/dev/full", link.c_str()));
  EXPECT_EQ(-1, download(response("200 OK", "body"), link.c_str()));
  struct stat status = {};
  EXPECT_EQ(0, lstat(link.c_str(), &status)) << "what is no regular file is not removed";
}

// Changes the working directory for one test.
class working_directory {
 public:
  explicit working_directory(const std::string& path) : before_(get_current_dir_name()) {
    EXPECT_EQ(0, chdir(path.c_str()));
  }
  ~working_directory() {
    EXPECT_EQ(0, chdir(before_));
    free(before_);
  }
  working_directory(const working_directory&) = delete;
  working_directory& operator=(const working_directory&) = delete;

 private:
  char* before_;
};

TEST_F(http_download, name_from_the_url) {
  const working_directory here(place_.path());
  EXPECT_EQ(0, download(response("200 OK", "rom"), nullptr));
  EXPECT_EQ("rom", read_file(place_.file("image.rom")));
  EXPECT_EQ(0, download(response("200 OK", "q"), nullptr, "/a?x=1"));
  EXPECT_EQ("q", read_file(place_.file("a?x=1")));
  for (const char* no_name : {"", "/", "/dir/"}) {
    EXPECT_EQ(-1, download(response("200 OK", "x"), nullptr, no_name));
    EXPECT_EQ(0, result_.code);
    EXPECT_EQ(lines{"Can't open "}, errors());
  }
}

TEST_F(http_download, the_extended_form_takes_304_and_answers_xsi) {
  tcp_peer server({{expect_until("\r\n\r\n"), send(unauthorized("Basic realm=\"x\""))},
                   {expect_until("Authorization: BroadWorksSIP basic=\"cA==\", sipUser=\"dQ==\"\r\n\r\n"),
                    send(response("304 Same", ""))}});
  const http_ask ask = {.url = server.url("http", "/"), .user = "u", .password = "p"};
  const dl_http_request request = ask.request();
  const dl_http_request_ex extended = {&request, 2};
  char redirect[DL_REDIRECT_SIZE] = {};
  EXPECT_EQ(0, dl_http_recv_to_file_ex(&extended, path_.c_str(), redirect, &result_));
  EXPECT_EQ("", read_file(path_));
}

const char* const form = "Content-Type: multipart/form-data; boundary=XyZ\r\n";

class http_upload : public http_download {
 protected:
  http_upload() { write_file(file_, content_); }
  static dl_http_request request(const char* url, int32_t method, const char* headers) {
    return {method, url, "phone", "s3cret", nullptr, headers, nullptr};
  }
  std::string put_head(const std::string& more = "", const std::string& path = "/up") const {
    return request_head("PUT", path, "Content-Length: " + std::to_string(content_.size()) + "\r\n" + more);
  }
  const std::string content_ = make_bytes(150000);
  const std::string file_ = place_.file("local.bin");
  char redirect_[DL_REDIRECT_SIZE] = {};
};

TEST_F(http_upload, put_is_sent_again_to_a_redirect_and_for_a_challenge) {
  tcp_peer server({{expect(put_head() + content_), send(redirect_to("http://127.0.0.1:@PORT@/moved"))},
                   {expect(put_head("", "/moved") + content_), send(unauthorized("Basic realm=\"x\""))},
                   {expect(put_head("Authorization: Basic cGhvbmU6czNjcmV0\r\n", "/moved") + content_),
                    send(response("201 Created", "unread"))}});
  const std::string url = server.url("http", "/up");
  const dl_http_request put = request(url.c_str(), DL_METHOD_PUT, "");
  dl_http_session* session = reinterpret_cast<dl_http_session*>(this);
  EXPECT_EQ(0, dl_http_post_file(&session, &put, file_.c_str(), redirect_, &result_));
  EXPECT_EQ(nullptr, session);
  EXPECT_EQ(0, result_.code);
  EXPECT_TRUE(server.finish());
  EXPECT_EQ(server.url("http", "/moved"), redirect_);
}

TEST_F(http_upload, outcomes) {
  const struct {
    const char* name;
    int32_t method;
    const char* headers;
    std::string file;
    std::string answer;  // empty: nothing is sent
    int32_t code;
    lines error_lines;
  } cases[] = {
      {"form taken", DL_METHOD_POST, form, file_, response("200 OK"), 0, {}},
      {"304 is no failure", DL_METHOD_PUT, "", file_, response("304 Same"), 0, {}},
      {"refused", DL_METHOD_PUT, "", file_, response("413 Too Large"), 413, {"Client error"}},
      {"no boundary", DL_METHOD_POST, "X: y\r\n", file_, "", DL_ERR_SEND, {"post file without boundary"}},
      {"no headers",
       DL_METHOD_PUT,
       nullptr,
       file_,
       "",
       DL_ERR_SEND,
       {"body & post file or without addtion header"}},
      {"no file", DL_METHOD_PUT, "", place_.file("no"), "", DL_ERR_SEND, {"Can't open " + place_.file("no")}},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.name);
    log_.clear();
    connection_script script = {expect_until("\r\n\r\n"), send(row.answer)};
    if (row.answer.empty()) script = {stall()};
    if (row.method == DL_METHOD_POST && row.code == 0)
      script.insert(script.begin() + 1, expect_until("--XyZ--\r\n"));
    tcp_peer server({script});
    const std::string url = server.url("http", "/up");
    const dl_http_request upload = request(url.c_str(), row.method, row.headers);
    dl_http_session* session = nullptr;
    EXPECT_EQ(row.code == 0 ? 0 : -1,
              dl_http_post_file(&session, &upload, row.file.c_str(), redirect_, &result_));
    EXPECT_EQ(row.code, result_.code);
    EXPECT_EQ(row.error_lines, errors());
    EXPECT_TRUE(server.finish());
    EXPECT_EQ(row.answer.empty(), server.received(0).empty()) << "nothing is sent after a failed composition";
  }
}

TEST_F(http_upload, missing_arguments) {
  const dl_http_request put = request("http://127.0.0.1/", DL_METHOD_PUT, "");
  const dl_http_request get = request("http://127.0.0.1/", DL_METHOD_GET, "");
  const dl_http_request post = request("http://127.0.0.1/", DL_METHOD_POST, "");
  const dl_http_request no_url = request(nullptr, DL_METHOD_POST, "");
  dl_http_session* session = nullptr;
  const dl_auth_info list = {"u", "p"};
  const auto refused = [&](int rc, const char* line) {
    EXPECT_EQ(-1, rc);
    EXPECT_EQ(DL_ERR_PARAMETER, result_.code);
    EXPECT_EQ(lines{line}, errors());
    result_ = {};
    log_.clear();
  };
  const char* const line = "http post file with invalid parameter";
  refused(dl_http_post_file(nullptr, &put, "x", redirect_, &result_), line);
  refused(dl_http_post_file(&session, nullptr, "x", redirect_, &result_), line);
  refused(dl_http_post_file(&session, &no_url, "x", redirect_, &result_), line);
  refused(dl_http_post_file(&session, &put, nullptr, redirect_, &result_), line);
  refused(dl_http_post_file(&session, &put, "x", nullptr, &result_), line);
  refused(dl_http_post_file(&session, &get, "x", redirect_, &result_), line);
  refused(dl_http_post_multi_auth(&session, &put, &list, 1, redirect_, &result_), line);
  refused(dl_http_post_multi_auth(&session, &no_url, &list, 1, redirect_, &result_), line);
  refused(dl_http_post_multi_auth(&session, &post, &list, 1, nullptr, &result_), line);
  refused(dl_http_post_multi_auth(&session, &post, &list, 0, redirect_, &result_),
          "auth info count nonpositive");
  refused(dl_http_post_multi_auth(&session, &post, &list, -1, redirect_, &result_),
          "auth info count nonpositive");
  EXPECT_EQ(-1, dl_http_post_file(&session, &put, "x", redirect_, nullptr));
}

class dispatcher : public http_upload {
 protected:
  lines info() const {
    lines texts;
    for (const log_message& message : log_.records()) {
      if (message.module == "DCMN") texts.push_back(message.text);
    }
    return texts;
  }
  static std::string authority(const tcp_peer& server) {
    return "127.0.0.1:" + std::to_string(server.port());
  }
};

TEST_F(dispatcher, downloads_with_credentials_of_the_url) {
  tcp_peer server({{expect(request_head("GET", "/a")), send(unauthorized("Basic realm=\"x\""))},
                   {expect(request_head("GET", "/a", "Authorization: Basic dTpwOnFAcg==\r\n")),
                    send(response("200 OK", content_))}});
  const std::string url = "HTTP:// u:p:q@r@" + authority(server) + "/a?dropped#too";
  const dl_request request = {url.c_str(), "other", "credentials", nullptr};
  EXPECT_EQ(0, dl_download(&request, path_.c_str(), redirect_, &result_));
  EXPECT_TRUE(content_ == read_file(path_));
  EXPECT_TRUE(server.finish());
  const lines logged = info();
  ASSERT_LE(5u, logged.size());
  EXPECT_EQ("Enter Func dl_download....", logged[0]);
  EXPECT_EQ("Enter Func dl_url_parse....", logged[1]);
  EXPECT_EQ("URL After Modify = http://" + authority(server) + "/a", logged[4]);
  EXPECT_EQ(0u, log_.count("p:q@r")) << log_.all();
}

TEST_F(dispatcher, open_read_close) {
  tcp_peer server({{expect(request_head("GET", "/a")), send(response("200 OK", "0123456789"))}});
  const std::string url = server.url("http", "/a");
  const dl_request request = {url.c_str(), nullptr, nullptr, nullptr};
  dl_handle* handle = nullptr;
  ASSERT_EQ(0, dl_open(&request, &handle, redirect_, &result_));
  EXPECT_EQ(uint32_t{DL_PROTO_HTTP}, handle->proto);
  char buffer[8] = {};
  EXPECT_EQ(8, dl_read(handle, buffer, 8, &result_));
  EXPECT_EQ("01234567", std::string(buffer, 8));
  for (const int32_t size : {0, -1}) EXPECT_EQ(-1, dl_read(handle, buffer, size, &result_));
  EXPECT_EQ(2, dl_read(handle, buffer, 8, &result_));
  EXPECT_EQ(0, dl_read(handle, buffer, 8, &result_));
  EXPECT_EQ(-1, dl_read(handle, nullptr, 8, &result_));
  EXPECT_EQ(-1, dl_read(handle, buffer, 8, nullptr));
  EXPECT_EQ(4u, log_.count("Invalid Param!"));
  EXPECT_EQ(7u, log_.count("Enter Func dl_read...."));
  handle->proto = 4;
  EXPECT_EQ(-1, dl_read(handle, buffer, 8, &result_));
  EXPECT_TRUE(log_.contains("DCMN", DL_LOG_ERROR, "Protocol Type Not Support!"));
  handle->proto = DL_PROTO_HTTP;
  dl_close(handle);
  EXPECT_EQ("Enter Func dl_close....", info().back());
  dl_close(nullptr);
  EXPECT_EQ("Invalid Param!", info().back());
}

TEST_F(dispatcher, uploads_by_mode) {
  for (const int32_t mode : {0, 1, 2, 7}) {
    SCOPED_TRACE(mode);
    const bool put = mode == DL_HTTP_PUT;
    tcp_peer server({{expect(put ? "PUT /up HTTP/1.1\r\n" : "POST /up HTTP/1.1\r\n"),
                      put ? expect_until(content_) : expect_until(content_ + "\r\n--XyZ--\r\n"),
                      send(response("200 OK"))}});
    const std::string url = server.url("http", "/up");
    const dl_request request = {url.c_str(), nullptr, nullptr, nullptr};
    EXPECT_EQ(0, dl_upload(&request, file_.c_str(), nullptr, redirect_, &result_, form, mode, 0));
    EXPECT_TRUE(server.finish());
  }
}

TEST_F(dispatcher, refusals_leave_the_result_and_the_network_alone) {
  const dl_request good = {"http://127.0.0.1:1/", nullptr, nullptr, nullptr};
  const dl_request no_url = {};
  const dl_request bad = {"http://h:x/", nullptr, nullptr, nullptr};
  dl_handle* handle = nullptr;
  const auto refused = [&](int rc, const char* line, int32_t code = 77) {
    EXPECT_EQ(-1, rc);
    EXPECT_EQ(nullptr, handle);
    EXPECT_EQ(code, result_.code);
    ASSERT_FALSE(log_.messages(DL_LOG_ERROR).empty());
    EXPECT_EQ(line, log_.messages(DL_LOG_ERROR).back());
    EXPECT_EQ(0u, log_.count("Connecting"));
    result_.code = 77;
    handle = reinterpret_cast<dl_handle*>(this);
    log_.clear();
  };
  const char* const f = file_.c_str();
  char* const r = redirect_;
  result_.code = 77;
  refused(dl_open(nullptr, &handle, r, &result_), "Invalid Param!");
  refused(dl_open(&no_url, &handle, r, &result_), "Invalid Param!");
  refused(dl_open(&good, &handle, r, nullptr), "Invalid Param!");
  refused(dl_open(&bad, &handle, r, &result_), "URL Parsing Fail!", 0);
  refused(dl_open(&good, &handle, nullptr, &result_), "New Url NULL!", 0);
  handle = nullptr;
  refused(dl_open(&good, nullptr, r, &result_), "Invalid Param!");
  const auto no_handle = [&](int rc, const char* line) {
    handle = nullptr;
    refused(rc, line);
  };
  no_handle(dl_download(nullptr, f, r, &result_), "Invalid Param!");
  no_handle(dl_download(&no_url, f, r, &result_), "Invalid Param!");
  no_handle(dl_download(&good, nullptr, r, &result_), "Invalid Param!");
  no_handle(dl_download(&good, f, r, nullptr), "Invalid Param!");
  no_handle(dl_download(&bad, f, r, &result_), "URL Pasing Fail!");
  no_handle(dl_download(&good, f, nullptr, &result_), "New Url Null!");
  no_handle(dl_upload(&good, f, "r", r, nullptr, form, 1, 1), "Invalid Param!");
  no_handle(dl_upload(nullptr, f, "r", r, &result_, form, 1, 1), "Invalid Param!");
  no_handle(dl_upload(&good, nullptr, "r", r, &result_, form, 1, 1), "Invalid Param!");
  no_handle(dl_upload(&bad, f, "r", r, &result_, form, 1, 1), "URL Pasing Fail!");
  no_handle(dl_upload(&good, f, "r", r, &result_, nullptr, 1, 1), "New Url Or Header Null!");
  no_handle(dl_upload(&good, f, "r", nullptr, &result_, form, 1, 1), "New Url Or Header Null!");
}

}  // namespace
