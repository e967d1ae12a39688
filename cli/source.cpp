// SPDX-License-Identifier: MIT
// source.cpp: opening and reading downloads through the library.
#include "source.h"

#include <string.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>

#include "cause.h"
#include "fetchrig.h"
#include "options.h"
#include "report.h"

namespace fetchrig::cli {
namespace {

using redirect_buffer = std::array<char, DL_REDIRECT_SIZE>;

int32_t library_size(std::span<char> buffer) {
  return static_cast<int32_t>(std::min<std::size_t>(buffer.size(), std::numeric_limits<int32_t>::max()));
}

// The value of a "name: value" line, without the blanks around it.
std::string_view header_value(const char* line) {
  const std::string_view text(line);
  const std::size_t start = text.find_first_not_of(" \t", text.find(':') + 1);
  if (start == text.npos) return {};
  return text.substr(start, text.find_last_not_of(" \t") + 1 - start);
}

// The session keeps the lines of a 200 response, each terminated, and an empty one after them.
std::vector<std::string> header_lines(const dl_http_session& session) {
  std::vector<std::string> lines;
  std::string_view rest(session.headers ? session.headers : "", session.headers ? session.headers_len : 0);
  while (!rest.empty() && rest.front() != '\0') {
    lines.emplace_back(rest.substr(0, rest.find('\0')));
    rest.remove_prefix(std::min(lines.back().size() + 1, rest.size()));
  }
  return lines;
}

// "Last-Modified" in the three forms that HTTP has had for dates, all of them in UTC.
std::optional<std::int64_t> modification_time(const dl_http_session& session) {
  const char* line = dl_http_find_header_by_name(&session, "last-modified");
  if (!line) return std::nullopt;
  const std::string value(header_value(line));
  for (const char* form : {"%a, %d %b %Y %T GMT", "%A, %d-%b-%y %T GMT", "%a %b %e %T %Y"}) {
    struct tm parts = {};
    const char* end = strptime(value.c_str(), form, &parts);
    if (end && *end == '\0') return timegm(&parts);
  }
  return std::nullopt;
}

struct http_close {
  void operator()(dl_http_session* session) const { dl_http_close(session); }
};
struct handle_close {
  void operator()(dl_handle* handle) const { dl_close(handle); }
};

class http_source : public source {
 public:
  http_source(const source_request& request, server_facts& told);
  std::size_t read(std::span<char> buffer) override;
  std::optional<std::uint64_t> announced_bytes() const override { return announced_bytes_; }
  bool ends_at_limit() const override {
    return !extras_are_on() && dl_http_body_end(session_.get()) == DL_BODY_UNMARKED;
  }

 private:
  void check_end() const;
  failure cut_short(const verdict& how) const {
    return failure(DL_ERR_READ, printable(where_.shown) + ": " + how.words + " (code -8)", how.status,
                   how.later);
  }
  failure cut_short(const char* how) const { return cut_short({how, exit_protocol, outlook::may_pass}); }
  bool chunked() const { return (session_->flags & DL_HTTP_FLAG_CHUNKED) != 0; }
  std::optional<std::uint64_t> find_length() const;

  const location& where_;
  const credentials& login_;
  std::unique_ptr<dl_http_session, http_close> session_;
  std::optional<std::uint64_t> announced_bytes_;
  bool empty_by_status_ = false;
};

// Borrows from the request.
dl_http_request library_request(const source_request& request) {
  dl_http_request http = {};
  http.method = DL_METHOD_GET;
  http.url = request.where.url.c_str();
  http.user = request.login.user();
  http.password = request.login.password();
  http.proxy = request.proxy.empty() ? nullptr : request.proxy.c_str();
  http.headers = request.headers.empty() ? nullptr : request.headers.c_str();
  return http;
}

constexpr std::uint32_t xsi_authentication_type = 2;
constexpr int status_partial = 206;

bool asks_for_part(const source_request& request) {
  return strcasestr(("\n" + request.headers).c_str(), "\nrange:") != nullptr;
}

http_source::http_source(const source_request& request, server_facts& told)
    : where_(request.where), login_(request.login) {
  const dl_http_request http = library_request(request);
  redirect_buffer redirect = {};
  dl_result result = {};
  dl_http_session* session = nullptr;
  const dl_http_request_ex extended = {&http, xsi_authentication_type};
  const int rc = request.xsi_authentication ? dl_http_open_ex(&session, &extended, redirect.data(), &result)
                                            : dl_http_open(&session, &http, redirect.data(), &result);
  told.status = dl_http_last_status();
  told.final_url = redirect.data();
  if (rc != 0) throw failed_transfer(where_, login_, result);
  session_.reset(session);

  const int status = dl_http_get_status(session_.get());
  if (status == status_partial && !asks_for_part(request)) {
    throw failure(status, printable(where_.shown) + ": the server answered 206, a part that nobody asked for",
                  exit_protocol);
  }
  if (!is_http_success(status)) {
    result.code = status;
    throw failed_transfer(where_, login_, result);
  }
  if (dl_http_body_end(session_.get()) == DL_BODY_HEADER_CUT)
    throw cut_short("the server's answer ends inside its header");
  empty_by_status_ = status == 204 || status == 205;
  announced_bytes_ = find_length();
  told.headers = header_lines(*session_);
  told.modified_s = modification_time(*session_);
}

// Headers are kept for status 200 only. For the others the session holds the announced length, or the size
// limit when there was none.
std::optional<std::uint64_t> http_source::find_length() const {
  if (chunked() || empty_by_status_) return std::nullopt;
  if (const char* line = dl_http_find_header_by_name(session_.get(), "content-length")) {
    const std::string_view value = header_value(line);
    std::uint64_t length = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), length);
    if (error == std::errc() && end == value.data() + value.size()) return length;
  }
  if (session_->remaining != std::min<std::uint64_t>(size_limit_bytes(), UINT32_MAX))
    return session_->remaining;
  return std::nullopt;
}

