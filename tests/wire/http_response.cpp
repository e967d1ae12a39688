// http_response.cpp: what the library does about every kind of answer: final statuses, redirects, challenges,
// proxies, and servers that break off or never end. Every script arrives whole, byte by byte and glued.
#include <gtest/gtest.h>

#include <span>

#include "tests/support/http_fixture.h"
#include "tests/support/process.h"

namespace {

using namespace test;

// base64 of "phone:s3cret".
const std::string basic_answer = "Authorization: Basic cGhvbmU6czNjcmV0\r\n";
const std::string vault = "Basic realm=\"vault\"";
const std::string self = "http://127.0.0.1:@PORT@";

step get(const std::string& path, const std::string& more = "") {
  return expect(request_head("GET", path, more));
}
connection_script answered(const std::string& bytes) {
  return {get("/a"), send(bytes)};
}
http_ask as_phone() {
  return {.user = "phone", .password = "s3cret"};
}

class http_response : public http_test {
 protected:
  // `ask` without a URL asks for /a at the peer.
  http_outcome talk(const std::vector<connection_script>& scripts, http_ask ask, delivery mode) {
    tcp_peer server(scripts, {.mode = mode});
    if (ask.url.empty()) ask.url = server.url("http", "/a");
    log_.clear();
    const http_outcome outcome = fetch(ask);
    EXPECT_TRUE(server.finish());
    EXPECT_EQ(scripts.size(), server.num_connections());
    port_ = std::to_string(server.port());
    return outcome;
  }
  std::string with_port(std::string text) const {
    const auto at = text.find("@PORT@");
    return at == std::string::npos ? text : text.replace(at, 6, port_);
  }
  std::string port_;
};

TEST_F(http_response, status_decides) {
  const struct {
    const char* status;
    int32_t code;  // of dl_http_open(); 0: it opens
  } cases[] = {
      {"200 OK", 0},          {"100 Continue", 0}, {"101 X", 0},          {"201 Created", 0}, {"204 No", 0},
      {"206 Partial", 0},     {"300 Many", 0},     {"303 See Other", 0},  {"304 Same", 304},  {"305 X", 0},
      {"307 Temp", 0},        {"308 Perm", 0},     {"399 X", 0},          {"400 Bad", 400},   {"403 No", 403},
      {"404 Not Found", 404}, {"407 Proxy", 407},  {"500 Internal", 500}, {"999 X", 999},     {"200", 0},
      {"2000 cut at 3", 0},   {"20x", 0},          {"  404 wide", 404}};
  for (const auto& row : cases) {
    SCOPED_TRACE(row.status);
    const bool is_200 = std::string(row.status).substr(0, 3) == "200";
    for (const delivery mode : all_deliveries) {
      const http_outcome outcome = talk({answered(response(row.status, "body"))}, {}, mode);
      EXPECT_EQ(row.code, outcome.code);
      EXPECT_EQ(row.code == 0 ? "body" : "", outcome.body);
      EXPECT_EQ(is_200, outcome.has_headers);
      EXPECT_EQ(row.code >= 400   ? lines{"Client error"}
                : row.code == 304 ? lines{"Client error, same data. code: 304"}
                                  : lines{},
                errors());
    }
  }
  EXPECT_EQ("body", talk({answered(response("304 Same", "body"))}, {.auth_type = 0}, delivery::whole).body);
}

struct response_row {
  std::string name;
  std::vector<connection_script> scripts;
  int32_t code;            // of the open call; 0: it succeeds
  std::string body;        // read after a successful open
  lines error_lines = {};  // of the HTTP module
  std::string redirect = {};
  http_ask ask = {};
};
using peer_scripts = std::vector<connection_script>;

lines before_failure(const std::string& text) {
  return {text, "handler response error"};
}
const lines handler_failed = {"handler response error"};

// A row that opens, and one that fails with `error` as the reason in the log (empty: none beside the usual).
response_row good(std::string name, peer_scripts peer, std::string body, std::string redirect = {},
                  http_ask ask = {}) {
  return {name, peer, 0, body, {}, redirect, ask};
}
response_row bad(std::string name, peer_scripts peer, int32_t code, std::string error = {},
                 std::string redirect = {}, http_ask ask = {}) {
  return {name, peer, code, "", error.empty() ? handler_failed : before_failure(error), redirect, ask};
}

peer_scripts hops(int count, connection_script last) {
  peer_scripts peer = {answered(redirect_to(self + "/1"))};
  for (int hop = 1; hop < count; ++hop) {
    peer.push_back({get("/" + std::to_string(hop)), send(redirect_to(self + "/" + std::to_string(hop + 1)))});
  }
  peer.push_back(std::move(last));
  return peer;
}

const connection_script arrived = {get("/b"), send(response("200 OK", "there"))};
const connection_script moved = answered(redirect_to(self + "/b", "moved"));
const connection_script asked = answered(unauthorized(vault));
const connection_script rejected = {get("/a", basic_answer), send(unauthorized(vault))};
step post_of(const std::string& path) {
  return expect(request_head("POST", path, "Content-Length: 4\r\nX-More: 1\r\n") + "data");
}

const response_row redirect_rows[] = {
    good("followed", {moved, arrived}, "there", self + "/b"),
    good("301, mixed-case header, no phrase",
         {answered("HTTP/1.0 301\r\nLOCATION: " + self + "/b\r\n\r\n"), arrived}, "there", self + "/b"),
    good("space in the target is escaped on the wire only",
         {answered(redirect_to(self + "/x y")), {get("/x%20y"), send(response("200 OK"))}}, "",
         self + "/x y"),
    good("five hops", hops(5, {get("/5"), send(response("200 OK", "far"))}), "far", self + "/5"),
    bad("six hops", hops(5, {get("/5"), send(redirect_to(self + "/6"))}), DL_ERR_REDIRECTS, "", self + "/5"),
    bad("no location", {answered(response("302 Found"))}, DL_ERR_REDIRECTS, "Can't find location header"),
    bad("no space before the target loses its first character",
        {answered("HTTP/1.1 302 Found\r\nLocation:" + self + "/b\r\n\r\n")}, DL_ERR_REDIRECT_URL, "",
        self.substr(1) + "/b"),
    bad("empty location", {answered("HTTP/1.1 302 Found\r\nLocation:\r\n\r\n")}, DL_ERR_REDIRECT_URL),
    bad("other scheme", {answered(redirect_to("ftp://h/b"))}, DL_ERR_REDIRECT_URL, "", "ftp://h/b"),
    bad("relative", {answered(redirect_to("/b"))}, DL_ERR_REDIRECT_URL, "", "/b"),
    bad("line feed in the target", {answered(redirect_to(self + "/b\nX: 1"))}, DL_ERR_REDIRECT_URL, "",
        self + "/b\nX: 1"),
    bad("carriage return in the host", {answered(redirect_to("http://h\rX/"))}, DL_ERR_REDIRECT_URL, "",
        "http://h\rX/"),
    bad("nothing in answer to the second request", {moved, {get("/b")}}, DL_ERR_INVALID_DATA, "",
        self + "/b"),
    good("a POST is posted again",
         {{post_of("/a"), send(redirect_to(self + "/b"))},
          {post_of("/b"), send(response("200 OK", "took it"))}},
         "took it", self + "/b", {.method = DL_METHOD_POST, .headers = "X-More: 1\r\n", .body = "data"}),
    good("credentials answer a challenge at the new place",
         {moved,
          {get("/b"), send(unauthorized(vault))},
          {get("/b", basic_answer), send(response("200 OK", "in"))}},
         "in", self + "/b", as_phone()),
    good("an answer stays with its origin",
         {asked,
          {get("/a", basic_answer), send(redirect_to(self + "/b"))},
          {get("/b", basic_answer), send(response("200 OK", "in"))}},
         "in", self + "/b", as_phone()),
};

std::string digest_answer() {
  const std::string response = md5_hex(md5_hex("phone:vault:s3cret") + ":abc:" + md5_hex("GET:/a"));
  return "Authorization: Digest username=\"phone\", realm=\"vault\", nonce=\"abc\", uri=\"/a\", response=\"" +
         response + "\"\r\n";
}
connection_script let_in_with(const std::string& answer) {
  return {get("/a", answer), send(response("200 OK", "in"))};
}
const std::string none_401 = "HTTP/1.1 401 No\r\n\r\n";

const response_row auth_rows[] = {
    good("basic", {asked, let_in_with(basic_answer)}, "in", "", as_phone()),
    good("digest",
         {answered(unauthorized("Digest realm=\"vault\", nonce=\"abc\"")), let_in_with(digest_answer())},
         "in", "", as_phone()),
    good("no credentials answer as the empty user", {asked, let_in_with("Authorization: Basic Og==\r\n")},
         "in"),
    bad("refused beyond the limit", {asked, rejected, rejected}, DL_ERR_AUTH,
        "auth err, req type:0, 4xx times:2, limit itmes:3, wparam:0", "", as_phone()),
    good("without a challenge the connection is read on", {answered(none_401 + response("200 OK", "in"))},
         "in"),
    bad("without a challenge, its body is no status line", {answered(response("401 No", "sorry\r\n"))},
        DL_ERR_INVALID_DATA),
    bad("without a challenge, thrice", {answered(none_401 + none_401 + none_401)}, DL_ERR_AUTH,
        "auth err, req type:0, 4xx times:2, limit itmes:3, wparam:0"),
    bad("unknown scheme", {answered(unauthorized("Bearer x"))}, DL_ERR_AUTH, "Input Auth Error"),
    bad("empty challenge", {answered("HTTP/1.1 401 No\r\nWWW-Authenticate:\r\n\r\n")}, DL_ERR_AUTH,
        "Input Auth Error"),
    bad("only the first challenge counts",
        {answered(response("401 No", "", "WWW-Authenticate: Bearer\r\nWWW-Authenticate: Basic\r\n"))},
        DL_ERR_AUTH, "Input Auth Error"),
    bad("a user with a line break cannot answer", {answered(unauthorized("Digest realm=\"v\", nonce=\"n\""))},
        DL_ERR_AUTH, "Output Auth Error", "", {.user = "a\r\nX: y", .password = "p"}),
    good("broadworks",
         {asked, let_in_with("Authorization: BroadWorksSIP basic=\"czNjcmV0\", sipUser=\"cGhvbmU=\"\r\n")},
         "in", "", {.user = "phone", .password = "s3cret", .auth_type = 2}),
    bad("broadworks without a user", {asked}, DL_ERR_AUTH, "Output SIP XSI Auth Error", "", {.auth_type = 2}),
    bad("a list without entries", {asked}, DL_ERR_AUTH,
        "auth err, req type:1, 4xx times:0, limit itmes:3, wparam:0", "", {.auth_type = 1}),
};

class response_table : public http_response {
 protected:
  void run(std::span<const response_row> rows) {
    for (const response_row& row : rows) {
      SCOPED_TRACE(row.name);
      for (const delivery mode : all_deliveries) {
        SCOPED_TRACE(mode);
        const http_outcome outcome = talk(row.scripts, row.ask, mode);
        EXPECT_EQ(row.code, outcome.code);
        EXPECT_EQ(row.body, outcome.body);
        EXPECT_EQ(row.error_lines, errors());
        EXPECT_EQ(with_port(row.redirect), outcome.redirect);
        EXPECT_EQ(row.code == 0 ? "" : error_text_of(row.code), outcome.message);
      }
    }
  }
  static std::string error_text_of(int32_t code) {
    char text[64] = {};
    dl_get_error_string(code, text, sizeof text);
    return text;
  }
};

TEST_F(response_table, redirects) {
  run(redirect_rows);
  set_option(DL_OPT_MAX_REDIRECTS, 0);
  run(std::vector{bad("limit 0", {moved}, DL_ERR_REDIRECTS)});
}
TEST_F(response_table, challenges) {
  run(auth_rows);
  set_option(DL_OPT_AUTH_RETRY_LIMIT, 1);
  run(std::vector{bad("limit 1", {asked, rejected}, DL_ERR_AUTH,
                      "auth err, req type:0, 4xx times:1, limit itmes:2, wparam:0", "", as_phone())});
}

step post(const std::string& answer = "") {
  return expect(request_head("POST", "/a", "Content-Length: 1\r\n" + answer) + "x");
}

TEST_F(http_response, credential_list_is_offered_in_order) {
  const std::vector<dl_auth_info> list = {{"a", "1"}, {"b", "2"}, {"c", "3"}};
  std::vector<connection_script> scripts = {{post(), send(unauthorized(vault))}};
  for (const char* answer : {"YTox", "Yjoy", "Yzoz"}) {
    scripts.push_back(
        {post("Authorization: Basic " + std::string(answer) + "\r\n"), send(unauthorized(vault))});
  }
  const http_ask ask = {.method = DL_METHOD_POST, .body = "x", .list = list};
  for (const delivery mode : all_deliveries) {
    EXPECT_EQ(DL_ERR_AUTH, talk(scripts, ask, mode).code);
    EXPECT_EQ(before_failure("auth err, req type:1, 4xx times:3, limit itmes:3, wparam:3"), errors());
  }
  scripts.back().back() = send(response("201 Created", "answer"));
  EXPECT_EQ("answer", talk(scripts, ask, delivery::whole).body);
}

TEST_F(http_response, digest_answer_with_quality_of_protection) {
  const http_outcome outcome = [&] {
    tcp_peer server({answered(unauthorized("Digest realm=\"v\", nonce=\"n\", qop=\"auth\", opaque=\"o\"")),
                     {expect_until("\r\n\r\n"), send(response("200 OK", "in"))}});
    http_ask ask = as_phone();
    ask.url = server.url("http", "/a");
    const http_outcome fetched = fetch(ask);
    EXPECT_TRUE(server.finish());
    const std::string sent = server.received(1);
    const auto value = [&](const std::string& name) {
      const auto at = sent.find(name + "=\"") + name.size() + 2;
      return sent.substr(at, sent.find('"', at) - at);
    };
    const std::string ha1 = md5_hex("phone:v:s3cret");
    EXPECT_EQ(md5_hex(ha1 + ":n:00000001:" + value("cnonce") + ":auth:" + md5_hex("GET:/a")),
              value("response"));
    EXPECT_NE(std::string::npos, sent.find(", nc=00000001, ")) << sent;
    EXPECT_EQ("o", value("opaque"));
    return fetched;
  }();
  EXPECT_EQ("in", outcome.body);
  EXPECT_EQ(0u, log_.count("s3cret"));
  EXPECT_EQ(0u, log_.count("response=\""));
}

// Symptom: a password answered at one server shows up at another.
TEST_F(http_response, authorization_is_dropped_when_the_origin_changes) {
  tcp_peer other({{get("/b"), send(response("200 OK", "there"))}});
  const http_outcome outcome = talk(
      {answered(unauthorized(vault)), {get("/a", basic_answer), send(redirect_to(other.url("http", "/b")))}},
      as_phone(), delivery::whole);
  EXPECT_EQ("there", outcome.body);
  EXPECT_TRUE(other.finish());
  EXPECT_EQ(1u, log_.count("redirect leaves 127.0.0.1:" + port_ + " for 127.0.0.1:"));
}

TEST_F(http_response, redirect_to_a_closed_port) {
  const std::string target = "http://127.0.0.1:" + std::to_string(free_port()) + "/";
  const http_outcome outcome = talk({answered(redirect_to(target))}, {}, delivery::whole);
  EXPECT_EQ(DL_ERR_CONNECT, outcome.code);
  EXPECT_EQ(target, outcome.redirect);
  EXPECT_EQ(before_failure("Connect Error"), errors());
}

class proxied : public http_response {
 protected:
  static step get_through(const std::string& path, const std::string& host, const std::string& more = "") {
    return expect(request_head("GET", path, more, host));
  }
  const std::string chunked_redirect_ =
      "HTTP/1.1 302 Found\r\nTransfer-Encoding: chunked\r\nLocation: http://other.invalid/b\r\n\r\n"
      "5\r\nmoved\r\n0\r\n\r\n";
};

TEST_F(proxied, redirects_stay_on_the_connection_and_drain_the_body) {
  for (const delivery mode : all_deliveries) {
    SCOPED_TRACE(mode);
    tcp_peer proxy({{get_through("/a", "origin.invalid"), send(chunked_redirect_),
                     get_through("/b", "other.invalid"), send(redirect_to("http://origin.invalid/c", "gone")),
                     get_through("/c", "origin.invalid"), send(response("200 OK", "there"))}},
                   {.mode = mode});
    const http_outcome outcome = fetch({.url = "http://origin.invalid/a", .proxy = proxy.url("http")});
    EXPECT_EQ(0, outcome.code);
    EXPECT_EQ("there", outcome.body);
    EXPECT_EQ("http://origin.invalid/c", outcome.redirect);
    EXPECT_TRUE(proxy.finish());
  }
}

TEST_F(proxied, a_challenge_is_answered_at_the_origin_and_the_proxy_is_left_for_good) {
  tcp_peer origin({{get("/a", basic_answer), send(redirect_to(self + "/b", "unread"))},
                   {get("/b", basic_answer), send(response("200 OK", "in"))}});
  const std::string host = "127.0.0.1:" + std::to_string(origin.port());
  tcp_peer proxy({{get_through("/a", host), send(unauthorized(vault))}});
  http_ask ask = as_phone();
  ask.url = origin.url("http", "/a");
  ask.proxy = proxy.url("http");
  EXPECT_EQ("in", fetch(ask).body);
  EXPECT_TRUE(origin.finish());
  EXPECT_TRUE(proxy.finish());
}

TEST_F(proxied, https_is_never_spoken_in_clear) {
  tcp_peer silent({{stall()}});
  EXPECT_EQ(DL_ERR_SEND, fetch({.url = "https://origin.invalid/a", .proxy = silent.url("http")}).code);
  EXPECT_TRUE(silent.finish());
  EXPECT_EQ("", silent.received(0));
  EXPECT_EQ(lines{}, errors());

  const std::string first = request_head("GET", "/a", "", "origin.invalid");
  tcp_peer redirecting({{expect(first), send(redirect_to("https://origin.invalid/a"))}});
  EXPECT_EQ(DL_ERR_SEND, fetch({.url = "http://origin.invalid/a", .proxy = redirecting.url("http")}).code);
  EXPECT_TRUE(redirecting.finish());
  EXPECT_EQ(first, redirecting.received(0));
  EXPECT_EQ(before_failure("Request Send Error"), errors());
}

TEST_F(proxied, a_redirect_body_beyond_the_size_limit_gives_the_connection_up) {
  set_option(DL_OPT_MAX_FILE_SIZE, 100);
  for (const std::size_t size : {100u, 101u}) {
    log_.clear();
    tcp_peer proxy({{get_through("/a", "origin.invalid"),
                     send(redirect_to("http://origin.invalid/b", std::string(size, 'x'))),
                     expect_length(size == 100 ? 1 : 0), send(response("200 OK", "there"))}});
    const http_outcome outcome = fetch({.url = "http://origin.invalid/a", .proxy = proxy.url("http")});
    EXPECT_EQ(size == 100 ? 0 : DL_ERR_READ, outcome.code);
    EXPECT_EQ(size == 100 ? lines{} : before_failure("redirect body too long"), errors());
  }
}

TEST_F(proxied, bad_proxies) {
  EXPECT_EQ(DL_ERR_URL, fetch({.url = "http://origin.invalid/", .proxy = "proxy:3128"}).code);
  EXPECT_EQ(lines{}, errors());
  const std::string closed = "http://127.0.0.1:" + std::to_string(free_port());
  EXPECT_EQ(DL_ERR_CONNECT, fetch({.url = "http://origin.invalid/", .proxy = closed}).code);
  EXPECT_EQ(lines{"Connect Error"}, errors());
}

const std::string block_of_lines(std::size_t size) {
  std::string block;
  for (std::size_t i = 0; block.size() < size; ++i)
    block += "X-Header-" + std::to_string(i) + ": " + std::string(80, 'v') + "\r\n";
  return block;
}

const std::string head_200 = "HTTP/1.1 200 OK\r\n";

const response_row broken_rows[] = {
    bad("nothing", {{get("/a")}}, DL_ERR_INVALID_DATA),
    good("cut in the status line", {answered("HTTP/1.1 20")}, ""),
    bad("cut before the status", {answered("HTTP/1.1 ")}, DL_ERR_INVALID_DATA),
    good("cut in a header line", {answered(head_200 + "Content-Le")}, ""),
    good("cut in the body", {answered(head_200 + "Content-Length: 10\r\n\r\nhalf")}, "half"),
    good("no length", {answered(head_200 + "\r\nall of it")}, "all of it"),
    bad("other protocol", {answered("ICY 200 OK\r\n\r\n")}, DL_ERR_INVALID_DATA),
    bad("negative number", {answered("HTTP/1.1 -12\r\n\r\n")}, -12),
    good("bare line feeds", {answered("HTTP/1.1 200 OK\n\nbody")}, ""),
    bad("long status line", {answered("HTTP/1.1 200 " + std::string(112, 'x') + "\r\n\r\n")}, DL_ERR_READ,
        "Buffer not enough! buffer len 128"),
    good("longest status line", {answered("HTTP/1.1 200 " + std::string(111, 'x') + "\r\n\r\nbody")}, "body"),
    good("negative length counts as absent", {answered(head_200 + "Content-Length: -5\r\n\r\nbody")}, "body"),
    good("length beyond 32 bits counts as absent",
         {answered(head_200 + "Content-Length: 4294967300\r\n\r\nbody")}, "body"),
    good("length 0", {answered(head_200 + "Content-Length: 0\r\n\r\nsurplus")}, ""),
    good("surplus behind the body", {answered(response("200 OK", "body") + "surplus")}, "body"),
    good("first length of two", {answered(response("200 OK", "body", "Content-Length: 9\r\n"))}, "body"),
    good("chunks win over a length",
         {answered(head_200 +
                   "Content-Length: 2\r\nTransfer-Encoding: gzip, Chunked\r\n\r\n4\r\nbody\r\n0\r\n\r\n")},
         "body"),
    bad("reset before an answer", {{get("/a"), reset()}}, DL_ERR_READ, "Peek error!"),
};

TEST_F(response_table, broken_answers) {
  run(broken_rows);
}

TEST_F(http_response, endless_headers_end_at_256_kib) {
  const connection_script endless = {get("/a"), send("HTTP/1.1 200 OK\r\n" + block_of_lines(300 * 1024))};
  EXPECT_EQ(DL_ERR_MEMORY, talk({endless}, {}, delivery::whole).code);
  EXPECT_EQ(handler_failed, errors());
  const connection_script many = {get("/a"),
                                  send("HTTP/1.1 200 OK\r\n" + block_of_lines(200 * 1024) + "\r\nbody")};
  EXPECT_EQ("body", talk({many}, {}, delivery::whole).body);
}

TEST_F(http_response, a_server_that_stalls_is_given_up_after_the_time_out) {
  const struct {
    const char* name;
    const char* bytes;
    int32_t code;
    lines error_lines;
    int32_t read_code;
  } cases[] = {
      {"before the status line",
       "",
       DL_ERR_READ,
       {"Select error! errno 0", "Peek error!", "handler response error"},
       0},
      {"inside a header",
       "HTTP/1.1 200 OK\r\nConte",
       DL_ERR_READ,
       {"Select error! errno 0", "Peek error!", "handler response error"},
       0},
      {"inside the body",
       "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nhalf",
       0,
       {"Select error! errno 0", "read error"},
       DL_ERR_READ},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.name);
    const http_outcome outcome = talk({{get("/a"), send(row.bytes), stall()}}, {}, delivery::whole);
    EXPECT_EQ(row.code, outcome.code);
    EXPECT_EQ(row.read_code, outcome.read_code);
    EXPECT_EQ(row.error_lines, errors());
  }
}

