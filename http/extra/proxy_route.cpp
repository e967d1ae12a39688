// SPDX-License-Identifier: MIT
// proxy_route.cpp: connections through a proxy.
#include "http/extra/proxy_route.h"

#include <string.h>

#include <array>

#include "core/cause.h"
#include "core/config.h"
#include "core/text.h"
#include "http/extra/redirect_rules.h"
#include "http/http_connection.h"
#include "http/http_headers.h"
#include "http/http_status.h"
#include "log/log.h"
#include "log/printable.h"

namespace fetchrig {
namespace {

using std::string_view;

constexpr int status_login_wanted = 407;
constexpr int first_error_status = 400;
constexpr std::size_t answer_block_bytes = 1024;

// The URL's parts around its login.
struct proxy_text {
  ~proxy_text() {
    for (std::string* secret : {&user, &password}) wipe(*secret);
  }
  std::string url, user, password;
  bool has_login = false;
};

// "%40" for a character that would end the login; false where it would not fit a header line.
bool decode(std::string& to, string_view text) {
  to.reserve(text.size());
  for (std::size_t at = 0; at < text.size(); ++at) {
    const auto digit = [&](std::size_t index) {
      const char c = index < text.size() ? lower(text[index]) : '\0';
      return is_digit(c) ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    };
    const bool coded = text[at] == '%' && digit(at + 1) >= 0 && digit(at + 2) >= 0;
    const char c = coded ? static_cast<char>(digit(at + 1) * 16 + digit(at + 2)) : text[at];
    if (c == '\0' || c == '\r' || c == '\n') return false;
    to += c;
    if (coded) at += 2;
  }
  return true;
}

bool split(proxy_text& parts, string_view text) {
  const std::size_t mark = text.find("://");
  const std::size_t begin = mark == string_view::npos ? 0 : mark + 3;
  const string_view authority = text.substr(begin, text.find_first_of("/?#", begin) - begin);
  const std::size_t at = authority.rfind('@');
  parts.has_login = at != string_view::npos;
  const std::size_t login_len = parts.has_login ? at + 1 : 0;
  parts.url = std::string(text.substr(0, begin)).append(text.substr(begin + login_len));
  if (!parts.has_login) return true;
  const string_view login = authority.substr(0, at);
  const std::size_t colon = login.find(':');
  const string_view password = colon == string_view::npos ? string_view() : login.substr(colon + 1);
  return decode(parts.user, login.substr(0, colon)) && decode(parts.password, password);
}

int bad_answer() {
  note_cause(DL_CAUSE_NOT_HTTP);
  return log_and_return(DL_LOG_HTTP, DL_ERR_INVALID_DATA, "no answer of a proxy to CONNECT\n");
}

}  // namespace

int proxy_route::open(const char* proxy_url) {
  proxy_text parts;
  if (!split(parts, proxy_url)) return log_and_return(DL_LOG_HTTP, DL_ERR_URL, "bad login of a proxy\n");
  const char* user = parts.has_login ? parts.user.c_str() : nullptr;
  const char* password = parts.has_login ? parts.password.c_str() : nullptr;
  if (const int code = parse_url(proxy_, parts.url.c_str(), user, password); code < 0) return code;
  if (proxy_->scheme == scheme_http) return 0;
  return log_and_return(DL_LOG_HTTP, DL_ERR_URL, "a proxy is not spoken to over TLS\n");
}

int proxy_route::connect_to_proxy(http_channel& channel) {
  return http_connect(channel, proxy_->host, proxy_->port, tls_use::never);
}

int proxy_route::connect(http_channel& channel, const dl_url& url) {
  is_tunnel_ = url.scheme == scheme_https;
  if (is_tunnel_) return open_tunnel(channel, url);
  return connect_to_proxy(channel);
}

// CONNECT is in clear; from its answer on nothing is.
int proxy_route::open_tunnel(http_channel& channel, const dl_url& url) {
  const std::string target = host_and_port(url.host, url.port, 0);
  for (;;) {
    http_session_reset(channel);
    if (const int rc = connect_to_proxy(channel); rc < 0) return rc;
    if (const int rc = ask_for_tunnel(channel, target); rc < 0) return rc;
    const int status = read_answer(channel);
    if (status < 0) return status;
    if (status / 100 == 2) break;
    if (!wants_login(status)) {
      const int code = status < first_error_status ? int{DL_ERR_INVALID_DATA} : status;
      return log_and_return(DL_LOG_HTTP, code, "the proxy answers %d to CONNECT\n", status);
    }
    if (const int rc = choose(channel.session.headers); rc < 0) return rc;
  }
  // What came before TLS has begun came from nobody that has been checked.
  if (channel.own && !channel.own->ahead.held().empty())
    return log_and_return(DL_LOG_HTTP, DL_ERR_CONNECT, "the proxy answers more than CONNECT asks for\n");
  free_headers(channel.session);
  if (channel.own) channel.own->response = {};
  set_last_status(0);
  channel.session.flags |= DL_HTTP_FLAG_TLS;
  return http_start_tls(channel, url.host);
}

int proxy_route::ask_for_tunnel(http_channel& channel, const std::string& target) {
  const auto message = http_msg_new();
  if (!message) return DL_ERR_MEMORY;
  message->method_text = "CONNECT";
  message->request_line = "CONNECT " + target + " HTTP/1.1\r\n";
  log_line(DL_LOG_HTTP, DL_LOG_INFO, "Request Line: CONNECT %s\n", printable(target).c_str());
  if (const int rc = http_set_header(*message, "Host", target.c_str()); rc < 0) return rc;
  if (const int rc = http_set_header(*message, "User-Agent", user_agent().data()); rc < 0) return rc;
  if (const int rc = login_.answer(*message, target); rc < 0) return rc;
  return http_send_request(channel, *message);
}

// The status, its header block in the session, or a negative code. Its body, if it has one, is left where it is.
int proxy_route::read_answer(http_channel& channel) {
  std::array<char, usual_line_bytes> line = {};
  const int length = http_read_line(channel, usual_line_bytes, usual_line_bytes, line);
  if (length < 0) return length;
  const auto status = parse_status_line({line.data(), static_cast<std::size_t>(length)});
  if (!status || *status < 100) return bad_answer();
  log_line(DL_LOG_HTTP, DL_LOG_NOTICE, "response code: %d\n", *status);
  set_last_status(*status);
  header_block block;
  if (!block.start(answer_block_bytes)) return DL_ERR_MEMORY;
  for (;;) {
    const auto room = block.room(usual_line_bytes);
    if (room.empty()) return DL_ERR_MEMORY;
    bool cut = false;
    const int count = http_read_line(channel, usual_line_bytes, max_line_bytes, room, &cut);
    if (count < 0) return count;
    if (cut) return bad_answer();
    if (count == 0) break;
    block.take_line(static_cast<std::size_t>(count));
  }
  channel.session.headers_len = static_cast<uint32_t>(block.used());
  channel.session.headers = block.release();
  const int rc = login_.check(channel.session.headers);
  return rc < 0 ? rc : *status;
}

// The message may have been for another way before.
int proxy_route::complete(http_msg& message, const dl_url& url) {
  http_remove_header(message, proxy_fields.answer);
  if (is_tunnel_) return 0;
  const std::string target = url_text(url);
  message.request_line.assign(message.method_text).append(" ").append(target).append(" HTTP/1.1\r\n");
  return login_.answer(message, target);
}

bool proxy_route::wants_login(int status) const {
  return status == status_login_wanted && proxy_->user;
}

int proxy_route::choose(const char* headers) {
  if (logins_++ < auth_retry_limit()) return login_.choose(headers, proxy_->user, proxy_->password);
  return log_and_return(DL_LOG_HTTP, DL_ERR_AUTH, "the proxy asks for its login again and again\n");
}

}  // namespace fetchrig
