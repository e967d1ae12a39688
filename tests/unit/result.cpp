// result.cpp: the texts of result codes and the ways a result record is filled.
#include "core/result.h"

#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>

#include <string>

namespace {

using namespace fetchrig;

TEST(result, every_code_has_its_text) {
  const struct {
    int32_t code;
    const char* text;
  } rows[] = {
      {-1, "Wrong host"},
      {-2, "Create Socket Error"},
      {-3, "Connect Failed"},
      {-4, "Send Error"},
      {-5, "Recv invalid data"},
      {-6, "Invalid Parameter"},
      {-7, "Out of memory"},
      {-8, "Read Error"},
      {-9, "Wrong URL"},
      {-10, "Wrong port"},
      {-11, "Auth Error"},
      {-12, "Redirect to many times"},
      {-13, "Ipv6 is disable"},
      {-14, "Config doesn't init"},
      {-15, "Unknown Error"},
      {-16, "Host is not a tftp server"},
      {-17, "Unknown Error"},
      {-20, "Unknown Error"},
      {0, "Unknown Error"},
      {200, "200 OK"},
      {201, "Resource create success"},
      {304, "Unknown Error"},
      {400, "Invaild query"},
      {403, "Forbidden"},
      {408, "request out of time"},
      {500, "Server error"},
      {501, "Server doesn't support method"},
      {INT32_MIN, "Unknown Error"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.code);
    char text[64];
    EXPECT_EQ(dl_get_error_string(row.code, text, sizeof text), static_cast<int>(strlen(row.text)));
    EXPECT_STREQ(text, row.text);
  }
}

TEST(result, text_is_cut_to_the_buffer_and_its_whole_length_returned) {
  char text[6] = "#####";
  EXPECT_EQ(dl_get_error_string(-1, text, 5), 10);
  EXPECT_EQ(memcmp(text, "Wron\0", 6), 0) << text;
  text[0] = '#';
  EXPECT_EQ(dl_get_error_string(-1, text, 0), 10);
  EXPECT_EQ(text[0], '#') << "a buffer of no bytes is left alone";
  EXPECT_EQ(dl_get_error_string(-1, nullptr, 5), 10);
}

TEST(result, records_are_filled) {
  dl_result result;
  memset(&result, 0x55, sizeof result);
  clear_result(result);
  EXPECT_EQ(result.code, 0);
  for (const char byte : result.message) EXPECT_EQ(byte, '\0');

  EXPECT_EQ(fail(&result, DL_ERR_URL), -1);
  EXPECT_EQ(result.code, -9);
  EXPECT_STREQ(result.message, "Wrong URL");
  EXPECT_EQ(fail_exceeded(&result, 2097152), -1);
  EXPECT_EQ(result.code, -8);
  EXPECT_STREQ(result.message, "exceed max size 2097152");

  const std::string line(400, 'x');
  EXPECT_EQ(fail_with_text(&result, DL_ERR_FTP_REPLY, line.c_str()), -1);
  EXPECT_EQ(result.code, -15);
  EXPECT_EQ(result.message, line.substr(0, 255));
  fail_with_text(&result, DL_ERR_FTP_REPLY, line.c_str(), 10);
  EXPECT_EQ(result.message, line.substr(0, 10));
  fail_with_text(&result, DL_ERR_FTP_REPLY, nullptr);
  EXPECT_STREQ(result.message, "");

  EXPECT_EQ(fail(nullptr, DL_ERR_URL), -1);
  EXPECT_EQ(fail_exceeded(nullptr, 1), -1);
  EXPECT_EQ(fail_with_text(nullptr, 1, "x"), -1);
}

}  // namespace
