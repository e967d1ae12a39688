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
const http_ask phone = {.user = "phone", .password = "s3cret"};

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

class http_response : public http_test {
 protected:
  // `ask` without a URL asks for /a at the peer, which is the proxy where that is "peer".
  http_outcome talk(const std::vector<connection_script>& scripts, http_ask ask, delivery mode) {
    tcp_peer server(scripts, {.mode = mode});
    if (ask.url.empty()) ask.url = server.url("http", "/a");
    if (ask.proxy == "peer") ask.proxy = server.url("http");
    log_.clear();
    const http_outcome outcome = fetch(ask);
    EXPECT_TRUE(server.finish());
    EXPECT_EQ(scripts.size(), server.num_connections());
    port_ = std::to_string(server.port());
    return outcome;
  }
  void run(std::span<const response_row> rows) {
    for (const response_row& row : rows) {
      SCOPED_TRACE(row.name);
      for (const delivery mode : all_deliveries) {
        SCOPED_TRACE(mode);
        const http_outcome outcome = talk(row.scripts, row.ask, mode);
        EXPECT_EQ(row.code, outcome.code);
        EXPECT_EQ(row.body, outcome.body);
        EXPECT_EQ(row.error_lines, errors());
        std::string redirect = row.redirect;
        if (const auto at = redirect.find("@PORT@"); at != std::string::npos) redirect.replace(at, 6, port_);
        EXPECT_EQ(redirect, outcome.redirect);
        char text[64] = "";
        if (row.code != 0) dl_get_error_string(row.code, text, sizeof text);
        EXPECT_EQ(text, outcome.message);
        EXPECT_EQ(0u, log_.count("s3cret") + log_.count("response=\"")) << log_.all();
      }
    }
  }
  std::string port_;
};

TEST_F(http_response, status_decides) {
  const struct {
    const char* status;
    int32_t code;  // of dl_http_open(); 0: it opens
  } cases[] = {{"200 OK", 0},  {"100 Continue", 0}, {"204 No", 0}, {"303 See Other", 0}, {"304 Same", 304},
               {"305 X", 0},   {"307 Temp", 0},     {"399 X", 0},  {"400 Bad", 400},     {"407 Proxy", 407},
               {"999 X", 999}, {"200", 0},          {"20x", 0},    {"2000 cut at 3", 0}, {"  404 wide", 404}};
  for (const auto& row : cases) {
    SCOPED_TRACE(row.status);
    const bool is_200 = std::string(row.status).substr(0, 3) == "200";
    for (const delivery mode : all_deliveries) {
      const http_outcome outcome = talk({answered(response(row.status, "body"))}, {}, mode);
      EXPECT_EQ(row.code, outcome.code);
      EXPECT_EQ(row.code == 0 ? "body" : "", outcome.body);
      EXPECT_EQ(is_200, outcome.has_headers);
      EXPECT_EQ(lines(row.code != 0, row.code == 304 ? "Client error, same data. code: 304" : "Client error"),
                errors());
    }
  }
  EXPECT_EQ("body", talk({answered(response("304 Same", "body"))}, {.auth_type = 0}, delivery::whole).body);
}

lines before_failure(const std::string& text) {
  return {text, "handler response error"};
}
const lines handler_failed = {"handler response error"};

// A row that opens, and one that fails with `error` as the reason in the log (empty: none beside the
// usual).
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

connection_script answered_to(const step& request, const std::string& body) {
  return {request, send(response("200 OK", body))};
}
const connection_script arrived = answered_to(get("/b"), "there");
const connection_script moved = answered(redirect_to(self + "/b", "moved"));
const connection_script asked = answered(unauthorized(vault));
const connection_script rejected = {get("/a", basic_answer), send(unauthorized(vault))};
step post_of(const std::string& path) {
  return expect(request_head("POST", path, "Content-Length: 4\r\nX-More: 1\r\n") + "data");
}

