// SPDX-License-Identifier: MIT
// http_extras.cpp: one policy of up to three parts. What is switched off goes the classic way.
#include "http/extra/http_extras.h"

#include <string.h>

#include "http/extra/proxy_route.h"
#include "http/extra/redirect_rules.h"
#include "http/extra/whole_body.h"
#include "http/http_connection.h"
#include "http/http_headers.h"

namespace fetchrig {
namespace {

constexpr int status_login_wanted = 401;

class extras_policy final : public http_policy {
 public:
  explicit extras_policy(const transfer_extras& extras) : extras_(extras) {}

  int open_route(const char* proxy) {
    route_ = std::make_unique<proxy_route>();
    return route_->open(proxy);
  }

  bool has_route() const override { return route_ != nullptr; }
  int connect(http_channel& channel, const dl_url& url) override { return route_->connect(channel, url); }
  int complete(http_msg& message, const dl_url& url) override;
  response_act act_on(int status, const http_msg& message) const override;
  int check(const char* headers) override;
  int resolve(std::string& target, const dl_url& url, const char* line) override;
  int move(int status, http_msg& message, dl_url& url, const dl_url& old_url) override;
  int choose(int status, const char* headers, http_msg& message, const dl_url& url) override;

 private:
  const transfer_extras extras_;
  std::unique_ptr<proxy_route> route_;
  http_login login_{server_fields};
  caller_headers headers_;
};

bool is_for_proxy(std::string_view name) {
  return name == "proxy-authorization";
}

int extras_policy::complete(http_msg& message, const dl_url& url) {
  if (route_) {
    if (const int rc = route_->complete(message, url); rc < 0) return rc;
    if (url.scheme == scheme_https) headers_.drop(message, is_for_proxy);
  }
  return login_.answer(message, url.path);
}

response_act extras_policy::act_on(int status, const http_msg& message) const {
  if (route_ && route_->is_asked_for_login(status)) return response_act::answer_choice;
  if (extras_.redirects && is_redirect(status)) return response_act::follow;
  const bool ordinary = message.auth_type != http_auth_type::broadworks_xsi;
  if (extras_.digest && ordinary && status == status_login_wanted) return response_act::answer_choice;
  return classic_act(status);
}

int extras_policy::check(const char* headers) {
  if (const int rc = login_.check(headers); rc < 0) return rc;
  return route_ ? route_->check(headers) : 0;
}

int extras_policy::resolve(std::string& target, const dl_url& url, const char* line) {
  // Without the end of its line a line of the classic length is a piece of one.
  const std::size_t max_len = extras_.whole_bodies ? max_whole_line_bytes : max_line_bytes - 3;
  if (extras_.redirects) return resolve_redirect(target, url, line, max_len);
  target = header_value(line, strlen("location"));
  return 0;
}

int extras_policy::move(int status, http_msg& message, dl_url& url, const dl_url& old_url) {
  if (!is_same_origin(url, old_url)) login_.forget();
  if (extras_.redirects) move_request(status, message, headers_, url, old_url);
  return 0;
}

int extras_policy::choose(int status, const char* headers, http_msg& message, const dl_url& url) {
  if (status != status_login_wanted) return route_->choose(headers);
  const char *user = url.user, *password = url.password;
  if (message.auth_type == http_auth_type::credential_list) {
    const bool some = message.next_credential < message.num_credentials;
    const dl_auth_info next = some ? message.credentials[message.next_credential++] : dl_auth_info{};
    user = next.user;
    password = next.password;
  }
  return login_.choose(headers, user, password);
}

}  // namespace

int make_http_policy(std::unique_ptr<http_policy>& policy, const transfer_extras& extras,
                     const dl_http_request& request) {
  const bool routed = extras.proxy && request.proxy;
  if (!extras.redirects && !extras.digest && !routed) return 0;
  auto made = std::make_unique<extras_policy>(extras);
  const int rc = routed ? made->open_route(request.proxy) : 0;
  policy = std::move(made);
  return rc;
}

}  // namespace fetchrig
