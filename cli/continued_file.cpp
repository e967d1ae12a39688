// SPDX-License-Identifier: MIT
// continued_file.cpp: the directory of a part, and the library's call that goes on with it.
#include "continued_file.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <optional>

#include "cause.h"
#include "fetchrig.h"
#include "report.h"

namespace fetchrig::cli {
namespace {

constexpr const char* record_name = "whole.part.info";

std::uint64_t size_of(int fd) {
  struct stat status;
  return fstat(fd, &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

// The length that the library has recorded, when the server told one.
std::optional<std::uint64_t> recorded_size(const std::string& record) {
  constexpr std::string_view mark = "size ";
  std::uint64_t size = UINT64_MAX;
  std::ifstream lines(record);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(mark)) std::from_chars(line.data() + mark.size(), line.data() + line.size(), size);
  }
  return size == UINT64_MAX ? std::nullopt : std::optional(size);
}

// Nobody else may put there what the library would write through, or take for the beginning of the file.
temporary_path own_directory(const std::string& path) {
  struct stat status;
  if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
    throw failed_file(printable(path) + ": " + strerror(errno));
  const bool own = lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
                   status.st_uid == geteuid() && (status.st_mode & 022) == 0;
  if (!own) throw failed_file(printable(path) + " is in the way: it is no directory for this user alone");
  return temporary_path(path);
}

bool is_locked_elsewhere() {
  dl_cause_info cause = {};
  return dl_last_cause(&cause) == DL_CAUSE_LOCAL_FILE && cause.number == EWOULDBLOCK;
}

}  // namespace

record_watch::record_watch(const std::string& directory) : fd_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  if (fd_ >= 0) inotify_add_watch(fd_, directory.c_str(), IN_CREATE);
}

record_watch::~record_watch() {
  if (fd_ >= 0) close(fd_);
}

bool record_watch::has_new_record() {
  const std::lock_guard alone(reading_);
  char events[4096];
  for (ssize_t count; (count = read(fd_, events, sizeof events)) > 0;) {
    const std::string_view names(events,
                                 static_cast<std::size_t>(count));  // each ended by a NUL, among numbers
    seen_ = seen_ || names.find(std::string_view(record_name, strlen(record_name) + 1)) != names.npos;
  }
  return seen_;
}

continued_file::continued_file(const std::string& directory)
    : directory_(own_directory(directory)),
      whole_(directory + "/whole"),
      part_(directory + "/whole.part"),
      record_(directory),
      fd_(open(part_.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600)),
      held_bytes_(size_of(fd_)) {
  unlink(whole_.get().c_str());  // of a command that was killed before it could check it
}

// An empty part is nobody's, unless another command has just begun with it.
continued_file::~continued_file() {
  if (fd_ < 0) return;
  if (size_of(fd_) == 0 && flock(fd_, LOCK_EX | LOCK_NB) == 0) unlink(part_.c_str());
  close(fd_);
}

dl_result continued_file::download(const source_request& request, server_facts& told) {
  dl_result outcome = download_to_file(request, whole_.get(), told);
  if (outcome.code == 0 && access(whole_.get().c_str(), F_OK) != 0) outcome.code = DL_ERR_READ;
  return outcome;
}

failure continued_file::failed(const source_request& request, const dl_result& outcome) const {
  if (is_locked_elsewhere())
    return failed_file(printable(directory_.get()) + " is in use by another command");
  return failed_transfer(request.where, request.login, outcome);
}

// Where a part is of no use, the library writes the file itself.
position continued_file::progress() {
  struct stat whole, part;
  const bool has_whole = stat(whole_.get().c_str(), &whole) == 0;
  if (has_whole && (fstat(fd_, &part) != 0 || whole.st_ino != part.st_ino) && whole.st_size > 0)
    return {static_cast<std::uint64_t>(whole.st_size), 0, std::nullopt};
  const std::uint64_t there = size_of(fd_);
  const std::uint64_t held = record_.has_new_record() ? 0 : std::min(held_bytes_, there);
  return {there - held, held, recorded_size(directory_.get() + "/" + record_name)};
}

}  // namespace fetchrig::cli