// clang-format off
const response_row redirect_rows[] = {
    good("followed", {moved, arrived}, "there", self + "/b"),
    good("301, mixed-case header, no phrase",
         {answered("HTTP/1.0 301\r\nLOCATION: " + self + "/b\r\n\r\n"), arrived}, "there", self + "/b"),
    good("space in the target is escaped on the wire only",
         {answered(redirect_to(self + "/x y")), answered_to(get("/x%20y"), "")}, "", self + "/x y"),
    good("five hops", hops(5, answered_to(get("/5"), "far")), "far", self + "/5"),
    bad("six hops", hops(5, {get("/5"), send(redirect_to(self + "/6"))}), DL_ERR_REDIRECTS, "", self + "/5"),
    bad("no location", {answered(response("302 Found"))}, DL_ERR_REDIRECTS, "Can't find location header"),
    bad("no space before the target loses its first character",
        {answered("HTTP/1.1 302\r\nLocation:" + self + "\r\n\r\n")}, DL_ERR_REDIRECT_URL, "", self.substr(1)),
    bad("empty location", {answered("HTTP/1.1 302\r\nLocation:\r\n\r\n")}, DL_ERR_REDIRECT_URL),
    bad("other scheme", {answered(redirect_to("ftp://h/b"))}, DL_ERR_REDIRECT_URL, "", "ftp://h/b"),
    bad("relative", {answered(redirect_to("/b"))}, DL_ERR_REDIRECT_URL, "", "/b"),
    bad("line feed in it", {answered(redirect_to(self + "\nX:1"))}, DL_ERR_REDIRECT_URL, "", self + "\nX:1"),
    bad("carriage return in its host", {answered(redirect_to("http://h\rX/"))}, DL_ERR_REDIRECT_URL, "",
        "http://h\rX/"),
    bad("no answer to the second request", {moved, {get("/b")}}, DL_ERR_INVALID_DATA, "", self + "/b"),
    good("a POST is posted again",
         {{post_of("/a"), send(redirect_to(self + "/b"))}, answered_to(post_of("/b"), "took it")},
         "took it", self + "/b", {.method = DL_METHOD_POST, .headers = "X-More: 1\r\n", .body = "data"}),
    good("credentials answer a challenge at the new place",
         {moved, {get("/b"), send(unauthorized(vault))}, answered_to(get("/b", basic_answer), "in")},
         "in", self + "/b", phone),
    good("an answer stays with its origin",
         {asked, {get("/a", basic_answer), send(redirect_to(self + "/b"))},
          answered_to(get("/b", basic_answer), "in")}, "in", self + "/b", phone),
};
// clang-format on

const std::string digest_answer =
    "Authorization: Digest username=\"phone\", realm=\"vault\", nonce=\"abc\", uri=\"/a\", response=\"" +
    md5_hex(md5_hex("phone:vault:s3cret") + ":abc:" + md5_hex("GET:/a")) + "\"\r\n";
connection_script let_in_with(const std::string& answer) {
  return answered_to(get("/a", answer), "in");
}
const std::string none_401 = "HTTP/1.1 401 No\r\n\r\n";
std::string auth_line(int type, int times, int limit, int tried = 0) {
  return "auth err, req type:" + std::to_string(type) + ", 4xx times:" + std::to_string(times) +
         ", limit itmes:" + std::to_string(limit) + ", wparam:" + std::to_string(tried);
}

// clang-format off
const response_row auth_rows[] = {
    good("basic", {asked, let_in_with(basic_answer)}, "in", "", phone),
    good("digest",
         {answered(unauthorized("Digest realm=\"vault\", nonce=\"abc\"")), let_in_with(digest_answer)},
         "in", "", phone),
    good("no credentials: the empty user", {asked, let_in_with("Authorization: Basic Og==\r\n")}, "in"),
    bad("refused beyond the limit", {asked, rejected, rejected}, DL_ERR_AUTH, auth_line(0, 2, 3), "", phone),
    good("no challenge: the connection is read on", {answered(none_401 + response("200 OK", "in"))}, "in"),
    bad("empty challenge", {answered(unauthorized(""))}, DL_ERR_AUTH, "Input Auth Error"),
    bad("only the first challenge counts",
        {answered(response("401 No", "", "WWW-Authenticate: Bearer\r\nWWW-Authenticate: Basic\r\n"))},
        DL_ERR_AUTH, "Input Auth Error"),
    bad("a user with a line break cannot answer", {answered(unauthorized("Digest realm=\"v\", nonce=\"n\""))},
        DL_ERR_AUTH, "Output Auth Error", "", {.user = "a\r\nX: y", .password = "p"}),
    good("broadworks",
         {asked, let_in_with("Authorization: BroadWorksSIP basic=\"czNjcmV0\", sipUser=\"cGhvbmU=\"\r\n")},
         "in", "", {.user = "phone", .password = "s3cret", .auth_type = 2}),
    bad("broadworks without a user", {asked}, DL_ERR_AUTH, "Output SIP XSI Auth Error", "", {.auth_type = 2}),
    bad("a list without entries", {asked}, DL_ERR_AUTH, auth_line(1, 0, 3), "", {.auth_type = 1}),
};
// clang-format on

TEST_F(http_response, redirects) {
  run(redirect_rows);
  set_option(DL_OPT_MAX_REDIRECTS, 0);
  run(std::vector{bad("limit 0", {moved}, DL_ERR_REDIRECTS)});
}
TEST_F(http_response, challenges) {
  run(auth_rows);
  set_option(DL_OPT_AUTH_RETRY_LIMIT, 1);
  run(std::vector{bad("limit 1", {asked, rejected}, DL_ERR_AUTH, auth_line(0, 1, 2), "", phone)});
}

