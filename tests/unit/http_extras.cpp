// http/extra/: the examples of the RFCs, and lists of challenges as servers write them. All else is told by scenarios.
#include <gtest/gtest.h>

#include "http/extra/auth_challenges.h"
#include "http/extra/digest_rfc7616.h"
#include "http/extra/url_reference.h"

namespace {

using namespace fetchrig;
using std::string;

// RFC 3986, sections 5.4.1 and 5.4.2, less the fragments.
TEST(http_extras, references_of_rfc3986) {
  const std::pair<const char*, const char*> rows[] = {
      {"g:h", "g:h"},
      {"g", "http://a/b/c/g"},
      {"./g", "http://a/b/c/g"},
      {"g/", "http://a/b/c/g/"},
      {"/g", "http://a/g"},
      {"//g", "http://g/"},  // with the path that it is asked for
      {"?y", "http://a/b/c/d;p?y"},
      {"g?y", "http://a/b/c/g?y"},
      {"#s", "http://a/b/c/d;p?q"},
      {"g#s", "http://a/b/c/g"},
      {"g?y#s", "http://a/b/c/g?y"},
      {";x", "http://a/b/c/;x"},
      {"g;x", "http://a/b/c/g;x"},
      {"g;x?y#s", "http://a/b/c/g;x?y"},
      {"", "http://a/b/c/d;p?q"},
      {".", "http://a/b/c/"},
      {"./", "http://a/b/c/"},
      {"..", "http://a/b/"},
      {"../", "http://a/b/"},
      {"../g", "http://a/b/g"},
      {"../..", "http://a/"},
      {"../../", "http://a/"},
      {"../../g", "http://a/g"},
      {"../../../g", "http://a/g"},
      {"../../../../g", "http://a/g"},
      {"/./g", "http://a/g"},
      {"/../g", "http://a/g"},
      {"g.", "http://a/b/c/g."},
      {".g", "http://a/b/c/.g"},
      {"g..", "http://a/b/c/g.."},
      {"..g", "http://a/b/c/..g"},
      {"./../g", "http://a/b/g"},
      {"./g/.", "http://a/b/c/g/"},
      {"g/./h", "http://a/b/c/g/h"},
      {"g/../h", "http://a/b/c/h"},
      {"g;x=1/./y", "http://a/b/c/g;x=1/y"},
      {"g;x=1/../y", "http://a/b/c/y"},
      {"g?y/./x", "http://a/b/c/g?y/./x"},
      {"g?y/../x", "http://a/b/c/g?y/../x"},
      {"g#s/./x", "http://a/b/c/g"},
      {"g#s/../x", "http://a/b/c/g"},
      {"http:g", "http:g"},
      {"http:/..//g", "http:/.//g"},  // no authority comes of it
  };
  for (const auto& [reference, target] : rows)
    EXPECT_EQ(resolve_reference("http://a/b/c/d;p?q", reference), target) << reference;
}

// RFC 7616, section 3.9.1; and the challenge of 3.9.2, whose printed hashes are not of SHA-512/256: these are computed
// apart, by Python's hashlib.
TEST(http_extras, examples_of_rfc7616) {
  struct row {
    const char *user, *password, *challenge, *cnonce, *uri, *answer;
  };
  const string mufasa =
      "realm=\"http-auth@example.org\", nonce=\"7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v\"";
  const string opaque = "opaque=\"FQhe/qaU925kfnzjCev0ciny7QMkPqMAFRtzCUYo5tdS\"";
  const row rows[] = {
      {"Mufasa", "Circle of Life", "algorithm=MD5", "f2/wE4q74E6zIJEtWaHKaf5wv/H5QzzpXusqGemxURZJ",
       "/dir/index.html", "8ca523f5e9506fed4657c9700eebdbec"},
      {"Mufasa", "Circle of Life", "algorithm=SHA-256", "f2/wE4q74E6zIJEtWaHKaf5wv/H5QzzpXusqGemxURZJ",
       "/dir/index.html", "753927fa0e85d155564e2e272a28d1802ca10daf4496794697cf8db5856cb6c1"},
  };
  for (const row& one : rows) {
    std::vector<auth_challenge> list;
    read_challenges("Digest " + mufasa + ", qop=\"auth, auth-int\", " + one.challenge + ", " + opaque, list);
    auto terms = list.empty() ? std::nullopt : read_digest_terms(list[0]);
    ASSERT_TRUE(terms) << one.challenge;
    digest_login login(*terms, one.user, one.password, one.cnonce);
    EXPECT_EQ(login.answer({"GET", one.uri, ""}),
              "Digest username=\"Mufasa\", " + mufasa + ", uri=\"" + one.uri + "\", response=\"" +
                  one.answer + "\", " + one.challenge + ", " + opaque + ", qop=auth, nc=00000001, cnonce=\"" +
                  one.cnonce + "\"");
  }
  std::vector<auth_challenge> list;
  read_challenges(
      "Digest realm=\"api@example.org\", qop=\"auth\", algorithm=SHA-512-256, "
      "nonce=\"5TsQWLVdgBdmrQ0XsxbDODV+57QdFR34I9HAbC/RVvkK\", "
      "opaque=\"HRPCssKJSGjCrkzDg8OhwpzCiGPChXYjwrI2QmXDnsOS\", charset=UTF-8, userhash=true",
      list);
  ASSERT_EQ(list.size(), 1u);
  digest_login login(*read_digest_terms(list[0]), "J\xc3\xa4s\xc3\xb8n Doe", "Secret, or not?",
                     "NTg6RKcb9boFIAS3KrFK9BGeh+niz/sm");
  EXPECT_EQ(
      login.answer({"GET", "/doe.json", ""}),
      "Digest username=\"793263caabb707a56211940d90411ea4a575adeccb7e360aeb624ed06ece9b0b\", "
      "realm=\"api@example.org\", nonce=\"5TsQWLVdgBdmrQ0XsxbDODV+57QdFR34I9HAbC/RVvkK\", "
      "uri=\"/doe.json\", response=\"7a4e1192babbba02e91182d2895bfdbf7adafc6e48d4e517ca301974843d840c\", "
      "algorithm=SHA-512-256, opaque=\"HRPCssKJSGjCrkzDg8OhwpzCiGPChXYjwrI2QmXDnsOS\", qop=auth, "
      "nc=00000001, cnonce=\"NTg6RKcb9boFIAS3KrFK9BGeh+niz/sm\", userhash=true");
}

// As "scheme name=value, ...; scheme ...".
TEST(http_extras, lists_of_challenges) {
  const std::pair<string, const char*> rows[] = {
      {"Basic realm=\"a\"", "Basic realm=a,;"},
      {"Newauth realm=\"apps\", type=1, title=\"Login to \\\"apps\\\"\", Basic realm=\"simple\"",
       "Newauth realm=apps,type=1,title=Login to \"apps\",;Basic realm=simple,;"},
      {" ,, Negotiate ,Digest a = \"x,y=\" ,, b=c , Basic", "Negotiate ;Digest a=x,y=,b=c,;Basic ;"},
      {"NTLM TlRMTVNTUAAC==, Bearer abc/+~.-_, Digest nonce=n", "NTLM ;Bearer ;Digest nonce=n,;"},
      {"Digest qop=auth,auth-int, nonce=n", "Digest qop=auth,auth-int,nonce=n,;"},
      {"Digest nonce=dcd98/x+y==, stale=TRUE", "Digest nonce=dcd98/x+y==,stale=TRUE,;"},
      {"Basic realm=a, Digest nonce=\"n", "Basic realm=a,;"},
      {"Basic realm=a, Digest nonce=\"n\\", "Basic realm=a,;"},
      {"Basic realm=a, Digest nonce=\"n\"x", "Basic realm=a,;"},
      {"Basic realm=a, Digest nonce=", "Basic realm=a,;Digest ;"},
      {"=x", ""},
  };
  for (const auto& [field, wanted] : rows) {
    std::vector<auth_challenge> list;
    read_challenges(field, list);
    string seen;
    for (const auto& one : list) {
      seen += one.scheme + " ";
      for (const auto& parameter : one.parameters) seen += parameter.name + "=" + parameter.value + ",";
      seen += ";";
    }
    EXPECT_EQ(seen, wanted) << field;
  }
}

}  // namespace
