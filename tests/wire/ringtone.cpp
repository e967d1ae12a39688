// ringtone.cpp: rings by name, without any network, and downloads from scripted servers that do well or go
// wrong half-way.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

#include "include/fetchrig.h"
#include "tests/peers/tcp_peer.h"
#include "tests/support/descriptors.h"
#include "tests/support/log_capture.h"
#include "tests/support/options.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wave.h"

namespace test {
namespace {

// What a call gives: "RC NUMBER PATH", with "-" for a path that was not touched.
std::string ring_of(const std::string& alert, const char* name, uint32_t path_size = 64) {
  int32_t number = -77;
  char path[64] = "-";
  const int rc = dl_distinctive_ringtone_download(alert.c_str(), name, &number, path, path_size);
  return std::to_string(rc) + " " + std::to_string(number) + " " + path;
}

connection_script answer(const std::string& headers, const std::string& body) {
  return {expect_until("\r\n\r\n"), send("HTTP/1.1 200 OK\r\n" + headers + "\r\n\r\n" + body)};
}

connection_script sized(const std::string& body) {
  return answer("Content-Length: " + std::to_string(body.size()), body);
}

// A peer that answers once, reached under a name that is not 127.0.0.1, and its file in the cache.
struct ring_server {
  explicit ring_server(connection_script script) : peer({std::move(script)}) {}
  ~ring_server() { std::filesystem::remove(cached); }
  // How many files in /tmp belong to the URL.
  auto num_left() const {
    const auto is_ours = [&](const std::string& name) { return name.starts_with(md5_hex(url)); };
    return std::ranges::count_if(names_in("/tmp"), is_ours);
  }

