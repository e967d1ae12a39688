// http_lines.cpp: lines of a response at the sizes where they fit, come in pieces or fail, read from a record
// without private state (the kernel's own peek) and from a session with its read-ahead.
#include <gtest/gtest.h>

#include "http/http_connection.h"
#include "tests/support/fed_socket.h"
#include "tests/support/log_capture.h"
#include "tests/support/options.h"

namespace {

using namespace fetchrig;
using test::fed_socket;

struct line_sizes {
  std::size_t initial, maximum, output;
};
constexpr line_sizes status_sizes = {256, 256, 128};
constexpr line_sizes header_sizes = {256, 512, 1024};
constexpr line_sizes last_room_sizes = {256, 512, 256};

std::string x(std::size_t count) {
  return std::string(count, 'x');
}
const std::string too_long = "(too long)";

struct line_row {
  const char* name;
  line_sizes sizes;
  std::string bytes;
  std::vector<std::string> lines;  // what successive calls return
  std::string rest = "rest";       // what is still in the stream then
};

// clang-format off
const line_row rows[] = {
    {"two and an empty one", header_sizes, "a: 1\r\nb\r\n\r\nrest", {"a: 1", "b", ""}},
    {"status line of 124", status_sizes, x(124) + "\r\nrest", {x(124)}},
    {"status line of 125", status_sizes, x(125) + "\r\nrest", {too_long}},
    {"status line of 254, its end outside", status_sizes, x(254) + "\r\nrest", {too_long}, "\nrest"},
    {"header of 252 in the last room", last_room_sizes, x(252) + "\r\nrest", {x(252)}},
    {"header of 253 in the last room", last_room_sizes, x(253) + "\r\nrest", {too_long}},
    {"header of 509, the longest whole one", header_sizes, x(509) + "\r\nrest", {x(509)}},
    {"header of 510, cut inside its end", header_sizes, x(510) + "\r\nb\r\nrest", {x(510) + "\r", "\nb"}},
    {"header of 511, its end alone", header_sizes, x(511) + "\r\nrest", {x(511), ""}},
    {"header of 1100", header_sizes, x(1100) + "\r\nrest", {x(511), x(511), x(78)}},
    {"end inside a line", header_sizes, "abc", {"abc", ""}, ""},
    {"end inside CRLF", header_sizes, "abc\r", {"abc\r", ""}, ""},
    {"end at a full buffer", header_sizes, x(511), {x(511), ""}, ""},
    {"bare CR and LF belong to the line", header_sizes, "a\rb\nc\r\r\nrest", {"a\rb\nc\r"}},
    {"NUL belongs to the line", header_sizes, std::string("a\0b\r\nrest", 9), {std::string("a\0b", 3)}},
};
// clang-format on

std::string call(http_channel& channel, const line_sizes& sizes) {
  std::string line(sizes.output, '#');
  const int length = http_read_line(channel, sizes.initial, sizes.maximum, line);
  if (length < 0) {
    EXPECT_EQ(DL_ERR_READ, length);
    return too_long;
  }
  EXPECT_EQ('\0', line[static_cast<std::size_t>(length)]);
  return line.substr(0, static_cast<std::size_t>(length));
}

std::string rest_of(http_channel& channel) {
  std::string rest;
  char byte = 0;
  while (http_recv(channel, {&byte, 1}) == 1) rest += byte;
  return rest;
}

class http_lines : public ::testing::Test {
 protected:
  void check(http_channel& channel, const line_row& row) {
    log_.clear();
    for (const std::string& expected : row.lines) EXPECT_EQ(expected, call(channel, row.sizes));
    if (row.lines.back() == too_long) {
      const std::string output = std::to_string(row.sizes.output);
      EXPECT_TRUE(log_.contains("HTTP", DL_LOG_ERROR, "Buffer not enough! buffer len " + output));
    } else {
      EXPECT_EQ(std::vector<std::string>{}, log_.messages());
    }
  }
  test::library library_;
  test::log_capture log_;
};

TEST_F(http_lines, sizes) {
  for (const auto& row : rows) {
    for (const std::size_t piece_len : {0u, 1u, 255u}) {
      SCOPED_TRACE(::testing::Message() << row.name << " " << piece_len);
      // With a line too long, how much was taken depends on the pieces.
      const bool known = row.lines.back() != too_long || piece_len == 0;
      fed_socket feed(row.bytes, piece_len);
      dl_http_session bare = {};
      bare.magic = DL_HTTP_MAGIC;
      bare.sock = feed.fd();
      http_channel at_socket(bare);
      check(at_socket, row);
      EXPECT_EQ(row.rest, known ? feed.rest() : row.rest);
      fed_socket second_feed(row.bytes, piece_len);
      const auto session = new_http_session();
      session->sock = second_feed.duplicate();
      http_channel ahead(*session);
      check(ahead, row);
      EXPECT_EQ(row.rest, known ? rest_of(ahead) : row.rest);
    }
  }
}

TEST_F(http_lines, dead_sockets_fail) {
  dl_http_session bare = {};
  bare.magic = DL_HTTP_MAGIC;
  bare.sock = 987;
  http_channel channel(bare);
  char byte = 0;
  EXPECT_EQ(too_long, call(channel, status_sizes));
  bare.flags = DL_HTTP_FLAG_TLS;
  EXPECT_EQ(too_long, call(channel, status_sizes));
  EXPECT_EQ(DL_ERR_READ, http_recv(channel, {&byte, 1}));
  EXPECT_EQ(-1, http_recv(channel, {}));
  const std::vector<std::string> logged = {"Select error! errno 9", "Peek error!", "Peek error!",
                                           "context ssl is null"};
  EXPECT_EQ(logged, log_.messages(DL_LOG_ERROR));
}

}  // namespace
