// Ringtones from a real web server, reached by name, as 127.0.0.1 in an alert text means the ring name.
#include <gtest/gtest.h>

#include <filesystem>

#include "include/fetchrig.h"
#include "tests/support/options.h"
#include "tests/support/servers.h"
#include "tests/support/wave.h"

namespace test {
namespace {

class ringtone : public testing::Test {
 protected:
  ~ringtone() override {
    for (const std::string& path : made_) std::filesystem::remove(path);
  }

  // Asks for the file as ring; "" and the ring number 6 when it is refused, else the path of the cached file.
  std::string ring_of(const std::string& file) {
    const std::string url = "http://localhost:" + std::to_string(server_.port()) + "/" + file;
    made_.push_back("/tmp/" + md5_hex(url) + ".wav");
    int32_t number = 0;
    char path[64] = {};
    EXPECT_EQ(dl_distinctive_ringtone_download(url.c_str(), "ringtone-6", &number, path, sizeof path), 1);
    EXPECT_EQ(number, path[0] ? -1 : 6);
    return path;
  }

  library library_;
  nginx_server server_;

 private:
  std::vector<std::string> made_;
};

TEST_F(ringtone, WhatFitsIsCachedAndWhatDoesNotLeavesNothing) {
  REQUIRE_SERVER(server_);
  struct {
    const char* name;
    std::string content;
    bool taken;
  } const cases[] = {
      {"small.wav", make_wave(3000), true},
      {"headers.wav", make_wave(46), true},
      {"largest.wav", make_wave(204800), true},
      {"too-large.wav", make_wave(204801), false},
      {"pcm.wav", make_wave(3000, {1, 1, 8000, 16000, 2, 16}), false},
      {"page.html", "<html>no ring here</html>", false},
  };
  for (const auto& row : cases) {
    server_.put(row.name, row.content);
    const std::string path = ring_of(row.name);
    EXPECT_EQ(!path.empty(), row.taken) << row.name;
    EXPECT_EQ(row.taken ? read_file(path) : row.content, row.content) << row.name;
  }
  server_.put("small.wav", "changed");
  EXPECT_EQ(read_file(ring_of("small.wav")), make_wave(3000)) << "taken from the cache";
  EXPECT_EQ(ring_of("missing.wav"), "");
  EXPECT_EQ(ring_of("chunked/small.wav"), "") << "no length announced";
}

}  // namespace
}  // namespace test
