// http_challenge.cpp and http_answer.cpp: what the exported calls take beyond what a server can send: folded and long
// lines, a proxy's side, a count that goes on. All else is told by scenarios.
#include "http/http_auth.h"

#include <gtest/gtest.h>

#include "core/owners.h"
#include "core/text.h"
#include "include/fetchrig_openssl.h"

namespace {

using namespace fetchrig;
using std::string;

// What a call returned and what is known of the challenge then.
string record_of(int result, const auth_side& side) {
  const digest_challenge& c = side.challenge;
  string all = std::to_string(result) + " " + std::to_string(side.picked);
  for (const char* text : {c.nonce, c.realm, c.qop, c.cnonce}) all += text ? string(" ") + text : "";
  return all + (c.session ? " session" : "") + (c.stale ? " stale" : "") + string(c.nc, '+');
}

TEST(http_auth, challenges) {
  const string value = string(1023, 'v');
  const std::pair<string, string> rows[] = {
      {"Digest\r\n nonce=n\r\n,\r\n\trealm=\"r\"", "4 2 n r"},
      {"Digest realm=\"" + value + "\",nonce=n", "4 2 n " + value},
      {"Digest realm=" + value + ",nonce=n", "4 2 n " + value},
      {"Digest realm=\"" + value + "w\",nonce=n", "1 2 " + value},  // what is left runs into the next name
  };
  for (const auto& [header, left] : rows) {
    auth_work work;
    const int rc = Curl_input_auth(&work, 1, header.c_str());
    EXPECT_EQ(record_of(rc, side_of(work, 1)), left);
    EXPECT_EQ(record_of(0, side_of(work, 0)), "0 0") << "the other side is untouched";
    EXPECT_EQ(Curl_output_auth(&work, 0, "PUT", "/x"), HTTP_ANSWER_SCHEME);
  }
}

TEST(http_auth, qop_lists_without_quotes_are_gathered) {
  const string most = "x," + string(1012, 'p');  // room for "auth-int" and a terminator is left of 1024
  // clang-format off
  const std::tuple<string, const char*, string> rows[] = {  // parameters, first item, gathered
      {"qop=auth\r\nrealm=x", "auth", "auth"}, {"qop=\"auth\",auth-int,realm=x", "auth", "auth"}, {"", "auth", "auth"},
      {"qop=" + most + ",auth-int,r=r", "x", most + ",auth-int"}, {"qop=" + most + "p,auth-int,r=r", "x", most + "p"}};
  // clang-format on
  for (const auto& [parameters, first, gathered] : rows) {
    char value[1024];
    copy_text(value, first);
    get_all_qop_content(parameters.c_str(), 3, value);
    EXPECT_EQ(value, gathered) << parameters;
  }
}

// The worked example of RFC 2617, section 3.5, to a proxy, and the same again.
TEST(http_auth, answers_to_a_proxy_count_on) {
  auth_work work;
  work.proxy_user = "Mufasa";
  work.proxy_password = "Circle Of Life";
  const string asked = R"(realm="testrealm@host.com", nonce="dcd98b7102dd2f0e8b11d0f600bfb0c093")";
  const string opaque = R"(, opaque="5ccc069c403ebaf9f0171e9517f40e41")";
  const auth_side side = side_of(work, 1);
  ASSERT_EQ(Curl_input_auth(&work, 1, ("Digest " + asked + ", qop=\"auth,auth-int\"" + opaque).c_str()),
            HTTP_CHALLENGE_FINE);
  side.challenge.cnonce = duplicate_text("0a4f113b").release();
  const std::pair<const char*, const char*> answers[] = {{"00000001", "6629fae49393a05397450978507c4ef1"},
                                                         {"00000002", "15b6bb427e3fecd23a43cb702ce447d5"}};
  for (const auto& [nc, response] : answers) {
    const auto answer = side.answer ? Curl_output_digest : Curl_output_auth;
    ASSERT_EQ(answer(&work, 1, "GET", "/dir/index.html"), HTTP_ANSWER_OK);
    EXPECT_EQ(side.answer, R"(Proxy-Authorization: Digest username="Mufasa", )" + asked +
                               R"(, uri="/dir/index.html", cnonce="0a4f113b", nc=)" + nc +
                               R"(, qop="auth", response=")" + response + "\"" + opaque + "\r\n");
  }
  Curl_digest_cleanup_one(&side.challenge);
  EXPECT_EQ(record_of(0, side), "0 2") << "all is released";
}

}  // namespace
