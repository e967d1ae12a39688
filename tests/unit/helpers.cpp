// helpers.cpp: the exported stand-ins for standard functions.
#include <gtest/gtest.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "core/owners.h"
#include "core/text.h"
#include "include/fetchrig_openssl.h"

namespace {

using fetchrig::unique_file;
using fetchrig::unique_malloc;
using fetchrig::unique_text;

std::string encoded(const std::string& bytes) {
  char* text = nullptr;
  const size_t length = Curl_base64_encode(bytes.data(), bytes.size(), &text);
  const unique_text owner(text);
  EXPECT_NE(text, nullptr);
  const std::string copy(text ? text : "");
  EXPECT_EQ(copy.size(), length);
  return copy;
}

// RFC 4648, section 10, and bytes that use both special symbols.
struct base64_row {
  const char* bytes;
  const char* text;
};
constexpr base64_row base64_rows[] = {
    {"", ""},
    {"f", "Zg=="},
    {"fo", "Zm8="},
    {"foo", "Zm9v"},
    {"foob", "Zm9vYg=="},
    {"fooba", "Zm9vYmE="},
    {"foobar", "Zm9vYmFy"},
    {"\xfb\xff\xfe", "+//+"},
    {"u:p", "dTpw"},
};

TEST(base64, encodes_and_decodes_the_standard_examples) {
  for (const auto& row : base64_rows) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(encoded(row.bytes), row.text);
    unsigned char* bytes = nullptr;
    const size_t size = Curl_base64_decode(row.text, &bytes);
    const unique_malloc<unsigned char> owner(bytes);
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(bytes), size), row.bytes);
    EXPECT_EQ(bytes[size], '\0');
  }
}

TEST(base64, refuses_what_is_no_base64) {
  for (const char* text : {"Z", "Zg", "Zg=", "Zg===", "====", "=", "Z===", "Zm=v", "Z=9v", "Zm9v\n", " Zm9v",
                           "Zm9-", "Zm9vZg==Zm9v"}) {
    SCOPED_TRACE(text);
    unsigned char* bytes = reinterpret_cast<unsigned char*>(&bytes);
    EXPECT_EQ(Curl_base64_decode(text, &bytes), 0U);
    EXPECT_EQ(bytes, nullptr);
  }
}

TEST(base64, long_input_survives_the_round_trip) {
  std::string bytes(7 * 1024 * 1024 + 1, '\0');
  uint32_t state = 1;
  for (char& byte : bytes) byte = static_cast<char>((state = state * 1664525U + 1013904223U) >> 24);
  const std::string text = encoded(bytes);
  unsigned char* decoded = nullptr;
  const size_t size = Curl_base64_decode(text.c_str(), &decoded);
  const unique_malloc<unsigned char> owner(decoded);
  ASSERT_NE(decoded, nullptr);
  EXPECT_TRUE(std::string(reinterpret_cast<char*>(decoded), size) == bytes);
}

TEST(base64, null_is_allowed) {
  EXPECT_EQ(Curl_base64_encode("x", 1, nullptr), 0U);
  EXPECT_EQ(Curl_base64_decode("Zg==", nullptr), 0U);
  unsigned char* bytes = nullptr;
  EXPECT_EQ(Curl_base64_decode(nullptr, &bytes), 0U);
  char* text = nullptr;
  EXPECT_EQ(Curl_base64_encode(nullptr, 5, &text), 0U);
  const unique_text owner(text);
  EXPECT_STREQ(text, "");
}

TEST(md5, digests_of_rfc_1321) {
  const struct {
    const char* text;
    const char* digest;
  } rows[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {nullptr, "d41d8cd98f00b204e9800998ecf8427e"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
  };
  for (const auto& row : rows) {
    unsigned char digest[16] = {};
    Curl_md5it(digest, reinterpret_cast<const unsigned char*>(row.text));
    EXPECT_EQ(fetchrig::to_hex(digest), row.digest);
  }
  Curl_md5it(nullptr, reinterpret_cast<const unsigned char*>("abc"));
}

TEST(formatting, buffers_and_new_texts) {
  char buffer[8];
  EXPECT_EQ(curl_msprintf(buffer, "%d-%s", 7, "abc"), 5);
  EXPECT_STREQ(buffer, "7-abc");
  EXPECT_EQ(curl_msnprintf(buffer, sizeof buffer, "%s", "0123456789"), 10) << "the length of the whole text";
  EXPECT_STREQ(buffer, "0123456");
  EXPECT_EQ(curl_msnprintf(nullptr, 0, "%08x", 255U), 8);
  const unique_text text(curl_maprintf("%s=%06ld", "time", 42L));
  EXPECT_STREQ(text.get(), "time=000042");
}

TEST(formatting, streams) {
  char* written = nullptr;
  size_t size = 0;
  {
    const unique_file stream(open_memstream(&written, &size));
    ASSERT_TRUE(stream);
    EXPECT_EQ(curl_mfprintf(stream.get(), "%c%u", 'x', 12U), 3);
  }
  const unique_text owner(written);
  EXPECT_STREQ(written, "x12");

  testing::internal::CaptureStdout();
  EXPECT_EQ(curl_mprintf("%s\n", "line"), 5);
  fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "line\n");
}

TEST(comparison, ignores_ascii_letter_case) {
  EXPECT_EQ(Curl_raw_equal("Digest", "dIGEST"), 1);
  EXPECT_EQ(Curl_raw_equal("Digest", "Digest "), 0);
  EXPECT_EQ(Curl_raw_equal("[", "{"), 0) << "32 apart, yet no letters";
  EXPECT_EQ(Curl_raw_equal("\xc4", "\xe4"), 0) << "not ASCII";
  EXPECT_EQ(Curl_raw_equal(nullptr, nullptr), 1);
  EXPECT_EQ(Curl_raw_equal(nullptr, ""), 0);
  EXPECT_EQ(Curl_raw_nequal("Basic realm", "basic", 5), 1);
  EXPECT_EQ(Curl_raw_nequal("Basi", "basic", 5), 0);
  EXPECT_EQ(Curl_raw_nequal("a", "b", 0), 1);
  EXPECT_EQ(Curl_raw_nequal("abc", "ABC", SIZE_MAX), 1) << "ends at the terminator";
}

TEST(tokens, are_split_like_strtok_r) {
  char text[] = ",,auth, auth-int,,x,";
  std::vector<std::string> tokens;
  char* rest = nullptr;
  for (char* token = Curl_strtok_r(text, ",", &rest); token; token = Curl_strtok_r(nullptr, ",", &rest)) {
    tokens.emplace_back(token);
  }
  EXPECT_EQ(tokens, (std::vector<std::string>{"auth", " auth-int", "x"}));
  char* none = nullptr;
  EXPECT_EQ(Curl_strtok_r(nullptr, ",", &none), nullptr);
}

}  // namespace
