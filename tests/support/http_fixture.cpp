// http_fixture.cpp: one open call and the reads behind it.
#include "tests/support/http_fixture.h"

namespace test {
namespace {

int open(const http_ask& ask, dl_http_session** session, char* redirect, dl_result* result) {
  const dl_http_request request = ask.request();
  if (ask.list) {
    return dl_http_post_multi_auth(session, &request, ask.list->data(),
                                   static_cast<int32_t>(ask.list->size()), redirect, result);
  }
  if (!ask.auth_type) return dl_http_open(session, &request, redirect, result);
  const dl_http_request_ex extended = {&request, *ask.auth_type};
  return dl_http_open_ex(session, &extended, redirect, result);
}

void read_all(dl_http_session* session, std::size_t piece, http_outcome& outcome) {
  std::string buffer(piece, '\0');
  for (;;) {
    dl_result result = {};
    const int count = dl_http_read(session, buffer.data(), static_cast<int32_t>(piece), &result);
    outcome.read_code = result.code;
    if (count <= 0) return;
    outcome.body.append(buffer, 0, static_cast<std::size_t>(count));
  }
}

}  // namespace

std::string request_head(const std::string& method, const std::string& path, const std::string& more,
                         const std::string& host) {
  return method + " " + path + " HTTP/1.1\r\nHost: " + host +
         "\r\nUser-Agent: Korvane\r\nAccept: */*\r\nConnection: Keep-Alive\r\n" + more + "\r\n";
}

std::string response(const std::string& status, const std::string& body, const std::string& more) {
  return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + more +
         "\r\n" + body;
}

std::string redirect_to(const std::string& target, const std::string& body) {
  return response("302 Found", body, "Location: " + target + "\r\n");
}

std::string unauthorized(const std::string& challenge) {
  return response("401 Unauthorized", "", "WWW-Authenticate: " + challenge + "\r\n");
}

dl_http_request http_ask::request() const {
  return {method, url.c_str(), user, password, proxy.empty() ? nullptr : proxy.c_str(), headers, body};
}

http_outcome http_test::fetch(const http_ask& ask, std::size_t piece) const {
  http_outcome outcome;
  dl_http_session* session = nullptr;
  char redirect[DL_REDIRECT_SIZE] = {};
  dl_result result = {};
  const int rc = open(ask, &session, redirect, &result);
  outcome.code = result.code;
  outcome.message = result.message;
  outcome.redirect = redirect;
  EXPECT_EQ(rc, result.code == 0 ? 0 : -1);
  EXPECT_EQ(session != nullptr, rc == 0);
  if (!session) return outcome;
  outcome.has_headers = session->headers != nullptr;
  outcome.status = dl_http_get_status(session);
  read_all(session, piece, outcome);
  outcome.end = dl_http_body_end(session);
  dl_http_close(session);
  return outcome;
}

std::vector<std::string> http_test::errors() const {
  std::vector<std::string> texts;
  for (const log_message& message : log_.records()) {
    if (message.module == "HTTP" && message.level == DL_LOG_ERROR) texts.push_back(message.text);
  }
  return texts;
}

}  // namespace test