std::size_t http_source::read(std::span<char> buffer) {
  if (empty_by_status_) return 0;
  dl_result result = {};
  const int count = dl_http_read(session_.get(), buffer.data(), library_size(buffer), &result);
  if (count < 0) throw failed_transfer(where_, login_, result);
  if (count == 0) check_end();
  return static_cast<std::size_t>(count);
}

// A length that was announced is held against what came by the reader.
void http_source::check_end() const {
  const int end = dl_http_body_end(session_.get());
  const auto trouble = connection_trouble();
  if (end != DL_BODY_WHOLE && trouble) throw cut_short(*trouble);
  if (end == DL_BODY_CUT && chunked()) throw cut_short("the connection ended before the last chunk");
}

class handle_source : public source {
 public:
  handle_source(const source_request& request, server_facts& told);
  std::size_t read(std::span<char> buffer) override;
  std::optional<std::uint64_t> announced_bytes() const override { return announced_bytes_; }

 private:
  const location& where_;
  const credentials& login_;
  std::unique_ptr<dl_handle, handle_close> handle_;
  std::optional<std::uint64_t> announced_bytes_;
};

handle_source::handle_source(const source_request& request, server_facts& told)
    : where_(request.where), login_(request.login) {
  const dl_request transfer = {request.where.url.c_str(), request.login.user(), request.login.password(),
                               nullptr};
  redirect_buffer redirect = {};
  dl_result result = {};
  dl_handle* handle = nullptr;
  if (dl_open(&transfer, &handle, redirect.data(), &result) != 0) {
    told.status = ftp_reply_number(result);
    throw failed_transfer(where_, login_, result);
  }
  handle_.reset(handle);
  // An FTP session counts down from the size that the server told.
  if (handle_->proto == DL_PROTO_FTP) {
    const std::uint32_t left = static_cast<const dl_ftp_session*>(handle_->session)->remaining;
    if (left != UINT32_MAX) announced_bytes_ = left;  // else it counts no further
    if (dl_last_cause(nullptr) == DL_CAUSE_TOO_LARGE) {
      throw failure(DL_ERR_READ, printable(where_.shown) + ": the file has 4 GiB or more (code -8)",
                    exit_too_large);
    }
  }
  std::uint64_t size = 0;
  if (handle_->proto == DL_PROTO_TFTP &&
      dl_tftp_get_size(static_cast<const dl_tftp_session*>(handle_->session), &size) == 0)
    announced_bytes_ = size;
}

std::size_t handle_source::read(std::span<char> buffer) {
  dl_result result = {};
  const int count = dl_read(handle_.get(), buffer.data(), library_size(buffer), &result);
  if (count < 0) throw failed_transfer(where_, login_, result);
  return static_cast<std::size_t>(count);
}

dl_result download_http(const source_request& request, const std::string& path, server_facts& told) {
  const dl_http_request http = library_request(request);
  const dl_http_request_ex extended = {&http, xsi_authentication_type};
  redirect_buffer redirect = {};
  dl_result result = {};
  const int rc = request.xsi_authentication
                     ? dl_http_recv_to_file_ex(&extended, path.c_str(), redirect.data(), &result)
                     : dl_http_recv_to_file(&http, path.c_str(), redirect.data(), &result);
  told.status = dl_http_last_status();
  told.final_url = redirect.data();
  if (rc == 0 && !is_http_success(told.status)) result.code = told.status;
  return result;
}

}  // namespace

dl_result download_to_file(const source_request& request, const std::string& path, server_facts& told) {
  if (request.where.is_http()) return download_http(request, path, told);
  const dl_request transfer = {request.where.url.c_str(), request.login.user(), request.login.password(),
                               nullptr};
  redirect_buffer redirect = {};
  dl_result result = {};
  if (dl_download(&transfer, path.c_str(), redirect.data(), &result) != 0)
    told.status = ftp_reply_number(result);
  return result;
}

bool is_http_success(int status) {
  return status >= 200 && status < 300;
}

std::unique_ptr<source> open_source(const source_request& request, server_facts& told) {
  if (request.where.is_http()) return std::make_unique<http_source>(request, told);
  return std::make_unique<handle_source>(request, told);
}

}  // namespace fetchrig::cli
