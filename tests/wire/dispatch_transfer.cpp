// dispatch_transfer.cpp: the protocol-independent calls: what they refuse by themselves, and what they hand
// to each protocol.
#include <functional>

#include "tests/peers/tftp_peer.h"
#include "tests/wire/ftp_script.h"

namespace test {
namespace {

using lines = std::vector<std::string>;

class dispatch_transfer : public ftp_test {
 protected:
  // The dispatcher's own lines at this level.
  lines dispatcher_lines(int level) const {
    lines found;
    for (const log_message& line : log_.records()) {
      if (line.module == "DCMN" && line.level == level) found.push_back(line.text);
    }
    return found;
  }
  int upload(const dl_request& request, int32_t mode = 0, const char* headers = "") {
    return dl_upload(&request, local_.c_str(), "c.txt", redirect_, &result_, headers, mode, 2);
  }

  std::string local_ = dir_.file("local");
  char redirect_[DL_REDIRECT_SIZE] = {};
};

std::string tcp_url(const char* scheme, const char* user, uint16_t port, const char* path) {
  return std::string(scheme) + "://" + user + "127.0.0.1:" + std::to_string(port) + path;
}

TEST_F(dispatch_transfer, refusals_leave_a_log_line_and_no_handle) {
  dl_handle* handle = nullptr;
  dl_handle odd = {};
  odd.proto = 4;
  char byte = 0;
  const dl_request none = {};
  const dl_request http = {"http://h/", nullptr, nullptr, nullptr};
  const dl_request sftp = {"sftp://h/", nullptr, nullptr, nullptr};
  const std::string param = "Invalid Param!";
  const lines bad_url = {"Protocol Not Support!", "URL Pasing Fail!"};
  const struct {
    const char* name;
    std::function<int()> call;
    lines errors;
    bool opens = false;  // empties the result and the handle
  } rows[] = {
      {"open without request", [&] { return dl_open(nullptr, &handle, redirect_, &result_); }, {param}, true},
      {"open without URL", [&] { return dl_open(&none, &handle, redirect_, &result_); }, {param}, true},
      {"open without redirect buffer",
       [&] { return dl_open(&http, &handle, nullptr, &result_); },
       {"New Url NULL!"},
       true},
      {"open of another protocol",
       [&] { return dl_open(&sftp, &handle, redirect_, &result_); },
       {"Protocol Not Support!", "URL Parsing Fail!"},
       true},
      {"read without handle", [&] { return dl_read(nullptr, &byte, 1, &result_); }, {param}},
      {"read without buffer", [&] { return dl_read(&odd, nullptr, 1, &result_); }, {param}},
      {"read of nothing", [&] { return dl_read(&odd, &byte, 0, &result_); }, {param}},
      {"read without result", [&] { return dl_read(&odd, &byte, 1, nullptr); }, {param}},
      {"read of an odd handle",
       [&] { return dl_read(&odd, &byte, 1, &result_); },
       {"Protocol Type Not Support!"}},
      {"download without URL", [&] { return dl_download(&none, "f", redirect_, &result_); }, {param}},
      {"download to nowhere", [&] { return dl_download(&http, nullptr, redirect_, &result_); }, {param}},
      {"download without redirect buffer",
       [&] { return dl_download(&http, "f", nullptr, &result_); },
       {"New Url Null!"}},
      {"download by another protocol", [&] { return dl_download(&sftp, "f", redirect_, &result_); }, bad_url},
      {"upload without URL", [&] { return upload(none); }, {param}},
      {"upload without headers", [&] { return upload(http, 1, nullptr); }, {"New Url Or Header Null!"}},
      {"upload by another protocol", [&] { return upload(sftp); }, bad_url},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    log_.clear();
    handle = &odd;
    result_.code = 77;
    EXPECT_EQ(-1, row.call());
    EXPECT_EQ(row.errors, dispatcher_lines(DL_LOG_ERROR));
    EXPECT_EQ(row.opens ? 0 : 77, result_.code);
    EXPECT_EQ(row.opens ? nullptr : &odd, handle);
  }
  EXPECT_EQ(-1, dl_open(&http, &handle, redirect_, nullptr));
  EXPECT_EQ(nullptr, handle);
  EXPECT_EQ(-1, dl_open(&http, nullptr, redirect_, &result_));
  log_.clear();
  dl_close(nullptr);
  EXPECT_EQ(lines{param}, dispatcher_lines(DL_LOG_ERROR));
  EXPECT_EQ(lines{"Enter Func dl_close...."}, dispatcher_lines(DL_LOG_INFO));
}

// The URL's credentials win; the request's are used when it has none.
TEST_F(dispatch_transfer, ftp_takes_credentials_from_the_url_or_the_request) {
  const struct {
    const char* in_url;
    const char* user;
    const char* password;
  } rows[] = {{"me:in:url@", "me", "in:url"}, {"", "request", "hush"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.in_url);
    log_.clear();
    const auto login = greeting() + turn("USER " + std::string(row.user), "331 ?") +
                       turn("PASS " + std::string(row.password), "230 in") + turn("TYPE I", "200 ok");
    tcp_peer data({{send("ab")}, {send("ab")}, {expect("up")}});
    const auto ready = login + turn("PASV", pasv_answer(data.port()));
    const auto download = ready + turn("SIZE pub/f", "213 2") + turn("RETR pub/f", "150 go");
    tcp_peer control({download, download,
                      ready + turn("SIZE c.txt", "213 1") + turn("APPE c.txt", "150 go") +
                          connection_script{send("226 done\r\n")} + turn("QUIT", "221 bye")});
    const std::string url = tcp_url("FTP", row.in_url, control.port(), "/pub/f?q#x");
    const dl_request request = {url.c_str(), "request", "hush", nullptr};

    dl_handle* handle = nullptr;
    ASSERT_EQ(0, dl_open(&request, &handle, nullptr, &result_)) << log_.all();
    std::string bytes(2, '?');
    EXPECT_EQ(uint32_t{DL_PROTO_FTP}, handle->proto);
    EXPECT_EQ(2, dl_read(handle, bytes.data(), 2, &result_));
    EXPECT_EQ("ab", bytes);
    dl_close(handle);
    EXPECT_EQ(0, dl_download(&request, local_.c_str(), nullptr, &result_)) << log_.all();
    EXPECT_EQ("ab", read_file(local_));
    write_file(local_, "up");
    EXPECT_EQ(0, upload(request, DL_FTP_APPEND)) << log_.all();
    EXPECT_TRUE(data.finish());
    EXPECT_EQ(2u, log_.count("FTP Login Info:uername=" + std::string(row.user) + " passwd=******"));
    EXPECT_EQ(0u, log_.count(row.password)) << log_.all();
  }
}

TEST_F(dispatch_transfer, tftp_is_used_without_a_scheme) {
  using namespace tftp_test;
  peer server;
  const std::string url = "127.0.0.1:" + std::to_string(server.port()) + "/a/b.txt";
  const dl_request request = {url.c_str(), nullptr, nullptr, nullptr};
  write_file(local_, "up");
  {
    const playing thread(server, {expects(tftp_test::request(2, "c.txt")), sends(ack(0)),
                                  expects(data(1, "up")), sends(ack(1))});
    EXPECT_EQ(0, upload(request, 0, nullptr)) << log_.all();
  }
  const playing thread(server,
                       {expects(tftp_test::request(1, "a/b.txt")), sends(data(1, "down")), expects(ack(1))});
  EXPECT_EQ(0, dl_download(&request, local_.c_str(), nullptr, &result_)) << log_.all();
  EXPECT_EQ("down", read_file(local_));
}

TEST_F(dispatch_transfer, http_uploads_put_only_in_mode_2) {
  write_file(local_, "up");
  for (const int32_t mode : {0, 1, 2, 7}) {
    SCOPED_TRACE(mode);
    tcp_peer server({{expect_until("\r\n\r\n"), expect_until(mode == 2 ? "up" : "--x--\r\n"),
                      send("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n")}});
    const std::string url = tcp_url("http", "", server.port(), "/a?q");
    const dl_request request = {url.c_str(), nullptr, nullptr, nullptr};
    EXPECT_EQ(0, upload(request, mode, "Content-Type: multipart/form-data; boundary=x\r\n")) << log_.all();
    EXPECT_TRUE(server.finish());
    EXPECT_TRUE(server.received(0).starts_with(mode == 2 ? "PUT /a HTTP/1.1\r\n" : "POST /a HTTP/1.1\r\n"))
        << server.received(0);
  }
}

}  // namespace
}  // namespace test
