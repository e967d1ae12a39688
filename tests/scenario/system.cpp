// system.cpp: the calls of the C library that this program replaces: sockets and clocks by the network in memory, the
// rest by themselves with a fault where one is due.
#include <arpa/inet.h>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "tests/scenario/faults.h"
#include "tests/scenario/network.h"
#include "tests/support/libc_memory.h"

namespace scenario {

constinit fault_plan plan;

namespace {

// The sanitizers' own start allocates, before any memory is known to them.
#define EARLY __attribute__((no_sanitize("address", "undefined")))

EARLY bool at_work() {
  return plan.active && plan.host_depth == 0;
}

// Counts a call of the library; true with errno when it is to fail.
EARLY bool strikes(call which) {
  if (!at_work()) return false;
  const long count = ++plan.counts[static_cast<int>(which)];
  if (!plan.what || plan.what->which != which) return false;
  if (plan.lasting ? count < plan.nth : count != plan.nth) return false;
  plan.happened = true;
  if (plan.what->error > 0) errno = plan.what->error;
  return true;
}

// The call, or -1 with errno, or the call with `count` cut to one byte.
template <typename Call>
ssize_t faulty(call which, std::size_t count, Call make) {
  const bool struck = strikes(which);
  if (struck && plan.what->error != short_count) return -1;
  const host hold;
  return make(struck ? std::min<std::size_t>(count, 1) : count);
}

template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// Nowhere when the length does not fit the family.
endpoint endpoint_of(const sockaddr* address, socklen_t length) {
  const socklen_t least = address->sa_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
  if (length < least) return {};
  char text[INET6_ADDRSTRLEN] = "";
  in_port_t port = 0;
  if (address->sa_family == AF_INET) {
    const auto* v4 = reinterpret_cast<const sockaddr_in*>(address);
    inet_ntop(AF_INET, &v4->sin_addr, text, sizeof text);
    port = v4->sin_port;
  } else {
    const auto* v6 = reinterpret_cast<const sockaddr_in6*>(address);
    inet_ntop(AF_INET6, &v6->sin6_addr, text, sizeof text);
    port = v6->sin6_port;
  }
  return {text, ntohs(port)};
}

void fill_address(const endpoint& from, sockaddr* address, socklen_t* length) {
  sockaddr_in6 v6 = {};
  auto* v4 = reinterpret_cast<sockaddr_in*>(&v6);
  const bool is_v6 = from.address.find(':') != std::string::npos;
  if (is_v6) {
    v6.sin6_family = AF_INET6;
    inet_pton(AF_INET6, from.address.c_str(), &v6.sin6_addr);
  } else {
    v4->sin_family = AF_INET;
    inet_pton(AF_INET, from.address.c_str(), &v4->sin_addr);
  }
  v6.sin6_port = htons(static_cast<uint16_t>(from.port));
  const socklen_t size = is_v6 ? sizeof v6 : sizeof *v4;
  memcpy(address, &v6, std::min(*length, size));
  *length = size;
}

// The scratch file of all processes lies in the working directory, where no other process sees it.
const char* own_place(const char* path) {
  if (strcmp(path, "/tmp") == 0) return ".";
  return strcmp(path, "/tmp/ca_tmp.crt") == 0 ? path + strlen("/tmp/") : path;
}

int64_t seconds_now() {
  return net.clock_us / 1000000;
}

// Looks a name up in the table of the run; each address becomes an entry as the real call makes it.
int look_up(const char* name, const addrinfo* hints, addrinfo** list) {
  static const auto real = next<decltype(getaddrinfo)>("getaddrinfo");
  const auto known = net.hosts.find(name);
  const std::vector<std::string> addresses =
      known == net.hosts.end() ? std::vector<std::string>{name} : known->second;
  addrinfo numeric = hints ? *hints : addrinfo{};
  numeric.ai_flags |= AI_NUMERICHOST;
  addrinfo** end = list;
  int rc = EAI_NONAME;
  *list = nullptr;
  for (const std::string& address : addresses) {
    if (const int one = real(address.c_str(), nullptr, &numeric, end); one == 0) {
      rc = 0;
      while (*end) end = &(*end)->ai_next;
    } else {
      *end = nullptr;
    }
  }
  return rc;
}

}  // namespace
}  // namespace scenario

