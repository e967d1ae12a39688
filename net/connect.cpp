// connect.cpp: name lookup with the IPv6 rule, TCP connections with a time-out, waits and whole sends.
#include "net/connect.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <memory>

#include "core/boundary.h"
#include "core/owners.h"
#include "log/log.h"
#include "log/printable.h"

namespace fetchrig {
namespace {

struct address_list_deleter {
  void operator()(addrinfo* list) const { ::freeaddrinfo(list); }
};
using address_list = std::unique_ptr<addrinfo, address_list_deleter>;

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
  outcome.result = dl_select(sock, wait_writable, seconds);
  outcome.error = errno;
  socklen_t length = sizeof outcome.pending;
  if (outcome.result > 0 && getsockopt(sock, SOL_SOCKET, SO_ERROR, &outcome.pending, &length) == 0) {
    outcome.connected = outcome.pending == 0;
  }
}

connect_outcome connect_within(int sock, const socket_address& address, int seconds) {
  int non_blocking = 1;
  ioctl(sock, FIONBIO, &non_blocking);
  connect_outcome outcome = start_connect(sock, address);
  const bool under_way = outcome.error == EINPROGRESS || outcome.error == EALREADY;
  if (!outcome.connected && under_way) await_connection(sock, seconds, outcome);
  non_blocking = 0;
  ioctl(sock, FIONBIO, &non_blocking);
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
  setsockopt(sock, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
  const int idle_s = 60;
  const int interval_s = 15;
  const int probes = 4;
  setsockopt(sock, IPPROTO_TCP, TCP_KEEPIDLE, &idle_s, sizeof idle_s);
  setsockopt(sock, IPPROTO_TCP, TCP_KEEPINTVL, &interval_s, sizeof interval_s);
  setsockopt(sock, IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof probes);
  setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  setsockopt(sock, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &max_unsent_bytes, sizeof max_unsent_bytes);
  timeval limit = {};
  limit.tv_sec = seconds;
  setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

// Descriptors 0 to 2 mean standard streams to every close call, and 0 means "none" in a session record: a
// socket that lands there in a process without standard streams is moved up.
unique_fd stream_socket(int family) {
  unique_fd sock(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!sock || sock.get() > 2) return sock;
  return unique_fd(fcntl(sock.get(), F_DUPFD_CLOEXEC, 3));
}

// A connected socket, or an empty owner after logging why.
unique_fd connect_address(const addrinfo& entry, int port, int seconds) {
  const socket_address address(entry, port);
  unique_fd sock = stream_socket(entry.ai_family);
  if (!sock) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "Create Socket Error\n");
    return sock;
  }
  set_connection_options(sock.get(), seconds);
  char text[64] = {};
  inet_ntop(entry.ai_family, address.ip, text, sizeof text);
  log_line(DL_LOG_CMN, DL_LOG_INFO, "Connecting IP = %s, Port = %d\n", text, port);
  const connect_outcome outcome =
      seconds == 0 ? connect_blocking(sock.get(), address) : connect_within(sock.get(), address, seconds);
  if (outcome.connected) return sock;
  log_line(DL_LOG_CMN, DL_LOG_ERROR, "Connect Failed! ret %d, errno %d timeout %d error %d\n", outcome.result,
           outcome.error, seconds, outcome.pending);
  return unique_fd();
}

bool is_usable(const addrinfo& entry, int ipv6) {
  return entry.ai_family == AF_INET || (entry.ai_family == AF_INET6 && ipv6);
}

// The socket of the first usable address that accepts.
int connect_first(const addrinfo& list, int port, int ipv6, int seconds) {
  for (const addrinfo* entry = &list; entry; entry = entry->ai_next) {
    if (!is_usable(*entry, ipv6)) continue;
    unique_fd sock = connect_address(*entry, port, seconds);
    if (sock) return sock.release();
  }
  return DL_ERR_CONNECT;
}

// poll() until ready or the time is over; an interrupted wait goes on with the time that is left.
int poll_within(pollfd& entry, int64_t limit_ms) {
  const int64_t end = now_ms() + limit_ms;
  for (int64_t left = limit_ms;; left = std::max<int64_t>(0, end - now_ms())) {
    const int ready = ::poll(&entry, 1, static_cast<int>(std::min<int64_t>(left, INT_MAX)));
    if (ready >= 0 || errno != EINTR) return ready;
  }
}

}  // namespace

int64_t now_ms() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

int wait_for(int sock, short events, int64_t limit_ms) {
  pollfd entry = {sock, events, 0};
  return poll_within(entry, limit_ms);
}

int dl_send_all(int sock, const char* buffer, std::size_t length) {
  while (length > 0) {
    const ssize_t sent = ::send(sock, buffer, length, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0) return DL_ERR_SEND;
    buffer += sent;
    length -= static_cast<std::size_t>(sent);
  }
  return 0;
}

}  // namespace fetchrig

using namespace fetchrig;

// poll() stands in for select(), whose descriptor sets end at 1023. The result counts like select's: one for
// each set the descriptor is ready in.
int dl_select(int sock, int mode, int seconds) {
  if (seconds < 0 || sock < 0) {
    errno = seconds < 0 ? EINVAL : EBADF;
    return -1;
  }
  pollfd entry = {};
  entry.fd = sock;
  if (mode & wait_readable) entry.events |= POLLIN;
  if (mode & wait_writable) entry.events |= POLLOUT;
  if (!entry.events) entry.fd = -1;
  const int ready = guarded([&] { return poll_within(entry, int64_t{seconds} * 1000); }, [] { return -1; });
  if (ready <= 0) return ready;
  if (entry.revents & POLLNVAL) {
    errno = EBADF;
    return -1;
  }
  const bool readable = (mode & wait_readable) && (entry.revents & (POLLIN | POLLHUP | POLLERR));
  const bool writable = (mode & wait_writable) && (entry.revents & (POLLOUT | POLLHUP | POLLERR));
  return readable + writable;
}

struct addrinfo* dl_look_up_host(const char* host, int ipv6, int socket_type) {
  addrinfo hints = {};
  hints.ai_family = ipv6 ? AF_UNSPEC : AF_INET;
  hints.ai_socktype = socket_type;
  addrinfo* list = nullptr;
  const auto look_up = [&] { return host ? getaddrinfo(host, nullptr, &hints, &list) : EAI_NONAME; };
  const int error = guarded(look_up, [] { return EAI_MEMORY; });
  if (error == 0) return list;
  log_line(DL_LOG_CMN, DL_LOG_ERROR, "getaddrinfo: %s\n", gai_strerror(error));
  return nullptr;
}

int dl_connect(const char* host, int port, int ipv6, int seconds) {
  log_line(DL_LOG_CMN, DL_LOG_INFO, "Connecting %s:%d\n", printable(host).c_str(), port);
  const auto work = [&]() -> int {
    const address_list list(dl_look_up_host(host, ipv6, SOCK_STREAM));
    return list ? connect_first(*list, port, ipv6, seconds) : int{DL_ERR_HOST};
  };
  return guarded(work, [] { return int{DL_ERR_CONNECT}; });
}
