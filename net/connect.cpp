// SPDX-License-Identifier: MIT
// connect.cpp: TCP connections with a time-out.
#include "net/connect.h"

#include <arpa/inet.h>
#include <errno.h>
#include <limits.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "core/cause.h"
#include "core/owners.h"
#include "log/log.h"
#include "log/printable.h"
#include "net/address.h"
#include "net/socket.h"

namespace fetchrig {
namespace {

// An IPv4 or IPv6 socket address with the port filled in.
struct socket_address {
  sockaddr_storage storage = {};
  socklen_t length = 0;
  const void* ip = nullptr;  // into storage, for rendering

  socket_address(const addrinfo& entry, int port) {
    const auto wire_port = htons(static_cast<uint16_t>(port));
    if (entry.ai_family == AF_INET) {
      auto* address = reinterpret_cast<sockaddr_in*>(&storage);
      address->sin_family = AF_INET;
      address->sin_port = wire_port;
      address->sin_addr = reinterpret_cast<const sockaddr_in*>(entry.ai_addr)->sin_addr;
      ip = &address->sin_addr;
      length = sizeof *address;
    } else {
      auto* address = reinterpret_cast<sockaddr_in6*>(&storage);
      address->sin6_family = AF_INET6;
      address->sin6_port = wire_port;
      address->sin6_addr = reinterpret_cast<const sockaddr_in6*>(entry.ai_addr)->sin6_addr;
      ip = &address->sin6_addr;
      length = sizeof *address;
    }
  }
  socket_address(const socket_address&) = delete;
  socket_address& operator=(const socket_address&) = delete;
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

// What the log line of a failed connect tells.
struct connect_outcome {
  int result = 0;    // last result of connect or of the wait
  int error = 0;     // errno
  int pending = -1;  // SO_ERROR, when it was read
  bool connected = false;
};

connect_outcome start_connect(int sock, const socket_address& address) {
  connect_outcome outcome;
  outcome.result = ::connect(sock, address.get(), address.length);
  outcome.error = errno;
  outcome.connected = outcome.result == 0;
  return outcome;
}

// Waits for the connection that is being made.
void await_connection(int sock, int seconds, connect_outcome& outcome) {
  outcome.result = wait_ready(sock, wait_writable, seconds);
  outcome.error = errno;
  socklen_t length = sizeof outcome.pending;
  if (outcome.result <= 0) return;
  if (::getsockopt(sock, SOL_SOCKET, SO_ERROR, &outcome.pending, &length) == 0) {
    outcome.connected = outcome.pending == 0;
  } else {
    outcome.error = errno;
  }
}

connect_outcome connect_within(int sock, const socket_address& address, int seconds) {
  int non_blocking = 1;
  ::ioctl(sock, FIONBIO, &non_blocking);
  connect_outcome outcome = start_connect(sock, address);
  const bool under_way = outcome.error == EINPROGRESS || outcome.error == EALREADY;
  if (!outcome.connected && under_way) await_connection(sock, seconds, outcome);
  non_blocking = 0;
  ::ioctl(sock, FIONBIO, &non_blocking);
  return outcome;
}

// A signal ends the call but not the connection on its way, which the system itself gives up in time;
// connecting again would fail with EALREADY.
connect_outcome connect_blocking(int sock, const socket_address& address) {
  connect_outcome outcome = start_connect(sock, address);
  if (!outcome.connected && outcome.error == EINTR) await_connection(sock, INT_MAX, outcome);
  return outcome;
}

// No more waits unsent in the system's buffer. All that waits there is still to cross the link when the last
// byte of an upload has been written, and the peer's answer is waited for only as long as any other.
constexpr int max_unsent_bytes = 16384;

// Notices a vanished peer, sends small requests at once, and lets a send that makes no progress fail.
void set_connection_options(int sock, int seconds) {
  const int on = 1;
  ::setsockopt(sock, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
  const int idle_s = 60;
  const int interval_s = 15;
  const int probes = 4;
  ::setsockopt(sock, IPPROTO_TCP, TCP_KEEPIDLE, &idle_s, sizeof idle_s);
  ::setsockopt(sock, IPPROTO_TCP, TCP_KEEPINTVL, &interval_s, sizeof interval_s);
  ::setsockopt(sock, IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof probes);
  ::setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  ::setsockopt(sock, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &max_unsent_bytes, sizeof max_unsent_bytes);
  timeval limit = {};
  limit.tv_sec = seconds;
  ::setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

// The error that decided; 0 when the time was over.
int connect_error(const connect_outcome& outcome) {
  if (outcome.result == 0) return 0;
  return outcome.pending > 0 ? outcome.pending : outcome.error;
}

// A connected socket, or an empty owner after logging why.
unique_fd connect_address(const addrinfo& entry, int port, int seconds) {
  const socket_address address(entry, port);
  unique_fd sock = open_socket(entry.ai_family, SOCK_STREAM);
  if (!sock) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "Create Socket Error\n");
    return sock;
  }
  set_connection_options(sock.get(), seconds);
  char text[64] = {};
  ::inet_ntop(entry.ai_family, address.ip, text, sizeof text);
  log_line(DL_LOG_CMN, DL_LOG_INFO, "Connecting IP = %s, Port = %d\n", text, port);
  const connect_outcome outcome =
      seconds == 0 ? connect_blocking(sock.get(), address) : connect_within(sock.get(), address, seconds);
  if (outcome.connected) {
    clear_cause();
    return sock;
  }
  note_cause(DL_CAUSE_CONNECT, connect_error(outcome));
  log_line(DL_LOG_CMN, DL_LOG_ERROR, "Connect Failed! ret %d, errno %d timeout %d error %d\n", outcome.result,
           outcome.error, seconds, outcome.pending);
  return unique_fd();
}

}  // namespace

int connect_to_host(const char* host, int port, int ipv6, int seconds) {
  log_line(DL_LOG_CMN, DL_LOG_INFO, "Connecting %s:%d\n", printable(host).c_str(), port);
  clear_cause();
  const address_list list = look_up_host(host, ipv6, SOCK_STREAM);
  if (!list) return DL_ERR_HOST;
  const addrinfo* entry = first_usable(list.get(), ipv6);
  for (; entry; entry = first_usable(entry->ai_next, ipv6)) {
    if (unique_fd sock = connect_address(*entry, port, seconds)) return sock.release();
  }
  return DL_ERR_CONNECT;
}

}  // namespace fetchrig