using namespace scenario;

extern "C" {
REPLACED EARLY void* malloc(size_t size) noexcept {
  return strikes(call::memory) ? nullptr : REAL(malloc)(size);
}
REPLACED EARLY void* calloc(size_t count, size_t size) noexcept {
  return strikes(call::memory) ? nullptr : REAL(calloc)(count, size);
}
REPLACED EARLY void* realloc(void* old, size_t size) noexcept {
  return strikes(call::memory) ? nullptr : REAL(realloc)(old, size);
}

REPLACED int socket(int family, int type, int protocol) noexcept {
  if (family == AF_UNIX) return static_cast<int>(syscall(SYS_socket, family, type, protocol));
  return static_cast<int>(faulty(call::socket, 0, [&](size_t) { return net.socket(family, type); }));
}
REPLACED int connect(int fd, const sockaddr* address, socklen_t length) {
  if (!net.owns(fd)) return static_cast<int>(syscall(SYS_connect, fd, address, length));
  return static_cast<int>(
      faulty(call::connect, 0, [&](size_t) { return net.connect(fd, endpoint_of(address, length)); }));
}
REPLACED int bind(int fd, const sockaddr* address, socklen_t length) noexcept {
  if (!net.owns(fd)) return static_cast<int>(syscall(SYS_bind, fd, address, length));
  return static_cast<int>(
      faulty(call::bind, 0, [&](size_t) { return net.bind(endpoint_of(address, length).port); }));
}
REPLACED int getaddrinfo(const char* name, const char*, const addrinfo* hints, addrinfo** list) {
  if (strikes(call::getaddrinfo)) return plan.what->error;
  const host hold;
  return look_up(name, hints, list);
}
REPLACED ssize_t send(int fd, const void* from, size_t count, int flags) {
  if (!net.owns(fd)) return syscall(SYS_sendto, fd, from, count, flags, nullptr, 0);
  return faulty(call::send, count,
                [&](size_t size) { return net.send(fd, static_cast<const char*>(from), size, flags); });
}
REPLACED ssize_t recv(int fd, void* to, size_t count, int flags) {
  if (!net.owns(fd)) return syscall(SYS_recvfrom, fd, to, count, flags, nullptr, nullptr);
  return faulty(call::recv, count,
                [&](size_t size) { return net.receive(fd, static_cast<char*>(to), size, flags, nullptr); });
}
REPLACED ssize_t sendto(int fd, const void* from, size_t count, int flags, const sockaddr* to,
                        socklen_t length) {
  if (!net.owns(fd)) return syscall(SYS_sendto, fd, from, count, flags, to, length);
  return faulty(call::sendto, count, [&](size_t size) {
    return net.send_to(fd, static_cast<const char*>(from), size, endpoint_of(to, length));
  });
}
REPLACED ssize_t recvfrom(int fd, void* to, size_t count, int flags, sockaddr* sender, socklen_t* length) {
  if (!net.owns(fd)) return syscall(SYS_recvfrom, fd, to, count, flags, sender, length);
  return faulty(call::recvfrom, count, [&](size_t size) {
    endpoint from;
    const ssize_t taken = net.receive(fd, static_cast<char*>(to), size, flags, &from);
    if (taken >= 0 && sender) fill_address(from, sender, length);
    return taken;
  });
}
REPLACED int poll(pollfd* entries, nfds_t count, int limit_ms) {
  return static_cast<int>(faulty(call::poll, 0, [&](size_t) { return net.poll(entries, count, limit_ms); }));
}
REPLACED ssize_t sendfile64(int to, int from, off64_t* offset, size_t count) noexcept {
  if (!net.owns(to)) return syscall(SYS_sendfile, to, from, offset, count);
  return faulty(call::sendfile, count, [&](size_t size) -> ssize_t {
    std::string bytes(std::min<size_t>(size, 65536), '\0');
    const ssize_t held = pread(from, bytes.data(), bytes.size(), lseek(from, 0, SEEK_CUR));
    if (held <= 0) return held;
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    const int held_off = sigismember(&blocked, SIGPIPE) == 1 ? MSG_NOSIGNAL : 0;
    const ssize_t sent = net.send(to, bytes.data(), static_cast<size_t>(held), MSG_DONTWAIT | held_off);
    if (sent > 0) lseek(from, sent, SEEK_CUR);
    return sent;
  });
}

REPLACED int getsockopt(int fd, int level, int name, void* value, socklen_t* length) noexcept {
  if (!net.owns(fd)) return static_cast<int>(syscall(SYS_getsockopt, fd, level, name, value, length));
  if (name == SO_SNDTIMEO) {
    const int64_t limit_us = net.send_limit_us(fd);
    *static_cast<timeval*>(value) = {static_cast<time_t>(limit_us / 1000000),
                                     static_cast<suseconds_t>(limit_us % 1000000)};
  } else {
    *static_cast<int*>(value) = name == SO_ERROR ? net.pending_error(fd) : net.type_of(fd);
  }
  return 0;
}
REPLACED int setsockopt(int fd, int level, int name, const void* value, socklen_t length) noexcept {
  if (!net.owns(fd)) return static_cast<int>(syscall(SYS_setsockopt, fd, level, name, value, length));
  const auto* limit = static_cast<const timeval*>(value);
  if (level == SOL_SOCKET && name == SO_SNDTIMEO)
    net.send_limit_us(fd) = int64_t{limit->tv_sec} * 1000000 + limit->tv_usec;
  if (level == SOL_SOCKET && name == SO_LINGER)
    net.abort_on_close(fd, static_cast<const linger*>(value)->l_onoff != 0);
  return 0;
}
REPLACED int getpeername(int fd, sockaddr* address, socklen_t* length) noexcept {
  if (!net.owns(fd)) return static_cast<int>(syscall(SYS_getpeername, fd, address, length));
  const host hold;
  fill_address(net.peer_of(fd), address, length);
  return 0;
}
REPLACED int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  int* value = va_arg(arguments, int*);
  va_end(arguments);
  if (!net.owns(fd)) return static_cast<int>(syscall(SYS_ioctl, fd, request, value));
  if (request == FIONBIO) net.status_flags(fd) = *value ? O_NONBLOCK : 0;
  return 0;
}
REPLACED int fcntl64(int fd, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  const long value = va_arg(arguments, long);
  va_end(arguments);
  if (!net.owns(fd)) return static_cast<int>(syscall(SYS_fcntl, fd, command, value));
  const host hold;
  if (command == F_DUPFD_CLOEXEC) return net.duplicate(fd, static_cast<int>(value));
  if (command == F_GETFL) return net.status_flags(fd);
  if (command == F_SETFL) net.status_flags(fd) = static_cast<int>(value);
  return 0;
}

