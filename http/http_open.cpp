// http_open.cpp: opening an HTTP or HTTPS URL.
#include "http/http_open.h"

#include "core/boundary.h"
#include "core/config.h"
#include "core/result.h"
#include "http/http_connection.h"
#include "http/http_response.h"
#include "include/fetchrig.h"
#include "log/log.h"
#include "log/printable.h"

namespace fetchrig {
namespace {

constexpr int status_not_modified = 304;
constexpr int first_error_status = 400;

int log_error(const char* message, int code) {
  log_line(DL_LOG_HTTP, DL_LOG_ERROR, "%s", message);
  return code;
}

// Parses the URL and gives it the request's method; an https URL sets the session's TLS bit. Returns 0 or the
// parser's code.
int http_prepare_url(http_channel& channel, unique_url& url, const dl_http_request& request) {
  if (const int code = parse_url(url, request.url, request.user, request.password); code < 0) return code;
  if (url->scheme == scheme_https) channel.session.flags |= DL_HTTP_FLAG_TLS;
  url->method = static_cast<uint32_t>(request.method);
  return 0;
}

int connect_to(http_channel& channel, const dl_url& url, tls_use tls) {
  const int rc = http_connect(channel, url.host, url.port, tls);
  return rc < 0 ? log_error("Connect Error\n", rc) : 0;
}

int connect_first(http_channel& channel, const dl_http_request& request, const dl_url& url) {
  if (!request.proxy) return connect_to(channel, url, tls_use::allowed);
  unique_url proxy;
  if (const int code = parse_url(proxy, request.proxy, nullptr, nullptr); code < 0) return code;
  return connect_to(channel, *proxy, tls_use::never);
}

std::unique_ptr<http_msg> new_message(const http_plan& plan) {
  auto message = http_msg_new();
  if (!message) return message;
  message->auth_type = plan.auth_type;
  message->credentials = plan.credentials;
  message->num_credentials = plan.num_credentials;
  message->body.file_path = plan.file_path;
  return message;
}

int judge_status(const http_plan& plan, int status) {
  if (status < 0) return log_error("handler response error\n", status);
  if (status >= first_error_status) return log_error("Client error\n", status);
  if (plan.refuse_304 && status == status_not_modified) {
    log_line(DL_LOG_HTTP, DL_LOG_ERROR, "Client error, same data. code: %d\n", status);
    return status;
  }
  return 0;
}

int exchange(const http_plan& plan, http_channel& channel) {
  const auto message = new_message(plan);
  if (!message) return log_error("Out of memory\n", DL_ERR_MEMORY);
  unique_url url;
  if (const int code = http_prepare_url(channel, url, plan.request); code < 0) return code;
  if (const int rc = connect_first(channel, plan.request, *url); rc < 0) return rc;
  if (http_make_request(channel.is_tls(), *message, plan.request, *url) < 0) return DL_ERR_SEND;
  if (http_send_request(channel, *message) < 0) return DL_ERR_SEND;
  log_line(DL_LOG_HTTP, DL_LOG_INFO, "process response\n");
  const int status =
      http_process_response(channel, url, plan.request.proxy != nullptr, *message, plan.redirect);
  log_line(DL_LOG_HTTP, DL_LOG_NOTICE, "response process finish!\n");
  return judge_status(plan, status);
}

int open_new_session(const http_plan& plan, unique_http_session& session) {
  clear_result(*plan.result);
  set_last_status(0);
  log_line(DL_LOG_HTTP, DL_LOG_NOTICE, "URL : %s\n", printable_url(plan.request.url).c_str());
  session = new_http_session();
  if (!session) return log_error("Out of Memory\n", DL_ERR_MEMORY);
  if (!config_initialised()) return log_error("config doesn't init\n", DL_ERR_NOT_INITIALISED);
  if (plan.credentials && plan.num_credentials < 1) {
    return log_error("auth info count nonpositive\n", DL_ERR_PARAMETER);
  }
  http_channel channel(*session);
  return exchange(plan, channel);
}

// The two ways to open a URL, once their own arguments have been checked.
int open_for_reading(const http_plan& plan, dl_http_session** place) {
  *place = nullptr;
  return guarded_transfer(plan.result, [&] {
    unique_http_session session;
    if (http_open_plan(plan, session) < 0) return -1;
    *place = session.release();
    return 0;
  });
}

}  // namespace

int http_refuse(const char* message, dl_result* result) {
  set_last_status(0);
  log_line(DL_LOG_HTTP, DL_LOG_ERROR, "%s", message);
  return fail(result, DL_ERR_PARAMETER);
}

int http_open_plan(const http_plan& plan, unique_http_session& session) {
  const int code =
      guarded([&] { return open_new_session(plan, session); }, [] { return int{DL_ERR_MEMORY}; });
  if (code == 0) return 0;
  session.reset();
  return fail(plan.result, code);
}

}  // namespace fetchrig

using namespace fetchrig;

int dl_http_open(dl_http_session** session, const dl_http_request* request, char* redirect,
                 dl_result* result) {
  if (!result || !request || !session || !redirect || !request->url) {
    return http_refuse("http open with invalid parameter\n", result);
  }
  return open_for_reading({.request = *request, .redirect = redirect, .result = result, .refuse_304 = true},
                          session);
}

int dl_http_open_ex(dl_http_session** session, const dl_http_request_ex* request, char* redirect,
                    dl_result* result) {
  if (!result || !request || !request->request || !session || !redirect || !request->request->url) {
    return http_refuse("http open with invalid parameter\n", result);
  }
  const auto auth_type = static_cast<http_auth_type>(request->auth_type);
  return open_for_reading(
      {.request = *request->request, .redirect = redirect, .result = result, .auth_type = auth_type},
      session);
}
