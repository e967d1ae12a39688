// http_challenge.cpp, http_answer.cpp and http_auth.cpp: what a challenge leaves in the record, the lines
// that answer it, and what the record owns.
#include "http/http_auth.h"

#include <gtest/gtest.h>
#include <time.h>

#include "core/owners.h"
#include "core/text.h"
#include "include/fetchrig_openssl.h"

namespace {

using namespace fetchrig;
using std::string;

// What a call returned and what is known of the challenge then; texts that are absent are left out.
string record_of(int result, const auth_side& side) {
  const digest_challenge& c = side.challenge;
  string all = std::to_string(result) + " " + std::to_string(side.picked);
  // clang-format off
  const std::pair<const char*, const char*> texts[] = {{" nonce=", c.nonce}, {" realm=", c.realm}, {" qop=", c.qop},
      {" opaque=", c.opaque}, {" alg=", c.algorithm}, {" cnonce=", c.cnonce}};
  // clang-format on
  for (const auto& [name, text] : texts) all += text ? string(name) + text : "";
  return all + (c.session ? " session" : "") + (c.stale ? " stale" : "") + string(c.nc, '+');
}

string base64_of(const string& text) {
  char* encoded = nullptr;
  Curl_base64_encode(text.data(), text.size(), &encoded);
  return unique_text(encoded).get();
}

TEST(http_auth, challenges) {
  const string value = string(1023, 'v');
  const std::tuple<const char*, string, string> rows[] = {
      // clang-format off
      // Results: 0 no scheme, 1 no nonce, 2 unknown algorithm, 4 fine; picked: 1 basic, 2 digest.
      {"scheme word cut", "Diges", "0 0"},
      {"basic: any case, parameters are not read", " \t bASIC nonce=n", "4 1"},
      {"digest without nonce", "Digest realm=\"r\"", "1 2 realm=r"},
      {"no space after the scheme word", "digestnonce=\"n\"", "4 2 nonce=n"},
      {"all, in any case", R"(Digest NONCE="d",Realm="t@h", qop="auth,auth-int", opaque="5c", algorithm=MD5)",
       "4 2 nonce=d realm=t@h qop=auth opaque=5c alg=MD5"},
      {"without quotes: up to a comma", R"(Digest nonce=n,realm=a"b ,opaque=o)", "4 2 nonce=n realm=a\"b  opaque=o"},
      {"lines end values and fold", "Digest\r\n nonce=n\r\n,\r\n\trealm=\"r\"", "4 2 nonce=n realm=r"},
      {"comma and equals sign in quotes", R"(Digest realm="a,b=c", nonce="n")", "4 2 nonce=n realm=a,b=c"},
      {"closing quote missing", "Digest nonce=\"n", "4 2 nonce=n"},
      {"lone quote", "Digest nonce=\"", "4 2 nonce=\""},
      {"empty value ends the list", "Digest nonce=,realm=r", "1 2"},
      {"empty name ends the list", R"(Digest nonce="n", =x, realm="r")", "4 2 nonce=n"},
      {"word without = ends the list", "Digest nonce=\"n\", stale", "4 2 nonce=n"},
      {"comma missing; unknown name", R"(Digest nonce="n" domain="/a /b" realm=r)", "4 2 nonce=n realm=r"},
      {"the last of two", "Digest nonce=a, algorithm=MD5-sess, nonce=b, algorithm=md5", "4 2 nonce=b alg=md5"},
      {"stale", "Digest nonce=n, stale=TRUE", "4 2 nonce=n stale+"},
      {"not stale", "Digest nonce=n, stale=\"false\"", "4 2 nonce=n"},
      {"md5-sess", "Digest nonce=n, algorithm=\"MD5-SESS\"", "4 2 nonce=n alg=MD5-SESS session"},
      {"unknown algorithm ends the parse", "Digest algorithm=SHA-256, nonce=n", "2 2 alg=SHA-256"},
      {"auth wins, trimmed", "Digest nonce=n, qop=\"auth-int,\tAUTH \"", "4 2 nonce=n qop=auth"},
      {"unknown qop", "Digest qop=auth, qop=\"authority,auth-\", nonce=n", "4 2 nonce=n"},
      {"qop without quotes", "Digest qop=foo, auth-int , realm=r, nonce=n", "4 2 nonce=n realm=r qop=auth-int"},
      {"longest value", "Digest realm=\"" + value + "\",nonce=n", "4 2 nonce=n realm=" + value},
      {"longest value without quotes", "Digest realm=" + value + ",nonce=n", "4 2 nonce=n realm=" + value},
      {"cut: what is left runs into the next name", "Digest realm=\"" + value + "w\",nonce=n", "1 2 realm=" + value},
      {"longest name", "Digest " + string(255, 'x') + "=y,nonce=n", "4 2 nonce=n"},
      {"a longer name ends the list", "Digest " + string(256, 'x') + "=y,nonce=n", "1 2"},
      // clang-format on
  };
  for (const auto& [name, header, left] : rows) {
    for (const int proxy : {0, 1}) {
      SCOPED_TRACE(name);
      auth_work work;
      const int rc = Curl_input_auth(&work, proxy, header.c_str());
      EXPECT_EQ(record_of(rc, side_of(work, proxy)), left);
      EXPECT_EQ(record_of(0, side_of(work, !proxy)), "0 0") << "the other side is untouched";
    }
  }
}

