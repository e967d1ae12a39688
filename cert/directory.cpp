// SPDX-License-Identifier: MIT
// directory.cpp: opening and making folders.
#include "cert/directory.h"

#include <errno.h>
#include <sys/stat.h>

#include "cert/shell.h"
#include "core/cause.h"

namespace fetchrig {

unique_dir open_directory(const std::string& path) {
  return unique_dir(::opendir(path.c_str()));
}

int make_directory_by_shell(const std::string& path) {
  const int status = run_shell(shell_command(command_size, "mkdir", {path}));
  if (status == 0) (void)give_owner_access(path, S_IRWXU);
  return status;
}

int make_directory_by_call(const std::string& path) {
  const int rc = ::mkdir(path.c_str(), 0775);
  if (rc == 0) (void)give_owner_access(path, S_IRWXU);
  return rc;
}

unique_dir open_or_make_directory(const std::string& path, directory_maker make) {
  if (unique_dir directory = open_directory(path)) return directory;
  make(path);
  unique_dir directory = open_directory(path);
  if (!directory) note_cause(DL_CAUSE_DIRECTORY);
  return directory;
}

int give_owner_access(const std::string& path, mode_t mode) {
  struct stat status;
  if (::stat(path.c_str(), &status) != 0) return errno;
  if ((status.st_mode & mode) == mode) return 0;
  return ::chmod(path.c_str(), (status.st_mode & 07777) | mode) == 0 ? 0 : errno;
}

}  // namespace fetchrig
