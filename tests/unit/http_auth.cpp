// http_auth: the challenge parser and the three answer builders.
#include "http/http_auth.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <string>
#include <vector>

#include "core/owners.h"
#include "core/text.h"
#include "include/fetchrig_openssl.h"

namespace {

using fetchrig::auth_work;
using fetchrig::duplicate_text;

std::string text_of(const char* text) {
  return text ? text : "(none)";
}

// What a challenge leaves in the record; absent texts read "(none)".
struct challenge_row {
  const char* name;
  const char* header;
  int result;
  uint32_t picked;
  const char* nonce = "(none)";
  const char* realm = "(none)";
  const char* qop = "(none)";
  const char* opaque = "(none)";
  const char* algorithm = "(none)";
  int session = 0;
  int stale = 0;
};

const challenge_row challenge_rows[] = {
    {"nothing", "", 0, 0},
    {"other scheme", "NTLM", 0, 0},
    {"scheme word cut", "Diges", 0, 0},
    {"white space before the scheme", " \t Basic", 4, 1},
    {"basic, any case", "bASIC realm=\"x\"", 4, 1},
    {"basic parameters are not read", "Basic nonce=\"n\"", 4, 1},
    {"digest without parameters", "Digest", 1, 2},
    {"digest without nonce", "Digest realm=\"r\"", 1, 2, "(none)", "r"},
    {"digest in lower case", "digest nonce=\"n\"", 4, 2, "n"},
    {"no space after the scheme word", "Digestnonce=\"n\"", 4, 2, "n"},
    {"all parameters",
     "Digest realm=\"testrealm@host.com\", qop=\"auth,auth-int\", nonce=\"dcd9\", opaque=\"5ccc\", "
     "algorithm=MD5",
     4, 2, "dcd9", "testrealm@host.com", "auth", "5ccc", "MD5"},
    {"names in any case, no spaces", "Digest NONCE=\"n\",Realm=\"r\",OPAQUE=\"o\"", 4, 2, "n", "r", "(none)",
     "o"},
    {"empty quoted values", "Digest nonce=\"\", realm=\"\", opaque=\"o\"", 4, 2, "", "", "(none)", "o"},
    {"unquoted values end at a comma", "Digest nonce=n,realm=a b ,opaque=o", 4, 2, "n", "a b ", "(none)",
     "o"},
    {"unquoted value ends at a line end", "Digest nonce=n\r\n,realm=r", 4, 2, "n", "r"},
    {"line folding between parameters", "Digest\r\n nonce=\"n\",\r\n\trealm=\"r\"", 4, 2, "n", "r"},
    {"comma and equals sign inside quotes", "Digest realm=\"a,b=c\", nonce=\"n\"", 4, 2, "n", "a,b=c"},
    {"quote inside an unquoted value", "Digest realm=a\"b, nonce=\"n\"", 4, 2, "n", "a\"b"},
    {"space before the equals sign belongs to the name", "Digest realm =\"r\", nonce=\"n\"", 4, 2, "n"},
    {"space after the equals sign belongs to the value", "Digest nonce= \"n\"", 4, 2, " \"n\""},
    {"closing quote missing", "Digest nonce=\"n", 4, 2, "n"},
    {"lone quote", "Digest nonce=\"", 4, 2, "\""},
    {"empty unquoted value ends the list", "Digest nonce=,realm=\"r\"", 1, 2},
    {"name missing ends the list", "Digest nonce=\"n\", =\"x\", realm=\"r\"", 4, 2, "n"},
    {"two commas: the second starts the next name", "Digest nonce=\"n\",,realm=\"r\"", 4, 2, "n"},
    {"comma missing", "Digest nonce=\"n\" realm=\"r\"", 4, 2, "n", "r"},
    {"unknown parameters are skipped", "Digest domain=\"/a /b\", charset=utf-8, nonce=\"n\"", 4, 2, "n"},
    {"repeated parameter: the last counts", "Digest nonce=\"a\", nonce=\"b\"", 4, 2, "b"},
    {"a word without equals sign ends the list", "Digest nonce=\"n\", stale", 4, 2, "n"},

    {"stale", "Digest nonce=\"n\", stale=TRUE", 4, 2, "n", "(none)", "(none)", "(none)", "(none)", 0, 1},
    {"not stale", "Digest nonce=\"n\", stale=\"false\"", 4, 2, "n"},

    {"md5-sess", "Digest nonce=\"n\", algorithm=\"MD5-SESS\"", 4, 2, "n", "(none)", "(none)", "(none)",
     "MD5-SESS", 1},
    {"last algorithm counts", "Digest algorithm=MD5-sess, algorithm=md5, nonce=n", 4, 2, "n", "(none)",
     "(none)", "(none)", "md5", 0},
    {"unknown algorithm ends the parse", "Digest algorithm=SHA-256, nonce=\"n\"", 2, 2, "(none)", "(none)",
     "(none)", "(none)", "SHA-256"},
    {"unknown algorithm after the nonce", "Digest nonce=\"n\", algorithm=token", 2, 2, "n", "(none)",
     "(none)", "(none)", "token"},

    {"qop auth-int alone", "Digest nonce=\"n\", qop=\"auth-int\"", 4, 2, "n", "(none)", "auth-int"},
    {"qop auth wins from behind", "Digest nonce=\"n\", qop=\"auth-int,AUTH\"", 4, 2, "n", "(none)", "auth"},
    {"qop items are trimmed", "Digest nonce=\"n\", qop=\"x,\tauth \"", 4, 2, "n", "(none)", "auth"},
    {"qop unknown", "Digest nonce=\"n\", qop=\"authority,auth-\"", 4, 2, "n"},
    {"qop empty", "Digest qop=\"\", nonce=\"n\"", 4, 2, "n"},
    {"qop unquoted", "Digest nonce=\"n\", qop=auth, realm=\"r\"", 4, 2, "n", "r", "auth"},
    {"qop unquoted list", "Digest qop=auth-int,auth,realm=\"r\",nonce=\"n\"", 4, 2, "n", "r", "auth"},
    {"qop unquoted list with spaces", "Digest qop=foo, auth-int , realm=\"r\", nonce=\"n\"", 4, 2, "n", "r",
     "auth-int"},
    {"qop unquoted list at the end", "Digest nonce=\"n\",qop=auth-int, auth", 4, 2, "n", "(none)", "auth"},
    {"qop unquoted list before the line end", "Digest nonce=\"n\",qop=x,auth\r\n", 4, 2, "n", "(none)",
     "auth"},
};

void expect_challenge(const challenge_row& row, const digest_challenge& challenge) {
  EXPECT_EQ(text_of(challenge.nonce), row.nonce);
  EXPECT_EQ(text_of(challenge.realm), row.realm);
  EXPECT_EQ(text_of(challenge.qop), row.qop);
  EXPECT_EQ(text_of(challenge.opaque), row.opaque);
  EXPECT_EQ(text_of(challenge.algorithm), row.algorithm);
  EXPECT_EQ(challenge.session, row.session);
  EXPECT_EQ(challenge.stale, row.stale);
  EXPECT_EQ(challenge.nc, row.stale ? 1U : 0U);
}

TEST(http_challenge, is_read_as_the_server_wrote_it) {
  for (const auto& row : challenge_rows) {
    SCOPED_TRACE(row.name);
    auth_work origin;
    EXPECT_EQ(Curl_input_auth(&origin, 0, row.header), row.result);
    EXPECT_EQ(origin.picked, row.picked);
    expect_challenge(row, origin.challenge);
    EXPECT_EQ(origin.proxy_picked, 0U);

    auth_work proxy;
    EXPECT_EQ(Curl_input_auth(&proxy, 1, row.header), row.result);
    EXPECT_EQ(proxy.proxy_picked, row.picked);
    expect_challenge(row, proxy.proxy_challenge);
    EXPECT_EQ(proxy.challenge.nonce, nullptr);
  }
}

// The pattern that defines a parameter, and what the parser stores for a realm of that shape.
TEST(http_challenge, long_names_and_values_are_cut_like_the_scan_patterns) {
  for (const size_t name_len : {1U, 254U, 255U, 256U, 400U}) {
    for (const size_t value_len : {1U, 1022U, 1023U, 1024U, 1025U, 1026U, 1400U}) {
      for (const char* quote : {"\"", ""}) {
        SCOPED_TRACE(std::to_string(name_len) + " " + std::to_string(value_len) + quote);
        const std::string name(name_len, 'x');
        const std::string value = std::string(value_len - 1, 'v') + "w";
        const std::string parameters =
            "realm=" + std::string(quote) + value + quote + "," + name + "=y,nonce=n";
        char scanned_name[256];
        char scanned_value[1024];
        const char* pattern = *quote ? "%255[^=]=\"%1023[^\"]\"" : "%255[^=]=%1023[^\r\n,]";
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        ASSERT_EQ(sscanf(parameters.c_str(), pattern, scanned_name, scanned_value), 2);
#pragma GCC diagnostic pop
        auth_work work;
        const int result = Curl_input_auth(&work, 0, ("Digest " + parameters).c_str());
        EXPECT_EQ(text_of(work.challenge.realm), scanned_value);
        // What is left of a value that was cut, and the comma behind it, run into the next name.
        const size_t next_len = name_len + (value_len > 1023 ? value_len - 1023 + 1 : 0);
        EXPECT_EQ(result, next_len <= 255 ? HTTP_CHALLENGE_FINE : HTTP_CHALLENGE_BAD);
      }
    }
  }
}

TEST(http_challenge, every_cut_of_a_challenge_has_its_result) {
  const std::string whole =
      "Digest realm=\"r\", qop=auth,auth-int, nonce=\"n\", opaque=\"\", stale=true, algorithm=MD5-sess";
  const size_t nonce_begins = whole.find("nonce=\"") + 7;  // the open quote alone counts as a value
  const size_t algorithm_begins = whole.find("algorithm=") + 10;
  for (size_t length = 0; length <= whole.size(); ++length) {
    SCOPED_TRACE(length);
    int expected = HTTP_CHALLENGE_FINE;
    if (length < 6) {
      expected = HTTP_CHALLENGE_UNKNOWN;
    } else if (length < nonce_begins) {
      expected = HTTP_CHALLENGE_BAD;
    } else if (length > algorithm_begins && length != algorithm_begins + 3 && length < whole.size()) {
      expected = HTTP_CHALLENGE_ALGORITHM;
    }
    auth_work work;
    EXPECT_EQ(Curl_input_auth(&work, 0, whole.substr(0, length).c_str()), expected);
  }
}

TEST(http_challenge, repeated_for_an_answered_nonce_is_refused_unless_stale) {
  auth_work work;
  ASSERT_EQ(Curl_input_auth(&work, 0, "Digest nonce=\"a\", realm=\"old\""), HTTP_CHALLENGE_FINE);
  EXPECT_EQ(Curl_input_auth(&work, 0, "Digest nonce=\"b\""), HTTP_CHALLENGE_BAD);
  EXPECT_EQ(work.challenge.realm, nullptr) << "the earlier challenge is released";
  EXPECT_EQ(Curl_input_auth(&work, 0, "Digest nonce=\"c\", stale=true"), HTTP_CHALLENGE_FINE);
  EXPECT_STREQ(work.challenge.nonce, "c");
  EXPECT_EQ(Curl_input_auth(&work, 0, "Digest stale=true"), HTTP_CHALLENGE_BAD);
}

struct qop_row {
  const char* name;
  const char* parameters;
  const char* value;
  const char* gathered;
};
const qop_row qop_rows[] = {
    {"list before another name", "qop=auth,auth-int,realm=\"x\"", "auth", "auth,auth-int"},
    {"one item before another name", "qop=auth,realm=x", "auth", "auth"},
    {"quoted", "qop=\"auth\",auth-int,realm=x", "auth", "auth"},
    {"last parameter", "qop=auth,auth-int", "auth", "auth,auth-int"},
    {"last and alone", "qop=auth", "auth", "auth"},
    {"no comma before the next name", "qop=auth\r\nrealm=x", "auth", "auth"},
    {"text shorter than what was read", "qop=a", "auth", "auth"},
    {"no text at all", "", "auth", "auth"},
};

TEST(http_challenge, unquoted_qop_lists_are_gathered) {
  for (const auto& row : qop_rows) {
    SCOPED_TRACE(row.name);
    char value[1024];
    fetchrig::copy_text(value, row.value);
    get_all_qop_content(row.parameters, 3, value);
    EXPECT_STREQ(value, row.gathered);
  }
}

TEST(http_challenge, a_gathered_list_stays_in_its_buffer_and_is_cut_between_items) {
  for (size_t padding = 990; padding < 1030; ++padding) {
    SCOPED_TRACE(padding);
    const std::string list = "x," + std::string(padding, 'p') + ",auth-int,yy";
    char value[1024] = "x";
    get_all_qop_content(("qop=" + list + ",realm=r").c_str(), 3, value);
    const size_t end = list.size() <= 1023 ? list.size() : list.rfind(',', 1023);
    EXPECT_EQ(value, list.substr(0, end));
  }
}

// The worked example of RFC 2617, section 3.5, and variations of it whose digests were computed separately.
struct digest_row {
  const char* name;
  const char* challenge;
  const char* method;
  uint32_t nc;
  const char* tail;  // of the answer, from the path on
};
#define RFC_2617 "Digest realm=\"testrealm@host.com\", nonce=\"dcd98b7102dd2f0e8b11d0f600bfb0c093\""
const digest_row digest_rows[] = {
    {"qop auth", RFC_2617 ", qop=\"auth,auth-int\", opaque=\"5ccc069c403ebaf9f0171e9517f40e41\"", "GET", 0,
     ", cnonce=\"0a4f113b\", nc=00000001, qop=\"auth\", response=\"6629fae49393a05397450978507c4ef1\", "
     "opaque=\"5ccc069c403ebaf9f0171e9517f40e41\"\r\n"},
    {"qop auth-int", RFC_2617 ", qop=auth-int", "GET", 0,
     ", cnonce=\"0a4f113b\", nc=00000001, qop=\"auth-int\", "
     "response=\"540d3fa09c3b00a60b56729a4a588b49\"\r\n"},
    {"no qop", RFC_2617, "GET", 0, ", response=\"670fd8c2df070c60b045671b8b24ff02\"\r\n"},
    {"md5-sess", RFC_2617 ", qop=auth, algorithm=MD5-sess", "GET", 0,
     ", cnonce=\"0a4f113b\", nc=00000001, qop=\"auth\", response=\"8e3825c57e897f5a0dec6c2d4e5059d0\", "
     "algorithm=\"MD5-sess\"\r\n"},
    {"md5-sess without qop", RFC_2617 ", algorithm=md5-SESS, opaque=\"\"", "GET", 0,
     ", response=\"4726bc10c33fa6cb357eb27807b1cce8\", opaque=\"\", algorithm=\"md5-SESS\"\r\n"},
    {"later use of a nonce", RFC_2617 ", qop=auth", "POST", 255,
     ", cnonce=\"0a4f113b\", nc=000000ff, qop=\"auth\", response=\"41e6c3bed10cc8e3c9768d6ec612476a\"\r\n"},
};

TEST(http_answer, digest_follows_rfc_2617) {
  for (const auto& row : digest_rows) {
    for (const int proxy : {0, 1}) {
      SCOPED_TRACE(std::string(row.name) + (proxy ? ", proxy" : ""));
      auth_work work;
      (proxy ? work.proxy_user : work.user) = "Mufasa";
      (proxy ? work.proxy_password : work.password) = "Circle Of Life";
      ASSERT_EQ(Curl_input_auth(&work, proxy, row.challenge), HTTP_CHALLENGE_FINE);
      digest_challenge& challenge = proxy ? work.proxy_challenge : work.challenge;
      challenge.cnonce = duplicate_text("0a4f113b").release();
      challenge.nc = row.nc;
      ASSERT_EQ(Curl_output_auth(&work, proxy, row.method, "/dir/index.html"), HTTP_ANSWER_OK);
      const std::string head = std::string(proxy ? "Proxy-" : "") +
                               "Authorization: Digest username=\"Mufasa\", realm=\"testrealm@host.com\", "
                               "nonce=\"dcd98b7102dd2f0e8b11d0f600bfb0c093\", uri=\"/dir/index.html\"";
      EXPECT_EQ(text_of(proxy ? work.proxy_answer : work.answer), head + row.tail);
      EXPECT_EQ(proxy ? work.answer : work.proxy_answer, nullptr);
      const bool counted = text_of(challenge.qop) == "auth";
      EXPECT_EQ(challenge.nc, (row.nc ? row.nc : 1) + (counted ? 1 : 0));
    }
  }
}

TEST(http_answer, digest_makes_a_client_nonce_from_the_time) {
  auth_work work;
  ASSERT_EQ(Curl_input_auth(&work, 0, RFC_2617 ", qop=auth"), HTTP_CHALLENGE_FINE);
  const time_t before = time(nullptr);
  ASSERT_EQ(Curl_output_digest(&work, 0, "GET", "/"), HTTP_ANSWER_OK);
  const time_t after = time(nullptr);
  ASSERT_NE(work.challenge.cnonce, nullptr);
  EXPECT_EQ(strlen(work.challenge.cnonce), 8U);
  unsigned char* digits = nullptr;
  ASSERT_EQ(Curl_base64_decode(work.challenge.cnonce, &digits), 6U);
  const fetchrig::unique_malloc<unsigned char> owner(digits);
  const std::string made(reinterpret_cast<char*>(digits));
  EXPECT_GE(made, std::to_string(before).substr(0, 6));
  EXPECT_LE(made, std::to_string(after).substr(0, 6));
  EXPECT_NE(text_of(work.answer).find("cnonce=\"" + text_of(work.challenge.cnonce) + "\", nc=00000001"),
            std::string::npos);
}

TEST(http_answer, digest_without_nonce_drops_the_earlier_answer) {
  auth_work work;
  work.picked = fetchrig::auth_digest;
  work.answer = duplicate_text("Authorization: old\r\n").release();
  EXPECT_EQ(Curl_output_auth(&work, 0, "GET", "/"), HTTP_ANSWER_OK);
  EXPECT_EQ(work.answer, nullptr);
}

TEST(http_answer, digest_takes_what_is_missing_as_empty) {
  auth_work work;
  ASSERT_EQ(Curl_input_auth(&work, 0, "Digest nonce=\"n\""), HTTP_CHALLENGE_FINE);
  ASSERT_EQ(Curl_output_digest(&work, 0, "PUT", "/x"), HTTP_ANSWER_OK);
  EXPECT_STREQ(work.answer,
               "Authorization: Digest username=\"\", realm=\"\", nonce=\"n\", uri=\"/x\", "
               "response=\"0c368917745de8e680add0992ffa0c95\"\r\n");
}

TEST(http_answer, digest_never_breaks_its_line) {
  const struct {
    const char* name;
    const char* challenge;
    const char* user;
    const char* path;
  } rows[] = {
      {"realm", "Digest nonce=\"n\", realm=\"a\r\nX: y\"", "u", "/"},
      {"nonce", "Digest nonce=\"n\nX: y\"", "u", "/"},
      {"opaque", "Digest nonce=\"n\", opaque=\"\r\"", "u", "/"},
      {"user", "Digest nonce=\"n\"", "u\r\nX: y", "/"},
      {"path", "Digest nonce=\"n\"", "u", "/ HTTP/1.1\r\nX: y"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    auth_work work;
    work.user = row.user;
    work.password = "p";
    ASSERT_EQ(Curl_input_auth(&work, 0, row.challenge), HTTP_CHALLENGE_FINE);
    EXPECT_EQ(Curl_output_auth(&work, 0, "GET", row.path), HTTP_ANSWER_SCHEME);
    EXPECT_EQ(work.answer, nullptr);
  }
}

std::string repeated(const char* text, size_t count) {
  std::string all;
  while (count-- > 0) all += text;
  return all;
}

TEST(http_answer, basic) {
  // 511 characters of "%s:%s" are encoded: 170 groups and one byte.
  const std::string long_user(600, 'a');
  const std::string cut = repeated("YWFh", 170) + "YQ==";
  const std::string user_510(510, 'a');
  const std::string cut_at_colon = repeated("YWFh", 170) + "Og==";
  const struct {
    const char* name;
    const char* user;
    const char* password;
    std::string encoded;
  } rows[] = {
      {"plain", "u", "p", "dTpw"},
      {"RFC 7617", "Aladdin", "open sesame", "QWxhZGRpbjpvcGVuIHNlc2FtZQ=="},
      {"nothing", nullptr, nullptr, "Og=="},
      {"no password", "user", nullptr, "dXNlcjo="},
      {"no user", nullptr, "p", "OnA="},
      {"line break is encoded", "a\r\nb", "c", "YQ0KYjpj"},
      {"too long", long_user.c_str(), "p", cut},
      {"no room for the password", user_510.c_str(), "p", cut_at_colon},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    auth_work work;
    ASSERT_EQ(Curl_input_auth(&work, 0, "Basic realm=\"x\""), HTTP_CHALLENGE_FINE);
    work.user = work.proxy_user = row.user;
    work.password = work.proxy_password = row.password;
    work.answer = duplicate_text("Authorization: old\r\n").release();
    EXPECT_EQ(Curl_output_auth(&work, 0, "GET", "/"), HTTP_ANSWER_OK);
    EXPECT_EQ(text_of(work.answer), "Authorization: Basic " + row.encoded + "\r\n");
    work.proxy_picked = fetchrig::auth_basic;
    EXPECT_EQ(Curl_output_auth(&work, 1, "GET", "/"), HTTP_ANSWER_OK);
    EXPECT_EQ(text_of(work.proxy_answer), "Proxy-Authorization: Basic " + row.encoded + "\r\n");
  }
}

TEST(http_answer, xsi) {
  const struct {
    const char* name;
    uint32_t picked;
    const char* user;
    const char* password;
    int result;
    const char* answer;
  } rows[] = {
      {"basic challenge", 1, "user", "secret", 0,
       "Authorization: BroadWorksSIP basic=\"c2VjcmV0\", sipUser=\"dXNlcg==\"\r\n"},
      {"digest challenge", 2, "user", "secret", 2, "(none)"},
      {"no challenge", 0, "user", "secret", 2, "(none)"},
      {"empty password", 1, "user", "", 27, "(none)"},
      {"no password", 1, "user", nullptr, 27, "(none)"},
      {"empty user", 1, "", "secret", 27, "(none)"},
      {"no user", 1, nullptr, "secret", 27, "(none)"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    auth_work work;
    work.picked = row.picked;
    work.user = row.user;
    work.password = row.password;
    EXPECT_EQ(Curl_output_xsi_auth(&work), row.result);
    EXPECT_EQ(text_of(work.answer), row.answer);
  }
}

TEST(http_answer, needs_a_picked_scheme) {
  auth_work work;
  EXPECT_EQ(Curl_output_auth(&work, 0, "GET", "/"), HTTP_ANSWER_SCHEME);
  work.picked = fetchrig::auth_basic;
  EXPECT_EQ(Curl_output_auth(&work, 1, "GET", "/"), HTTP_ANSWER_SCHEME) << "the proxy picked none";
}

TEST(http_answer, null_is_allowed) {
  EXPECT_EQ(Curl_input_auth(nullptr, 0, "Basic"), HTTP_CHALLENGE_UNKNOWN);
  EXPECT_EQ(Curl_output_auth(nullptr, 0, "GET", "/"), HTTP_ANSWER_SCHEME);
  EXPECT_EQ(Curl_output_digest(nullptr, 0, "GET", "/"), HTTP_ANSWER_SCHEME);
  EXPECT_EQ(Curl_output_xsi_auth(nullptr), HTTP_ANSWER_SCHEME);
  Curl_digest_cleanup_one(nullptr);
  Curl_safefree(nullptr);
  auth_work work;
  EXPECT_EQ(Curl_input_auth(&work, 0, nullptr), HTTP_CHALLENGE_UNKNOWN);
}

TEST(digest_challenge, release_clears_everything) {
  digest_challenge challenge = {};
  for (char** text : {&challenge.nonce, &challenge.cnonce, &challenge.realm, &challenge.opaque,
                      &challenge.qop, &challenge.algorithm}) {
    *text = duplicate_text("x").release();
  }
  challenge.session = challenge.stale = 1;
  challenge.nc = 7;
  Curl_digest_cleanup_one(&challenge);
  for (const char* text : {challenge.nonce, challenge.cnonce, challenge.realm, challenge.opaque,
                           challenge.qop, challenge.algorithm}) {
    EXPECT_EQ(text, nullptr);
  }
  EXPECT_EQ(challenge.session, 0);
  EXPECT_EQ(challenge.stale, 0);
  EXPECT_EQ(challenge.nc, 0U);
}

}  // namespace
