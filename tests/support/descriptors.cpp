// descriptors.cpp: reads /proc/self/fd.
#include "tests/support/descriptors.h"

#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <filesystem>

namespace test {
namespace {

bool is_log_socket(int fd) {
  sockaddr_un peer = {};
  socklen_t length = sizeof peer;
  return getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) == 0 && peer.sun_family == AF_UNIX &&
         strcmp(peer.sun_path, "/dev/log") == 0;
}

}  // namespace

std::map<int, std::string> open_descriptors() {
  std::map<int, std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const int fd = std::stoi(entry.path().filename());
    const std::string target = std::filesystem::read_symlink(entry, gone);
    const bool own = target.starts_with("/proc/");  // the listing's
    if (!gone && !own && !is_log_socket(fd)) found[fd] = target;
  }
  return found;
}

}  // namespace test
