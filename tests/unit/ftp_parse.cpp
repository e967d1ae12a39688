// ftp_parse.cpp: reply lines, passive-mode answers and sizes.
#include "ftp/ftp_parse.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace {

using namespace fetchrig;
using namespace std::string_view_literals;

// clang-format off
TEST(ftp_reply_code, needs_three_digits_and_a_space) {
  const struct { std::string_view line; std::optional<int> code; } rows[] = {
      {"220 ready", 220}, {"220 ", 220}, {"000 odd", 0}, {"220 \0"sv, 220},
      {"220-more", {}}, {"220", {}}, {"22 ready", {}}, {"+20 ready", {}}, {" 220 ready", {}}, {"2200 ready", {}},
      {"", {}}, {"2x0 ready", {}}, {"220\tready", {}}, {"220\0ok"sv, {}},
  };
  for (const auto& row : rows) EXPECT_EQ(ftp_reply_code(row.line), row.code) << row.line;
}

TEST(ftp_parenthesised, takes_the_first_pair_in_order) {
  const struct { std::string_view line; std::optional<std::string_view> text; } rows[] = {
      {"229 ok (|||6446|) (x)", "|||6446|"}, {"229 ()", ""}, {"227 ((1)", "(1"}, {"227 \0(1)"sv, "1"},
      {"227 1,2", {}}, {"227 (1,2", {}}, {"227 1,2)", {}}, {"227 )1,2(", {}}, {"227 ) (1,2)", {}}, {"", {}},
  };
  for (const auto& row : rows) EXPECT_EQ(ftp_parenthesised(row.line), row.text) << row.line;
}

TEST(ftp_epsv_port, is_the_first_number_after_something_else) {
  const struct { std::string_view text; std::optional<uint16_t> port; } rows[] = {
      {"|||50000|", 50000}, {"!!!1!", 1}, {"|1|::1|21|", 1}, {"|||65535|", 65535}, {"|||00021|", 21}, {"||| 21x", 21},
      {"|||-21|", 21}, {"50000|||", 0}, {"|||", 0}, {"", 0}, {"|||0|", 0},
      {"|||65536|", {}}, {"|||4294967317|", {}}, {"|||18446744073709551637|", {}},
  };
  for (const auto& row : rows) EXPECT_EQ(ftp_epsv_port(row.text), row.port) << row.text;
}

TEST(ftp_pasv_endpoint, takes_six_bytes) {
  const struct { std::string_view text; int port; } good[] = {
      {"192,168,1,10,255,255", 65535}, {"192,168,1,10,195,80", 50000}, {"192,168,01,010,0,21", 21},
      {"192,168,1,10,4,5 ", 1029}, {"192,168,1,10,4x,5;", 1029},
  };
  for (const auto& row : good) {
    const auto found = ftp_pasv_endpoint(row.text);
    ASSERT_TRUE(found) << row.text;
    EXPECT_EQ(found->address, (std::array<uint8_t, 4>{192, 168, 1, 10})) << row.text;
    EXPECT_EQ(found->port, row.port) << row.text;
  }
  for (const std::string_view text : {
      ""sv, ",,,,,"sv, "1,2,3,4,5"sv, "1,2,3,4,5,6,7"sv, "256,0,0,1,4,5"sv, "127,0,0,1,256,5"sv, "127,0,0,1,4,256"sv,
      "127,0,0,1,4,"sv, "127,0,0,1,,5"sv, "127,0,0,1,x,5"sv, "127,0,0,1,-4,5"sv, "-127,0,0,1,4,5"sv, "127,0,0,,4,5"sv,
      "127,0, 0,1,4,5"sv, "127.0.0.1,4,5"sv, "127,0,0,1,4294967300,5"sv, "127,0,0,1,4,18446744073709551621"sv,
      "127,0,0\0,1,4,5"sv}) {
    EXPECT_FALSE(ftp_pasv_endpoint(text)) << text;
  }
}

TEST(ftp_size_answer, starts_after_the_code) {
  const struct { std::string_view line; std::optional<uint64_t> size; } rows[] = {
      {"213 0", 0u}, {"213 12 bytes", 12u}, {"213  7", 7u}, {"213 4294967296", 4294967296u},
      {"213 18446744073709551615", UINT64_MAX}, {"213 18446744073709551616", UINT64_MAX},
      {"213 99999999999999999999999999", UINT64_MAX},
      {"213 -1", {}}, {"213 +1", {}}, {"213 ", {}}, {"213", {}}, {"", {}}, {"213 big", {}}, {"213 \0005"sv, {}},
  };
  for (const auto& row : rows) EXPECT_EQ(ftp_size_answer(row.line), row.size) << row.line;
}
// clang-format on

}  // namespace
