// http_headers.cpp: status lines, lengths and chunk sizes as bytes, and the header block while it grows.
#include "http/http_headers.h"

#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "http/http_read.h"

namespace {

using namespace fetchrig;
using std::nullopt;

// clang-format off
TEST(http_headers, status_line) {
  const std::pair<std::string, std::optional<int>> cases[] = {
      {"HTTP/1.1 200 OK", 200}, {"HTTP/1.0 404", 404}, {"HTTP/1.99 302 Found", 302}, {"HTTP/1.1   7", 7},
      {"HTTP/1.1 2000", 200}, {"HTTP/1.1 20x", 20}, {"HTTP/1.1 +12", 12}, {"HTTP/1.1 -1234", -12},
      {"HTTP/1.1\t200", 200}, {std::string("HTTP/1.1 2\0" "00", 13), 2},
      {"HTTP/1.1 -", nullopt}, {"HTTP/1.1 ", nullopt}, {"HTTP/1.1", nullopt}, {"HTTP/1.1 abc", nullopt},
      {"HTTP/1. 200", nullopt}, {"HTTP/2 200", nullopt}, {"http/1.1 2", nullopt}, {" HTTP/1.1 2", nullopt}};
  for (const auto& [line, status] : cases) EXPECT_EQ(status, parse_status_line(line)) << line;
}

TEST(http_headers, content_length) {
  const std::pair<std::string, std::optional<uint32_t>> cases[] = {
      {":10", 10u}, {":  \t 7 ", 7u}, {": 0x10", 0u}, {": 12abc", 12u}, {": 4294967295", 4294967295u},
      {": 4294967296", nullopt}, {": 99999999999999999999999", nullopt}, {": -1", nullopt}, {": ", nullopt},
      {":", nullopt}, {": ten", nullopt}, {"", nullopt}};
  for (const auto& [value, length] : cases)
    EXPECT_EQ(length, parse_content_length(("content-length" + value).c_str())) << value;
}

TEST(http_headers, chunk_size) {
  const std::pair<const char*, uint64_t> cases[] = {
      {"1a;ext=1", 26}, {"", 0}, {"FFff", 65535}, {"  10", 16}, {"g", 0}, {"00000000000000a", 10}, {"-5", 0},
      {"fffffffe", 0xfffffffe}, {"ffffffff", UINT32_MAX}, {"100000000", UINT32_MAX},
      {"fffffffffffffffffffffffffff", UINT32_MAX}};
  for (const auto& [line, size] : cases) EXPECT_EQ(size, parse_chunk_size(line)) << line;
}
// clang-format on

TEST(http_headers, value_and_lookup) {
  EXPECT_STREQ("x", header_value("location: x", 8));
  EXPECT_STREQ("", header_value("location:", 8));
  EXPECT_STREQ("", header_value("location: ", 8));
  EXPECT_STREQ("tp", header_value("location:htp", 8));
  const char block[] = "ab: 1\0a: 2\0A: 3\0";
  EXPECT_STREQ("a: 2", http_find_header(block, "a"));
  EXPECT_STREQ("ab: 1", http_find_header(block, "ab"));
  EXPECT_EQ(nullptr, http_find_header(block, "b"));
  EXPECT_EQ(nullptr, http_find_header("", "a"));
  EXPECT_EQ(nullptr, http_find_header(nullptr, "a"));
}

void take(header_block& block, const std::string& line) {
  const auto room = block.room();
  ASSERT_LE(line.size() + 1, room.size());
  memcpy(room.data(), line.data(), line.size());
  block.take_line(line.size());
}

TEST(http_headers, block_keeps_lines_and_grows_to_256_kib) {
  header_block block;
  ASSERT_TRUE(block.start(1024));
  take(block, "X-Mixed-CASE: Value: Kept");
  take(block, std::string("Nul\0Name: a\0b", 13));
  take(block, "NoColonAtAll");
  EXPECT_STREQ("x-mixed-case: Value: Kept", block.get());
  EXPECT_STREQ("nul name: a b", http_find_header(block.get(), "nul name"));
  EXPECT_EQ(26u + 14u + 13u, block.used());
  const std::string line(250, 'v');
  while (block.size() == 1024) take(block, line);
  // It grew when fewer than 256 bytes were left, and kept what it held.
  EXPECT_EQ(2048u, block.size());
  EXPECT_STREQ("x-mixed-case: Value: Kept", block.get());
  while (!block.room().empty()) {
    EXPECT_GE(block.room().size(), 256u);
    take(block, line);
  }
  EXPECT_EQ(256u * 1024, block.size());
  EXPECT_GT(block.used(), 256u * 1024 - 512);
}

}  // namespace
