// SPDX-License-Identifier: MIT
// file_replacement.cpp: replaces files.
#include "cert/file_replacement.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/files.h"
#include "core/text.h"

namespace fetchrig {
namespace {

// Sets group and mode, whatever the umask was. Where the group cannot be had its permissions are not given to
// another one.
int apply(int fd, file_access access) {
  if (access.group && ::fchown(fd, static_cast<uid_t>(-1), *access.group) != 0) access.mode &= S_IRWXU;
  return ::fchmod(fd, access.mode) == 0 ? 0 : errno;
}

// So that the new name survives a power cut, too. Some file systems cannot do it.
void sync_folder(const std::string& path) {
  const std::string folder(folder_of(path));
  const unique_fd fd(::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd) (void)::fsync(fd.get());
}

// Whether the folder shows the descriptors of this process, its own or a thread's in /proc.
bool shows_descriptors(const std::string& folder) {
  char own[PATH_MAX], found[PATH_MAX];
  if (!::realpath("/proc/self/fd", own) || !::realpath(folder.c_str(), found)) return false;
  const std::string threads = std::string(own, strlen(own) - strlen("fd")) + "task/";
  const std::string_view shown(found);
  return shown == own || (shown.starts_with(threads) && shown.ends_with("/fd"));
}

}  // namespace

std::string_view folder_of(std::string_view path) {
  return path.substr(0, path.rfind('/') + 1);
}

int read_link(std::string& path) {
  char to[PATH_MAX];
  const ssize_t length = ::readlink(path.c_str(), to, sizeof to);
  if (length < 0) return errno;
  if (length == sizeof to) return ENAMETOOLONG;
  const std::string_view target(to, static_cast<std::size_t>(length));
  path = (target.starts_with('/') ? "" : std::string(folder_of(path))).append(target);
  return 0;
}

std::optional<int> own_descriptor(std::string path) {
  for (int links = 0; links <= max_links; ++links) {
    const std::string around(folder_of(path));
    const auto number = whole_number(std::string_view(path).substr(around.size()), INT_MAX);
    if (number && shows_descriptors(around)) return static_cast<int>(*number);
    if (read_link(path) != 0) break;
  }
  return std::nullopt;
}

int fill_new_file(unique_fd file, std::string_view bytes, file_access access) {
  if (const int error = apply(file.get(), access); error != 0) return error;
  if (const int error = write_all(file.get(), bytes); error != 0) return error;
  if (::fsync(file.get()) != 0) return errno;
  return ::close(file.release()) == 0 ? 0 : errno;
}

int replace_file(const std::string& path, std::string_view bytes, const file_access& access) {
  std::string beside = std::string(folder_of(path)) + ".fetchrig-XXXXXX";
  unique_fd file(::mkostemp(beside.data(), O_NOFOLLOW | O_CLOEXEC));  // O_EXCL, mode 0600
  if (!file) return errno;
  int error = fill_new_file(std::move(file), bytes, access);
  if (error == 0 && ::rename(beside.c_str(), path.c_str()) != 0) error = errno;
  if (error == 0) {
    sync_folder(path);
  } else {
    ::unlink(beside.c_str());
  }
  return error;
}

}  // namespace fetchrig
