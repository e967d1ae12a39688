// system.cpp: the calls of the C library that a program replaces: sockets and clocks by the network in memory, the rest
// by themselves with a fault where one is due.
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
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

#include "tests/scenario/faults.h"
#include "tests/scenario/network.h"

namespace scenario {

constinit fault_plan plan;

// Counts a call of the library; true with errno when it is to fail.
EARLY bool strikes(call which) {
  if (!plan.active || plan.host_depth > 0) return false;
  const long count = ++plan.counts[static_cast<int>(which)];
  if (!plan.what || plan.what->which != which) return false;
  if (count < plan.nth || count - plan.nth >= plan.times) return false;
  plan.happened = true;
  if (plan.what->error > 0) errno = plan.what->error;
  return true;
}

namespace {

// The call, or -1 with errno, or the call with `count` cut to one byte.
template <typename Call>
ssize_t faulty(call which, std::size_t count, Call make) {
  const bool struck = strikes(which);
  if (struck && plan.what->error != shortened) return -1;
  const host hold;
  return make(struck ? std::min<std::size_t>(count, 1) : count);
}
template <typename Call>
int faulty(call which, Call make) {
  return static_cast<int>(faulty(which, 0, [&](std::size_t) { return make(); }));
}

#define NEXT(name) static const auto real = reinterpret_cast<decltype(&name)>(dlsym(RTLD_NEXT, #name))

// Nowhere when the length does not fit the family.
endpoint endpoint_of(const sockaddr* address, socklen_t length) {
  char host[INET6_ADDRSTRLEN], port[8];
  const int rc =
      getnameinfo(address, length, host, sizeof host, port, sizeof port, NI_NUMERICHOST | NI_NUMERICSERV);
  return rc == 0 ? endpoint{host, std::stoi(port)} : endpoint{};
}

// Appends the entries that the real call makes of a numeric address; `end` moves behind them.
int look_up_numeric(const char* address, const char* port, const addrinfo* hints, addrinfo**& end) {
  NEXT(getaddrinfo);
  addrinfo numeric = hints ? *hints : addrinfo{};
  numeric.ai_flags |= AI_NUMERICHOST;
  *end = nullptr;
  const int rc = real(address, port, &numeric, end);
  while (*end) end = &(*end)->ai_next;
  return rc;
}

void fill_address(const endpoint& from, sockaddr* address, socklen_t* length) {
  addrinfo *list = nullptr, **end = &list;
  if (look_up_numeric(from.address.c_str(), std::to_string(from.port).c_str(), nullptr, end) != 0) return;
  memcpy(address, list->ai_addr, std::min(*length, list->ai_addrlen));
  *length = list->ai_addrlen;
  freeaddrinfo(list);
}

// The library's files in /tmp lie in the working directory, where no other process sees them.
const char* own_place(const char* path) {
  constexpr std::string_view all = "/tmp/", ours = "/tmp/fetchrig-test-";
  const std::string_view name(path);
  if (name == "/tmp") return ".";
  const bool moves = name.starts_with(all) && !name.starts_with(ours) && name.rfind('/') < all.size();
  return moves ? path + all.size() : path;
}

// The machine's own devices outlive a library that would replace or remove them.
bool is_device(const char* path) {
  if (!std::string_view(path).starts_with("/dev/")) return false;
  net.failure = "replaces or removes a device";
  errno = EPERM;
  return true;
}

// Looks a name up in the table of the run.
int look_up(const char* name, const addrinfo* hints, addrinfo** list) {
  const auto known = net.hosts.find(name);
  int rc = EAI_NONAME;
  addrinfo** end = list;
  *list = nullptr;
  if (known == net.hosts.end()) return look_up_numeric(name, nullptr, hints, end);
  for (const std::string& address : known->second)
    if (look_up_numeric(address.c_str(), nullptr, hints, end) == 0) rc = 0;
  return rc;
}

}  // namespace
}  // namespace scenario

using namespace scenario;

