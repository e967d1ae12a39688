// SPDX-License-Identifier: MIT
// partial_file.cpp: the part of a file and the record of its source.
#include "core/extra/partial_file.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "core/cause.h"
#include "core/cursor.h"
#include "core/files.h"
#include "core/small_file.h"
#include "core/text.h"
#include "log/log.h"
#include "log/printable.h"

namespace fetchrig {
namespace {

constexpr std::string_view title = "fetchrig part 1\n";
constexpr std::string_view title_of_all = "fetchrig part ";
constexpr int own_flags = O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
constexpr const char* part_ending = ".part";
constexpr const char* info_ending = ".info";
constexpr mode_t own_mode = 0600;
constexpr mode_t permissions = 0777;
// A part that is completed just before it is locked has lost its name; another try makes a new one.
constexpr int max_tries = 10;

std::optional<std::string_view> line_of(cursor& in, std::string_view name) {
  if (!in.skip(name) || !in.skip(" ")) return std::nullopt;
  return in.take_until('\n');
}

// What the name stands for, all 0 where nothing does; nothing when that cannot be told.
std::optional<struct stat> look_at(const char* path) {
  struct stat status = {};
  if (::lstat(path, &status) != 0 && errno != ENOENT) return std::nullopt;
  return status;
}
bool is_absent(const struct stat& status) {
  return status.st_nlink == 0;
}
bool is_own(const struct stat& status) {
  return S_ISREG(status.st_mode) && status.st_nlink == 1 && status.st_uid == ::geteuid();
}
// One of any version, or one that was not written yet.
bool is_record(const struct stat& status, const char* path) {
  return status.st_size == 0 || small_file(path).bytes().starts_with(title_of_all);
}

// 0 when the path leads to this very file, one of our own; ESTALE when it does not.
int still_named(int fd, const char* path) {
  struct stat opened = {}, named = {};
  if (::fstat(fd, &opened) != 0) return errno;
  if (!S_ISREG(opened.st_mode)) return why_not_regular(opened);
  if (::lstat(path, &named) != 0) return errno == ENOENT ? ESTALE : errno;
  const bool same = opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
  if (!same) return ESTALE;
  return is_own(opened) ? 0 : EPERM;
}

// Another process may be about to finish; one that is not keeps it for long.
int lock_soon(int fd) {
  constexpr int max_waits = 10;
  constexpr timespec wait = {0, 100000000};
  for (int waits = 0; ::flock(fd, LOCK_EX | LOCK_NB) != 0;) {
    if (errno == EINTR) continue;
    if (errno != EWOULDBLOCK || waits++ == max_waits) return errno;
    ::nanosleep(&wait, nullptr);
  }
  return 0;
}

}  // namespace

std::string format_part_source(const part_source& source) {
  if (has_line_break(source.url) || has_line_break(source.validator)) return {};
  std::string text(title);
  text.append("url ").append(source.url).append("\nvalidator ").append(source.validator).append("\nsize ");
  return text.append(std::to_string(source.size)).append("\n");
}

std::optional<part_source> parse_part_source(std::string_view text) {
  cursor in(text);
  if (!in.skip(title)) return std::nullopt;
  const auto url = line_of(in, "url");
  const auto validator = url ? line_of(in, "validator") : std::nullopt;
  const auto digits = validator ? line_of(in, "size") : std::nullopt;
  const auto size = digits ? whole_number(*digits, UINT64_MAX) : std::nullopt;
  if (!size || !in.empty()) return std::nullopt;
  return part_source{std::string(*url), std::string(*validator), *size};
}

partial_file::~partial_file() {
  struct stat status = {};
  if (fd_ && (::fstat(fd_.get(), &status) != 0 || status.st_size == 0 || source_.validator.empty())) drop();
}

bool partial_file::fits(const char* path) {
  const std::string name(base_name(path)), part = std::string(path) + part_ending, info = part + info_ending;
  const std::string folder(path, std::string_view(path).size() - name.size());
  if (name.empty() || base_name(info.c_str()).size() > NAME_MAX) return false;
  if (::access(folder.empty() ? "." : folder.c_str(), W_OK | X_OK) != 0) return false;
  const auto there = look_at(path), begun = look_at(part.c_str()), record = look_at(info.c_str());
  if (!there || !begun || !record) return false;
  // What lies there without a record of ours is somebody else's, and so is another record.
  if (!is_absent(*begun) && !(is_own(*begun) && (begun->st_size == 0 || !is_absent(*record)))) return false;
  if (!is_absent(*record) && !(is_own(*record) && is_record(*record, info.c_str()))) return false;
  return is_absent(*there) || (S_ISREG(there->st_mode) && there->st_nlink == 1);
}

int partial_file::open_locked() {
  int error = ESTALE;
  for (int tries = 0; tries < max_tries && error == ESTALE; ++tries) {
    fd_.reset(::open(part_.c_str(), O_RDWR | O_APPEND | own_flags, own_mode));
    if (!fd_) return errno;
    error = lock_soon(fd_.get());
    if (error == 0) error = still_named(fd_.get(), part_.c_str());
  }
  if (error != 0) fd_.reset();
  return error;
}

bool partial_file::open(const char* path) {
  path_.assign(path);
  part_ = path_ + part_ending;
  info_ = part_ + info_ending;
  if (const int error = open_locked(); error != 0) return failed("open", error) == 0;
  struct stat status = {};
  if (const auto record = look_at(info_.c_str()); record && is_own(*record))
    source_ = parse_part_source(small_file(info_.c_str()).bytes()).value_or(part_source{});
  if (::fstat(fd_.get(), &status) == 0 && !source_.url.empty()) held_ = static_cast<uint64_t>(status.st_size);
  return true;
}

bool partial_file::goes_on(const part_source& now) const {
  return held_ > 0 && held_ <= now.size && !now.validator.empty() && now == source_;
}

int partial_file::start_anew(const part_source& now) {
  held_ = 0;
  source_ = {};
  // What is held goes first: at no moment does a record stand beside bytes of another source.
  if (::ftruncate(fd_.get(), 0) != 0) return failed("truncate", errno);
  if (const int error = record(now); error != 0) return failed("record", error);
  source_ = now;
  return 0;
}

int partial_file::record(const part_source& now) {
  if (::unlink(info_.c_str()) != 0 && errno != ENOENT) return errno;
  const std::string text = format_part_source(now);
  if (text.empty()) return EINVAL;
  const unique_fd info(::open(info_.c_str(), O_WRONLY | O_EXCL | own_flags, own_mode));
  return info ? write_all(info.get(), text) : errno;
}

void partial_file::drop() {
  if (!fd_) return;
  ::unlink(info_.c_str());  // first: behind the part another process may have made its own
  if (still_named(fd_.get(), part_.c_str()) == 0) ::unlink(part_.c_str());
  fd_.reset();
}

// The mode of a new file is known only from one. The record goes first: behind the part's name another process may make
// its own.
int partial_file::complete() {
  struct stat status = {};
  const bool is_new = ::lstat(path_.c_str(), &status) != 0 && errno == ENOENT;
  const unique_fd file(::open(path_.c_str(), O_WRONLY | own_flags, 0666));
  if (!file) return errno;
  if (::fstat(file.get(), &status) != 0) {
    const int error = errno;
    if (is_new) ::unlink(path_.c_str());
    return error;
  }
  ::unlink(info_.c_str());
  if (::fchmod(fd_.get(), status.st_mode & permissions) != 0 || ::rename(part_.c_str(), path_.c_str()) != 0) {
    const int error = errno;
    if (is_new) ::unlink(path_.c_str());
    if (record(source_) != 0) drop();  // nobody could tell whose it is
    return error;
  }
  fd_.reset();
  return 0;
}

int partial_file::failed(const char* operation, int error) const {
  note_cause(DL_CAUSE_LOCAL_FILE, error);
  log_line(module_, DL_LOG_ERROR, "%s error on %s, errno %d\n", operation, printable(part_.c_str()).c_str(),
           error);
  return error;
}

}  // namespace fetchrig
