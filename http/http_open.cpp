// SPDX-License-Identifier: MIT
// http_open.cpp: the steps of an HTTP call up to the first byte of the body.
#include "http/http_open.h"

#include "core/boundary.h"
#include "core/config.h"
#include "core/extras.h"
#include "core/result.h"
#include "core/url.h"
#include "http/extra/http_extras.h"
#include "http/http_connection.h"
#include "http/http_response.h"
#include "http/http_status.h"
#include "log/log.h"
#include "log/printable.h"

namespace fetchrig {
namespace {

constexpr int status_not_modified = 304;
constexpr int first_error_status = 400;

// The parsed URL gets the request's method, an https one sets the session's TLS bit. 0 or the parser's code.
int http_prepare_url(http_channel& channel, unique_url& url, const dl_http_request& request) {
  if (const int code = parse_url(url, request.url, request.user, request.password); code < 0) return code;
  if (url->scheme == scheme_https) channel.session.flags |= DL_HTTP_FLAG_TLS;
  url->method = static_cast<uint32_t>(request.method);
  return 0;
}

int connect_to(http_channel& channel, const dl_url& url, tls_use tls) {
  const int rc = http_connect(channel, url.host, url.port, tls);
  return rc < 0 ? log_and_return(DL_LOG_HTTP, rc, "Connect Error\n") : 0;
}

int connect_first(http_channel& channel, const dl_http_request& request, const dl_url& url,
                  http_policy* route) {
  if (route) {
    const int rc = route->connect(channel, url);
    return rc < 0 ? log_and_return(DL_LOG_HTTP, rc, "Connect Error\n") : rc;
  }
  if (!request.proxy) return connect_to(channel, url, tls_use::allowed);
  unique_url proxy;
  if (const int code = parse_url(proxy, request.proxy, nullptr, nullptr); code < 0) return code;
  return connect_to(channel, *proxy, tls_use::never);
}

std::unique_ptr<http_msg> new_message(const http_plan& plan, bool whole_bodies) {
  auto message = http_msg_new();
  if (!message) return message;
  message->auth_type = plan.auth_type;
  message->credentials = plan.credentials;
  message->num_credentials = plan.num_credentials;
  message->body.file_path = plan.file_path;
  message->body.streams_files = whole_bodies;
  return message;
}

int judge_status(const http_plan& plan, int status) {
  if (status < 0) return log_and_return(DL_LOG_HTTP, status, "handler response error\n");
  if (status >= first_error_status) return log_and_return(DL_LOG_HTTP, status, "Client error\n");
  if (plan.refuse_304 && status == status_not_modified) {
    return log_and_return(DL_LOG_HTTP, status, "Client error, same data. code: %d\n", status);
  }
  return 0;
}

int ask_for_range(http_msg& message, const http_range& range) {
  message.is_ranged = true;
  if (const int rc = http_set_header(message, "Range", range.bytes.c_str()); rc < 0) return rc;
  return http_set_header(message, "If-Range", range.validator.c_str());
}

int exchange(const http_plan& plan, http_channel& channel) {
  std::unique_ptr<http_policy> policy;
  if (const int rc = make_http_policy(policy, plan.extras, plan.request); rc < 0) return rc;
  const auto message = new_message(plan, channel.own->whole != nullptr);
  if (!message) return log_and_return(DL_LOG_HTTP, DL_ERR_MEMORY, "Out of memory\n");
  unique_url url;
  if (const int code = http_prepare_url(channel, url, plan.request); code < 0) return code;
  http_policy* const route = policy && policy->has_route() ? policy.get() : nullptr;
  if (const int rc = connect_first(channel, plan.request, *url, route); rc != 0) return rc;
  if (http_make_request(channel.is_tls(), *message, plan.request, *url) < 0) return DL_ERR_SEND;
  if (plan.range && ask_for_range(*message, *plan.range) < 0) return DL_ERR_SEND;
  if (policy && policy->complete(*message, *url) < 0) return DL_ERR_SEND;
  const int sent = http_send_request(channel, *message);
  if (sent < 0 && !may_have_answered(channel, sent)) return sent == DL_ERR_READ ? DL_ERR_READ : DL_ERR_SEND;
  log_line(DL_LOG_HTTP, DL_LOG_INFO, "process response\n");
  const bool proxied = plan.request.proxy && !route;
  const int status = http_process_response(channel, url, proxied, *message, plan.redirect, policy.get());
  log_line(DL_LOG_HTTP, DL_LOG_NOTICE, "response process finish!\n");
  if (sent < 0 && !message->sent_again && status < first_error_status) return DL_ERR_SEND;
  return judge_status(plan, status);
}

int open_new_session(const http_plan& plan, unique_http_session& session) {
  clear_result(plan.result);
  forget_earlier_calls();
  log_line(DL_LOG_HTTP, DL_LOG_NOTICE, "URL : %s\n", printable_url(plan.request.url).c_str());
  session = new_http_session();
  if (!session) return log_and_return(DL_LOG_HTTP, DL_ERR_MEMORY, "Out of Memory\n");
  if (!config_initialised())
    return log_and_return(DL_LOG_HTTP, DL_ERR_NOT_INITIALISED, "config doesn't init\n");
  if (plan.credentials && plan.num_credentials < 1) {
    return log_and_return(DL_LOG_HTTP, DL_ERR_PARAMETER, "auth info count nonpositive\n");
  }
  http_channel channel(*session);
  if (const int rc = ask_for_whole_bodies(channel, plan.extras); rc < 0) return rc;
  if (const int rc = ask_for_kept(channel, plan.extras, plan.request.method); rc < 0) return rc;
  return exchange(plan, channel);
}

}  // namespace

int http_open(const http_plan& plan, unique_http_session& session) {
  const int code = guarded_step([&] { return open_new_session(plan, session); });
  if (code == 0) return 0;
  session.reset();
  return fail(&plan.result, code);
}

int http_post_file(const http_plan& plan) {
  const cancel_hold hold;
  unique_http_session closed_at_return;
  return http_open(plan, closed_at_return);
}

}  // namespace fetchrig
