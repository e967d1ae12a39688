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
constexpr uint32_t limit_store = 1, limit_stop = 2;
constexpr std::size_t sizes[] = {0, 512, 100000, std::size_t{40} << 20};

class ftp_servers : public leak_free {
 protected:
  ftp_servers() {
    set_option(DL_OPT_NET_TIMEOUT, 10);
    set_option(DL_OPT_MAX_FILE_SIZE, uint32_t{100} << 20);
  }
  // Talks to `server` from now on, with null for the anonymous user.
  void use(const loopback_server& server, const char* user, const char* password, const char* host) {
    server_ = &server;
    user_ = user;
    password_ = password;
    host_ = host;
  }
  int fetch(const std::string& path) {
    return dl_ftp_recv_to_file(host_, server_->port(), user_, password_, path.c_str(), local_.c_str(),
                               &result_);
  }
  int send(const std::string& name, std::size_t size, int32_t post_mode, uint32_t limit_mode = limit_stop) {
    content_ = make_bytes(size, size + 7);
    write_file(local_, content_);
    return dl_ftp_send_file(host_, server_->port(), user_, password_, name.c_str(), local_.c_str(), post_mode,
                            limit_mode, &result_);
  }
  std::string remote_digest(const std::string& name) { return sha256_hex(server_->get(name)); }
  std::string state() { return std::to_string(result_.code) + " " + result_.message + "\n" + log_.all(); }

  void round_trips();
  void append_and_limits();

  library library_;
  log_capture log_;
  temp_dir dir_;
  std::string local_ = dir_.file("local");
  std::string content_;
  dl_result result_ = {};
  const loopback_server* server_ = nullptr;
  const char* user_ = nullptr;
  const char* password_ = nullptr;
  const char* host_ = nullptr;
};

void ftp_servers::round_trips() {
  for (const std::size_t size : sizes) {
    SCOPED_TRACE(size);
    EXPECT_EQ(0, send("upload/file", size, store)) << state();
    EXPECT_EQ(sha256_hex(content_), remote_digest("upload/file"));
    write_file(local_, "");
    EXPECT_EQ(0, fetch("/upload/file")) << state();
    EXPECT_EQ(sha256_hex(content_), sha256_hex(read_file(local_)));
  }
}

void ftp_servers::append_and_limits() {
  EXPECT_EQ(0, send("/upload/log", 1000, append)) << state();  // created with STOR
  const std::string first = content_;
  EXPECT_EQ(0, send("/upload/log", 300, append)) << state();
  EXPECT_EQ(sha256_hex(first + content_), remote_digest("upload/log"));

  set_option(DL_OPT_MAX_FILE_SIZE, 1500);
  EXPECT_EQ(0, send("/upload/log", 200, append)) << state();  // the sum is the limit
  EXPECT_EQ(1500u, server_->get("upload/log").size());
  EXPECT_EQ(-1, send("/upload/log", 1, append, limit_stop));
  EXPECT_EQ(-15, result_.code) << state();
  EXPECT_STREQ("exceed max file size,stop\n", result_.message);
  EXPECT_EQ(1500u, server_->get("upload/log").size());
  EXPECT_EQ(0, send("/upload/log", 400, append, limit_store)) << state();
  EXPECT_EQ(sha256_hex(content_), remote_digest("upload/log"));
  EXPECT_EQ(0, send("/upload/log", 1501, store, limit_store)) << state();
  EXPECT_EQ(-1, fetch("/upload/log"));
  EXPECT_STREQ("exceed max size 1500", result_.message);
  EXPECT_FALSE(file_exists(local_));
  EXPECT_EQ(-1, fetch("/missing"));
  EXPECT_EQ(-15, result_.code) << state();
  EXPECT_TRUE(std::string_view(result_.message).starts_with("550 ")) << state();
  EXPECT_EQ(-1, send("/no/such/place", 3, store));
  EXPECT_GE(result_.code, 500) << state();
}

TEST_F(ftp_servers, vsftpd) {
  const vsftpd_server server;
  REQUIRE_SERVER(server);
  use(server, nullptr, nullptr, "127.0.0.1");
  round_trips();
  append_and_limits();
  user_ = "nobody-here";
  password_ = "wrong";
  EXPECT_EQ(-1, fetch("/upload/log"));
  EXPECT_EQ(-18, result_.code) << state();  // this server takes anonymous users only
}

TEST_F(ftp_servers, pyftpdlib) {
  const pyftpd_server server;
  REQUIRE_SERVER(server);
  use(server, server_user, server_password, "127.0.0.1");
  round_trips();
  append_and_limits();
  password_ = "wrong";
  EXPECT_EQ(-1, fetch("/upload/log"));
  EXPECT_EQ(-19, result_.code) << state();
  EXPECT_EQ(0u, log_.count("wrong"));
  EXPECT_EQ(0u, log_.count(server_password));
}

TEST_F(ftp_servers, pyftpdlib_over_ipv6) {
  if (!have_ipv6()) GTEST_SKIP() << "SKIPPED: no IPv6 on loopback";
  const pyftpd_server server(true);
  REQUIRE_SERVER(server);
  set_option(DL_OPT_IPV6, 1);
  use(server, nullptr, nullptr, "::1");
  round_trips();
  append_and_limits();
  set_option(DL_OPT_IPV6, 0);
  EXPECT_EQ(-1, fetch("/upload/log"));
  EXPECT_EQ(-1, result_.code) << state();
}

// IPv6 switched on, an IPv4 server: EPSV works there, too.
TEST_F(ftp_servers, vsftpd_with_epsv) {
  const vsftpd_server server;
  REQUIRE_SERVER(server);
  set_option(DL_OPT_IPV6, 1);
  use(server, "anonymous", "a@b", "127.0.0.1");
  round_trips();
}

}  // namespace
}  // namespace test