REPLACED int open64(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const int mode = va_arg(arguments, int);
  va_end(arguments);
  return static_cast<int>(faulty(
      call::open, 0, [&](size_t) { return syscall(SYS_openat, AT_FDCWD, own_place(path), flags, mode); }));
}
REPLACED FILE* fopen64(const char* path, const char* mode) {
  static const auto real = next<decltype(fopen64)>("fopen64");
  if (strikes(call::fopen)) return nullptr;
  const host hold;
  return real(path, mode);
}
REPLACED FILE* fdopen(int fd, const char* mode) noexcept {
  static const auto real = next<FILE*(int, const char*)>("fdopen");
  if (strikes(call::fdopen)) return nullptr;
  const host hold;
  return real(fd, mode);
}
REPLACED int fclose(FILE* file) {
  static const auto real = next<int(FILE*)>("fclose");
  const int rc = real(file);
  return strikes(call::fclose) ? -1 : rc;
}
REPLACED ssize_t read(int fd, void* to, size_t count) {
  return faulty(call::read, count, [&](size_t size) { return syscall(SYS_read, fd, to, size); });
}
REPLACED ssize_t write(int fd, const void* from, size_t count) {
  return faulty(call::write, count, [&](size_t size) { return syscall(SYS_write, fd, from, size); });
}
REPLACED int close(int fd) {
  const host hold;
  if (net.owns(fd)) net.close(fd);
  const int rc = static_cast<int>(syscall(SYS_close, fd));
  --plan.host_depth;
  const bool struck = strikes(call::close);
  ++plan.host_depth;
  return struck ? -1 : rc;
}
REPLACED int rename(const char* from, const char* to) noexcept {
  if (strikes(call::rename)) return -1;
  return static_cast<int>(syscall(SYS_renameat2, AT_FDCWD, own_place(from), AT_FDCWD, to, 0));
}

