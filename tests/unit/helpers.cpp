// helpers.cpp: the exported stand-ins for standard functions.
#include <gtest/gtest.h>
#include <stdint.h>
#include <stdio.h>

#include <string>
#include <vector>

#include "core/owners.h"
#include "core/text.h"
#include "include/fetchrig_openssl.h"

namespace {

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
TEST(base64, encodes_and_decodes_the_standard_examples) {
  const std::pair<const char*, const char*> rows[] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foobar", "Zm9vYmFy"}, {"\xfb\xff\xfe", "+//+"}};
  for (const auto& [plain, text] : rows) {
    EXPECT_EQ(encoded(plain), text);
    unsigned char* bytes = nullptr;
    const size_t size = Curl_base64_decode(text, &bytes);
    const unique_malloc<unsigned char> owner(bytes);
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(bytes), size), plain);
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

TEST(md5, digests_of_rfc_1321) {
  const struct {
    const char* text;
    const char* digest;
  } rows[] = {{nullptr, "d41d8cd98f00b204e9800998ecf8427e"}, {"abc", "900150983cd24fb0d6963f7d28e17f72"}};
  for (const auto& row : rows) {
    unsigned char digest[16] = {};
    Curl_md5it(digest, reinterpret_cast<const unsigned char*>(row.text));
    EXPECT_EQ(fetchrig::to_hex(digest), row.digest);
  }
}

TEST(formatting, buffers_texts_and_streams) {
  char buffer[8];
  EXPECT_EQ(curl_msprintf(buffer, "%d-%s", 7, "abc"), 5);
  EXPECT_STREQ(buffer, "7-abc");
  EXPECT_EQ(curl_msnprintf(buffer, sizeof buffer, "%s", "0123456789"), 10) << "the length of the whole text";
  EXPECT_STREQ(buffer, "0123456");
  EXPECT_EQ(curl_msnprintf(nullptr, 0, "%08x", 255U), 8);
  const unique_text text(curl_maprintf("%s=%06ld", "time", 42L));
  EXPECT_STREQ(text.get(), "time=000042");
  testing::internal::CaptureStdout();
  EXPECT_EQ(curl_mprintf("%s\n", "line"), 5);
  EXPECT_EQ(curl_mfprintf(stdout, "%c%u", 'x', 12U), 3);
  fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "line\nx12");
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
