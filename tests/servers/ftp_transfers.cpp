// ftp_transfers.cpp: FTP in both directions against real servers.
#include <gtest/gtest.h>

#include "include/fetchrig.h"
#include "tests/support/descriptors.h"
#include "tests/support/log_capture.h"
#include "tests/support/options.h"
#include "tests/support/servers.h"
#include "tests/support/temp_dir.h"

namespace test {
namespace {

constexpr int32_t append = 1, store = 2;
constexpr uint32_t limit_stop = 2;

class ftp_servers : public leak_free {
 protected:
  ftp_servers() {
    set_option(DL_OPT_NET_TIMEOUT, 10);
    set_option(DL_OPT_MAX_FILE_SIZE, uint32_t{100} << 20);
  }
  int fetch(const loopback_server& server, const std::string& path) {
    return dl_ftp_recv_to_file(host_, server.port(), user_, password_, path.c_str(), local_.c_str(),
                               &result_);
  }
  int send(const loopback_server& server, const std::string& name, std::size_t size, int32_t post_mode) {
    content_ = make_bytes(size, size + 7);
    write_file(local_, content_);
    return dl_ftp_send_file(host_, server.port(), user_, password_, name.c_str(), local_.c_str(), post_mode,
                            limit_stop, &result_);
  }
  std::string state() { return std::to_string(result_.code) + " " + result_.message + "\n" + log_.all(); }
  void transfer_both_ways(const loopback_server& server);

  library library_;
  log_capture log_;
  temp_dir dir_;
  const std::string local_ = dir_.file("local");
  std::string content_;
  dl_result result_ = {};
  const char* user_ = nullptr;
  const char* password_ = nullptr;
  const char* host_ = "127.0.0.1";
};

void ftp_servers::transfer_both_ways(const loopback_server& server) {
  for (const std::size_t size : {std::size_t{0}, std::size_t{100000}, std::size_t{40} << 20}) {
    SCOPED_TRACE(size);
    EXPECT_EQ(0, send(server, "upload/file", size, store)) << state();
    EXPECT_TRUE(content_ == server.get("upload/file"));
    write_file(local_, "");
    EXPECT_EQ(0, fetch(server, "/upload/file")) << state();
    EXPECT_TRUE(content_ == read_file(local_));
  }
  EXPECT_EQ(0, send(server, "/upload/log", 1000, append)) << state();  // created with STOR
  const std::string first = content_;
  EXPECT_EQ(0, send(server, "/upload/log", 300, append)) << state();
  EXPECT_TRUE(first + content_ == server.get("upload/log"));
  EXPECT_EQ(-1, fetch(server, "/missing"));
  EXPECT_EQ(-15, result_.code) << state();
  EXPECT_TRUE(std::string_view(result_.message).starts_with("550 ")) << state();
}

TEST_F(ftp_servers, vsftpd) {
  const vsftpd_server server;
  REQUIRE_SERVER(server);
  transfer_both_ways(server);
  set_option(DL_OPT_IPV6, 1);  // EPSV works on IPv4, too
  user_ = "anonymous";
  password_ = "a@b";
  EXPECT_EQ(0, fetch(server, "/upload/file")) << state();
  EXPECT_TRUE(server.get("upload/file") == read_file(local_));
}

TEST_F(ftp_servers, pyftpdlib) {
  const bool ipv6 = have_ipv6();
  const pyftpd_server server(ipv6);
  REQUIRE_SERVER(server);
  user_ = server_user;
  password_ = server_password;
  set_option(DL_OPT_IPV6, ipv6);
  if (ipv6) host_ = "::1";
  transfer_both_ways(server);
}

}  // namespace
}  // namespace test
