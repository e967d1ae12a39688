// SPDX-License-Identifier: MIT
// http_response.cpp: reading responses, following redirects, answering challenges.
#include "http/http_response.h"

#include <string.h>

#include <algorithm>
#include <array>
#include <optional>

#include "core/boundary.h"
#include "core/cause.h"
#include "core/config.h"
#include "core/owners.h"
#include "core/text.h"
#include "http/http_answer.h"
#include "http/http_auth.h"
#include "http/http_challenge.h"
#include "http/http_connection.h"
#include "http/http_headers.h"
#include "http/http_response_body.h"
#include "http/http_status.h"
#include "log/log.h"
#include "log/printable.h"

namespace fetchrig {
namespace {

constexpr std::size_t first_block_bytes = 1024;
constexpr std::size_t max_status_line_bytes = 128;
constexpr head_rules classic_head = {max_line_bytes, false};
constexpr int max_interim_responses = 32;
constexpr int switching_protocols = 101;
constexpr int status_partial = 206;
constexpr int status_unauthorised = 401;

// The outcome of the loop, or the wish to have the next response read. No status can pose as that wish.
using step_outcome = std::optional<int>;
constexpr step_outcome read_next = std::nullopt;

class response_loop {
 public:
  response_loop(http_channel& channel, unique_url& url, bool proxied, http_msg& message, char* redirect,
                http_policy* policy)
      : channel_(channel),
        url_(url),
        proxied_(proxied),
        message_(message),
        redirect_(redirect),
        policy_(policy) {}

  int run() {
    for (;;) {
      const int status = read_response();
      if (status < 0) return status;
      if (const step_outcome outcome = dispatch(status)) return *outcome;
    }
  }

 private:
  int read_response();
  int read_head(const head_rules& rules);
  int read_headers(const head_rules& rules, bool& cut);
  void note_body(http_response_facts& facts);
  step_outcome dispatch(int status);

  step_outcome follow_redirect(int status);
  int take_target(int status, const char* line);
  void leave_origin(const dl_url& old_url);
  int rebuild_message();
  int renew_connection();
  int drain_proxied();
  int send();

  step_outcome answer_challenge();
  step_outcome answer_choice(int status);
  int check_attempts();
  int make_answer(auth_work& answer, const char* challenge);
  void choose_login(auth_work& answer);
  int resend_with(const auth_work& answer);
  int auth_failed(const char* text);

  const char* header(std::string_view name) { return http_find_header(channel_.session.headers, name); }
  bool uses_list() const { return message_.auth_type == http_auth_type::credential_list; }

  http_channel& channel_;
  unique_url& url_;
  bool proxied_;
  http_msg& message_;
  char* redirect_;
  http_policy* policy_;

