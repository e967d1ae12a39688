// Ringtones: names without any network, and downloads from scripted servers that do well or go wrong
// half-way.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <set>

#include "include/fetchrig.h"
#include "tests/peers/tcp_peer.h"
#include "tests/support/descriptors.h"
#include "tests/support/log_capture.h"
#include "tests/support/options.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wave.h"

namespace test {
namespace {

struct ring {
  int rc = -2;
  int32_t number = -77;
  std::string path = std::string(64, '#');
};

ring find_ring(const char* alert, const char* name, uint32_t path_size = 64) {
  ring found;
  found.rc = dl_distinctive_ringtone_download(alert, name, &found.number, found.path.data(), path_size);
  found.path.resize(found.path.find('\0') == std::string::npos ? found.path.size() : found.path.find('\0'));
  return found;
}

const std::string untouched(64, '#');

// Everything in /tmp that belongs to the cache name of the URL.
std::set<std::string> cached_names(const std::string& url) {
  std::set<std::string> names;
  for (const std::string& name : names_in("/tmp")) {
    if (name.starts_with(md5_hex(url))) names.insert(name);
  }
  return names;
}

class ringtone : public leak_free {
 protected:
  ~ringtone() override {
    for (const std::string& url : urls_) {
      for (const std::string& name : cached_names(url)) std::filesystem::remove("/tmp/" + name);
    }
  }

  // The address of the peer under a name that is not 127.0.0.1; its cache is removed at the end.
  std::string url_of(const tcp_peer& peer) {
    urls_.push_back("http://localhost:" + std::to_string(peer.port()) + "/ring.wav");
    return urls_.back();
  }

  library library_;
  log_capture log_;

