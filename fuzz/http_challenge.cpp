// A WWW-Authenticate value is parsed and answered. Whatever the server sent, the answer is one header line.
#include <stdint.h>
#include <string.h>

#include <string>
#include <string_view>

#include "fuzz/support/check.h"
#include "http/http_auth.h"
#include "include/fetchrig_openssl.h"

namespace {

void check_texts(const digest_challenge& challenge) {
  for (const char* text : {challenge.nonce, challenge.realm, challenge.opaque, challenge.algorithm}) {
    FUZZ_CHECK(!text || strlen(text) <= 1023);
  }
  const std::string_view qop = challenge.qop ? challenge.qop : "auth";
  FUZZ_CHECK(qop == "auth" || qop == "auth-int");
}

void check_answer(const char* answer) {
  FUZZ_CHECK(answer);
  const std::string_view line(answer);
  FUZZ_CHECK(line.starts_with("Authorization: "));
  FUZZ_CHECK(line.find_first_of("\r\n") == line.size() - 2 && line.ends_with("\r\n"));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string header(reinterpret_cast<const char*>(data), size);
  fetchrig::auth_work work;
  work.user = "user";
  work.password = "password";
  const int result = Curl_input_auth(&work, 0, header.c_str());
  check_texts(work.challenge);
  FUZZ_CHECK((result == HTTP_CHALLENGE_UNKNOWN) == (work.picked == 0));
  if (result != HTTP_CHALLENGE_FINE) return 0;
  FUZZ_CHECK(work.picked == fetchrig::auth_basic || work.challenge.nonce);
  const int answered = Curl_output_auth(&work, 0, "GET", "/path");
  if (answered == HTTP_ANSWER_OK) {
    check_answer(work.answer);
  } else {
    FUZZ_CHECK(answered == HTTP_ANSWER_SCHEME && header.find_first_of("\r\n") != std::string::npos);
  }
  return 0;
}
