// descriptors.cpp: reads /proc/self/fd.
#include "tests/support/descriptors.h"

#include <dirent.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace test {
namespace {

bool is_log_socket(int fd) {
  sockaddr_un peer = {};
  socklen_t peer_len = sizeof peer;
  if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peer_len) != 0) return false;
  return peer.sun_family == AF_UNIX && strcmp(peer.sun_path, "/dev/log") == 0;
}

}  // namespace

std::map<int, std::string> open_descriptors() {
  std::map<int, std::string> found;
  DIR* directory = opendir("/proc/self/fd");
  if (!directory) return found;
  while (const dirent* entry = readdir(directory)) {
    const int fd = static_cast<int>(strtol(entry->d_name, nullptr, 10));
    if (entry->d_name[0] == '.' || fd == dirfd(directory) || is_log_socket(fd)) continue;
    char target[PATH_MAX] = {};
    const ssize_t length = readlinkat(dirfd(directory), entry->d_name, target, sizeof target - 1);
    if (length > 0) found[fd] = target;
  }
  closedir(directory);
  return found;
}

descriptor_check::~descriptor_check() {
  for (const auto& [fd, target] : open_descriptors()) {
    const auto known = before_.find(fd);
    if (known == before_.end() || known->second != target) {
      ADD_FAILURE() << "descriptor " << fd << " (" << target << ") was left open";
    }
  }
}

}  // namespace test
