// fed_socket.h: a connected socket whose other end delivers given bytes, then ends the stream: at once, or
// each piece only when the one before it was taken, so that a reader meets every boundary.
#ifndef FETCHRIG_TESTS_SUPPORT_FED_SOCKET_H
#define FETCHRIG_TESTS_SUPPORT_FED_SOCKET_H

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

namespace test {

class fed_socket {
 public:
  // `piece_len` 0: everything at once.
  explicit fed_socket(std::string bytes, std::size_t piece_len = 0) : bytes_(std::move(bytes)) {
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_));
    if (piece_len == 0) {
      feed(bytes_.size() + 1);
    } else {
      feeder_ = std::thread([this, piece_len] { feed(piece_len); });
    }
  }
  ~fed_socket() {
    paced_ = false;
    if (feeder_.joinable()) feeder_.join();
    close(ends_[1]);
    if (ends_[0] >= 0) close(ends_[0]);
  }
  fed_socket(const fed_socket&) = delete;
  fed_socket& operator=(const fed_socket&) = delete;

  int fd() const { return ends_[0]; }
  // A copy, for an owner that closes it.
  int duplicate() const { return dup(ends_[0]); }
  // What nobody has read.
  std::string rest() {
    paced_ = false;
    if (feeder_.joinable()) feeder_.join();
    std::string left(bytes_.size() + 1, '\0');
    const ssize_t count = recv(ends_[0], left.data(), left.size(), MSG_DONTWAIT);
    left.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return left;
  }

 private:
  // The reader's side is asked, as what it has not read is all that is on its way.
  bool taken() const {
    int waiting = 0;
    ioctl(ends_[0], FIONREAD, &waiting);
    return waiting == 0;
  }
  void feed(std::size_t piece_len) {
    for (std::size_t at = 0; at < bytes_.size(); at += piece_len) {
      while (at > 0 && paced_ && !taken()) sched_yield();
      const std::string piece = bytes_.substr(at, piece_len);
      EXPECT_EQ(static_cast<ssize_t>(piece.size()),
                ::send(ends_[1], piece.data(), piece.size(), MSG_NOSIGNAL));
    }
    shutdown(ends_[1], SHUT_WR);
  }

  std::string bytes_;
  int ends_[2] = {-1, -1};
  std::atomic<bool> paced_ = true;
  std::thread feeder_;
};

}  // namespace test
#endif
