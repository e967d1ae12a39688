// ftp_parse.cpp: reply lines, passive-mode answers and sizes.
#include "ftp/ftp_parse.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace {

using namespace fetchrig;
using namespace std::string_literals;

TEST(ftp_reply_code, needs_three_digits_and_a_space) {
  const struct {
    std::string_view line;
    std::optional<int> code;
  } rows[] = {
      {"220 ready", 220},
      {"220 ", 220},
      {"000 odd", 0},
      {"999 x", 999},
      {"220-more", {}},
      {"220", {}},
      {"22 ready", {}},
      {"+20 ready", {}},
      {" 220 ready", {}},
      {"2200 ready", {}},
      {"", {}},
      {"2x0 ready", {}},
      {"220\tready", {}},
      {{"220\0ok", 6}, {}},
      {{"2\00 ready", 9}, {}},
      {{"220 \0", 5}, 220},
  };
  for (const auto& row : rows) EXPECT_EQ(ftp_reply_code(row.line), row.code) << row.line;
}

TEST(ftp_parenthesised, takes_the_first_pair_in_order) {
  const struct {
    std::string_view line;
    std::optional<std::string_view> text;
  } rows[] = {
      {"227 Entering (1,2,3,4,5,6).", "1,2,3,4,5,6"},
      {"229 ok (|||6446|) (x)", "|||6446|"},
      {"229 ()", ""},
      {"227 1,2,3,4,5,6", {}},
      {"227 (1,2", {}},
      {"227 1,2)", {}},
      {"227 )1,2(", {}},
      {"227 ) (1,2)", {}},
      {"", {}},
      {"227 ((1)", "(1"},
      {{"227 \0(1)", 8}, "1"},
  };
  for (const auto& row : rows) EXPECT_EQ(ftp_parenthesised(row.line), row.text) << row.line;
}

TEST(ftp_epsv_port, is_the_first_number_after_something_else) {
  const struct {
    std::string_view text;
    std::optional<int> port;
  } rows[] = {
      {"|||50000|", 50000},
      {"|||6446|", 6446},
      {"!!!1!", 1},
      {"|1|::1|21|", 1},
      {"|||65535|", 65535},
      {"|||00021|", 21},
      {"||| 21x", 21},
      {"50000|||", 0},
      {"|||", 0},
      {"", 0},
      {"|||-21|", 21},
      {"|||0|", 0},
      {"|||65536|", {}},
      {"|||4294967317|", {}},
      {"|||18446744073709551637|", {}},
  };
  for (const auto& row : rows) {
    const auto port = ftp_epsv_port(row.text);
    EXPECT_EQ(port ? std::optional<int>(*port) : std::nullopt, row.port) << row.text;
  }
}

TEST(ftp_pasv_endpoint, takes_six_bytes) {
  const auto endpoint = ftp_pasv_endpoint("192,168,1,10,195,80");
  ASSERT_TRUE(endpoint);
  EXPECT_EQ(endpoint->address, (std::array<uint8_t, 4>{192, 168, 1, 10}));
  EXPECT_EQ(endpoint->port, 50000);

  const struct {
    std::string_view text;
    int port;
  } good[] = {{"127,0,0,1,255,255", 65535}, {"127,0,0,1,0,0", 0},     {"127,0,0,1,0,21", 21},
              {"127,000,00,1,01,002", 258}, {"127,0,0,1,4,5 ", 1029}, {"127,0,0,1,4x,5;", 1029}};
  for (const auto& row : good) {
    const auto found = ftp_pasv_endpoint(row.text);
    ASSERT_TRUE(found) << row.text;
    EXPECT_EQ(found->address, (std::array<uint8_t, 4>{127, 0, 0, 1})) << row.text;
    EXPECT_EQ(found->port, row.port) << row.text;
  }
}

TEST(ftp_pasv_endpoint, refuses_everything_else) {
  for (const std::string_view text : {"",
                                      ",",
                                      ",,,,,",
                                      "1",
                                      "1,2",
                                      "1,2,3,4,5",
                                      "1,2,3,4,5,6,7",
                                      "256,0,0,1,4,5",
                                      "127,0,0,999,4,5",
                                      "127,0,0,1,256,5",
                                      "127,0,0,1,4,256",
                                      "127,0,0,1,4,",
                                      "127,0,0,1,,5",
                                      "127,0,0,1,x,5",
                                      "127,0,0,1,-4,5",
                                      "-127,0,0,1,4,5",
                                      "127,0,0,,4,5",
                                      "127,0, 0,1,4,5",
                                      "127.0.0.1,4,5",
                                      "localhost,4,5",
                                      "127,0,0,1,4294967300,5",
                                      "127,0,0,1,4,18446744073709551621"}) {
    EXPECT_FALSE(ftp_pasv_endpoint(text)) << text;
  }
  const std::string whole = "127,0,0,1,40,5";
  for (std::size_t length = 0; length + 1 < whole.size(); ++length) {
    EXPECT_FALSE(ftp_pasv_endpoint(whole.substr(0, length))) << whole.substr(0, length);
  }
  EXPECT_FALSE(ftp_pasv_endpoint("127,0,0\0,1,4,5"s));
}

TEST(ftp_size_answer, starts_after_the_code) {
  const struct {
    std::string_view line;
    std::optional<uint64_t> size;
  } rows[] = {
      {"213 0", 0u},
      {"213 1000", 1000u},
      {"213 12 bytes", 12u},
      {"213  7", 7u},
      {"213 4294967296", 4294967296u},
      {"213 18446744073709551615", UINT64_MAX},
      {"213 18446744073709551616", UINT64_MAX},
      {"213 99999999999999999999999999", UINT64_MAX},
      {"213 -1", {}},
      {"213 +1", {}},
      {"213 ", {}},
      {"213", {}},
      {"", {}},
      {"213 big", {}},
      {{"213 \0005", 6}, {}},
  };
  for (const auto& row : rows) EXPECT_EQ(ftp_size_answer(row.line), row.size) << row.line;
}

}  // namespace
