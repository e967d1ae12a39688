// transfer_mix.cpp: all protocols at once and for long, on the servers that the environment names: what several
// threads fetch and send is whole while others set options, start the log anew and read certificates, and thousands of
// transfers leave neither memory nor descriptors behind.
#include <gtest/gtest.h>
#include <malloc.h>
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

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int num_transfers = 400;
#else
constexpr int num_transfers = 10000;
#endif
constexpr unsigned num_threads = 16;

class transfer_mix : public leak_free {
 protected:
  transfer_mix() {
    write_file(served_ + "/file", content_);
    set_option(DL_OPT_SSL_METHOD, 3);
    set_option(DL_OPT_VERIFY_PEER, 1);
    set_option(DL_OPT_VERIFY_HOST, 1);
    set_option(DL_OPT_HTTPS_CA_DIR, getenv("CA_DIR"));
    set_option(DL_OPT_NET_TIMEOUT, 20);
  }

  // What arrives in `path`, or the reason why not.
  std::string fetch(const std::string& url, const std::string& path) const {
    const dl_request request = {url.c_str(), nullptr, nullptr, nullptr};
    if (dl_download(&request, path.c_str(), redirect_of_thread, &result_of_thread) == 0)
      return read_file(path);
    return url + ": " + result_of_thread.message;
  }
  // What arrives on the server, or the reason why not.
  std::string send(const char* base, const std::string& path, const std::string& name) const {
    const std::string remote = "upload/" + name;
    const std::string url = std::string(getenv(base)) + "/" + remote;
    const dl_request request = {url.c_str(), nullptr, nullptr, nullptr};
    if (dl_upload(&request, path.c_str(), remote.c_str(), redirect_of_thread, &result_of_thread,
                  "Content-Type: text/plain\r\n", DL_HTTP_PUT, DL_FTP_LIMIT_STORE) == 0) {
      return read_file(served_ + "/" + remote);
    }
    return url + ": " + result_of_thread.message;
  }
  void expect_whole(const std::string& got) const {
    EXPECT_EQ(summary(got), summary(content_)) << got.substr(0, 200);
  }

  static thread_local char redirect_of_thread[DL_REDIRECT_SIZE];
  static thread_local dl_result result_of_thread;
  const std::string content_ = make_bytes(20000);
  const std::string served_ = getenv("SERVED");
  const std::vector<std::string> urls_ = {
      std::string(getenv("HTTP")) + "/file", std::string(getenv("HTTPS")) + "/file",
      std::string(getenv("FTP")) + "/file", std::string(getenv("TFTP")) + "/file",
      std::string(getenv("HTTP")) + "/chunked/file"};
  temp_dir place_;
  library library_;
};
thread_local char transfer_mix::redirect_of_thread[DL_REDIRECT_SIZE];
thread_local dl_result transfer_mix::result_of_thread;

int ignore_line(const char*, int32_t) {
  return 0;
}

TEST_F(transfer_mix, sixteen_threads_lose_nothing_whatever_others_change) {
  const std::string ca = std::string(getenv("CA_DIR")) + "/ca.pem";
  const std::jthread meddler([&](const std::stop_token& over) {
    for (uint32_t i = 0; !over.stop_requested(); ++i) {
      set_option(DL_OPT_USER_AGENT, "agent " + std::to_string(i));
      set_option(DL_OPT_NET_TIMEOUT, 20 + i % 20);
      dl_log_init(0, i % 2 ? ignore_line : nullptr);
      dl_ca_info_ex info = {};
      dl_result result = {};
      EXPECT_EQ(0, dl_get_ca_info_ex(ca.c_str(), &info, 0, &result));
      EXPECT_STREQ("root", info.subject);
    }
  });
  std::vector<std::jthread> threads;
  for (unsigned id = 0; id < num_threads; ++id) {
    threads.emplace_back([&, id] {
      const std::string name = std::to_string(id);
      const std::string path = place_.file(name);
      for (std::size_t i = 0; i < urls_.size(); ++i)
        expect_whole(fetch(urls_[(i + id) % urls_.size()], path));
      expect_whole(send("HTTP", path, name));
      expect_whole(send("FTP", path, name + "-ftp"));
    });
  }
  threads.clear();
}

TEST_F(transfer_mix, thousands_of_transfers_keep_memory_and_descriptors_even) {
  const std::string path = place_.file("file");
  // HTTP is the quickest: of 20 transfers 14 go over it, and 2 over each of the others.
  const auto url_of = [this](int i) { return urls_[i % 20 < 14 ? (i % 2) * 4 : 1 + i % 3]; };
  for (int i = 0; i < 40; ++i) expect_whole(fetch(url_of(i), path));
  const std::size_t descriptors = open_descriptors().size();
  const auto before = mallinfo2().uordblks;
  for (int i = 0; i < num_transfers && !HasFailure(); ++i) expect_whole(fetch(url_of(i), path));
  EXPECT_EQ(open_descriptors().size(), descriptors);
  // The allocator counts what it caches per thread, at most 64 sizes of 7 blocks of up to 1 KiB, as in use.
  EXPECT_LT(mallinfo2().uordblks, before + 64 * 7 * 528);
}

}  // namespace
}  // namespace test