extern "C" {
REPLACED int socket(int family, int type, int) noexcept {
  if (family == AF_UNIX) return errno = EAFNOSUPPORT, -1;  // no system log
  return faulty(call::socket, [&] { return net.socket(family, type); });
}
REPLACED int connect(int fd, const sockaddr* address, socklen_t length) {
  return faulty(call::connect, [&] { return net.connect(fd, endpoint_of(address, length)); });
}
REPLACED int bind(int, const sockaddr* address, socklen_t length) noexcept {
  return faulty(call::bind, [&] { return net.bind(endpoint_of(address, length).port); });
}
REPLACED int getaddrinfo(const char* name, const char*, const addrinfo* hints, addrinfo** list) {
  if (strikes(call::getaddrinfo)) return plan.what->error;
  const host hold;
  return look_up(name, hints, list);
}
REPLACED ssize_t send(int fd, const void* from, size_t count, int flags) {
  return faulty(call::send, count,
                [&](size_t size) { return net.send(fd, static_cast<const char*>(from), size, flags); });
}
REPLACED ssize_t recv(int fd, void* to, size_t count, int flags) {
  return faulty(call::recv, count,
                [&](size_t size) { return net.receive(fd, static_cast<char*>(to), size, flags, nullptr); });
}
REPLACED ssize_t sendto(int fd, const void* from, size_t count, int, const sockaddr* to, socklen_t length) {
  return faulty(call::sendto, count, [&](size_t size) {
    return net.send_to(fd, static_cast<const char*>(from), size, endpoint_of(to, length));
  });
}
REPLACED ssize_t recvfrom(int fd, void* to, size_t count, int flags, sockaddr* sender, socklen_t* length) {
  return faulty(call::recvfrom, count, [&](size_t size) {
    endpoint from;
    const ssize_t taken = net.receive(fd, static_cast<char*>(to), size, flags, &from);
    if (taken >= 0 && sender) fill_address(from, sender, length);
    return taken;
  });
}
REPLACED int poll(pollfd* entries, nfds_t count, int limit_ms) {
  return faulty(call::poll, [&] { return net.poll(entries, count, limit_ms); });
}
REPLACED ssize_t sendfile64(int to, int from, off64_t*, size_t count) noexcept {
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

REPLACED int getsockopt(int fd, int, int name, void* value, socklen_t*) noexcept {
  return faulty(call::getsockopt, [&] {
    if (name == SO_SNDTIMEO) {
      *static_cast<timeval*>(value) = net.at(fd).send_limit;
    } else {
      *static_cast<int*>(value) = name == SO_ERROR ? net.pending_error(fd) : net.at(fd).type;
    }
    return 0;
  });
}
REPLACED int setsockopt(int fd, int level, int name, const void* value, socklen_t) noexcept {
  if (level != SOL_SOCKET) return 0;
  if (name == SO_SNDTIMEO) net.at(fd).send_limit = *static_cast<const timeval*>(value);
  if (name == SO_LINGER) net.at(fd).aborts = static_cast<const linger*>(value)->l_onoff != 0;
  return 0;
}
REPLACED int getpeername(int fd, sockaddr* address, socklen_t* length) noexcept {
  return faulty(call::getpeername, [&] {
    const auto& way = net.at(fd).way;
    fill_address(way ? way->server : endpoint{}, address, length);
    return 0;
  });
}
REPLACED int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  if (request == FIONBIO) net.at(fd).status_flags = *va_arg(arguments, int*) ? O_NONBLOCK : 0;
  va_end(arguments);
  return 0;
}
REPLACED int fcntl64(int fd, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  const long value = va_arg(arguments, long);
  va_end(arguments);
  if (!net.owns(fd)) return static_cast<int>(syscall(SYS_fcntl, fd, command, value));
  return faulty(call::fcntl, [&] {
    if (command == F_DUPFD_CLOEXEC) return net.duplicate(fd, static_cast<int>(value));
    if (command == F_SETFL) net.at(fd).status_flags = static_cast<int>(value);
    return command == F_GETFL ? net.at(fd).status_flags : 0;
  });
}

REPLACED int open64(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const int mode = va_arg(arguments, int);
  va_end(arguments);
  return faulty(call::open, [&] { return syscall(SYS_openat, AT_FDCWD, own_place(path), flags, mode); });
}
REPLACED ssize_t read(int fd, void* to, size_t count) {
  return faulty(call::read, count, [&](size_t size) { return syscall(SYS_read, fd, to, size); });
}
REPLACED ssize_t write(int fd, const void* from, size_t count) {
  return faulty(call::write, count, [&](size_t size) { return syscall(SYS_write, fd, from, size); });
}
REPLACED int fsync(int fd) {
  return faulty(call::fsync, [&] { return fcntl64(fd, F_GETFD) < 0 ? -1 : 0; });
}
REPLACED int rename(const char* from, const char* to) noexcept {
  return faulty(call::rename, [&] {
    return is_device(to) ? -1 : syscall(SYS_renameat2, AT_FDCWD, own_place(from), AT_FDCWD, own_place(to), 0);
  });
}
REPLACED int unlink(const char* path) noexcept {
  return is_device(path) ? -1 : static_cast<int>(syscall(SYS_unlinkat, AT_FDCWD, own_place(path), 0));
}
// What is closed is closed, whatever is told of it.
REPLACED int close(int fd) {
  if (net.owns(fd)) {
    const host hold;
    net.close(fd);
  }
  const int rc = static_cast<int>(syscall(SYS_close, fd));
  return strikes(call::close) ? -1 : rc;
}
REPLACED int stat64(const char* __restrict path, struct stat64* __restrict status) noexcept {
  static const auto real = reinterpret_cast<int (*)(const char*, struct stat64*)>(dlsym(RTLD_NEXT, "stat64"));
  return strikes(call::stat) ? -1 : real(own_place(path), status);
}
REPLACED int fclose(FILE* file) {
  NEXT(fclose);
  const int rc = real(file);
  return strikes(call::fclose) ? -1 : rc;
}

// The calls that only fail, or not.
#define FAILING(type, name, which, failure, parameters, arguments) \
  REPLACED type name parameters {                                  \
    NEXT(name);                                                    \
    if (strikes(call::which)) return failure;                      \
    const host hold;                                               \
    return real arguments;                                         \
  }
FAILING(FILE*, fopen64, fopen, nullptr, (const char* path, const char* mode), (path, mode))
FAILING(FILE*, fdopen, fdopen, nullptr, (int fd, const char* mode) noexcept, (fd, mode))
FAILING(size_t, fwrite, fwrite, 0, (const void* from, size_t size, size_t count, FILE* to),
        (from, size, count, to))
FAILING(DIR*, opendir, opendir, nullptr, (const char* path), (path))
FAILING(int, mkostemp64, mkstemp, -1, (char* pattern, int flags), (pattern, flags))
FAILING(int, mkdir, mkdir, -1, (const char* path, mode_t mode) noexcept, (path, mode))
FAILING(int, pipe2, pipe, -1, (int* ends, int flags) noexcept, (ends, flags))
FAILING(int, posix_spawn, spawn, plan.what->error,
        (pid_t * child, const char* path, const posix_spawn_file_actions_t* actions,
         const posix_spawnattr_t* attributes, char* const* words, char* const* variables),
        (child, path, actions, attributes, words, variables))
FAILING(int, flock, flock, -1, (int fd, int how) noexcept, (fd, how))
FAILING(int, fstat64, fstat, -1, (int fd, struct stat64* status) noexcept, (fd, status))
FAILING(int, fchmod, fchmod, -1, (int fd, mode_t mode) noexcept, (fd, mode))
FAILING(int, ftruncate64, ftruncate, -1, (int fd, off64_t size) noexcept, (fd, size))

// What is called "planted" is somebody else's.
REPLACED int lstat64(const char* path, struct stat64* status) noexcept {
  NEXT(lstat64);
  if (strikes(call::lstat)) return -1;
  const int rc = real(path, status);
  if (rc == 0 && strstr(path, "planted")) status->st_uid = 65534;
  return rc;
}

// The library's own nonces; OpenSSL draws by other calls.
REPLACED int RAND_bytes(unsigned char* to, int count) {
  memset(to, 0xab, static_cast<std::size_t>(count));
  return strikes(call::random) ? 0 : 1;
}

REPLACED int clock_gettime(clockid_t clock, timespec* now) noexcept {
  if (clock == CLOCK_REALTIME) return static_cast<int>(syscall(SYS_clock_gettime, clock, now));  // a fuzzer's
  *now = {static_cast<time_t>(net.clock_us / 1000000), static_cast<long>(net.clock_us % 1000000 * 1000)};
  return 0;
}
REPLACED int gettimeofday(timeval* __restrict now, void* __restrict) noexcept {
  *now = {static_cast<time_t>(net.clock_us / 1000000), static_cast<suseconds_t>(net.clock_us % 1000000)};
  return 0;
}
REPLACED time_t time(time_t* place) noexcept {
  const auto now = static_cast<time_t>(net.clock_us / 1000000);
  if (place) *place = now;
  return now;
}
REPLACED int nanosleep(const timespec* span, timespec*) {
  net.clock_us += int64_t{span->tv_sec} * 1000000 + span->tv_nsec / 1000;
  return 0;
}
}
