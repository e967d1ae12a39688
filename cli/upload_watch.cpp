// SPDX-License-Identifier: MIT
// upload_watch.cpp: asking the kernel about the library's descriptors. One that is closed or taken again meanwhile
// answers for another moment, no more.
#include "upload_watch.h"

#include <fcntl.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>

namespace fetchrig::cli {
namespace {

std::uint64_t acknowledged(int sock) {
  tcp_info info = {};
  socklen_t length = sizeof info;
  if (getsockopt(sock, IPPROTO_TCP, TCP_INFO, &info, &length) != 0) return 0;
  return length >= offsetof(tcp_info, tcpi_bytes_received) ? info.tcpi_bytes_acked : 0;
}

}  // namespace

upload_watch::upload_watch(scheme kind, const std::string& path, std::uint64_t size_bytes)
    : size_bytes_(size_bytes), by_file_(kind == scheme::tftp) {
  struct stat status;
  if (stat(path.c_str(), &status) == 0) {
    device_ = status.st_dev;
    inode_ = status.st_ino;
  }
  for (int fd = 0; fd < max_watched; ++fd) foreign_[static_cast<std::size_t>(fd)] = fcntl(fd, F_GETFD) >= 0;
}

std::uint64_t upload_watch::operator()() const {
  std::uint64_t moved = 0;
  for (int fd = 0; fd < max_watched; ++fd) {
    if (!foreign_[static_cast<std::size_t>(fd)]) moved = std::max(moved, moved_through(fd));
  }
  return std::min(moved, size_bytes_);
}

std::uint64_t upload_watch::moved_through(int fd) const {
  if (!by_file_) return acknowledged(fd);
  struct stat status;
  if (fstat(fd, &status) != 0 || status.st_dev != device_ || status.st_ino != inode_) return 0;
  return static_cast<std::uint64_t>(std::max<off_t>(lseek(fd, 0, SEEK_CUR), 0));
}

}  // namespace fetchrig::cli
