// SPDX-License-Identifier: MIT
// streamed_body.cpp: sending a file in blocks.
#include "http/extra/streamed_body.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "core/cause.h"
#include "core/files.h"
#include "log/log.h"

namespace fetchrig {
namespace {

constexpr std::size_t block_bytes = 65536;

int read_failed(int error) {
  note_cause(DL_CAUSE_LOCAL_FILE, error);
  log_line(DL_LOG_HTTP, DL_LOG_ERROR, "read file err\n");
  log_line(DL_LOG_HTTP, DL_LOG_NOTICE, "read errno %d\n", error);
  return DL_ERR_READ;
}

int send_file_part(const streamed_body& body, stream& to) {
  std::array<char, block_bytes> block;
  for (uint64_t sent = 0; sent < body.file_bytes;) {
    const auto wanted = static_cast<std::size_t>(std::min<uint64_t>(block.size(), body.file_bytes - sent));
    const ssize_t count = ::pread(body.file.get(), block.data(), wanted, static_cast<off_t>(sent));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return read_failed(count < 0 ? errno : 0);
    if (to.write_all({block.data(), static_cast<std::size_t>(count)}) != 0) return DL_ERR_SEND;
    sent += static_cast<uint64_t>(count);
  }
  return 0;
}

}  // namespace

int measure(streamed_body& body) {
  struct stat status = {};
  if (::fstat(body.file.get(), &status) != 0) return read_failed(errno);
  if (const int error = why_not_regular(status); error != 0) return read_failed(error);
  body.file_bytes = static_cast<uint64_t>(status.st_size);
  return 0;
}

int send_streamed(const streamed_body& body, stream& to) {
  if (to.write_all(body.before) != 0) return DL_ERR_SEND;
  if (const int rc = send_file_part(body, to); rc < 0) return rc;
  return to.write_all(body.after) == 0 ? 0 : DL_ERR_SEND;
}

}  // namespace fetchrig
