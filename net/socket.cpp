// SPDX-License-Identifier: MIT
// socket.cpp: plain sockets.
#include "net/socket.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>

#include "include/fetchrig_types.h"
#include "log/clock.h"

namespace fetchrig {
namespace {

// poll() until ready or the time is over; an interrupted wait goes on with the time that is left.
int poll_within(pollfd& entry, int64_t limit_ms) {
  const int64_t end = now_ms() + limit_ms;
  const int error = errno;
  for (int64_t left = limit_ms;; left = std::max<int64_t>(0, end - now_ms())) {
    const int ready = ::poll(&entry, 1, static_cast<int>(std::min<int64_t>(left, INT_MAX)));
    if (ready >= 0 || errno != EINTR) return ready;
    errno = error;  // the interruption is over; a wait that runs out has no error to tell
  }
}

}  // namespace

unique_fd open_socket(int family, int type) {
  unique_fd sock(::socket(family, type | SOCK_CLOEXEC, 0));
  if (!sock || sock.get() > STDERR_FILENO) return sock;
  return unique_fd(::fcntl(sock.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

void close_socket(int32_t& sock) {
  if (sock > STDERR_FILENO) ::close(sock);
  sock = 0;
}

void reset_on_close(int sock) {
  if (sock <= STDERR_FILENO) return;
  const linger discard = {.l_onoff = 1, .l_linger = 0};
  ::setsockopt(sock, SOL_SOCKET, SO_LINGER, &discard, sizeof discard);
}

void close_in_order(int32_t& sock) {
  const linger deliver = {};
  if (sock > STDERR_FILENO) ::setsockopt(sock, SOL_SOCKET, SO_LINGER, &deliver, sizeof deliver);
  close_socket(sock);
}

// poll() stands in for select(), whose descriptor sets end at 1023. The result counts like select's: one for each set
// the descriptor is ready in.
int wait_ready(int sock, int mode, int seconds) {
  if (seconds < 0 || sock < 0) {
    errno = seconds < 0 ? EINVAL : EBADF;
    return -1;
  }
  pollfd entry = {};
  entry.fd = sock;
  if (mode & wait_readable) entry.events |= POLLIN;
  if (mode & wait_writable) entry.events |= POLLOUT;
  if (!entry.events) entry.fd = -1;
  const int ready = poll_within(entry, int64_t{seconds} * 1000);
  if (ready <= 0) return ready;
  if (entry.revents & POLLNVAL) {
    errno = EBADF;
    return -1;
  }
  const bool readable = (mode & wait_readable) && (entry.revents & (POLLIN | POLLHUP | POLLERR));
  const bool writable = (mode & wait_writable) && (entry.revents & (POLLOUT | POLLHUP | POLLERR));
  return readable + writable;
}

int wait_for(int sock, short events, int64_t limit_ms) {
  pollfd entry = {sock, events, 0};
  return poll_within(entry, limit_ms);
}

bool wait_to_send(int sock) {
  timeval limit = {};
  socklen_t length = sizeof limit;
  if (::getsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &limit, &length) != 0) return false;
  const int64_t limit_ms = int64_t{limit.tv_sec} * 1000 + limit.tv_usec / 1000;
  int ready = 0;
  do {
    ready = wait_for(sock, POLLOUT, limit_ms > 0 ? limit_ms : INT_MAX);
  } while (ready == 0 && limit_ms == 0);
  if (ready == 0) errno = EAGAIN;
  return ready > 0;
}

bool would_block() {
  return errno == EAGAIN || errno == EWOULDBLOCK;
}

int dl_send_all(int sock, const char* buffer, std::size_t length) {
  while (length > 0) {
    const ssize_t sent = ::send(sock, buffer, length, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0 && would_block() && wait_to_send(sock)) continue;
    if (sent < 0) return DL_ERR_SEND;
    buffer += sent;
    length -= static_cast<std::size_t>(sent);
  }
  return 0;
}

}  // namespace fetchrig
