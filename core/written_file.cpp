// SPDX-License-Identifier: MIT
// written_file.cpp: from a descriptor to the name of its file.
#include "core/written_file.h"

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

namespace fetchrig {

written_file::written_file(int fd, const char* opened_as) {
  if (::fstat(fd, &status_) != 0 || !S_ISREG(status_.st_mode)) return;
  char link[32];
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  const ssize_t length = ::readlink(link, path_.data(), path_.size() - 1);
  path_[length > 0 ? static_cast<std::size_t>(length) : 0] = '\0';
  if (is_at_path()) return;
  if (!::realpath(opened_as, path_.data())) path_[0] = '\0';
}

void written_file::remove() const {
  if (is_at_path()) ::unlink(path_.data());
}

bool written_file::is_at_path() const {
  struct stat found = {};
  return path_[0] != '\0' && ::lstat(path_.data(), &found) == 0 && found.st_dev == status_.st_dev &&
         found.st_ino == status_.st_ino;
}

}  // namespace fetchrig