TEST(http_auth, a_second_challenge_is_refused_unless_stale) {
  auth_work work;
  EXPECT_EQ(Curl_input_auth(&work, 0, "Digest nonce=a, realm=old"), HTTP_CHALLENGE_FINE);
  EXPECT_EQ(Curl_input_auth(&work, 0, "Digest nonce=b"), HTTP_CHALLENGE_BAD);
  const int rc = Curl_input_auth(&work, 0, "Digest nonce=c, stale=true");
  EXPECT_EQ(record_of(rc, side_of(work, 0)), "4 2 nonce=c stale+") << "nothing of the old ones";
}

TEST(http_auth, qop_lists_without_quotes_are_gathered) {
  const string most = "x," + string(1012, 'p');  // room for "auth-int" and a terminator is left of 1024
  // clang-format off
  const std::tuple<string, const char*, string> rows[] = {  // parameters, first item, gathered
      {"qop=auth,auth-int,realm=\"x\"", "auth", "auth,auth-int"}, {"qop=auth,auth-int", "auth", "auth,auth-int"},
      {"qop=auth,realm=x", "auth", "auth"}, {"qop=auth\r\nrealm=x", "auth", "auth"},
      {"qop=\"auth\",auth-int,realm=x", "auth", "auth"}, {"qop=a", "auth", "auth"}, {"", "auth", "auth"},
      {"qop=" + most + ",auth-int,r=r", "x", most + ",auth-int"}, {"qop=" + most + "p,auth-int,r=r", "x", most + "p"}};
  // clang-format on
  for (const auto& [parameters, first, gathered] : rows) {
    char value[1024];
    copy_text(value, first);
    get_all_qop_content(parameters.c_str(), 3, value);
    EXPECT_EQ(value, gathered) << parameters;
  }
}

// The worked example of RFC 2617, section 3.5, and variations of it whose digests were computed separately.
TEST(http_auth, digest_answers) {
  const string asked = R"(realm="testrealm@host.com", nonce="dcd98b7102dd2f0e8b11d0f600bfb0c093")";
  const string opaque = R"(, opaque="5ccc069c403ebaf9f0171e9517f40e41")";
  const string counted = R"(, cnonce="0a4f113b", nc=)";
  const struct {
    string more, head, digest, tail;  // the rest of the challenge; of the answer, from the path on
    uint32_t nc = 0, next_nc = 1;
    const char* method = "GET";
  } rows[] = {
      // clang-format off
      {", qop=\"auth,auth-int\"" + opaque, counted + "00000001, qop=\"auth\"", "6629fae49393a05397450978507c4ef1",
       opaque, 0, 2},
      {", qop=auth-int", counted + "00000001, qop=\"auth-int\"", "540d3fa09c3b00a60b56729a4a588b49", ""},
      {"", "", "670fd8c2df070c60b045671b8b24ff02", ""},
      {", qop=auth, algorithm=MD5-sess", counted + "00000001, qop=\"auth\"", "8e3825c57e897f5a0dec6c2d4e5059d0",
       ", algorithm=\"MD5-sess\"", 0, 2},
      {", algorithm=md5-SESS", "", "4726bc10c33fa6cb357eb27807b1cce8", ", algorithm=\"md5-SESS\""},
      {", qop=auth, opaque=\"\"", counted + "000000ff, qop=\"auth\"", "41e6c3bed10cc8e3c9768d6ec612476a",
       ", opaque=\"\"", 255, 256, "POST"},
      // clang-format on
  };
  for (const auto& row : rows) {
    for (const int proxy : {0, 1}) {
      SCOPED_TRACE(row.more);
      auth_work work;
      const auth_side side = side_of(work, proxy);
      (proxy ? work.proxy_user : work.user) = "Mufasa";
      (proxy ? work.proxy_password : work.password) = "Circle Of Life";
      ASSERT_EQ(Curl_input_auth(&work, proxy, ("Digest " + asked + row.more).c_str()), HTTP_CHALLENGE_FINE);
      side.challenge.cnonce = duplicate_text("0a4f113b").release();
      side.challenge.nc = row.nc;
      ASSERT_EQ(Curl_output_auth(&work, proxy, row.method, "/dir/index.html"), HTTP_ANSWER_OK);
      EXPECT_EQ(side.answer, string(proxy ? "Proxy-" : "") + R"(Authorization: Digest username="Mufasa", )" +
                                 asked + R"(, uri="/dir/index.html")" + row.head + ", response=\"" +
                                 row.digest + "\"" + row.tail + "\r\n");
      EXPECT_EQ(side.challenge.nc, row.next_nc);
      Curl_digest_cleanup_one(&side.challenge);
      EXPECT_EQ(record_of(0, side), "0 2") << "all is released";
    }
  }
}

