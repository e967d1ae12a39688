// bench_support.h: what the benchmarks share: loopback sockets and the CPU time of this process.
#ifndef FETCHRIG_BENCH_BENCH_SUPPORT_H
#define FETCHRIG_BENCH_BENCH_SUPPORT_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace bench {

[[noreturn]] inline void die(const char* what) {
  perror(what);
  _exit(2);
}

// User and system time, in seconds.
inline double cpu_seconds() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

inline sockaddr_in loopback(uint16_t port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

// A listener on loopback with a port of the system's choice.
inline int listener(uint16_t& port) {
  const int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = loopback(0);
  socklen_t length = sizeof address;
  if (sock < 0 || bind(sock, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(sock, 4) != 0 ||
      getsockname(sock, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    die("listen");
  }
  port = ntohs(address.sin_port);
  return sock;
}

inline int connect_to(uint16_t port) {
  const int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = loopback(port);
  if (connect(sock, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) die("connect");
  return sock;
}

}  // namespace bench
#endif