TEST_F(http_response, missing_arguments_and_urls_that_do_not_parse) {
  dl_http_session* session = nullptr;
  char redirect[DL_REDIRECT_SIZE];
  dl_result result;
  const http_ask ask = {.url = "http://127.0.0.1/"};
  const dl_http_request request = ask.request();
  const dl_http_request no_url = {};
  const dl_http_request_ex extended = {&request, 0};
  const dl_http_request_ex half = {nullptr, 0};
  const auto refused = [&](int rc) {
    EXPECT_EQ(-1, rc);
    EXPECT_EQ(DL_ERR_PARAMETER, result.code);
    EXPECT_STREQ("Invalid Parameter", result.message);
    EXPECT_EQ(lines{"http open with invalid parameter"}, errors());
    result = {};
    log_.clear();
  };
  refused(dl_http_open(nullptr, &request, redirect, &result));
  refused(dl_http_open(&session, nullptr, redirect, &result));
  refused(dl_http_open(&session, &no_url, redirect, &result));
  refused(dl_http_open(&session, &request, nullptr, &result));
  refused(dl_http_open_ex(&session, nullptr, redirect, &result));
  refused(dl_http_open_ex(&session, &half, redirect, &result));
  refused(dl_http_open_ex(&session, &extended, nullptr, &result));
  EXPECT_EQ(-1, dl_http_open(&session, &request, redirect, nullptr));
  EXPECT_EQ(DL_ERR_URL, fetch({.url = "gopher://x/"}).code);
  EXPECT_EQ(DL_ERR_URL, fetch({.url = "http://127.0.0.1/a\r\nX: y"}).code);
  EXPECT_EQ(DL_ERR_IPV6_DISABLED, fetch({.url = "http://[::1]/"}).code);
  EXPECT_EQ(DL_ERR_CONNECT, fetch({.url = "http://127.0.0.1:" + std::to_string(free_port()) + "/"}).code);
  g_dl_cfg.initialised = 0;
  EXPECT_EQ(DL_ERR_NOT_INITIALISED, fetch(ask).code);
  EXPECT_EQ("config doesn't init", errors().back());
  g_dl_cfg.initialised = 1;
}

}  // namespace
