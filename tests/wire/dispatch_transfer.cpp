// dispatch_transfer.cpp: what the protocol-independent calls hand to the FTP and TFTP clients.
#include "tests/peers/tftp_peer.h"
#include "tests/wire/ftp_script.h"

namespace test {
namespace {

class dispatch_transfer : public ftp_test {
 protected:
  int upload(const dl_request& request, int32_t mode = 0) {
    return dl_upload(&request, local_.c_str(), "c.txt", nullptr, &result_, nullptr, mode, DL_FTP_LIMIT_STOP);
  }

  std::string local_ = dir_.file("local");
};

// The URL's credentials win; the request's are used when it has none.
TEST_F(dispatch_transfer, ftp_takes_credentials_from_the_url_or_the_request) {
  const std::tuple<std::string, std::string, std::string> rows[] = {{"me:in:url@", "me", "in:url"},
                                                                    {"", "request", "hush"}};
  for (const auto& [in_url, user, password] : rows) {
    SCOPED_TRACE(user);
    log_.clear();
    tcp_peer data({{send("ab")}, {send("ab")}, {expect("up")}});
    const auto ready = greeting + turn("USER " + user, "331 ?") + turn("PASS " + password, "230 in") +
                       turn("TYPE I", "200 ok") + turn("PASV", pasv_answer(data.port()));
    const auto download = ready + turn("SIZE pub/f", "213 2") + turn("RETR pub/f", "150 go");
    tcp_peer control({download, download,
                      ready + turn("SIZE c.txt", "213 1") + turn("APPE c.txt", "150 go") +
                          connection_script{send("226 done\r\n")} + turn("QUIT", "221 bye")});
    const std::string url = "FTP://" + in_url + "127.0.0.1:" + std::to_string(control.port()) + "/pub/f?q#x";
    const dl_request request = {url.c_str(), "request", "hush", nullptr};
    dl_handle* handle = nullptr;
    ASSERT_EQ(0, dl_open(&request, &handle, nullptr, &result_)) << log_.all();
    EXPECT_EQ(uint32_t{DL_PROTO_FTP}, handle->proto);
    char bytes[3] = {};
    EXPECT_EQ(2, dl_read(handle, bytes, 2, &result_));
    EXPECT_STREQ("ab", bytes);
    dl_close(handle);
    EXPECT_EQ(0, dl_download(&request, local_.c_str(), nullptr, &result_)) << log_.all();
    EXPECT_EQ("ab", read_file(local_));
    write_file(local_, "up");
    EXPECT_EQ(0, upload(request, DL_FTP_APPEND)) << log_.all();
    EXPECT_TRUE(data.finish());
    EXPECT_EQ(2u, log_.count("FTP Login Info:uername=" + user + " passwd=******"));
    EXPECT_EQ(0u, log_.count(password)) << log_.all();
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
    EXPECT_EQ(0, upload(request)) << log_.all();
  }
  const playing thread(server,
                       {expects(tftp_test::request(1, "a/b.txt")), sends(data(1, "down")), expects(ack(1))});
  EXPECT_EQ(0, dl_download(&request, local_.c_str(), nullptr, &result_)) << log_.all();
  EXPECT_EQ("down", read_file(local_));
}

}  // namespace
}  // namespace test
