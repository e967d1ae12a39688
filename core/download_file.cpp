// SPDX-License-Identifier: MIT
// download_file.cpp: the local file of a download and its size limit.
#include "core/download_file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "core/cause.h"
#include "core/files.h"
#include "core/result.h"
#include "core/written_file.h"
#include "log/log.h"
#include "log/printable.h"

namespace fetchrig {
namespace {

constexpr std::size_t buffer_bytes = 65536;
// room() never offers less, so that a datagram always fits and receives stay large.
constexpr std::size_t min_room_bytes = 4096;

// What is left has another name (a hard link), or one that may not be removed or cannot be told just now. No part
// passes for the whole there.
void empty_if_named(int fd) {
  struct stat status = {};
  if (::fstat(fd, &status) == 0 && (!S_ISREG(status.st_mode) || status.st_nlink == 0)) return;
  if (::ftruncate(fd, 0) != 0 && errno != EINVAL)
    log_line(DL_LOG_CMN, DL_LOG_WARNING, "partial file stays, errno %d\n", errno);
}

}  // namespace

download_file::~download_file() {
  if (place_ && held_ > 0 && target() >= 0) {
    const int error = write_all(target(), {buffer_.get(), held_});
    if (error != 0) log_line(module_, DL_LOG_WARNING, "partial file is shorter, errno %d\n", error);
  }
  if (!fd_) return;
  written_file(fd_.get(), path_.c_str()).remove();
  empty_if_named(fd_.get());
}

bool download_file::open(const char* path) {
  buffer_ = std::make_unique_for_overwrite<char[]>(buffer_bytes);
  path_.assign(path);
  fd_.reset(::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
  if (fd_) return true;
  const int error = errno;
  note_cause(DL_CAUSE_LOCAL_FILE, error);
  log_line(module_, DL_LOG_ERROR, "Can't open %s\n", printable(path).c_str());
  log_line(module_, DL_LOG_NOTICE, "open errno %d\n", error);
  return false;
}

void download_file::open(download_place& place) {
  buffer_ = std::make_unique_for_overwrite<char[]>(buffer_bytes);
  path_.assign(place.path());
  received_ = place.held();
  place_ = &place;
}

std::span<char> download_file::room() {
  return {buffer_.get() + held_, buffer_bytes - held_};
}

int download_file::accept(uint32_t count, dl_result* result) {
  held_ += count;
  received_ += count;
  if (const int rc = judge(received_ - received_ % step_, result); rc < 0) return rc;
  return buffer_bytes - held_ < min_room_bytes ? flush(result) : 0;
}

int download_file::finish(dl_result* result) {
  if (const int rc = judge(received_, result); rc < 0) return rc;
  if (const int rc = flush(result); rc < 0) return rc;
  if (place_) return complete(result);
  const written_file written(fd_.get(), path_.c_str());  // while there still is a descriptor to go by
  if (::close(fd_.release()) == 0) return 0;
  const int rc = write_failed(result, "close", errno);
  written.remove();
  return rc;
}

// The limit is passed by the first step whose end lies beyond it; the total then counts that step.
int download_file::judge(uint64_t total, dl_result* result) {
  total_ = total;
  if (total <= limit_) return 0;
  total_ = std::min(total, (limit_ / step_ + 1) * step_);
  log_line(module_, DL_LOG_ERROR, "exceed max size\n");
  if (place_) place_->drop();
  return fail_exceeded(result, limit_);
}

int download_file::flush(dl_result* result) {
  if (const int error = write_all(target(), {buffer_.get(), held_}); error != 0) {
    if (place_) held_ = 0;  // how much of it was written is not known
    return write_failed(result, "write", error);
  }
  held_ = 0;
  return 0;
}

int download_file::complete(dl_result* result) {
  const int error = place_->complete();
  return error == 0 ? 0 : write_failed(result, "complete", error);
}

int download_file::write_failed(dl_result* result, const char* operation, int error) {
  note_cause(DL_CAUSE_LOCAL_FILE, error);
  log_line(module_, DL_LOG_ERROR, "%s error on %s, errno %d\n", operation, printable(path_.c_str()).c_str(),
           error);
  return fail(result, DL_ERR_READ);
}

}  // namespace fetchrig