  const uint32_t redirect_limit_ = max_redirects();
  const uint32_t retry_limit_ = auth_retry_limit();
  uint32_t redirects_ = 0;
  uint32_t attempts_ = 0;
  std::size_t block_bytes_ = first_block_bytes;
};

// Returns the status, or a negative code.
int response_loop::read_response() {
  const head_rules rules = rules_of_head(channel_, classic_head);
  for (int interim = 0; interim <= max_interim_responses; ++interim) {
    const int status = read_head(rules);
    const bool is_interim = status >= 100 && status < 200 && status != switching_protocols;
    if (!rules.is_whole || !is_interim) return status;
  }
  return log_and_return(DL_LOG_HTTP, DL_ERR_READ, "too many interim responses\n");
}

int response_loop::read_head(const head_rules& rules) {
  std::array<char, max_status_line_bytes> line = {};
  const int length = http_read_line(channel_, usual_line_bytes, usual_line_bytes, line);
  if (length < 0) return length;
  const auto status = parse_status_line({line.data(), static_cast<std::size_t>(length)});
  if (!status) {
    note_symptom(length == 0 ? DL_CAUSE_SILENT : DL_CAUSE_NOT_HTTP);
    log_line(DL_LOG_HTTP, DL_LOG_NOTICE, "%s\n",
             length == 0 ? "no answer before the end" : "not an HTTP answer");
    return DL_ERR_INVALID_DATA;
  }
  if (*status < 0) {
    note_symptom(DL_CAUSE_NOT_HTTP);
    log_line(DL_LOG_HTTP, DL_LOG_NOTICE, "not an HTTP answer\n");
    return *status;
  }
  clear_cause();
  log_line(DL_LOG_HTTP, DL_LOG_NOTICE, "response code: %d\n", *status);
  set_last_status(*status);
  http_response_facts facts{.known = true, .status = *status};
  if (const int rc = read_headers(rules, facts.header_cut); rc < 0) return rc;
  if (facts.header_cut) {
    note_cause(DL_CAUSE_HEADER_CUT);
    log_line(DL_LOG_HTTP, DL_LOG_NOTICE, "the header block ends early\n");
    if (rules.is_whole) return DL_ERR_READ;
  }
  if (rules.is_whole) {
    if (const int rc = begin_whole_body(channel_, facts); rc < 0) return rc;
  } else {
    note_body(facts);
  }
  note_persistence(channel_, {line.data(), static_cast<std::size_t>(length)});
  if (channel_.own) channel_.own->response = facts;
  return *status;
}

// `cut` tells whether the stream ended before the empty line.
int response_loop::read_headers(const head_rules& rules, bool& cut) {
  free_headers(channel_.session);
  header_block block;
  if (!block.start(block_bytes_)) return DL_ERR_MEMORY;
  for (;;) {
    auto room = block.room(rules.is_whole ? rules.max_line_bytes : usual_line_bytes);
    if (room.empty()) return DL_ERR_MEMORY;
    if (rules.is_whole) room = room.first(rules.max_line_bytes);  // a longer line fails
    const int length = http_read_line(channel_, usual_line_bytes, rules.max_line_bytes, room, &cut);
    if (length < 0) return length;
    if (length == 0) break;
    block.take_line(static_cast<std::size_t>(length));
  }
  block_bytes_ = block.size();
  channel_.session.headers_len = static_cast<uint32_t>(block.used());
  channel_.session.headers = block.release();
  return 0;
}

// How the body is to be read: by length or in chunks. A length beyond 32 bits counts as absent.
void response_loop::note_body(http_response_facts& facts) {
  dl_http_session& session = channel_.session;
  const char* line = header("content-length");
  const auto length = line ? parse_content_length(line) : std::nullopt;
  session.remaining = length.value_or(max_file_size());
  facts.has_length = length.has_value();
  facts.is_too_long = line && !length && announces_number(line);
  if (facts.is_too_long) log_line(DL_LOG_HTTP, DL_LOG_WARNING, "Content-Length of 4 GiB or more\n");
  if (length) {
    log_line(DL_LOG_HTTP, DL_LOG_INFO, "Content-Length: %d\n", static_cast<int>(session.remaining));
  }
  const char* encoding = header("transfer-encoding");
  if (encoding && strcasestr(encoding, "chunked")) {
    log_line(DL_LOG_HTTP, DL_LOG_INFO, "Chunked Encoding\n");
    session.flags |= DL_HTTP_FLAG_CHUNKED;
  }
}

step_outcome response_loop::dispatch(int status) {
  if (policy_) {
    if (const int rc = policy_->check(channel_.session.headers); rc < 0) return rc;
  }
  switch (policy_ ? policy_->act_on(status, message_) : classic_act(status)) {
    case response_act::follow:
      return follow_redirect(status);
    case response_act::answer:
      return answer_challenge();
    case response_act::answer_choice:
      return answer_choice(status);
    case response_act::finish:
      break;
  }
  if (status == 200) return 0;
  if (status == status_partial && message_.is_ranged) return status;
  free_headers(channel_.session);
  return status;
}

step_outcome response_loop::follow_redirect(int status) {
  if (redirects_ >= redirect_limit_) return DL_ERR_REDIRECTS;
  const char* line = header("location");
  if (!line) {
    note_cause(DL_CAUSE_NO_TARGET);
    return log_and_return(DL_LOG_HTTP, DL_ERR_REDIRECTS, "Can't find location header\n");
  }
  if (const int rc = take_target(status, line); rc < 0) return rc;
  if (const int rc = rebuild_message(); rc < 0) return rc;
  if (const int rc = proxied_ ? drain_proxied() : renew_connection(); rc != 0) return rc;
  if (const int rc = send(); rc < 0) return log_and_return(DL_LOG_HTTP, rc, "Request Send Error\n");
  ++redirects_;
  return read_next;
}

// The target becomes the URL; method and credentials carry over.
int response_loop::take_target(int status, const char* line) {
  log_line(DL_LOG_HTTP, DL_LOG_NOTICE, "redirect to new url\n");
  const char* target = header_value(line, strlen("location"));
  std::string resolved;
  if (policy_) {
    if (const int rc = policy_->resolve(resolved, *url_, line); rc < 0) return rc;
    target = resolved.c_str();
  }
  copy_text({redirect_, DL_REDIRECT_SIZE}, target);
  unique_url next;
  const int code = parse_url(next, target, url_->user, url_->password);
  if (code < 0) return code == DL_ERR_MEMORY ? DL_ERR_MEMORY : DL_ERR_REDIRECT_URL;
  next->method = url_->method;
  std::swap(url_, next);
  leave_origin(*next);
  return policy_ ? policy_->move(status, message_, *url_, *next) : 0;
}

// An answer to one origin's challenge is not shown to another.
void response_loop::leave_origin(const dl_url& old_url) {
  const bool same = old_url.scheme == url_->scheme && old_url.port == url_->port &&
                    equal_ignoring_case(old_url.host, url_->host);
  if (same) return;
  http_remove_header(message_, "Authorization");
  const bool downgrade = old_url.scheme == scheme_https && url_->scheme == scheme_http;
  log_line(DL_LOG_HTTP, DL_LOG_WARNING, "redirect leaves %s:%u for %s:%u%s\n",
           printable(old_url.host).c_str(), static_cast<unsigned>(old_url.port),
           printable(url_->host).c_str(), static_cast<unsigned>(url_->port),
           downgrade ? ", from https to http" : "");
}

int response_loop::rebuild_message() {
  if (const int rc = http_set_host(message_, *url_); rc < 0)
    return log_and_return(DL_LOG_HTTP, rc, "Reset Host Header Error\n");
  if (const int rc = http_set_request_line(message_, *url_); rc < 0)
    return log_and_return(DL_LOG_HTTP, rc, "Reset First Line Error\n");
  return 0;
}

int response_loop::renew_connection() {
  http_session_reset(channel_);
  if (url_->scheme == scheme_https) channel_.session.flags |= DL_HTTP_FLAG_TLS;
  const bool routed = policy_ && policy_->has_route();
  const int rc = routed ? policy_->connect(channel_, *url_)
                        : http_connect(channel_, url_->host, url_->port, tls_use::allowed);
  if (rc >= 0) return rc;
  return log_and_return(DL_LOG_HTTP, routed ? rc : DL_ERR_CONNECT, "Connect Error\n");
}

int response_loop::send() {
  if (policy_) {
    if (const int rc = policy_->complete(message_, *url_); rc < 0) return rc;
  }
  message_.sent_again = true;
  return http_send_request(channel_, message_);
}

// The connection to the proxy stays, when this body's end is where the next response begins: late bytes would
// pass for that response. It starts without a chunk state of this one. An https target gets the TLS bit
// without a TLS session, so that nothing for it is ever sent in clear.
int response_loop::drain_proxied() {
  switch (http_drain(channel_, max_file_size())) {
    case http_drained::whole:
      break;
    case http_drained::too_long:
      return log_and_return(DL_LOG_HTTP, DL_ERR_READ, "redirect body too long\n");
    case http_drained::incomplete:
      return log_and_return(DL_LOG_HTTP, DL_ERR_READ, "redirect body without its end\n");
  }
  free_chunk(channel_);
  channel_.session.flags &= ~(DL_HTTP_FLAG_CHUNKED | DL_HTTP_FLAG_IN_CHUNK);
  if (url_->scheme == scheme_https) channel_.session.flags |= DL_HTTP_FLAG_TLS;
  return 0;
}

step_outcome response_loop::answer_challenge() {
  if (const int rc = check_attempts(); rc < 0) return rc;
  const char* line = header("www-authenticate");
  if (!line) {
    ++attempts_;
    return read_next;
  }
  auth_work answer;
  if (const int rc = make_answer(answer, header_value(line, strlen("www-authenticate"))); rc < 0) return rc;
  log_line(DL_LOG_HTTP, DL_LOG_INFO, "http auth type: %d,\n", static_cast<int>(answer.picked));
  log_line(DL_LOG_HTTP, DL_LOG_INFO, "Reconnect %s:%d\n", printable(url_->host).c_str(),
           static_cast<int>(url_->port));
  if (const int rc = renew_connection(); rc != 0) return rc;
  proxied_ = false;
  if (const int rc = resend_with(answer); rc < 0) return rc;
  ++attempts_;
  return read_next;
}

step_outcome response_loop::answer_choice(int status) {
  const bool is_counted = status == status_unauthorised;
  if (const int rc = is_counted ? check_attempts() : 0; rc < 0) return rc;
  const int chosen = policy_->choose(status, channel_.session.headers, message_, *url_);
  if (chosen < 0) {
    http_session_reset(channel_);
    return chosen;
  }
  if (const int rc = renew_connection(); rc != 0) return rc;
  proxied_ = false;
  if (const int rc = send(); rc < 0) return rc;
  if (is_counted) ++attempts_;
  return read_next;
}

int response_loop::check_attempts() {
  const auto list_length = static_cast<uint32_t>(std::max(0, message_.num_credentials));
  if (attempts_ < (uses_list() ? list_length : retry_limit_)) return 0;
  return log_and_return(DL_LOG_HTTP, DL_ERR_AUTH,
                        "auth err, req type:%d, 4xx times:%d, limit itmes:%d, wparam:%d\n",
                        static_cast<int>(message_.auth_type), static_cast<int>(attempts_),
                        static_cast<int>(retry_limit_ + 1), message_.num_credentials);
}

int response_loop::make_answer(auth_work& answer, const char* challenge) {
  if (read_challenge(side_of(answer, 0), challenge) != HTTP_CHALLENGE_FINE)
    return auth_failed("Input Auth Error\n");
  choose_login(answer);
  const bool xsi = message_.auth_type == http_auth_type::broadworks_xsi;
  const int rc = xsi ? build_xsi_answer(side_of(answer, 0))
                     : build_answer(side_of(answer, 0), message_.method_text, url_->path);
  if (rc == HTTP_ANSWER_OK && answer.answer) return 0;
  return auth_failed(xsi ? "Output SIP XSI Auth Error\n" : "Output Auth Error\n");
}

// The next of the list, while there is one, or the URL's own.
void response_loop::choose_login(auth_work& answer) {
  if (!uses_list()) {
    answer.user = url_->user;
    answer.password = url_->password;
  } else if (message_.next_credential < message_.num_credentials) {
    const dl_auth_info& credential = message_.credentials[message_.next_credential++];
    answer.user = credential.user;
    answer.password = credential.password;
  }
}

// The answer is a whole header line; its value becomes the message's Authorization header.
int response_loop::resend_with(const auth_work& answer) {
  const std::string_view line = answer.answer;
  const auto value = line.substr(std::min(line.size(), line.find(' ') + 1));
  const auto text = duplicate_text(value.substr(0, value.find("\r\n")));
  if (!text) return DL_ERR_MEMORY;
  const int rc = http_set_header(message_, "Authorization", text.get());
  wipe(text.get());
  if (rc < 0) return rc;
  return send();
}

int response_loop::auth_failed(const char* text) {
  note_cause(DL_CAUSE_CHALLENGE);
  http_session_reset(channel_);
  return log_and_return(DL_LOG_HTTP, DL_ERR_AUTH, "%s", text);
}

}  // namespace

int http_process_response(http_channel& channel, unique_url& url, bool proxied, http_msg& message,
                          char* redirect, http_policy* policy) {
  const int outcome =
      guarded_step([&] { return response_loop(channel, url, proxied, message, redirect, policy).run(); });
  if (outcome < 0) free_headers(channel.session);
  return outcome;
}

}  // namespace fetchrig
