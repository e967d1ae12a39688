// directory.h: the folders of the store and of the device certificate, made when they are missing. No state;
// the caller runs certificate operations one at a time.
#ifndef FETCHRIG_CERT_DIRECTORY_H
#define FETCHRIG_CERT_DIRECTORY_H

#include <dirent.h>

#include <memory>
#include <string>

namespace fetchrig {

struct directory_closer {
  void operator()(DIR* directory) const { ::closedir(directory); }
};
using unique_dir = std::unique_ptr<DIR, directory_closer>;

[[nodiscard]] unique_dir open_directory(const std::string& path);

// Makes the folder through the shell; its owner can use it whatever the umask. The command's status.
int make_directory(const std::string& path);

// The folder, made when it is missing; null when it can be neither opened nor made.
[[nodiscard]] unique_dir open_or_make_directory(const std::string& path);

// Gives the owner of what was just made the access in `mode`, which the umask may have taken away.
void give_owner_access(const std::string& path, mode_t mode);

}  // namespace fetchrig
#endif
