// SPDX-License-Identifier: MIT
// output_file.cpp: creating, writing and naming the file of a download.
#include "output_file.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <optional>
#include <utility>

#include "report.h"

namespace fetchrig::cli {
namespace {

// Of a name to which something is added.
constexpr std::size_t max_name_bytes = 200;

// Whether the directory shows the descriptors of this process: /dev/fd, or its own or a thread's in /proc.
bool shows_descriptors(const std::string& directory) {
  char own[PATH_MAX], found[PATH_MAX];
  if (directory == "/dev/fd/") return true;
  if (!realpath("/proc/self/fd", own) || !realpath(directory.c_str(), found)) return false;
  const std::string threads = std::string(own, strlen(own) - strlen("fd")) + "task/";
  const std::string_view shown = found;
  return shown == own || (shown.starts_with(threads) && shown.ends_with("/fd"));
}

// The descriptor that `path` says it is.
std::optional<int> spelt_descriptor(const std::string& path) {
  if (path == "-" || path == "/dev/stdout") return STDOUT_FILENO;
  if (path == "/dev/stderr") return STDERR_FILENO;
  const std::size_t digits = path.rfind('/') + 1;  // 0 without a directory
  int fd = -1;
  const auto [end, error] = std::from_chars(path.data() + digits, path.data() + path.size(), fd);
  const bool is_number = error == std::errc() && end == path.data() + path.size() && fd >= 0;
  if (!is_number || digits == 0 || !shows_descriptors(path.substr(0, digits))) return std::nullopt;
  return fd;
}

// What the link at `path` holds, seen from where `path` is seen; empty when there is no link.
std::string link_target(const std::string& path) {
  char target[PATH_MAX];
  const ssize_t length = readlink(path.c_str(), target, sizeof target);
  if (length <= 0) return "";
  const std::string_view text(target, static_cast<std::size_t>(length));
  const std::size_t slash = text.front() == '/' ? path.npos : path.rfind('/');
  return slash == path.npos ? std::string(text) : path.substr(0, slash + 1).append(text);
}

// The descriptor that `path` stands for, by itself or as a link. Opening such a path anew would forget where
// in a file the descriptor is, and replacing it would replace the file that a shell has opened.
std::optional<int> named_descriptor(std::string path) {
  constexpr int max_links = 40;
  for (int links = 0; links < max_links && !path.empty(); ++links) {
    if (const auto fd = spelt_descriptor(path)) return fd;
    path = link_target(path);
  }
  return std::nullopt;
}

// The access a newly created file of the user has.
mode_t ordinary_mode() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

// Gives the file owner, group and mode of the one it is to replace. What was meant for a group or for the
// rights of an owner that cannot be kept is withheld.
void take_access(int fd, const struct stat& existing) {
  const bool owner_kept = fchown(fd, existing.st_uid, static_cast<gid_t>(-1)) == 0;
  const bool group_kept = fchown(fd, static_cast<uid_t>(-1), existing.st_gid) == 0;
  mode_t mode = existing.st_mode & 07777;
  if (!owner_kept || !group_kept) mode &= 0777;
  if (!group_kept) mode &= ~static_cast<mode_t>(070) | ((mode & 07) << 3);
  fchmod(fd, mode);
}

// The file behind a chain of links, so that the link stays and its target is replaced.
std::string follow_links(const std::string& path) {
  char* const resolved = realpath(path.c_str(), nullptr);
  if (!resolved) return path;
  std::string target(resolved);
  free(resolved);
  return target;
}

}  // namespace

output_file::output_file(const std::string& path) : path_(path) {
  if (path.empty()) throw usage_error("the output file has no name");
  if (const auto fd = named_descriptor(path)) hold_descriptor(*fd);
}

output_file::~output_file() {
  discard();
  if (fd_ >= 0) close(fd_);
}

void output_file::discard() {
  if (in_place_) {
    empty_on_signal(-1);
    if (touched_ && ftruncate(fd_, 0) == 0) tell("warning: " + printable(path_) + " is empty now");
  }
  if (fd_ >= 0 && !held_) close(std::exchange(fd_, -1));
  partial_ = temporary_path();
  in_place_ = touched_ = false;
  written_bytes_ = 0;
}

void output_file::open() {
  if (fd_ >= 0) return;
  struct stat status;
  const bool exists = stat(path_.c_str(), &status) == 0;
  if (!exists && errno != ENOENT)
    fail("cannot be created");  // a name that is too long, a file for a directory
  if (exists && S_ISDIR(status.st_mode)) throw failed_file(printable(path_) + " is a directory");
  if (exists && !S_ISREG(status.st_mode)) return open_directly();
  if (exists) path_ = follow_links(path_);
  replace(exists ? &status : nullptr);
}

// A descriptor of our own, which nothing that is opened later can be taken for.
void output_file::hold_descriptor(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  const bool writable = flags >= 0 && (flags & O_ACCMODE) != O_RDONLY;
  if (flags >= 0 && !writable) errno = EBADF;
  fd_ = writable ? fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1) : -1;
  if (fd_ < 0) fail("cannot be opened");
  held_ = true;
}