TEST(http_auth, the_client_nonce_is_made_from_the_time) {
  auth_work work;
  ASSERT_EQ(Curl_input_auth(&work, 0, "Digest nonce=n, qop=auth"), HTTP_CHALLENGE_FINE);
  const auto now = [] { return base64_of(std::to_string(time(nullptr)).substr(0, 6)); };
  const string before = now();
  ASSERT_EQ(Curl_output_digest(&work, 0, "GET", "/"), HTTP_ANSWER_OK);
  EXPECT_TRUE(work.challenge.cnonce == before || work.challenge.cnonce == now()) << work.challenge.cnonce;
}

TEST(http_auth, answers) {
  const string long_user = string(600, 'a'), basic = "0 Authorization: Basic ";
  const struct {
    const char *name, *challenge, *user, *password;
    string answer;            // "RESULT LINE"; results: 0 fine, 2 no such answer, 27 no memory
    const char* path = "/x";  // none: the answer for XSI
  } rows[] = {
      // clang-format off
      {"RFC 7617", "Basic", "Aladdin", "open sesame", basic + "QWxhZGRpbjpvcGVuIHNlc2FtZQ==\r\n"},
      {"511 characters are encoded", "Basic", long_user.c_str(), "p", basic + base64_of(string(511, 'a')) + "\r\n"},
      {"digest of nothing", "Digest nonce=n", nullptr, nullptr, "0 Authorization: Digest username=\"\", realm=\"\", "
       "nonce=\"n\", uri=\"/x\", response=\"0c368917745de8e680add0992ffa0c95\"\r\n"},
      {"digest without nonce", "Digest", "u", "p", "0 (none)"},
      {"line break in the realm", "Digest nonce=n, realm=\"a\r\nX: y\"", "u", "p", "2 (none)"},
      {"in the nonce", "Digest nonce=\"n\nX: y\"", "u", "p", "2 (none)"},
      {"in opaque", "Digest nonce=n, opaque=\"\r\"", "u", "p", "2 (none)"},
      {"in the user", "Digest nonce=n", "u\r\nX: y", "p", "2 (none)"},
      {"in the path", "Digest nonce=n", "u", "p", "2 (none)", "/ HTTP/1.1\r\nX: y"},
      {"another scheme", "NTLM", "u", "p", "2 old"},
      {"xsi", "Basic", "user", "secret",
       "0 Authorization: BroadWorksSIP basic=\"c2VjcmV0\", sipUser=\"dXNlcg==\"\r\n", nullptr},
      {"xsi for digest", "Digest nonce=n", "user", "secret", "2 old", nullptr},
      {"xsi without a password", "Basic", "user", "", "27 old", nullptr},
      {"xsi without a user", "Basic", nullptr, "secret", "27 old", nullptr},
      // clang-format on
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    auth_work work;
    work.user = row.user;
    work.password = row.password;
    work.answer = duplicate_text("old").release();
    Curl_input_auth(&work, 0, row.challenge);
    const int rc = row.path ? Curl_output_auth(&work, 0, "PUT", row.path) : Curl_output_xsi_auth(&work);
    EXPECT_EQ(std::to_string(rc) + " " + (work.answer ? work.answer : "(none)"), row.answer);
    EXPECT_EQ(Curl_output_auth(&work, 1, "PUT", "/x"), HTTP_ANSWER_SCHEME) << "the proxy asked for nothing";
  }
}

}  // namespace
