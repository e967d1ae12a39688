// SPDX-License-Identifier: MIT
// directory.h: the folders of the store and of the device certificate, made when they are missing. No state; the caller
// runs certificate operations one at a time.
#ifndef FETCHRIG_CERT_DIRECTORY_H
#define FETCHRIG_CERT_DIRECTORY_H

#include <dirent.h>
#include <sys/types.h>

#include <memory>
#include <string>

namespace fetchrig {

struct directory_closer {
  void operator()(DIR* directory) const { ::closedir(directory); }
};
using unique_dir = std::unique_ptr<DIR, directory_closer>;

[[nodiscard]] unique_dir open_directory(const std::string& path);

// Make a folder that its owner can use whatever the umask: through the shell, with the command's status as the result,
// or by the system call, with 0 or -1.
using directory_maker = int (*)(const std::string& path);
int make_directory_by_shell(const std::string& path);
int make_directory_by_call(const std::string& path);

// The folder, made when it is missing; null when it can be neither opened nor made.
[[nodiscard]] unique_dir open_or_make_directory(const std::string& path,
                                                directory_maker make = make_directory_by_shell);

// Gives the owner of what was just made the access in `mode`, which the umask may have taken away. 0, or errno.
[[nodiscard]] int give_owner_access(const std::string& path, mode_t mode);

}  // namespace fetchrig
#endif