void output_file::open_directly() {
  fd_ = ::open(path_.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
  if (fd_ < 0) fail("cannot be opened");
}

// Opens a file beside the final name. It has the access of the finished file from its first byte on.
void output_file::replace(const struct stat* existing) {
  const std::size_t slash = path_.rfind('/');
  const std::size_t name = slash == path_.npos ? 0 : slash + 1;
  partial_ = new_temporary_file(path_.substr(0, name) + "." + path_.substr(name, max_name_bytes), fd_);
  if (!partial_) {
    const bool directory_refuses = errno == EACCES || errno == EPERM || errno == EROFS;
    if (existing && directory_refuses) return open_in_place();
    fail("cannot be created");
  }
  if (existing) {
    take_access(fd_, *existing);
  } else {
    fchmod(fd_, ordinary_mode());
  }
}

void output_file::take(temporary_path whole) {
  struct stat status;
  const bool exists = stat(path_.c_str(), &status) == 0;
  if (exists) path_ = follow_links(path_);
  fd_ = ::open(whole.get().c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd_ < 0) fail("cannot be opened");
  partial_ = std::move(whole);
  if (exists) take_access(fd_, status);
}

std::optional<std::string> output_file::waiting_place() const {
  struct stat status;
  const bool exists = stat(path_.c_str(), &status) == 0;
  if (held_ || (exists && !S_ISREG(status.st_mode))) return std::nullopt;
  const std::string target = exists ? follow_links(path_) : path_;
  const std::size_t slash = target.rfind('/');
  const std::size_t name = slash == target.npos ? 0 : slash + 1;
  const std::string directory = name == 0 ? "." : target.substr(0, name);
  if (access(directory.c_str(), W_OK | X_OK) != 0) return std::nullopt;
  return target.substr(0, name) + target.substr(name, max_name_bytes) + ".fetchrig";
}

// The old bytes stay until there are new ones.
void output_file::open_in_place() {
  fd_ = ::open(path_.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd_ < 0) fail("cannot be written");
  in_place_ = true;
}

void output_file::write(std::span<const char> bytes) {
  if (in_place_ && !touched_) empty_on_signal(fd_);
  touched_ = touched_ || !bytes.empty();
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd_, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) fail("cannot be written");
    written_bytes_ += static_cast<std::size_t>(written);
    bytes = bytes.subspan(static_cast<std::size_t>(written));
  }
}

void output_file::set_modification_time(std::int64_t seconds) {
  modified_s_ = seconds;
}

void output_file::commit(name_use use) {
  if (modified_s_ >= 0 && !is_direct()) {
    const timespec times[] = {{0, UTIME_NOW}, {static_cast<time_t>(modified_s_), 0}};
    if (futimens(fd_, times) != 0) fail("cannot be given its time");
  }
  if (in_place_ && ftruncate(fd_, static_cast<off_t>(written_bytes_)) != 0) fail("cannot be written");
  if (in_place_) empty_on_signal(-1);
  in_place_ = false;
  close_checked();
  if (!partial_) return;
  const char* const partial = partial_.get().c_str();
  const unsigned flags = use == name_use::new_only ? RENAME_NOREPLACE : 0;
  if (renameat2(AT_FDCWD, partial, AT_FDCWD, path_.c_str(), flags) == 0) return partial_.keep();
  // Some file systems do not know the flag. A second name replaces nothing either; the first one goes with its owner.
  if (flags == 0 || errno != EINVAL || link(partial, path_.c_str()) != 0) fail("cannot be given its name");
  partial_ = temporary_path();
}

bool output_file::is_terminal() const {
  return isatty(fd_) == 1;
}

void output_file::close_checked() {
  held_ = false;
  const int closed = close(std::exchange(fd_, -1));
  if (closed != 0) fail("cannot be written");
}

void output_file::fail(const char* what) const {
  throw failed_file(printable(path_ == "-" ? "standard output" : path_) + " " + what + ": " +
                    strerror(errno));
}

}  // namespace fetchrig::cli
