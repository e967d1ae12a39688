// descriptors.h: a check that a test leaves no open descriptor behind. The socket to the system's log, which
// the library keeps open on purpose, does not count. No other thread may open or close descriptors at its
// ends.
#ifndef FETCHRIG_TESTS_SUPPORT_DESCRIPTORS_H
#define FETCHRIG_TESTS_SUPPORT_DESCRIPTORS_H

#include <gtest/gtest.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <filesystem>
#include <map>
#include <string>

#include "core/owners.h"

namespace test {

inline bool is_log_socket(int fd) {
  sockaddr_un peer = {};
  socklen_t length = sizeof peer;
  return getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) == 0 && peer.sun_family == AF_UNIX &&
         strcmp(peer.sun_path, "/dev/log") == 0;
}

// The process's open descriptors and what each stands for, the log's among them or not.
inline std::map<int, std::string> open_descriptors(bool all = false) {
  std::map<int, std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const std::string target = std::filesystem::read_symlink(entry, gone);
    const int fd = std::stoi(entry.path().filename());
    const bool own = target.starts_with("/proc/");  // the listing's
    if (!gone && !own && (all || !is_log_socket(fd))) found[fd] = target;
  }
  return found;
}

// A fixture whose tests leak none, the members of classes derived from it included.
class leak_free : public ::testing::Test {
 protected:
  ~leak_free() override { EXPECT_EQ(open_descriptors(), before_) << "descriptors were left open"; }

 private:
  const std::map<int, std::string> before_ = open_descriptors();
};

// Both ends of a connection.
struct socket_pair {
  explicit socket_pair(int kind = SOCK_STREAM) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, kind, 0, ends), 0);
    near.reset(ends[0]);
    far.reset(ends[1]);
  }
  fetchrig::unique_fd near, far;
};

}  // namespace test
#endif
