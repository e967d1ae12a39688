// file_replacement.cpp: replaces files.
#include "cert/file_replacement.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fetchrig {
namespace {

// Sets group and mode, whatever the umask was. Where the group cannot be had its permissions are not given
// to another one.
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

}  // namespace

std::string_view folder_of(std::string_view path) {
  return path.substr(0, path.rfind('/') + 1);
}

int write_all(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errno;
    if (written == 0) return EIO;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}

int fill_new_file(unique_fd file, std::string_view bytes, file_access access) {
  if (const int error = apply(file.get(), access); error != 0) return error;
  if (const int error = write_all(file.get(), bytes); error != 0) return error;
  if (::fsync(file.get()) != 0) return errno;
  return ::close(file.release()) == 0 ? 0 : errno;
}

int replace_file(const std::string& path, std::string_view bytes, const file_access& access) {
  std::string beside = std::string(folder_of(path)) + ".fetchrig-XXXXXX";
  unique_fd file(mkostemp(beside.data(), O_NOFOLLOW | O_CLOEXEC));  // O_EXCL, mode 0600
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
