// syslog_socket.cpp: the datagram socket to the system log.
#include "log/syslog_socket.h"

#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace fetchrig {

std::atomic<const char*> syslog_path{"/dev/log"};

namespace {

constexpr uint64_t closing = uint64_t{1} << 31;
constexpr uint64_t writers_mask = closing - 1;

constexpr uint64_t opened(int fd) {
  return (static_cast<uint64_t>(fd) + 1) << 32;
}
constexpr int descriptor(uint64_t state) {
  return static_cast<int>(state >> 32) - 1;
}

// A connected socket or -1. A log daemon that no longer reads delays its callers by at most a second per
// line.
int connect_log() {
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  const timeval limit = {1, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  const char* path = syslog_path.load(std::memory_order_relaxed);
  const std::size_t length = strlen(path);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (length < sizeof address.sun_path) {
    memcpy(address.sun_path, path, length);
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), size) == 0) return fd;
  }
  ::close(fd);
  return -1;
}

}  // namespace

bool syslog_socket::is_open() const {
  const uint64_t state = state_.load(std::memory_order_acquire);
  return state != 0 && !(state & closing);
}

void syslog_socket::open() {
  if (state_.load(std::memory_order_acquire) != 0) return;
  const int fd = connect_log();
  if (fd < 0) return;
  uint64_t none = 0;
  if (!state_.compare_exchange_strong(none, opened(fd), std::memory_order_acq_rel)) ::close(fd);
}

void syslog_socket::close() {
  uint64_t state = state_.load(std::memory_order_acquire);
  while (state != 0 && !(state & closing)) {
    const bool idle = (state & writers_mask) == 0;
    if (!state_.compare_exchange_weak(state, idle ? 0 : state | closing, std::memory_order_acq_rel)) continue;
    if (idle) ::close(descriptor(state));
    return;
  }
}

int syslog_socket::acquire() {
  uint64_t state = state_.load(std::memory_order_acquire);
  do {
    if (state == 0 || (state & closing)) return -1;
  } while (!state_.compare_exchange_weak(state, state + 1, std::memory_order_acq_rel));
  return descriptor(state);
}

void syslog_socket::release() {
  uint64_t state = state_.load(std::memory_order_acquire);
  for (;;) {
    const bool last = (state & closing) && (state & writers_mask) == 1;
    if (!state_.compare_exchange_weak(state, last ? 0 : state - 1, std::memory_order_acq_rel)) continue;
    if (last) ::close(descriptor(state));
    return;
  }
}

void syslog_socket::write(const char* line, std::size_t length) {
  const int fd = acquire();
  if (fd < 0) return;
  const bool sent = ::send(fd, line, length, MSG_NOSIGNAL) >= 0;
  if (!sent) close();
  release();
}

}  // namespace fetchrig