TEST_F(http_response, credential_list_is_offered_in_order) {
  const auto post = [](const std::string& answer) {
    return expect(request_head("POST", "/a", "Content-Length: 1\r\n" + answer) + "x");
  };
  std::vector<connection_script> scripts = {{post(""), send(unauthorized(vault))}};
  for (const std::string answer : {"YTox", "Yjoy", "Yzoz"}) {
    scripts.push_back({post("Authorization: Basic " + answer + "\r\n"), send(unauthorized(vault))});
  }
  const http_ask ask = {
      .method = DL_METHOD_POST, .body = "x", .list = {{{"a", "1"}, {"b", "2"}, {"c", "3"}}}};
  run(std::vector{bad("none fits", scripts, DL_ERR_AUTH, auth_line(1, 3, 3, 3), "", ask)});
  scripts.back().back() = send(response("201 Created", "answer"));
  run(std::vector{good("the last fits", scripts, "answer", "", ask)});
}

// Symptom: a password answered at one server shows up at another.
TEST_F(http_response, authorization_is_dropped_when_the_origin_changes) {
  tcp_peer other({arrived});
  const http_outcome outcome = talk(
      {answered(unauthorized(vault)), {get("/a", basic_answer), send(redirect_to(other.url("http", "/b")))}},
      phone, delivery::whole);
  EXPECT_EQ("there", outcome.body);
  EXPECT_TRUE(other.finish());
  EXPECT_EQ(1u, log_.count("redirect leaves 127.0.0.1:" + port_ + " for 127.0.0.1:"));
}

TEST_F(http_response, closed_ports) {
  const std::string closed = "http://127.0.0.1:" + std::to_string(free_port()) + "/";
  run(std::vector{bad("redirect", {answered(redirect_to(closed))}, DL_ERR_CONNECT, "Connect Error", closed)});
  log_.clear();
  EXPECT_EQ(DL_ERR_CONNECT, fetch({.url = "http://origin.invalid/", .proxy = closed}).code);
  EXPECT_EQ(lines{"Connect Error"}, errors());
}

step get_through(const std::string& path, const std::string& host) {
  return expect(request_head("GET", path, "", host));
}

TEST_F(http_response, proxies_keep_the_connection_over_redirects_and_drain_their_bodies) {
  set_option(DL_OPT_MAX_FILE_SIZE, 100);
  const http_ask through = {.url = "http://origin.invalid/a", .proxy = "peer"};
  const step first = get_through("/a", "origin.invalid");
  const std::string end = "http://other.invalid/b";
  const auto redirect = [&](std::size_t size) { return send(redirect_to(end, std::string(size, 'x'))); };
  const step chunked_redirect = send(
      "HTTP/1.1 302 Found\r\nTransfer-Encoding: chunked\r\nLocation: http://third.invalid/c\r\n\r\n"
      "5\r\nmoved\r\n0\r\n\r\n");
  run(std::vector{
      good("longest body, chunks",
           {{first, chunked_redirect, get_through("/c", "third.invalid"), redirect(100),
             get_through("/b", "other.invalid"), send(response("200 OK", "there"))}},
           "there", end, through),
      bad("too long a body", {{first, redirect(101)}}, DL_ERR_READ, "redirect body too long", end, through)});
}

TEST_F(http_response, a_challenge_is_answered_at_the_origin_and_the_proxy_is_left_for_good) {
  tcp_peer origin({{get("/a", basic_answer), send(redirect_to(self + "/b", "unread"))},
                   answered_to(get("/b", basic_answer), "in")});
  http_ask ask = phone;
  ask.url = origin.url("http", "/a");
  ask.proxy = "peer";
  const std::string host = "127.0.0.1:" + std::to_string(origin.port());
  EXPECT_EQ("in", talk({{get_through("/a", host), send(unauthorized(vault))}}, ask, delivery::whole).body);
  EXPECT_TRUE(origin.finish());
}

TEST_F(http_response, https_through_a_proxy_is_never_spoken_in_clear) {
  const std::string first = request_head("GET", "/a", "", "origin.invalid");
  const std::string secure = "https://origin.invalid/a";
  for (const bool redirected : {false, true}) {
    log_.clear();
    tcp_peer proxy({redirected ? connection_script{expect(first), send(redirect_to(secure))}
                               : connection_script{stall()}});
    const std::string url = redirected ? "http://origin.invalid/a" : secure;
    EXPECT_EQ(DL_ERR_SEND, fetch({.url = url, .proxy = proxy.url("http")}).code);
    EXPECT_TRUE(proxy.finish());
    EXPECT_EQ(redirected ? first : "", proxy.received(0));
    EXPECT_EQ(redirected ? before_failure("Request Send Error") : lines{}, errors());
  }
}

