// tftp_servers.cpp: transfers with real TFTP servers: both directions, sizes around a block, and a file large
// enough for block numbers to wrap when the server keeps to 512 bytes per block.
#include <gtest/gtest.h>

#include "include/fetchrig.h"
#include "tests/support/descriptors.h"
#include "tests/support/log_capture.h"
#include "tests/support/options.h"
#include "tests/support/servers.h"

namespace {

using namespace test;

struct server_case {
  const char* name;
  tftp_program program;
  bool ipv6;
  std::vector<std::string> options;
  std::size_t blksize;
};
const server_case cases[] = {
    {"tftpd_hpa", tftp_program::tftpd_hpa, false, {}, 1432},
    {"tftpd_hpa_ipv6", tftp_program::tftpd_hpa, true, {}, 1432},
    {"tftpd_hpa_512", tftp_program::tftpd_hpa, false, {"--refuse", "blksize"}, 512},
    {"atftpd", tftp_program::atftpd, false, {}, 1432},
    {"atftpd_512", tftp_program::atftpd, false, {"--no-blksize"}, 512},
};

class tftp_servers : public leak_free, public testing::WithParamInterface<server_case> {};

TEST_P(tftp_servers, files_arrive_whole_and_failures_leave_none) {
  const server_case& tested = GetParam();
  if (tested.ipv6 && !have_ipv6()) GTEST_SKIP() << "SKIPPED: no IPv6 here";
  const tftp_server server(tested.program, tested.ipv6, tested.options);
  REQUIRE_SERVER(server);
  const library library;
  const log_capture log;
  const temp_dir place;
  const char* const host = tested.ipv6 ? "::1" : "127.0.0.1";
  const std::string local = place.file("local");
  dl_result result = {};
  set_option(DL_OPT_IPV6, tested.ipv6);
  set_option(DL_OPT_NET_TIMEOUT, 10u);
  set_option(DL_OPT_MAX_FILE_SIZE, 64u << 20);
  const std::size_t largest = tested.blksize == 512 ? 65537 * 512 + 1 : 100000;
  for (const std::size_t size : {std::size_t{0}, tested.blksize, tested.blksize + 1, largest}) {
    SCOPED_TRACE(testing::Message() << size << " bytes");
    const std::string content = make_bytes(size);
    server.put("down", content);
    ASSERT_EQ(dl_tftp_recv_to_file(host, server.port(), "/down", local.c_str(), &result), 0) << log.all();
    EXPECT_EQ(summary(read_file(local)), summary(content));
    const std::string name = "upload/" + std::to_string(size);
    ASSERT_EQ(dl_tftp_send_file(host, server.port(), name.c_str(), local.c_str(), &result), 0) << log.all();
    EXPECT_EQ(summary(server.get_whole(name, size)), summary(content));
  }
  EXPECT_EQ(log.count("using blksize 1432"), tested.blksize == 512 ? 0u : 8u);

  set_option(DL_OPT_NET_TIMEOUT, 1u);
  EXPECT_EQ(dl_tftp_recv_to_file(host, server.port(), "missing", local.c_str(), &result), -1);
  EXPECT_EQ(result.code, DL_ERR_READ);
  EXPECT_FALSE(file_exists(local));
}

INSTANTIATE_TEST_SUITE_P(all, tftp_servers, testing::ValuesIn(cases),
                         [](const testing::TestParamInfo<server_case>& tested) { return tested.param.name; });

}  // namespace
