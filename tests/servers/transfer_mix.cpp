// transfer_mix.cpp: all protocols at once and for long: what several threads fetch and send is whole, and
// thousands of transfers leave neither memory nor descriptors behind.
#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "include/fetchrig.h"
#include "tests/support/descriptors.h"
#include "tests/support/options.h"
#include "tests/support/pki.h"
#include "tests/support/servers.h"
#include "tests/support/temp_dir.h"

namespace test {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int num_transfers = 400;
#else
constexpr int num_transfers = 10000;
#endif
constexpr int num_threads = 16;
constexpr std::size_t file_bytes = 20000;

// Every server, each holding "file", and the store that trusts the HTTPS one.
class transfer_mix : public leak_free {
 protected:
  void SetUp() override {
    REQUIRE_SERVER(nginx_);
    REQUIRE_SERVER(ftp_);
    REQUIRE_SERVER(tftp_);
    nginx_.put("file", content_);
    ftp_.put("file", content_);
    tftp_.put("file", content_);
    set_option(DL_OPT_SSL_METHOD, 3);
    set_option(DL_OPT_VERIFY_PEER, 1);
    set_option(DL_OPT_VERIFY_HOST, 1);
    set_option(DL_OPT_HTTPS_CA_DIR, ca_.hashed_dir());
    set_option(DL_OPT_NET_TIMEOUT, 20);
    urls_ = {nginx_.url("/file"), nginx_.https_url("/file"), ftp_.url("/file"), tftp_.url("/file"),
             nginx_.url("/chunked/file")};
  }

  // The file's bytes, or the reason why not.
  std::string fetch(const std::string& url, const std::string& path) const {
    const dl_request request = {url.c_str(), nullptr, nullptr, nullptr};
    char redirect[DL_REDIRECT_SIZE] = {};
    dl_result result = {};
    if (dl_download(&request, path.c_str(), redirect, &result) == 0) return read_file(path);
    return url + ": " + std::to_string(result.code) + " " + result.message;
  }

  // What arrives when `path` is sent as `name` and looked at on the server, or the reason why not.
  std::string send(const loopback_server& server, const std::string& base, const std::string& path,
                   const std::string& name) const {
    const std::string url = base + "/upload/" + name;
    const std::string remote = "upload/" + name;
    const dl_request request = {url.c_str(), nullptr, nullptr, nullptr};
    char redirect[DL_REDIRECT_SIZE] = {};
    dl_result result = {};
    if (dl_upload(&request, path.c_str(), remote.c_str(), redirect, &result, "Content-Type: text/plain\r\n",
                  2, DL_FTP_LIMIT_STORE) == 0) {
      return server.get("upload/" + name);
    }
    return url + ": " + std::to_string(result.code) + " " + result.message;
  }

  const std::string content_ = make_bytes(file_bytes);
  temp_dir place_;
  test_ca ca_{place_};
  cert_files server_ = ca_.issue("server");
  nginx_server nginx_{{.cert_file = server_.cert, .key_file = server_.key}};
  pyftpd_server ftp_;
  tftp_server tftp_{tftp_program::atftpd};
  library library_;
  std::vector<std::string> urls_;
};

TEST_F(transfer_mix, sixteen_threads_lose_nothing) {
  std::atomic<int> whole = 0;
  std::vector<std::thread> threads;
  for (int id = 0; id < num_threads; ++id) {
    threads.emplace_back([&, id] {
      const std::string name = std::to_string(id);
      const std::string path = place_.file(name);
      for (std::size_t i = 0; i < urls_.size(); ++i) {
        const std::string got = fetch(urls_[(i + static_cast<std::size_t>(id)) % urls_.size()], path);
        EXPECT_EQ(summary(got), summary(content_)) << got.substr(0, 200);
        whole += got == content_;
      }
      whole += send(nginx_, nginx_.url(""), path, name) == content_;
      whole += send(ftp_, ftp_.url(""), path, name) == content_;
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(whole, num_threads * static_cast<int>(urls_.size() + 2));
}

TEST_F(transfer_mix, thousands_of_transfers_keep_memory_and_descriptors_even) {
  const std::string path = place_.file("file");
  // HTTP is the quickest: of 20 transfers 14 go over it, and 2 over each of the others.
  const auto url_of = [this](int i) { return urls_[i % 20 < 14 ? (i % 2) * 4 : 1 + i % 3]; };
  for (int i = 0; i < 40; ++i) ASSERT_EQ(summary(fetch(url_of(i), path)), summary(content_));
  const std::size_t descriptors = open_descriptors().size();
  const auto before = mallinfo2().uordblks;
  for (int i = 0; i < num_transfers; ++i) {
    const std::string got = fetch(url_of(i), path);
    ASSERT_EQ(summary(got), summary(content_)) << got.substr(0, 200) << " after " << i;
  }
  EXPECT_EQ(open_descriptors().size(), descriptors);
  // The allocator counts what it caches per thread, at most 64 sizes of 7 blocks of up to 1 KiB, as in use.
  EXPECT_LT(mallinfo2().uordblks, before + 64 * 7 * 528);
}

}  // namespace
}  // namespace test