const std::string head_200 = "HTTP/1.1 200 OK\r\n";
const std::string half_body = head_200 + "Content-Length: 9\r\n\r\nhalf";
std::string head_of(std::size_t size) {
  std::string head = head_200;
  while (head.size() < size) head += "X-Header: " + std::string(80, 'v') + "\r\n";
  return head;
}
const std::string gzip_chunked =
    "Content-Length: 2\r\nTransfer-Encoding: gzip, Chunked\r\n\r\n4\r\nbody\r\n0\r\n\r\n";

// clang-format off
const response_row broken_rows[] = {
    bad("nothing", {{get("/a")}}, DL_ERR_INVALID_DATA),
    good("cut in a header line", {answered(head_200 + "Content-Le")}, ""),
    good("cut in the body", {answered(half_body)}, "half"),
    good("no length", {answered(head_200 + "\r\nall of it")}, "all of it"),
    bad("other protocol", {answered("ICY 200 OK\r\n\r\n")}, DL_ERR_INVALID_DATA),
    bad("negative number", {answered("HTTP/1.1 -12\r\n\r\n")}, -12),
    good("bare line feeds", {answered("HTTP/1.1 200 OK\n\nbody")}, ""),
    bad("long status line", {answered("HTTP/1.1 200 " + std::string(112, 'x') + "\r\n\r\n")}, DL_ERR_READ,
        "Buffer not enough! buffer len 128"),
    good("first length of two", {answered(response("200 OK", "body", "Content-Length: 9\r\n"))}, "body"),
    good("chunks win over a length", {answered(head_200 + gzip_chunked)}, "body"),
    bad("reset before an answer", {{get("/a"), reset()}}, DL_ERR_READ, "Peek error!"),
};
// clang-format on

TEST_F(http_response, broken_answers) {
  run(broken_rows);
}

TEST_F(http_response, endless_headers_end_at_256_kib) {
  EXPECT_EQ(DL_ERR_MEMORY, talk({answered(head_of(300 * 1024))}, {}, delivery::whole).code);
  EXPECT_EQ(handler_failed, errors());
  EXPECT_EQ("body", talk({answered(head_of(200 * 1024) + "\r\nbody")}, {}, delivery::whole).body);
}

TEST_F(http_response, a_server_that_stalls_is_given_up_after_the_time_out) {
  const lines unread = {"Select error! errno 0", "Peek error!", "handler response error"};
  const struct {
    std::string bytes;
    int32_t code, read_code;
    lines error_lines;
  } cases[] = {{"", DL_ERR_READ, 0, unread},
               {head_200 + "Conte", DL_ERR_READ, 0, unread},
               {half_body, 0, DL_ERR_READ, {"Select error! errno 0", "read error"}}};
  for (const auto& row : cases) {
    SCOPED_TRACE(row.bytes);
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
  const auto code = [&](int rc) {
    EXPECT_STREQ("Invalid Parameter", result.message);
    return rc == -1 ? std::exchange(result, {}).code : 0;
  };
  EXPECT_EQ(std::vector<int32_t>(7, DL_ERR_PARAMETER),
            (std::vector{code(dl_http_open(nullptr, &request, redirect, &result)),
                         code(dl_http_open(&session, nullptr, redirect, &result)),
                         code(dl_http_open(&session, &no_url, redirect, &result)),
                         code(dl_http_open(&session, &request, nullptr, &result)),
                         code(dl_http_open_ex(&session, nullptr, redirect, &result)),
                         code(dl_http_open_ex(&session, &half, redirect, &result)),
                         code(dl_http_open_ex(&session, &extended, nullptr, &result))}));
  EXPECT_EQ(lines(7, "http open with invalid parameter"), errors());
  EXPECT_EQ(-1, dl_http_open(&session, &request, redirect, nullptr));
  EXPECT_EQ(DL_ERR_URL, fetch({.url = "gopher://x/"}).code);
  EXPECT_EQ(DL_ERR_URL, fetch({.url = "http://127.0.0.1/", .proxy = "proxy:3128"}).code);
  EXPECT_EQ(DL_ERR_URL, fetch({.url = "http://127.0.0.1/a\r\nX: y"}).code);
  EXPECT_EQ(DL_ERR_IPV6_DISABLED, fetch({.url = "http://[::1]/"}).code);
  g_dl_cfg.initialised = 0;
  EXPECT_EQ(DL_ERR_NOT_INITIALISED, fetch(ask).code);
  EXPECT_EQ("config doesn't init", errors().back());
  g_dl_cfg.initialised = 1;
}

}  // namespace
