// SPDX-License-Identifier: MIT
// http_request_body.cpp: preparing the body of a request.
#include "http/http_request_body.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "core/boundary.h"
#include "core/files.h"
#include "core/owners.h"
#include "core/text.h"
#include "log/log.h"
#include "log/printable.h"

namespace fetchrig {
namespace {

// A body's length is a signed 32-bit number.
constexpr std::size_t max_body_bytes = INT32_MAX;
constexpr std::size_t read_block_bytes = 65536;
constexpr std::size_t max_boundary_len = 509;
constexpr std::size_t max_part_header_len = 1023;

// A pipe is opened without waiting for its other end.
unique_fd open_file(const char* path) {
  unique_fd file(::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file) log_line(DL_LOG_HTTP, DL_LOG_ERROR, "Can't open %s\n", printable(path).c_str());
  return file;
}

int read_failed(int error) {
  log_line(DL_LOG_HTTP, DL_LOG_ERROR, "read file err\n");
  log_line(DL_LOG_HTTP, DL_LOG_NOTICE, "read errno %d\n", error);
  return DL_ERR_READ;
}

int too_large() {
  return log_and_return(DL_LOG_HTTP, DL_ERR_MEMORY, "local file of 2 GiB or more\n");
}

// The size decides how much is reserved, and what is refused before anything is read; how much is sent is what
// can be read.
int check_file(int file, std::string& body) {
  struct stat status = {};
  if (::fstat(file, &status) != 0) return read_failed(errno);
  if (const int error = why_not_regular(status); error != 0) return read_failed(error);
  const auto size = static_cast<uint64_t>(status.st_size);
  if (size > max_body_bytes - body.size()) return too_large();
  body.reserve(body.size() + static_cast<std::size_t>(size) + read_block_bytes);
  return 0;
}

int append_file(int file, std::string& body) {
  if (const int rc = check_file(file, body); rc < 0) return rc;
  for (;;) {
    const std::size_t held = body.size();
    body.resize(held + read_block_bytes);
    const ssize_t count = ::read(file, body.data() + held, read_block_bytes);
    const int error = errno;
    body.resize(held + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    if (body.size() > max_body_bytes) return too_large();
    if (count == 0) return 0;
    if (count < 0 && error != EINTR) return read_failed(error);
  }
}

// The file becomes the body, between what a form puts around it.
int take_file(http_body& body, unique_fd file, std::string before, std::string after) {
  if (body.streams_files) {
    body.streamed =
        std::make_unique<streamed_body>(streamed_body{std::move(file), std::move(before), std::move(after)});
    return measure(*body.streamed);
  }
  if (const int rc = append_file(file.get(), before); rc < 0) return rc;
  before.append(after);
  if (before.size() > max_body_bytes) return too_large();
  body.buffer = std::move(before);
  return 0;
}

int prepare_put(http_msg& message) {
  unique_fd file = open_file(message.body.file_path);
  return file ? take_file(message.body, std::move(file), "", "") : DL_ERR_PARAMETER;
}

// "--" and the boundary that the headers name, taken verbatim up to the end of its line.
int boundary_line(std::string_view headers, std::string& line) {
  constexpr std::string_view name = "boundary=";
  const auto at = headers.find(name);
  if (at == std::string_view::npos)
    return log_and_return(DL_LOG_HTTP, DL_ERR_PARAMETER, "post file without boundary\n");
  const auto visible = headers.substr(at + name.size(), max_boundary_len);
  const auto end = visible.find("\r\n");
  if (end == std::string_view::npos)
    return log_and_return(DL_LOG_HTTP, DL_ERR_PARAMETER, "header without CRLF\n");
  line = "--";
  line += visible.substr(0, end);
  return 0;
}

// The header of the one part, cut at 1023 characters.
int part_header(const std::string& boundary, const char* path, std::string& header) {
  const std::string_view name = base_name(path);
  if (has_line_break(name))
    return log_and_return(DL_LOG_HTTP, DL_ERR_PARAMETER, "file name with a line break\n");
  header = boundary;
  header.append("\r\nContent-Disposition: form-data; name=\"upload\"; filename=\"").append(name);
  header.append("\"\r\nContent-Type: application/octet-stream\r\nContent-Transfer-Encoding: binary\r\n\r\n");
  if (header.size() > max_part_header_len) header.resize(max_part_header_len);
  return 0;
}

int prepare_post(http_msg& message) {
  unique_fd file = open_file(message.body.file_path);
  if (!file) return DL_ERR_PARAMETER;
  std::string boundary;
  if (const int rc = boundary_line(message.extra_headers, boundary); rc < 0) return rc;
  std::string header;
  if (const int rc = part_header(boundary, message.body.file_path, header); rc < 0) return rc;
  return take_file(message.body, std::move(file), std::move(header), "\r\n" + boundary + "--\r\n");
}

int prepare(http_msg& message) {
  http_body& body = message.body;
  if (!body.file_path) {
    if (body.text) body.buffer = body.text;
    return 0;
  }
  if (body.text || !message.extra_headers)
    return log_and_return(DL_LOG_HTTP, DL_ERR_PARAMETER, "body & post file or without addtion header\n");
  if (strcmp(message.method_text, "PUT") == 0) return prepare_put(message);
  if (strcmp(message.method_text, "POST") == 0) return prepare_post(message);
  return 0;
}

}  // namespace

int http_prepare_body(http_msg& message) {
  return guarded_step([&] { return prepare(message); });
}

}  // namespace fetchrig
