// http_response.cpp and http_open.cpp: what the library does about every kind of answer: final statuses,
// redirects, challenges, proxies, and servers that break off or never end.
#include <gtest/gtest.h>

#include "tests/support/http_fixture.h"
#include "tests/support/process.h"

namespace {

using namespace test;
using std::string;

const string self = "http://127.0.0.1:@PORT@";
const string vault = "Basic realm=\"vault\"";
const string basic_answer = "Authorization: Basic cGhvbmU6czNjcmV0\r\n";  // phone:s3cret
const http_ask phone = {.user = "phone", .password = "s3cret"};
const http_ask far = {.url = "http://origin.invalid/a", .proxy = "peer"};
const string head_200 = "HTTP/1.1 200 OK\r\n";
const string failed = "handler response error";

step get(const string& path, const string& more = "", const string& host = "127.0.0.1:@PORT@") {
  return expect(request_head("GET", path, more, host));
}
step post(const string& path, const string& more = "") {
  return expect(request_head("POST", path, "Content-Length: 4\r\n" + more) + "data");
}
connection_script answered(const string& bytes) {
  return {get("/a"), send(bytes)};
}
connection_script ends(const step& request) {
  return {request, send(response("200 OK", "end"))};
}
const connection_script moved = answered(redirect_to(self + "/b", "moved"));
const connection_script asked = answered(unauthorized(vault));

struct response_row {
  string name;
  std::vector<connection_script> scripts;
  int32_t code;  // of the open call; 0: it succeeds
  string text;   // the body; after a failure the reason in the log, if there is one beside the usual
  string redirect = {};
  http_ask ask = {};
};

class http_response : public http_test {
 protected:
  // `ask` without a URL asks for /a at the peer, which is the proxy where that is "peer".
  http_outcome talk(const std::vector<connection_script>& scripts, http_ask ask = {},
                    delivery mode = delivery::whole) {
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
  void run(const std::vector<response_row>& rows) {
    for (const response_row& row : rows) {
      for (const delivery mode : {delivery::whole, delivery::byte_by_byte}) {
        SCOPED_TRACE(testing::Message() << row.name << " " << mode);
        const http_outcome outcome = talk(row.scripts, row.ask, mode);
        EXPECT_EQ(row.code, outcome.code);
        EXPECT_EQ(row.code == 0 ? row.text : "", outcome.body);
        lines reasons(!row.text.empty(), row.text);
        if (row.code < 0) reasons.push_back(failed);
        EXPECT_EQ(row.code == 0 ? lines{} : reasons, errors());
        EXPECT_EQ(log_.count("response code: 200") > 0, outcome.has_headers) << "200 alone keeps them";
        string redirect = row.redirect;
        if (const auto at = redirect.find("@PORT@"); at != string::npos) redirect.replace(at, 6, port_);
        EXPECT_EQ(redirect, outcome.redirect);
        char message[64] = "";
        if (row.code != 0) dl_get_error_string(row.code, message, sizeof message);
        EXPECT_EQ(message, outcome.message);
        EXPECT_EQ(0u, log_.count("s3cret") + log_.count("response=\"")) << log_.all();
      }
    }
  }
  string port_;
};

TEST_F(http_response, status_decides) {
  const std::pair<string, int32_t> rows[] = {
      {"200 OK", 0},        {"100 Continue", 0}, {"303 See Other", 0}, {"304 Same", 304},
      {"399 X", 0},         {"400 Bad", 400},    {"999 X", 999},       {"20x", 0},
      {"2000 cut at 3", 0}, {"  404 wide", 404}, {"000 no status", 0}, {"001 not ours either", 0}};
  for (const auto& [status, code] : rows) {
    const string refused = code == 304 ? "Client error, same data. code: 304" : "Client error";
    run({{status, {answered(response(status, "body"))}, code, code == 0 ? "body" : refused}});
  }
}

// Symptom: a response that ended inside its header passed for an empty file.
TEST_F(http_response, status_and_end_of_the_body_are_known) {
  const string chunked = head_200 + "Transfer-Encoding: chunked\r\n\r\n";
  const std::tuple<string, int, int> rows[] = {
      {response("200 OK", "body"), 200, DL_BODY_WHOLE},
      {response("201 Made"), 201, DL_BODY_WHOLE},
      {"HTTP/1.1 204 None\r\n\r\n", 204, DL_BODY_WHOLE},
      {head_200 + "Content-Length: 9\r\n\r\nbody", 200, DL_BODY_CUT},
      {head_200 + "\r\nbody", 200, DL_BODY_UNMARKED},
      {head_200 + "\r\n" + string(200, 'x'), 200, DL_BODY_UNMARKED},  // beyond the size limit
      {chunked + "4\r\nbody\r\n0\r\n\r\n", 200, DL_BODY_WHOLE},
      {chunked + "4\r\nbo", 200, DL_BODY_CUT},
      {"HTTP/1.1 20", 20, DL_BODY_HEADER_CUT},
      {head_200 + "Content-Le", 200, DL_BODY_HEADER_CUT},
      {head_200 + "Content-Length: 0\r\n", 200, DL_BODY_HEADER_CUT},
  };
  set_option(DL_OPT_MAX_FILE_SIZE, 100);
  for (const auto& [bytes, status, end] : rows) {
    const http_outcome outcome = talk({answered(bytes)});
    EXPECT_EQ(std::pair(status, end), std::pair(outcome.status, outcome.end)) << bytes;
  }
  talk({asked, {get("/a", basic_answer), send(unauthorized("X"))}}, phone);
  EXPECT_EQ(401, dl_http_last_status());
  EXPECT_EQ(DL_ERR_URL, fetch({.url = "gopher://x/"}).code);
  EXPECT_EQ(0, dl_http_last_status()) << "of an earlier call";
}

// A cause of an earlier call, or of another thread's, would name a trouble that there was not.
TEST_F(http_response, causes_are_those_of_the_threads_last_transfer) {
  const auto cause = [] {
    dl_cause_info info = {};
    return dl_last_cause(&info) == info.cause ? std::pair(info.cause, info.number) : std::pair(-1, -1);
  };
  const std::pair<int, int> none(DL_CAUSE_NONE, 0);
  fetch({.url = "http://127.0.0.1:" + std::to_string(free_port()) + "/"});
  EXPECT_EQ(std::pair(int{DL_CAUSE_CONNECT}, ECONNREFUSED), cause());
  std::thread([&] { EXPECT_EQ(none, cause()); }).join();
  EXPECT_EQ(DL_ERR_URL, fetch({.url = "gopher://x/"}).code);
  EXPECT_EQ(none, cause());
  EXPECT_EQ(0, talk({answered(head_200 + "Content-Le")}).code);
  EXPECT_EQ(DL_CAUSE_HEADER_CUT, cause().first);
  talk({answered(response("200 OK", "body"))});
  EXPECT_EQ(none, cause());
}

// clang-format off
TEST_F(http_response, redirects_and_broken_answers) {
  const string at_b = self + "/b", closed = "http://127.0.0.1:" + std::to_string(free_port()) + "/";
  const auto redirected = [](const string& line) { return answered("HTTP/1.1 302\r\n" + line + "\r\n\r\n"); };
  const connection_script end_b = ends(get("/b")), knows_b = ends(get("/b", basic_answer));
  const string chunks = "Content-Length: 2\r\nTransfer-Encoding: gzip, Chunked\r\n\r\n4\r\nbody\r\n0\r\n\r\n";
  set_option(DL_OPT_MAX_REDIRECTS, 1);
  run({
      {"followed", {moved, end_b}, 0, "end", at_b},
      {"301, other case", {answered("HTTP/1.0 301 X\r\nLOCATION: " + at_b + "\r\n\r\n"), end_b}, 0, "end", at_b},
      {"one too many", {moved, {get("/b"), send(redirect_to(self))}}, DL_ERR_REDIRECTS, "", at_b},
      {"escaped when sent", {redirected("Location: " + self + "/x y"), ends(get("/x%20y"))}, 0, "end", self + "/x y"},
      {"NUL", {redirected("X:" + string(1, '\0') + "location: x")}, DL_ERR_REDIRECTS, "Can't find location header"},
      {"no space: a character is lost", {redirected("Location:" + self)}, DL_ERR_REDIRECT_URL, "", self.substr(1)},
      {"empty", {redirected("Location:")}, DL_ERR_REDIRECT_URL, ""},
      {"relative", {redirected("Location: /b")}, DL_ERR_REDIRECT_URL, "", "/b"},
      {"line feed in it", {redirected("Location: http://h/\nX:1")}, DL_ERR_REDIRECT_URL, "", "http://h/\nX:1"},
      {"closed port", {redirected("Location: " + closed)}, DL_ERR_CONNECT, "Connect Error", closed},
      {"a POST is posted again", {{post("/a", "X: 1\r\n"), send(redirect_to(at_b))}, ends(post("/b", "X: 1\r\n"))},
       0, "end", at_b, {.method = DL_METHOD_POST, .headers = "X: 1\r\n", .body = "data"}},
      {"challenged there", {moved, {get("/b"), send(unauthorized(vault))}, knows_b}, 0, "end", at_b, phone},
      {"an answer stays with its origin", {asked, {get("/a", basic_answer), send(redirect_to(at_b))}, knows_b},
       0, "end", at_b, phone},

      {"nothing", {{get("/a")}}, DL_ERR_INVALID_DATA, ""},
      {"reset before an answer", {{get("/a"), reset()}}, DL_ERR_READ, "Peek error!"},
      {"cut in a header line", {answered(head_200 + "Content-Le")}, 0, ""},
      {"negative number", {answered("HTTP/1.1 -12\r\n\r\n")}, -12, ""},
      {"bare line feeds", {answered("HTTP/1.1 200 OK\n\nbody")}, 0, ""},
      {"long status line", {answered(string(125, 'x') + "\r\n")}, DL_ERR_READ, "Buffer not enough! buffer len 128"},
      {"first length of two", {answered(response("200 OK", "body", "Content-Length: 9\r\n"))}, 0, "body"},
      {"chunks win over a length", {answered(head_200 + chunks)}, 0, "body"},
  });
}

TEST_F(http_response, challenges) {
  const string xsi = "Authorization: BroadWorksSIP basic=\"czNjcmV0\", sipUser=\"cGhvbmU=\"\r\n";
  const string digest = R"(Authorization: Digest username="phone", realm="vault", nonce="n", uri="/a", response=")" +
                        md5_hex(md5_hex("phone:vault:s3cret") + ":n:" + md5_hex("GET:/a")) + "\"\r\n";
  const http_ask list = {.method = DL_METHOD_POST, .body = "data", .list = {{{"a", "1"}, {"b", "2"}}}};
  const step no = send(unauthorized(vault)), third = post("/a", "Authorization: Basic Yjoy\r\n");
  const connection_script first = {post("/a"), no}, second = {post("/a", "Authorization: Basic YTox\r\n"), no};
  set_option(DL_OPT_AUTH_RETRY_LIMIT, 1);
  run({
      {"basic", {asked, ends(get("/a", basic_answer))}, 0, "end", "", phone},
      {"digest", {answered(unauthorized("Digest realm=vault, nonce=n")), ends(get("/a", digest))}, 0, "end", "", phone},
      {"nobody: the empty user", {asked, ends(get("/a", "Authorization: Basic Og==\r\n"))}, 0, "end"},
      {"no challenge: read on", {answered("HTTP/1.1 401 No\r\n\r\n" + response("200 OK", "in"))}, 0, "in"},
      {"Basic comes second", {answered(unauthorized("X\r\nWWW-Authenticate: Basic"))}, DL_ERR_AUTH, "Input Auth Error"},
      {"two lines", {answered(unauthorized("Digest nonce=n"))}, DL_ERR_AUTH, "Output Auth Error", "", {.user = "u\n"}},
      {"xsi", {asked, ends(get("/a", xsi))}, 0, "end", "", {.user = "phone", .password = "s3cret", .auth_type = 2}},
      {"xsi without a user", {asked}, DL_ERR_AUTH, "Output SIP XSI Auth Error", "", {.auth_type = 2}},
      {"the last of a list fits", {first, second, ends(third)}, 0, "end", "", list},
      {"none of a list fits", {first, second, {third, no}}, DL_ERR_AUTH,
       "auth err, req type:1, 4xx times:2, limit itmes:2, wparam:2", "", list},
      {"does not fit", {asked, {get("/a", basic_answer), no}}, DL_ERR_AUTH,
       "auth err, req type:0, 4xx times:1, limit itmes:2, wparam:0", "", phone},
  });
}

TEST_F(http_response, a_proxy_keeps_the_connection_over_redirects_and_their_bodies_are_drained) {
  set_option(DL_OPT_MAX_FILE_SIZE, 100);
  const step first = get("/a", "", "origin.invalid"), second = get("/b", "", "other.invalid");
  const step end = send(response("200 OK", "end"));
  const string there = "http://other.invalid/b", secure = "https://origin.invalid/a";
  const auto body_of = [&](std::size_t size) { return send(redirect_to(there, string(size, 'x'))); };
  const step chunked = send("HTTP/1.1 302\r\nTransfer-Encoding: chunked\r\nLocation: " + there +
                            "\r\n\r\n5\r\nmoved\r\n0\r\n\r\n");
  const string late = "\r\n" + head_200 + "Content-Length: 4\r\n\r\nlate", to_there = "Location: " + there + "\r\n";
  const step cut = send("HTTP/1.1 302\r\nContent-Length: 9\r\n" + to_there + "\r\nhalf");
  const step no_length = send("HTTP/1.1 302\r\n" + to_there + "\r\n" + string(100, 'x') + late);
  const step trailer = send("HTTP/1.1 302\r\nTransfer-Encoding: chunked\r\n" + to_there + "\r\n0\r\nX: y" + late);
  run({
      {"chunks, then a length", {{first, chunked, second, end}}, 0, "end", there, far},
      {"longest body", {{first, body_of(100), second, end}}, 0, "end", there, far},
      {"too long a body", {{first, body_of(101)}}, DL_ERR_READ, "redirect body too long", there, far},
      {"cut", {{first, cut}}, DL_ERR_READ, "redirect body without its end", there, far},
      {"no length, then late bytes", {{first, no_length}}, DL_ERR_READ, "redirect body without its end", there, far},
      {"a trailer, then late bytes", {{first, trailer}}, DL_ERR_READ, "redirect body without its end", there, far},
      {"nothing in clear", {{first, send(redirect_to(secure))}}, DL_ERR_SEND, "Request Send Error", secure, far},
  });
  tcp_peer proxy({{stall()}});
  EXPECT_EQ(DL_ERR_SEND, fetch({.url = secure, .proxy = proxy.url("http")}).code);
  EXPECT_TRUE(proxy.finish());
  EXPECT_EQ("", proxy.received(0));
}
// clang-format on

// Symptom: a password answered at one server shows up at another.
TEST_F(http_response, an_answer_is_dropped_when_the_origin_changes) {
  tcp_peer other({ends(get("/b"))});
  const step leave = send(redirect_to(other.url("http", "/b")));
  EXPECT_EQ("end", talk({asked, {get("/a", basic_answer), leave}}, phone).body);
  EXPECT_TRUE(other.finish());
  EXPECT_EQ(1u, log_.count("redirect leaves 127.0.0.1:" + port_ + " for 127.0.0.1:"));
}

TEST_F(http_response, a_challenge_is_answered_at_the_origin_and_the_proxy_is_left_for_good) {
  tcp_peer origin(
      {{get("/a", basic_answer), send(redirect_to(self + "/b", "unread"))}, ends(get("/b", basic_answer))});
  const http_ask ask = {origin.url("http", "/a"), DL_METHOD_GET, phone.user, phone.password, "peer"};
  const string host = "127.0.0.1:" + std::to_string(origin.port());
  EXPECT_EQ("end", talk({{get("/a", "", host), send(unauthorized(vault))}}, ask).body);
  EXPECT_TRUE(origin.finish());
}

TEST_F(http_response, headers_may_have_256_kib) {
  string head = head_200 + "Content-Length: 4\r\n";
  while (head.size() < 200 * 1024) head += "X-Header: " + string(80, 'v') + "\r\n";
  EXPECT_EQ("body", talk({answered(head + "\r\nbody and more")}).body);
  EXPECT_EQ(DL_ERR_MEMORY, talk({answered(head + head)}).code);
  EXPECT_EQ(lines{failed}, errors());
}

TEST_F(http_response, a_server_that_stalls_is_given_up_after_the_time_out) {
  EXPECT_EQ(DL_ERR_READ, talk({{get("/a"), send(head_200 + "Conte"), stall()}}).code);
  EXPECT_EQ((lines{"Select error! errno 0", "Peek error!", failed}), errors());
  const string half = head_200 + "Content-Length: 9\r\n\r\nhalf";
  EXPECT_EQ(DL_ERR_READ, talk({{get("/a"), send(half), stall()}}).read_code);
  EXPECT_EQ((lines{"Select error! errno 0", "read error"}), errors());
  const string moving = "HTTP/1.1 302\r\nLocation: http://h/\r\nContent-Length: 9\r\n\r\nhalf";
  EXPECT_EQ(DL_ERR_READ, talk({{get("/a", "", "origin.invalid"), send(moving), stall()}}, far).code);
  EXPECT_EQ((lines{"Select error! errno 0", "read error", "redirect body without its end", failed}),
            errors());
}

TEST_F(http_response, missing_arguments_and_urls_that_do_not_parse) {
  dl_http_session* session = nullptr;
  char redirect[DL_REDIRECT_SIZE];
  dl_result result;
  const dl_http_request request = phone.request();
  const dl_http_request_ex no_request = {nullptr, 0};
  EXPECT_EQ(-1, dl_http_open(nullptr, &request, redirect, &result));
  EXPECT_EQ(DL_ERR_PARAMETER, std::exchange(result, {}).code);
  EXPECT_EQ(-1, dl_http_open_ex(&session, &no_request, redirect, &result));
  EXPECT_EQ(DL_ERR_PARAMETER, result.code);
  EXPECT_EQ(lines(2, "http open with invalid parameter"), errors());
  EXPECT_EQ(DL_ERR_URL, fetch({.url = "gopher://x/"}).code);
  EXPECT_EQ(DL_ERR_URL, fetch({.url = far.url, .proxy = "proxy:3128"}).code);
  const string closed = "http://127.0.0.1:" + std::to_string(free_port());
  EXPECT_EQ(DL_ERR_CONNECT, fetch({.url = far.url, .proxy = closed}).code);
  EXPECT_EQ("Connect Error", errors().back());
  EXPECT_EQ(DL_ERR_IPV6_DISABLED, fetch({.url = "http://[::1]/"}).code);
  g_dl_cfg.initialised = 0;
  EXPECT_EQ(DL_ERR_NOT_INITIALISED, fetch({.url = far.url}).code);
  EXPECT_EQ("config doesn't init", errors().back());
  g_dl_cfg.initialised = 1;
}

}  // namespace
