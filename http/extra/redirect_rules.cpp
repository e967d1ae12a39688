// SPDX-License-Identifier: MIT
// redirect_rules.cpp: where a redirect leads, and with what.
#include "http/extra/redirect_rules.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/text.h"
#include "core/url.h"
#include "http/extra/url_reference.h"
#include "log/log.h"

namespace fetchrig {
namespace {

using std::string_view;

int refuse(const char* why) {
  return log_and_return(DL_LOG_HTTP, DL_ERR_REDIRECT_URL, "redirect refused: %s\n", why);
}

// As browsers do it with what servers write as they please; spaces and line breaks are the URL parser's.
std::string escape_octets(string_view text) {
  std::string escaped;
  escaped.reserve(text.size());
  for (const char c : text) {
    char code[4] = {c, '\0'};
    if ((c & 0x80) != 0) snprintf(code, sizeof code, "%%%02X", static_cast<unsigned char>(c));
    escaped += code;
  }
  return escaped;
}

// A form that was posted is not posted again elsewhere, as browsers have made it the custom for 301 and 302. A file
// would then be stored nowhere, and its upload told as done.
bool becomes_get(int status, const http_msg& message) {
  if (status == 303) return true;
  const bool posts_text = strcmp(message.method_text, "POST") == 0 && !message.body.file_path;
  return (status == 301 || status == 302) && posts_text;
}

bool is_about_body(string_view name) {
  return name.starts_with("content-") || name == "transfer-encoding" || name == "expect" || name == "trailer";
}

bool is_for_one_origin(string_view name) {
  return name == "authorization" || name == "cookie" || name == "host" || name == "referer";
}

void make_get(http_msg& message, caller_headers& headers, dl_url& url) {
  url.method = DL_METHOD_GET;
  message.body = {};
  http_remove_header(message, "Content-Length");
  headers.drop(message, is_about_body);
}

void forget_login(http_msg& message, dl_url& url) {
  for (char** secret : {&url.user, &url.password}) {
    wipe(*secret);
    free(*secret);
    *secret = nullptr;
  }
  message.auth_type = http_auth_type::ordinary;
  message.num_credentials = 0;
}

}  // namespace

bool is_redirect(int status) {
  return (status >= 301 && status <= 303) || status == 307 || status == 308;
}

bool is_same_origin(const dl_url& one, const dl_url& other) {
  return one.scheme == other.scheme && one.port == other.port && equal_ignoring_case(one.host, other.host);
}

std::string url_text(const dl_url& url) {
  const string_view path = url.path;
  std::string text = url.scheme == scheme_https ? "https://" : "http://";
  text += host_and_port(url.host, url.port, static_cast<uint32_t>(default_port(url.scheme)));
  return text.append(path.substr(0, path.find('#')));
}

int resolve_redirect(std::string& target, const dl_url& url, string_view line, std::size_t max_line_len) {
  if (line.size() > max_line_len) return refuse("its line is too long");
  const auto reference = trim_white_space(line.substr(line.find(':') + 1));
  target = resolve_reference(url_text(url), escape_octets(reference));
  if (target.size() >= DL_REDIRECT_SIZE) return refuse("its target is too long");
  if (url.scheme == scheme_https && starts_ignoring_case(target, "http:"))
    return refuse("it leads from https to http");
  return 0;
}

void move_request(int status, http_msg& message, caller_headers& headers, dl_url& url,
                  const dl_url& old_url) {
  if (becomes_get(status, message)) make_get(message, headers, url);
  if (is_same_origin(url, old_url)) return;
  forget_login(message, url);
  headers.drop(message, is_for_one_origin);
}

}  // namespace fetchrig
