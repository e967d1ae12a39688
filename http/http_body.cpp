// http_body.cpp: preparing the body of a request.
#include "http/http_body.h"

#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <exception>

#include "core/owners.h"
#include "core/text.h"
#include "log/printable.h"

namespace fetchrig {
namespace {

// A body's length is a signed 32-bit number.
constexpr std::size_t max_body_bytes = INT32_MAX;
constexpr std::size_t read_block_bytes = 65536;
constexpr std::size_t max_boundary_len = 509;
constexpr std::size_t max_part_header_len = 1023;

int refuse(const char* message) {
  qxfr_log(DL_LOG_HTTP, DL_LOG_ERROR, "%s", message);
  return DL_ERR_PARAMETER;
}

unique_file open_file(const char* path) {
  unique_file file(fopen(path, "rbe"));
  if (!file) qxfr_log(DL_LOG_HTTP, DL_LOG_ERROR, "Can't open %s\n", printable(path).c_str());
  return file;
}

// The size is only a hint for how much to reserve: what is read decides, never beyond what a length can say.
void reserve_for_file(FILE* file, std::string& body) {
  struct stat status = {};
  if (fstat(fileno(file), &status) != 0 || !S_ISREG(status.st_mode)) return;
  if (status.st_size >= INT32_MAX) return;
  body.reserve(body.size() + static_cast<std::size_t>(status.st_size) + read_block_bytes);
}

int append_file(FILE* file, std::string& body) {
  reserve_for_file(file, body);
  for (;;) {
    const std::size_t held = body.size();
    if (held > max_body_bytes - read_block_bytes) return DL_ERR_MEMORY;
    body.resize(held + read_block_bytes);
    const std::size_t count = fread(body.data() + held, 1, read_block_bytes, file);
    body.resize(held + count);
    if (count == read_block_bytes) continue;
    if (!ferror(file)) return 0;
    qxfr_log(DL_LOG_HTTP, DL_LOG_ERROR, "read file err\n");
    return DL_ERR_READ;
  }
}

int prepare_put(http_msg& message) {
  const unique_file file = open_file(message.body.file_path);
  if (!file) return DL_ERR_PARAMETER;
  std::string body;
  if (const int rc = append_file(file.get(), body); rc < 0) return rc;
  message.body.buffer = std::move(body);
  return 0;
}

// "--" and the boundary that the headers name, taken verbatim up to the end of its line.
int boundary_line(std::string_view headers, std::string& line) {
  constexpr std::string_view name = "boundary=";
  const auto at = headers.find(name);
  if (at == std::string_view::npos) return refuse("post file without boundary\n");
  const auto visible = headers.substr(at + name.size(), max_boundary_len);
  const auto end = visible.find("\r\n");
  if (end == std::string_view::npos) return refuse("header without CRLF\n");
  line = "--";
  line += visible.substr(0, end);
  return 0;
}

// The header of the one part, cut at 1023 characters.
int part_header(const std::string& boundary, const char* path, std::string& header) {
  const std::string_view name = base_name(path);
  if (has_line_break(name)) return refuse("file name with a line break\n");
  header = boundary;
  header.append("\r\nContent-Disposition: form-data; name=\"upload\"; filename=\"").append(name);
  header.append("\"\r\nContent-Type: application/octet-stream\r\nContent-Transfer-Encoding: binary\r\n\r\n");
  if (header.size() > max_part_header_len) header.resize(max_part_header_len);
  return 0;
}

int prepare_post(http_msg& message) {
  const unique_file file = open_file(message.body.file_path);
  if (!file) return DL_ERR_PARAMETER;
  std::string boundary;
  if (const int rc = boundary_line(message.extra_headers, boundary); rc < 0) return rc;
  std::string body;
  if (const int rc = part_header(boundary, message.body.file_path, body); rc < 0) return rc;
  if (const int rc = append_file(file.get(), body); rc < 0) return rc;
  body.append("\r\n").append(boundary).append("--\r\n");
  message.body.buffer = std::move(body);
  return 0;
}

int prepare(http_msg& message) {
  http_body& body = message.body;
  if (!body.file_path) {
    if (body.text) body.buffer = body.text;
    return 0;
  }
  if (body.text || !message.extra_headers) return refuse("body & post file or without addtion header\n");
  if (strcmp(message.method_text, "PUT") == 0) return prepare_put(message);
  if (strcmp(message.method_text, "POST") == 0) return prepare_post(message);
  return 0;
}

}  // namespace

int http_prepare_body(http_msg& message) {
  try {
    return prepare(message);
  } catch (const std::exception&) {
    return DL_ERR_MEMORY;
  }
}

}  // namespace fetchrig