  tcp_peer peer;
  const std::string url = "http://localhost:" + std::to_string(peer.port()) + "/ring.wav";
  const std::string cached = "/tmp/" + md5_hex(url) + ".wav";
};

class ringtone : public leak_free {
 protected:
  library library_;
  log_capture log_;
};

TEST_F(ringtone, names_need_no_network) {
  set_ring(3, 41, "Boss Calling");
  set_ring(5, 42, "boss calling");
  set_ring(9, 43, "http://127.0.0.1/special");
  struct {
    const char* name;
    const char* alert;
    const char* ring_name;
    const char* found;
  } const rows[] = {
      {"any letter case", "BELLCORE-DR12", nullptr, "1 12 -"},
      {"no digits", "MyMelody", nullptr, "1 -1 -"},
      {"number beyond 31 bits", "ringtone-99999999999", nullptr, "1 -1 -"},
      {"prefix within the text", "a ringtone-4", nullptr, "0 -1 -"},
      {"the ring name wins over a name", "Bellcore-dr3", "MyMelody4", "1 4 -"},
      {"and is not helped by it", "Bellcore-dr3", "unknown", "0 -1 -"},
      {"no alert", "", "ringtone-2", "1 2 -"},
      {"entry in other letter case, lowest slot", "BOSS CALLING", nullptr, "1 41 -"},
      {"loopback URL: the ring name decides", "http://127.0.0.1/x.wav", "ringtone-6", "1 6 -"},
      {"loopback URL, not the URL's own text", "http://127.0.0.1/special", nullptr, "0 -1 -"},
      {"placeholder", "https://RingTone.Invalid/x", "boss calling", "1 41 -"},
      {"refused URL, ring name", "ftp://host/x", "MyMelody1", "1 1 -"},
  };
  for (const auto& row : rows) EXPECT_EQ(ring_of(row.alert, row.ring_name), row.found) << row.name;
  EXPECT_EQ(log_.count("http open error"), 0u) << log_.all();

  int32_t number = 5;
  char path[64];
  EXPECT_EQ(dl_distinctive_ringtone_download(nullptr, "ringtone-1", &number, nullptr, 64), 0);
  EXPECT_EQ(dl_distinctive_ringtone_download(nullptr, "ringtone-1", nullptr, path, 64), 0);
  EXPECT_EQ(log_.count("Invalid Parameter, Try to use default ringtone"), 2u);
  EXPECT_EQ(dl_distinctive_ringtone_download(nullptr, "ringtone-1", &number, path, 64), 1);
  EXPECT_EQ(number, 1);
}

TEST_F(ringtone, downloaded_once_then_taken_from_the_cache) {
  ring_server server(sized(make_wave(5000)));  // has no second answer
  const temp_dir elsewhere;
  std::filesystem::create_symlink(elsewhere.file("target"), server.cached);
  const mode_t usual = umask(027);
  EXPECT_EQ(ring_of(server.url, "ringtone-1"), "1 -1 " + server.cached);
  umask(usual);
  EXPECT_EQ(ring_of(server.url, "ringtone-1"), "1 -1 " + server.cached);
  EXPECT_EQ(read_file(server.cached), make_wave(5000));
  EXPECT_TRUE(server.peer.finish());
  EXPECT_TRUE(server.peer.received(0).starts_with("GET /ring.wav HTTP/1."));
  EXPECT_EQ(server.num_left(), 1) << "no partial file";

  EXPECT_FALSE(file_exists(elsewhere.file("target"))) << "a link under the name is replaced, not followed";
  struct stat status;
  ASSERT_EQ(lstat(server.cached.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, S_IFREG | 0640u) << "others play it, too";

  EXPECT_EQ(ring_of(server.url, nullptr, 10), "1 -1 " + server.cached.substr(0, 9));
  EXPECT_EQ(ring_of(server.url, nullptr, 0), "1 -1 -");
}

TEST_F(ringtone, downloads_are_judged) {
  set_option(DL_OPT_MAX_FILE_SIZE, 204800u);
  const std::string good = make_wave(2000);
  const auto with = [&](std::size_t at, char byte) {
    return sized(std::string(good).replace(at, 1, 1, byte));
  };
  const auto begun = [&](std::size_t sent, const step& then) {
    connection_script script = answer("Content-Length: 2000", good.substr(0, sent));
    script.push_back(then);
    return script;
  };
  const auto chunked = [](const std::string& hex_size, uint32_t size) {
    return answer("Content-Length: 1\r\nTransfer-Encoding: chunked",
                  hex_size + "\r\n" + make_wave(size) + "\r\n0\r\n\r\n");
  };
  struct {
    const char* name;
    connection_script script;
    const char* line;  // "": it is taken
  } const rows[] = {
      // clang-format off
      {"the headers alone", sized(make_wave(46)), ""},
      {"the longest", sized(make_wave(204800)), ""},
      {"the longest in chunks", chunked("32000", 204800), ""},
      {"a length that is no number", answer("Content-Length: many", make_wave(600)), ""},
      {"one byte too long", answer("Content-Length: 204801", good), "File size exceeded"},
      {"one byte too long in chunks", chunked("32001", 204801), "File size exceeded"},
      {"not WAVE", with(8, 'w'), "Wrong Wave Format"},
      {"a-law", with(20, 6), "Wrong Wave Format"},
      {"blocks of 257", with(33, 1), "Wrong Wave Format"},
      {"33 bytes", sized(good.substr(0, 33)), "Wrong Wave Format"},
      {"empty", sized(""), "Wrong Wave Format"},
      {"body never starts", begun(0, stall()), "read error"},
      {"stalls in the middle", begun(1500, stall()), "Down load Error"},
      {"chunks without the last", answer("Transfer-Encoding: chunked", "7d0\r\n" + good + "\r\n"), "Down load Error"},
      {"closes in the middle", begun(1500, hang_up()), "Down load Error"},
      {"not found", {expect_until("\r\n\r\n"), send("HTTP/1.1 404 Gone\r\n\r\n")}, "http open error, code:404"},
      // clang-format on
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    ring_server server(row.script);
    log_.clear();
    const bool taken = !*row.line;
    EXPECT_EQ(ring_of(server.url, "ringtone-8"), taken ? "1 -1 " + server.cached : "1 8 -") << log_.all();
    EXPECT_EQ(server.num_left(), taken);
    EXPECT_TRUE(taken || log_.messages(DL_LOG_ERROR).back().starts_with(row.line)) << log_.all();
    server.peer.problems();  // a body that is refused is not read to its end
  }
}

TEST_F(ringtone, no_room_and_no_length) {
  ring_server taken(sized(make_wave(600)));
  std::filesystem::create_directory(taken.cached);
  EXPECT_EQ(ring_of(taken.url, nullptr), "0 -1 -");
  EXPECT_EQ(log_.messages(DL_LOG_ERROR).back(), "can't write file:" + taken.cached);
  EXPECT_EQ(taken.num_left(), 1) << "the directory";

  ring_server unsized(answer("Connection: close", make_wave(600)));
  EXPECT_EQ(ring_of(unsized.url, nullptr), "0 -1 -") << "the limit for all files stands for the length";
  EXPECT_EQ(log_.messages(DL_LOG_ERROR).back(), "File size exceeded");
}

}  // namespace
}  // namespace test