 private:
  std::vector<std::string> urls_;
};

connection_script answer(const std::string& headers, const std::string& body) {
  return {expect_until("\r\n\r\n"), send("HTTP/1.1 200 OK\r\n" + headers + "\r\n" + body)};
}

std::string length_header(std::size_t length) {
  return "Content-Length: " + std::to_string(length) + "\r\n";
}

TEST_F(ringtone, NamesWithoutNetwork) {
  set_ring(3, 41, "Boss Calling");
  set_ring(5, 42, "boss calling");
  set_ring(9, 43, "http://127.0.0.1/special");
  struct {
    const char* name;
    const char* alert;
    const char* ring_name;
    int rc;
    int32_t number;
  } const cases[] = {
      {"prefix and number", "Bellcore-dr3", "", 1, 3},
      {"other letter case", "BELLCORE-DR12", nullptr, 1, 12},
      {"first prefix", "ringtone-7", nullptr, 1, 7},
      {"text after the number", "MyMelody5 and more", nullptr, 1, 5},
      {"no digits", "MyMelody", nullptr, 1, -1},
      {"a sign is no digit", "ringtone--4", nullptr, 1, -1},
      {"number beyond 31 bits", "ringtone-99999999999", nullptr, 1, -1},
      {"prefix within the text", "a ringtone-4", nullptr, 0, -1},
      {"the ring name wins over a name", "Bellcore-dr3", "MyMelody4", 1, 4},
      {"and is not helped by it", "Bellcore-dr3", "unknown", 0, -1},
      {"no alert", nullptr, "ringtone-2", 1, 2},
      {"empty alert", "", "ringtone-2", 1, 2},
      {"nothing", nullptr, nullptr, 0, -1},
      {"empty texts", "", "", 0, -1},
      {"entry in other letter case, lowest slot", "BOSS CALLING", nullptr, 1, 41},
      {"part of an entry", "Boss", nullptr, 0, -1},
      {"loopback URL: the ring name decides", "http://127.0.0.1/x.wav", "ringtone-6", 1, 6},
      {"loopback URL, not the URL's own text", "http://127.0.0.1/special", nullptr, 0, -1},
      {"placeholder", "https://RingTone.Invalid/x", "boss calling", 1, 41},
      {"refused URL is a name", "ftp://host/x", nullptr, 0, -1},
      {"refused URL, ring name", "http://user@host/x", "MyMelody1", 1, 1},
  };
  for (const auto& row : cases) {
    const ring found = find_ring(row.alert, row.ring_name);
    EXPECT_EQ(found.rc, row.rc) << row.name;
    EXPECT_EQ(found.number, row.number) << row.name;
    EXPECT_EQ(found.path, untouched) << row.name;
  }
}

TEST_F(ringtone, PlacesForTheAnswerAreNeeded) {
  int32_t number = 5;
  char path[64];
  EXPECT_EQ(dl_distinctive_ringtone_download("ringtone-1", nullptr, &number, nullptr, 64), 0);
  EXPECT_EQ(number, 5);
  EXPECT_EQ(dl_distinctive_ringtone_download("ringtone-1", nullptr, nullptr, path, 64), 0);
  EXPECT_EQ(log_.messages(DL_LOG_ERROR),
            std::vector<std::string>(2, "Invalid Parameter, Try to use default ringtone"));
}

TEST_F(ringtone, DownloadedOnceThenTakenFromTheCache) {
  const std::string wave = make_wave(5000);
  tcp_peer peer({answer(length_header(wave.size()), wave)});
  const std::string url = url_of(peer);
  const ring first = find_ring(url.c_str(), "ringtone-1");
  EXPECT_EQ(first.rc, 1);
  EXPECT_EQ(first.number, -1);
  EXPECT_EQ(first.path, "/tmp/" + md5_hex(url) + ".wav");
  EXPECT_EQ(read_file(first.path), wave);
  struct stat status;
  ASSERT_EQ(stat(first.path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);

  const ring again = find_ring(url.c_str(), nullptr);  // the script has no second connection
  EXPECT_EQ(again.rc, 1);
  EXPECT_EQ(again.path, first.path);
  EXPECT_TRUE(peer.finish());
  EXPECT_EQ(peer.num_connections(), 1u);
  EXPECT_TRUE(peer.received(0).starts_with("GET /ring.wav HTTP/1."));
  EXPECT_EQ(cached_names(url).size(), 1u);

  EXPECT_EQ(find_ring(url.c_str(), nullptr, 10).path, first.path.substr(0, 9));
  EXPECT_EQ(find_ring(url.c_str(), nullptr, 0).path, untouched);
}

TEST_F(ringtone, UnsuitableOrFailedDownloadsLeaveNothing) {
  const std::string good = make_wave(2000);
  std::string not_wave = good;
  not_wave[8] = 'w';
  const std::string most = "HTTP/1.1 200 OK\r\nContent-Length: 2000\r\n\r\n" + good.substr(0, 1500);
  const struct {
    const char* name;
    connection_script script;
    const char* line;
  } cases[] = {
      {"pcm", answer(length_header(2000), make_wave(2000, {1, 1, 8000, 16000, 2, 16})), "Wrong Wave Format"},
      {"a-law", answer(length_header(2000), make_wave(2000, {.code = 6})), "Wrong Wave Format"},
      {"stereo", answer(length_header(2000), make_wave(2000, {.channels = 2})), "Wrong Wave Format"},
      {"16 kHz", answer(length_header(2000), make_wave(2000, {.samples_per_s = 16000})), "Wrong Wave Format"},
      {"block of 2", answer(length_header(2000), make_wave(2000, {.block = 2})), "Wrong Wave Format"},
      {"not WAVE", answer(length_header(2000), not_wave), "Wrong Wave Format"},
      {"33 bytes", answer(length_header(33), good.substr(0, 33)), "Wrong Wave Format"},
      {"empty", answer(length_header(0), ""), "Wrong Wave Format"},
      {"one byte too long", answer(length_header(204801), good), "File size exceeded"},
      {"no length", answer("", good), "File size exceeded"},
      {"body never starts",
       {expect_until("\r\n\r\n"), send("HTTP/1.1 200 OK\r\nContent-Length: 2000\r\n\r\n"), stall()},
       "read error"},
      {"stalls in the middle", {expect_until("\r\n\r\n"), send(most), stall()}, "Down load Error"},
      {"closes in the middle", {expect_until("\r\n\r\n"), send(most), hang_up()}, "Down load Error"},
      {"not found",
       {expect_until("\r\n\r\n"), send("HTTP/1.1 404 Gone\r\nContent-Length: 0\r\n\r\n")},
       "http open error, code:404"},
  };
  for (const auto& row : cases) {
    tcp_peer peer({row.script});
    const std::string url = url_of(peer);
    log_.clear();
    const ring found = find_ring(url.c_str(), "ringtone-8");
    EXPECT_EQ(found.rc, 1) << row.name;
    EXPECT_EQ(found.number, 8) << row.name;
    EXPECT_EQ(found.path, untouched) << row.name;
    EXPECT_TRUE(log_.messages(DL_LOG_ERROR).back().starts_with(row.line)) << row.name << "\n" << log_.all();
    EXPECT_TRUE(cached_names(url).empty()) << row.name;
  }
}

TEST_F(ringtone, BodyWithoutALengthIsHeldToTheLimitToo) {
  set_option(DL_OPT_MAX_FILE_SIZE, 204800u);
  const auto chunked = [](uint32_t size) {
    char chunk[32];
    snprintf(chunk, sizeof chunk, "%x\r\n", size);
    return answer("Transfer-Encoding: chunked\r\n", chunk + make_wave(size) + "\r\n0\r\n\r\n");
  };
  const struct {
    const char* name;
    connection_script script;
    bool taken;
  } cases[] = {
      {"chunked, the most", chunked(204800), true},
      {"chunked, too much", chunked(204801), false},
      {"to the end of the connection", answer("", make_wave(600)), true},
      {"a length that is no number", answer("Content-Length: many\r\n", make_wave(600)), true},
  };
  for (const auto& row : cases) {
    tcp_peer peer({row.script});
    const std::string url = url_of(peer);
    EXPECT_EQ(find_ring(url.c_str(), nullptr).rc, row.taken ? 1 : 0) << row.name << "\n" << log_.all();
    EXPECT_EQ(cached_names(url).size(), row.taken ? 1u : 0u) << row.name;
    peer.problems();  // a body that is refused is not read to its end
  }
}

TEST_F(ringtone, LinkUnderTheCacheNameIsReplacedNotFollowed) {
  const std::string wave = make_wave(600);
  tcp_peer peer({answer(length_header(wave.size()), wave)});
  const std::string url = url_of(peer);
  const temp_dir elsewhere;
  const std::string name = "/tmp/" + md5_hex(url) + ".wav";
  std::filesystem::create_symlink(elsewhere.file("target"), name);
  EXPECT_EQ(find_ring(url.c_str(), nullptr).rc, 1);
  EXPECT_FALSE(file_exists(elsewhere.file("target")));
  EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(name)));
}

TEST_F(ringtone, CacheNameThatIsTakenByADirectory) {
  const std::string wave = make_wave(600);
  tcp_peer peer({answer(length_header(wave.size()), wave)});
  const std::string url = url_of(peer);
  const std::string name = "/tmp/" + md5_hex(url) + ".wav";
  std::filesystem::create_directory(name);
  EXPECT_EQ(find_ring(url.c_str(), nullptr).rc, 0);
  EXPECT_EQ(cached_names(url), std::set<std::string>{md5_hex(url) + ".wav"});
}

}  // namespace
}  // namespace test
