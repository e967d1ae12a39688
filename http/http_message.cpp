// SPDX-License-Identifier: MIT
// http_message.cpp: composing and editing a request.
#include "http/http_message.h"

#include <string.h>

#include <algorithm>
#include <array>
#include <new>

#include "core/boundary.h"
#include "core/config.h"
#include "core/text.h"
#include "core/url.h"
#include "http/http_request_body.h"
#include "log/log.h"
#include "log/printable.h"

namespace fetchrig {
namespace {

constexpr std::array<const char*, 4> method_texts = {"GET", "POST", "PUT", "DELETE"};
constexpr std::size_t usual_num_headers = 8;

auto find_header(http_msg& message, std::string_view name) {
  return std::find_if(message.headers.begin(), message.headers.end(),
                      [name](const http_header& header) { return header.name == name; });
}

int set_user_agent(http_msg& message) {
  const option_text agent = user_agent();
  log_line(DL_LOG_HTTP, DL_LOG_INFO, "User-Agent: %s\n", printable(agent.data()).c_str());
  return http_set_header(message, "User-Agent", agent.data());
}

int set_standard_headers(bool tls, http_msg& message, const dl_url& url) {
  if (const int rc = http_set_request_line(message, url); rc < 0) return rc;
  if (const int rc = http_set_host(message, url); rc < 0) return rc;
  if (const int rc = set_user_agent(message); rc < 0) return rc;
  if (const int rc = http_set_header(message, "Accept", "*/*"); rc < 0) return rc;
  return tls ? 0 : http_set_header(message, "Connection", "Keep-Alive");
}

int set_content_length(http_msg& message) {
  const std::string length = std::to_string(*message.body.size());
  log_line(DL_LOG_HTTP, DL_LOG_INFO, "Content-Length: %s\n", length.c_str());
  return http_set_header(message, "Content-Length", length.c_str());
}

bool caller_gives_length(const http_msg& message) {
  return message.extra_headers && strstr(message.extra_headers, "Content-Length");
}

int make_failed(int code) {
  return log_and_return(DL_LOG_HTTP, code, "make request error\n");
}

}  // namespace

http_msg::~http_msg() {
  for (auto& header : headers) wipe(header.value);
}

std::optional<uint64_t> http_body::size() const {
  if (streamed) return streamed->size();
  return buffer ? std::optional<uint64_t>(buffer->size()) : std::nullopt;
}

std::unique_ptr<http_msg> http_msg_new() {
  std::unique_ptr<http_msg> message(new (std::nothrow) http_msg);
  const auto reserve = [&] {
    message->headers.reserve(usual_num_headers);
    return 0;
  };
  if (!message || guarded_step(reserve) < 0) return nullptr;
  return message;
}

int http_set_header(http_msg& message, std::string_view name, const char* value) {
  if (!value) return 0;
  return guarded_step([&] {
    message.headers.reserve(message.headers.size() + 1);
    http_header header{std::string(name), value};
    auto found = find_header(message, name);
    if (found == message.headers.end()) found = message.headers.emplace(found);
    std::swap(*found, header);
    wipe(header.value);  // what was replaced may be credentials
    return 0;
  });
}

void http_remove_header(http_msg& message, std::string_view name) {
  const auto found = find_header(message, name);
  if (found == message.headers.end()) return;
  wipe(found->value);
  message.headers.erase(found);
}

int http_set_request_line(http_msg& message, const dl_url& url) {
  if (url.method >= method_texts.size()) return DL_ERR_URL;
  return guarded_step([&] {
    message.method_text = method_texts[url.method];
    message.request_line.assign(message.method_text).append(" ").append(url.path).append(" HTTP/1.1");
    log_line(DL_LOG_HTTP, DL_LOG_INFO, "Request Line: %s\r\n",
             printable(message.request_line.c_str()).c_str());
    message.request_line += "\r\n";
    return 0;
  });
}

int http_set_host(http_msg& message, const dl_url& url) {
  return guarded_step([&] {
    const auto usual_port = static_cast<uint32_t>(default_port(url.scheme));
    const std::string value = host_and_port(url.host, url.port, usual_port);
    log_line(DL_LOG_HTTP, DL_LOG_INFO, "Host: %s\n", printable(value.c_str()).c_str());
    return http_set_header(message, "Host", value.c_str());
  });
}

int http_make_request(bool tls, http_msg& message, const dl_http_request& request, const dl_url& url) {
  if (const int rc = set_standard_headers(tls, message, url); rc < 0) return make_failed(rc);
  message.extra_headers = request.headers;
  message.body.text = request.body;
  if (const int rc = http_prepare_body(message); rc < 0) return rc;
  if (!message.body.size() || caller_gives_length(message)) return 0;
  const int rc = guarded_step([&] { return set_content_length(message); });
  return rc < 0 ? make_failed(rc) : 0;
}

std::string http_serialise_head(const http_msg& message, std::size_t more) {
  constexpr std::size_t separators = 4;  // ": " and the line end
  std::size_t size = message.request_line.size() + or_empty(message.extra_headers).size() + 2;
  for (const auto& header : message.headers) size += header.name.size() + header.value.size() + separators;
  std::string head;
  head.reserve(size + more);
  head += message.request_line;
  for (const auto& header : message.headers) {
    head.append(header.name).append(": ").append(header.value).append("\r\n");
  }
  if (message.extra_headers) head += message.extra_headers;
  head += "\r\n";
  return head;
}

}  // namespace fetchrig