REPLACED int unlink(const char* path) noexcept {
  return static_cast<int>(syscall(SYS_unlinkat, AT_FDCWD, own_place(path), 0));
}
REPLACED DIR* opendir(const char* path) {
  static const auto real = next<DIR*(const char*)>("opendir");
  if (strikes(call::opendir)) return nullptr;
  const host hold;
  return real(path);
}
REPLACED int mkostemp64(char* pattern, int flags) {
  static const auto real = next<int(char*, int)>("mkostemp64");
  return strikes(call::mkstemp) ? -1 : real(pattern, flags);
}
REPLACED int fsync(int fd) {
  return static_cast<int>(faulty(call::fsync, 0, [&](size_t) { return fcntl64(fd, F_GETFD) < 0 ? -1 : 0; }));
}
REPLACED int mkdir(const char* path, mode_t mode) noexcept {
  return static_cast<int>(
      faulty(call::mkdir, 0, [&](size_t) { return syscall(SYS_mkdirat, AT_FDCWD, path, mode); }));
}
REPLACED int pipe2(int* ends, int flags) noexcept {
  return static_cast<int>(faulty(call::pipe, 0, [&](size_t) { return syscall(SYS_pipe2, ends, flags); }));
}
REPLACED int posix_spawn(pid_t* child, const char* path, const posix_spawn_file_actions_t* actions,
                         const posix_spawnattr_t* attributes, char* const* words,
                         char* const* variables) noexcept {
  static const auto real = next<decltype(posix_spawn)>("posix_spawn");
  if (strikes(call::spawn)) return plan.what->error;
  const host hold;
  return real(child, path, actions, attributes, words, variables);
}

REPLACED int clock_gettime(clockid_t, timespec* now) noexcept {
  now->tv_sec = static_cast<time_t>(seconds_now());
  now->tv_nsec = static_cast<long>(net.clock_us % 1000000 * 1000);
  return 0;
}
REPLACED int gettimeofday(timeval* __restrict now, void* __restrict) noexcept {
  now->tv_sec = static_cast<time_t>(seconds_now());
  now->tv_usec = static_cast<suseconds_t>(net.clock_us % 1000000);
  return 0;
}
REPLACED time_t time(time_t* place) noexcept {
  const auto now = static_cast<time_t>(seconds_now());
  if (place) *place = now;
  return now;
}
REPLACED int nanosleep(const timespec* span, timespec*) {
  net.clock_us += int64_t{span->tv_sec} * 1000000 + span->tv_nsec / 1000;
  return 0;
}
}

void* operator new(size_t size) {
  if (void* memory = malloc(size ? size : 1)) return memory;
  throw std::bad_alloc();
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return malloc(size ? size : 1);
}
// Not inlined, so that the compiler does not see memory of `new` go to free().
__attribute__((noinline)) void operator delete(void* memory) noexcept {
  free(memory);
}
__attribute__((noinline)) void operator delete(void* memory, size_t) noexcept {
  free(memory);
}
