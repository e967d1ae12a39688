// text.cpp, cursor.cpp and printable.cpp: the primitives that all parsers read untrusted bytes with.
#include "core/text.h"

#include <gtest/gtest.h>
#include <stdint.h>

#include <optional>
#include <string>
#include <string_view>

#include "core/cursor.h"
#include "log/printable.h"

namespace {

using namespace fetchrig;
using std::string_view;

TEST(numbers, are_whole_and_bounded) {
  const struct {
    const char* text;
    uint64_t max;
    std::optional<uint64_t> value;
  } rows[] = {
      {"0", 0, 0},
      {"", 9, {}},
      {"65535", 65535, 65535},
      {"65536", 65535, {}},
      {"000000000000000000000000000080", 65535, 80},
      {"8a", 99, {}},
      {" 8", 99, {}},
      {"+8", 99, {}},
      {"-8", 99, {}},
      {"18446744073709551615", UINT64_MAX, UINT64_MAX},
      {"18446744073709551616", UINT64_MAX, {}},
      {"99999999999999999999999", UINT64_MAX, {}},
      {"5", 4, {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(whole_number(row.text, row.max), row.value);
    cursor in(row.text);
    if (row.value) {
      EXPECT_EQ(in.number(row.max), row.value);
      EXPECT_TRUE(in.empty());
    }
  }
  string_view rest;
  EXPECT_EQ(leading_number("226 done", 999, &rest), 226U);
  EXPECT_EQ(rest, " done");
}

TEST(cursor, a_failed_read_consumes_nothing) {
  cursor in(string_view("\x01\x02name\0rest", 11));
  EXPECT_FALSE(in.take(12));
  EXPECT_FALSE(in.take(SIZE_MAX));
  EXPECT_FALSE(in.take_until('!'));
  EXPECT_FALSE(in.skip("\x01\x03"));
  EXPECT_FALSE(in.number(9));
  EXPECT_EQ(in.rest().size(), 11U);
  EXPECT_EQ(in.u16be(), 0x0102);
  EXPECT_EQ(in.terminated(), "name");
  EXPECT_FALSE(in.terminated()) << "no terminator is left";
  EXPECT_TRUE(in.skip("res"));
  EXPECT_FALSE(in.u16be()) << "one byte is left";
  EXPECT_EQ(in.take(1), "t");
  EXPECT_EQ(in.take(0), "");
  EXPECT_TRUE(in.empty());
}

TEST(text, white_space_case_and_names) {
  EXPECT_EQ(trim_white_space(" \t\r\n a b \n"), "a b");
  EXPECT_EQ(trim_white_space(" \t"), "");
  EXPECT_EQ(skip_white_space("\v x"), "\v x") << "vertical tabs are text";
  EXPECT_TRUE(equal_ignoring_case("Content-Length", "CONTENT-length"));
  EXPECT_FALSE(equal_ignoring_case("a", "ab"));
  EXPECT_TRUE(starts_ignoring_case("HTTP://h", "http://"));
  EXPECT_FALSE(starts_ignoring_case("http:/", "http://"));
  EXPECT_EQ(base_name("/a/b/c"), "c");
  EXPECT_EQ(base_name("c"), "c");
  EXPECT_EQ(base_name("a/"), "");
  EXPECT_TRUE(has_line_break("a\rb"));
  EXPECT_TRUE(has_line_break("a\n"));
  EXPECT_FALSE(has_line_break("a\tb"));
  EXPECT_EQ(or_empty(nullptr), "");
}

TEST(text, copies_are_cut_and_terminated) {
  char buffer[4] = {'#', '#', '#', '#'};
  EXPECT_TRUE(copy_text(buffer, "abc"));
  EXPECT_STREQ(buffer, "abc");
  EXPECT_FALSE(copy_text(buffer, "wxyz"));
  EXPECT_STREQ(buffer, "wxy");
  EXPECT_FALSE(copy_text({buffer, 1}, "q"));
  EXPECT_STREQ(buffer, "");
}

TEST(printable, hides_control_characters_and_cuts) {
  EXPECT_STREQ(printable("a\r\nb\tc\x1b[0m\x7f").c_str(), "a??b?c?[0m?");
  EXPECT_STREQ(printable("gr\xc3\xbc\xc3\x9f").c_str(), "gr\xc3\xbc\xc3\x9f");
  EXPECT_STREQ(printable(static_cast<const char*>(nullptr)).c_str(), "");
  EXPECT_STREQ(printable(string_view("a\0b", 3)).c_str(), "a?b");
  EXPECT_EQ(string_view(printable(std::string(1000, 'x')).c_str()), std::string(383, 'x'));
}

TEST(printable, hides_passwords_in_urls) {
  const struct {
    const char* url;
    const char* shown;
  } rows[] = {
      {"http://h/a?b", "http://h/a?b"},
      {"ftp://user:secret@h/x", "ftp://user:******@h/x"},
      {"ftp://user@h/x", "ftp://user@h/x"},
      {"ftp://user:se@cr:et@h:21/x", "ftp://user:******@h:21/x"},
      {"user:secret@h", "user:******@h"},
      {"http://h/a:b@c", "http://h/a:b@c"},
      {"http://h:80/", "http://h:80/"},
      {"ftp://user:\n@h", "ftp://user:******@h"},
      {"", ""},
  };
  for (const auto& row : rows) EXPECT_STREQ(printable_url(row.url).c_str(), row.shown);
}

}  // namespace
