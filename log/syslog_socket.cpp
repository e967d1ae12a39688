// SPDX-License-Identifier: MIT
// syslog_socket.cpp: the datagram socket to the system log.
#include "log/syslog_socket.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <optional>

namespace fetchrig {

std::atomic<const char*> syslog_path{"/dev/log"};

namespace {

constexpr int descriptor_shift = 40;
constexpr int identity_shift = 16;
constexpr uint64_t field_mask = (uint64_t{1} << 24) - 1;
constexpr uint64_t closing = uint64_t{1} << 15;
constexpr uint64_t writers_mask = closing - 1;

constexpr int descriptor(uint64_t state) {
  return static_cast<int>(state >> descriptor_shift) - 1;
}
constexpr bool is_usable(uint64_t state) {
  return state != 0 && !(state & closing);
}

// The low bits of the inode number, which the system gives to sockets one after the other;
// nothing for what is no socket.
std::optional<uint64_t> identity(int fd) {
  struct stat status = {};
  if (::fstat(fd, &status) != 0 || !S_ISSOCK(status.st_mode)) return std::nullopt;
  return uint64_t{status.st_ino} & field_mask;
}

bool is_ours(uint64_t state) {
  return identity(descriptor(state)) == ((state >> identity_shift) & field_mask);
}

void close_ours(uint64_t state) {
  if (is_ours(state)) ::close(descriptor(state));
}

// Descriptors 0 to 2 are standard streams: what lands there in a process without them is moved up.
int log_socket() {
  constexpr int first_descriptor = 3;
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || fd >= first_descriptor) return fd;
  const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, first_descriptor);
  ::close(fd);
  return moved;
}

// A connected socket or -1.
int connect_log() {
  const int fd = log_socket();
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
  return is_usable(state_.load(std::memory_order_acquire));
}

void syslog_socket::open() {
  if (state_.load(std::memory_order_acquire) != 0) return;
  const int fd = connect_log();
  if (fd < 0) return;
  const auto known = identity(fd);
  const uint64_t number = static_cast<uint64_t>(fd) + 1;
  uint64_t none = 0;
  const bool fits = known && number <= field_mask;
  const uint64_t opened = fits ? number << descriptor_shift | *known << identity_shift : 0;
  if (!fits || !state_.compare_exchange_strong(none, opened, std::memory_order_acq_rel)) ::close(fd);
}

void syslog_socket::close() {
  uint64_t state = state_.load(std::memory_order_acquire);
  while (is_usable(state)) {
    const bool idle = (state & writers_mask) == 0;
    if (!state_.compare_exchange_weak(state, idle ? 0 : state | closing, std::memory_order_acq_rel)) continue;
    if (idle) close_ours(state);
    return;
  }
}

// The state with a share taken, or 0: closed, or more writers than can be counted.
uint64_t syslog_socket::acquire() {
  uint64_t state = state_.load(std::memory_order_acquire);
  do {
    if (!is_usable(state) || (state & writers_mask) == writers_mask) return 0;
  } while (!state_.compare_exchange_weak(state, state + 1, std::memory_order_acq_rel));
  return state;
}

void syslog_socket::release() {
  uint64_t state = state_.load(std::memory_order_acquire);
  while ((state & writers_mask) != 0) {
    const bool last = (state & closing) && (state & writers_mask) == 1;
    if (!state_.compare_exchange_weak(state, last ? 0 : state - 1, std::memory_order_acq_rel)) continue;
    if (last) close_ours(state);
    return;
  }
}

log_write syslog_socket::write(const char* line, std::size_t length, bool may_wait) {
  const uint64_t state = acquire();
  if (state == 0) return log_write::refused;
  log_write outcome = log_write::foreign;
  if (is_ours(state)) {
    const int flags = MSG_NOSIGNAL | (may_wait ? 0 : MSG_DONTWAIT);
    const bool sent = ::send(descriptor(state), line, length, flags) >= 0;
    const bool full = !sent && (errno == EAGAIN || errno == ENOBUFS);
    outcome = sent ? log_write::sent : full ? log_write::blocked : log_write::refused;
  }
  if (outcome != log_write::sent) close();
  release();
  return outcome;
}

void syslog_socket::forget_writers() {
  const uint64_t state = state_.load(std::memory_order_acquire);
  state_.store((state & closing) != 0 ? 0 : state & ~writers_mask, std::memory_order_release);
  if (state & closing) close_ours(state);
}

}  // namespace fetchrig
