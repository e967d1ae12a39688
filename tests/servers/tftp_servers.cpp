// tftp_servers.cpp: transfers with real TFTP servers: both directions, sizes around the block sizes, and a
// file large enough for block numbers to wrap when the server keeps to 512 bytes per block.
#include <gtest/gtest.h>

#include "include/fetchrig.h"
#include "tests/support/descriptors.h"
#include "tests/support/log_capture.h"
#include "tests/support/options.h"
#include "tests/support/servers.h"
#include "tests/support/temp_dir.h"

namespace {

constexpr std::size_t wrapping_size = 40u << 20;  // 81920 blocks of 512 bytes

struct server_case {
  const char* name;
  test::tftp_program program;
  bool ipv6;
  std::vector<std::string> options;
  const char* negotiated;  // log line
};

void PrintTo(const server_case& tested, std::ostream* out) {
  *out << tested.name;
}

const server_case cases[] = {
    {"tftpd_hpa", test::tftp_program::tftpd_hpa, false, {}, "using blksize 1432"},
    {"tftpd_hpa_ipv6", test::tftp_program::tftpd_hpa, true, {}, "using blksize 1432"},
    {"tftpd_hpa_512", test::tftp_program::tftpd_hpa, false, {"--refuse", "blksize"}, nullptr},
    {"atftpd", test::tftp_program::atftpd, false, {}, "using blksize 1432"},
    {"atftpd_512", test::tftp_program::atftpd, false, {"--no-blksize"}, nullptr},
};

class tftp_servers : public test::leak_free, public testing::WithParamInterface<server_case> {
 protected:
  tftp_servers() : server_(GetParam().program, GetParam().ipv6, GetParam().options) {
    test::set_option(DL_OPT_MAX_FILE_SIZE, 64u << 20);
    test::set_option(DL_OPT_NET_TIMEOUT, 10);
    test::set_option(DL_OPT_IPV6, GetParam().ipv6);
  }
  const char* host() const { return GetParam().ipv6 ? "::1" : "127.0.0.1"; }

  void expect_negotiated() const {
    const char* line = GetParam().negotiated;
    EXPECT_EQ(log_.count("using blksize"), line ? 1u : 0u);
    if (line) {
      EXPECT_TRUE(log_.contains("TFTP", DL_LOG_INFO, line));
    }
  }
  void download(const std::string& content) {
    server_.put("down.bin", content);
    ASSERT_EQ(dl_tftp_recv_to_file(host(), server_.port(), "/down.bin", local_.c_str(), &result_), 0)
        << result_.message;
    EXPECT_EQ(test::sha256_hex(test::read_file(local_)), test::sha256_hex(content));
  }
  void upload(const std::string& name, const std::string& content) {
    test::write_file(local_, content);
    ASSERT_EQ(dl_tftp_send_file(host(), server_.port(), name.c_str(), local_.c_str(), &result_), 0)
        << result_.message;
    EXPECT_EQ(test::summary(server_.get_whole(name, content.size())), test::summary(content));
  }

  test::library library_;
  test::log_capture log_;
  test::temp_dir place_;
  std::string local_ = place_.file("local.bin");
  test::tftp_server server_;
  dl_result result_ = {};
};

TEST_P(tftp_servers, files_arrive_whole_in_both_directions) {
  if (GetParam().ipv6 && !test::have_ipv6()) GTEST_SKIP() << "SKIPPED: no IPv6 here";
  REQUIRE_SERVER(server_);
  for (const std::size_t size :
       {std::size_t{0}, std::size_t{1}, std::size_t{511}, std::size_t{512}, std::size_t{513},
        std::size_t{1431}, std::size_t{1432}, std::size_t{1433}, std::size_t{100000}, wrapping_size}) {
    SCOPED_TRACE(testing::Message() << size << " bytes");
    const std::string content = test::make_bytes(size);
    log_.clear();
    download(content);
    expect_negotiated();
    log_.clear();
    upload("upload/" + std::to_string(size), content);
    expect_negotiated();
  }
}

TEST_P(tftp_servers, failures) {
  if (GetParam().ipv6 && !test::have_ipv6()) GTEST_SKIP() << "SKIPPED: no IPv6 here";
  REQUIRE_SERVER(server_);
  test::set_option(DL_OPT_NET_TIMEOUT, 1);
  EXPECT_EQ(dl_tftp_recv_to_file(host(), server_.port(), "missing", local_.c_str(), &result_), -1);
  EXPECT_EQ(result_.code, DL_ERR_READ);
  EXPECT_FALSE(test::file_exists(local_));

  test::write_file(local_, "x");
  EXPECT_EQ(dl_tftp_send_file(host(), server_.port(), "no/such/dir", local_.c_str(), &result_), -1);
  EXPECT_EQ(result_.code, DL_ERR_READ);

  server_.put("large.bin", test::make_bytes(5000));
  test::set_option(DL_OPT_MAX_FILE_SIZE, 4999);
  EXPECT_EQ(dl_tftp_recv_to_file(host(), server_.port(), "large.bin", local_.c_str(), &result_), -1);
  EXPECT_STREQ(result_.message, "exceed max size 4999");
  EXPECT_FALSE(test::file_exists(local_));
}

INSTANTIATE_TEST_SUITE_P(all, tftp_servers, testing::ValuesIn(cases),
                         [](const testing::TestParamInfo<server_case>& tested) { return tested.param.name; });

}  // namespace
