// transfer_mix.cpp: all protocols at once, on the servers that the environment names: what several threads fetch and
// send is whole while others set options, start the log anew and read certificates.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <thread>
#include <vector>

#include "include/fetchrig.h"
#include "tests/support/descriptors.h"
#include "tests/support/options.h"
#include "tests/support/temp_dir.h"

namespace test {
namespace {

constexpr unsigned num_threads = 16;

class transfer_mix : public leak_free {
 protected:
  static std::string variable(const char* name) { return getenv(name); }
  // Whether a transfer worked and left the content in `path`.
  void expect_whole(int rc, const dl_result& result, const std::string& url, const std::string& path) const {
    ASSERT_EQ(rc, 0) << url << ": " << result.message;
    EXPECT_EQ(summary(read_file(path)), summary(content_)) << url;
  }
  void fetch(const std::string& url, const std::string& path) const {
    const dl_request request = {url.c_str(), nullptr, nullptr, nullptr};
    char redirect[DL_REDIRECT_SIZE];
    dl_result result = {};
    const int rc = dl_download(&request, path.c_str(), redirect, &result);
    expect_whole(rc, result, url, path);
  }
  void send(const char* server, const std::string& path, const std::string& name) const {
    const std::string remote = "upload/" + name, url = variable(server) + "/" + remote;
    const dl_request request = {url.c_str(), nullptr, nullptr, nullptr};
    char redirect[DL_REDIRECT_SIZE];
    dl_result result = {};
    const int rc = dl_upload(&request, path.c_str(), remote.c_str(), redirect, &result,
                             "Content-Type: text/plain\r\n", DL_HTTP_PUT, DL_FTP_LIMIT_STORE);
    expect_whole(rc, result, url, served_ + "/" + remote);
  }

  const std::string content_ = make_bytes(20000), served_ = variable("SERVED");
  temp_dir place_;
  library library_;
};

TEST_F(transfer_mix, sixteen_threads_lose_nothing_whatever_others_change) {
  write_file(served_ + "/file", content_);
  set_option(DL_OPT_SSL_METHOD, 3);
  set_option(DL_OPT_VERIFY_PEER, 1);
  set_option(DL_OPT_VERIFY_HOST, 1);
  set_option(DL_OPT_HTTPS_CA_DIR, variable("CA_DIR"));
  set_option(DL_OPT_NET_TIMEOUT, 20);
  const std::jthread meddler([](const std::stop_token& over) {
    const std::string ca = variable("CA_DIR") + "/ca.pem";
    const dl_log_callback ignore_line = [](const char*, int32_t) { return 0; };
    for (uint32_t i = 0; !over.stop_requested(); ++i) {
      set_option(DL_OPT_USER_AGENT, "agent " + std::to_string(i));
      set_option(DL_OPT_NET_TIMEOUT, 20 + i % 20);
      dl_log_init(0, i % 2 ? ignore_line : nullptr);
      EXPECT_EQ(0, dl_set_extras(i % 2 ? DL_EXTRAS_RECOMMENDED : DL_EXTRAS_NONE));
      dl_ca_info_ex info = {};
      dl_result result = {};
      EXPECT_EQ(0, dl_get_ca_info_ex(ca.c_str(), &info, 0, &result));
      EXPECT_STREQ("root", info.subject);
    }
  });
  std::vector<std::jthread> threads;
  for (unsigned id = 0; id < num_threads; ++id) {
    threads.emplace_back([this, id] {
      const std::string name = std::to_string(id), path = place_.file(name);
      for (const char* server : {"HTTP", "HTTPS", "FTP", "TFTP"}) fetch(variable(server) + "/file", path);
      fetch(variable("HTTP") + "/chunked/file", path);
      send("HTTP", path, name);
      send("FTP", path, name + "-ftp");
    });
  }
  threads.clear();
}

}  // namespace
}  // namespace test
