// process.cpp: posix_spawn() with outputs in memory files, waits on process descriptors.
#include "tests/support/process.h"

#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <sstream>
#include <stdexcept>

namespace test {
namespace {

using clock = std::chrono::steady_clock;

std::vector<std::string> search_path() {
  const char* path = getenv("PATH");
  std::istringstream parts(std::string(path ? path : "") + ":/usr/local/sbin:/usr/sbin:/sbin:/usr/bin:/bin");
  std::vector<std::string> directories;
  for (std::string part; std::getline(parts, part, ':');) {
    if (!part.empty()) directories.push_back(part);
  }
  return directories;
}

bool is_program(const std::string& path) {
  return access(path.c_str(), X_OK) == 0;
}

int memory_file(const char* name, const std::string& content) {
  const int fd = memfd_create(name, MFD_CLOEXEC);
  if (fd < 0) throw std::runtime_error("memfd_create failed");
  if (!content.empty() && write(fd, content.data(), content.size()) < 0) {
    throw std::runtime_error("cannot write a memory file");
  }
  lseek(fd, 0, SEEK_SET);
  return fd;
}

std::string content_of(int fd) {
  std::string content;
  char buffer[16384];
  ssize_t got = 0;
  while ((got = pread(fd, buffer, sizeof buffer, static_cast<off_t>(content.size()))) > 0) {
    content.append(buffer, static_cast<std::size_t>(got));
  }
  return content;
}

std::vector<char*> pointers_to(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

std::vector<std::string> whole_environment(const std::vector<std::string>& added) {
  std::vector<std::string> all = added;
  for (char** entry = environ; *entry; ++entry) all.emplace_back(*entry);
  return all;  // of two entries with one name the first counts
}

// The standard streams and nothing else are passed on.
struct spawn_plan {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  spawn_plan(int in, int out, int err, const std::string& directory) {
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in, 0);
    posix_spawn_file_actions_adddup2(&actions, out, 1);
    posix_spawn_file_actions_adddup2(&actions, err, 2);
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    if (!directory.empty()) posix_spawn_file_actions_addchdir_np(&actions, directory.c_str());
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);
  }
  ~spawn_plan() {
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
  }
};

int exit_status(const siginfo_t& info) {
  return info.si_code == CLD_EXITED ? info.si_status : 128 + info.si_status;
}

socklen_t loopback_address(sockaddr_storage& address, uint16_t port, bool ipv6) {
  address = {};
  if (ipv6) {
    auto* six = reinterpret_cast<sockaddr_in6*>(&address);
    six->sin6_family = AF_INET6;
    six->sin6_addr = in6addr_loopback;
    six->sin6_port = htons(port);
    return sizeof *six;
  }
  auto* four = reinterpret_cast<sockaddr_in*>(&address);
  four->sin_family = AF_INET;
  four->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  four->sin_port = htons(port);
  return sizeof *four;
}

bool accepts(uint16_t port, bool ipv6) {
  sockaddr_storage address;
  const socklen_t address_len = loopback_address(address, port, ipv6);
  const int fd = socket(address.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool connected = connect(fd, reinterpret_cast<sockaddr*>(&address), address_len) == 0;
  close(fd);
  return connected;
}

}  // namespace

std::string find_program(const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    if (name.find('/') != std::string::npos) {
      if (is_program(name)) return name;
      continue;
    }
    for (const std::string& directory : search_path()) {
      if (is_program(directory + "/" + name)) return directory + "/" + name;
    }
  }
  return {};
}

bool have_program(const std::string& name) {
  return !find_program({name}).empty();
}

child_process::child_process(std::vector<std::string> argv, const child_settings& settings) {
  if (const std::string path = find_program({argv.at(0)}); !path.empty()) argv[0] = path;
  if (const std::string setpriv = find_program({"setpriv"}); !setpriv.empty()) {
    argv.insert(argv.begin(), {setpriv, "--pdeathsig", "KILL", "--"});
  }
  std::vector<std::string> environment = whole_environment(settings.environment);
  const int input_fd = memory_file("input", settings.input);
  output_fd_ = memory_file("output", "");
  errors_fd_ = memory_file("errors", "");
  const spawn_plan plan(input_fd, output_fd_, errors_fd_, settings.directory);
  const int failure = posix_spawn(&pid_, argv[0].c_str(), &plan.actions, &plan.attributes,
                                  pointers_to(argv).data(), pointers_to(environment).data());
  close(input_fd);
  if (failure != 0) {
    pid_ = -1;
    status_ = 127;
    return;
  }
  pid_fd_ = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
}

child_process::~child_process() {
  stop();
  for (const int fd : {pid_fd_, output_fd_, errors_fd_}) {
    if (fd >= 0) close(fd);
  }
}

std::optional<int> child_process::wait(int limit_ms) {
  if (status_) return status_;
  const auto deadline = clock::now() + std::chrono::milliseconds(limit_ms);
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - clock::now()).count();
    pollfd watched = {pid_fd_, POLLIN, 0};
    const int ready = poll(&watched, 1, left > 0 ? static_cast<int>(left) : 0);
    if (ready > 0) break;
    if (ready == 0) return std::nullopt;
    if (errno != EINTR) throw std::runtime_error("poll on a process failed");
  }
  siginfo_t info = {};
  waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED);
  status_ = exit_status(info);
  return status_;
}

void child_process::stop() {
  if (pid_ <= 0) return;
  if (!status_) {
    kill(pid_, SIGTERM);
    wait(3000);
  }
  kill(-pid_, SIGKILL);  // the child, if it is still there, and its own children
  wait(3000);
  pid_ = -1;
}

std::string child_process::output() const {
  return content_of(output_fd_);
}

std::string child_process::errors() const {
  return content_of(errors_fd_);
}

run_result run(std::vector<std::string> argv, const child_settings& settings, int limit_ms) {
  child_process child(std::move(argv), settings);
  const std::optional<int> status = child.wait(limit_ms);
  child.stop();
  return {status, child.output(), child.errors()};
}

uint16_t free_port(transport kind) {
  const int fd = socket(AF_INET, (kind == transport::udp ? SOCK_DGRAM : SOCK_STREAM) | SOCK_CLOEXEC, 0);
  sockaddr_storage address;
  socklen_t address_len = loopback_address(address, 0, false);
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  const bool bound = bind(fd, generic, address_len) == 0 && getsockname(fd, generic, &address_len) == 0;
  close(fd);
  if (!bound) throw std::runtime_error("no free port");
  return ntohs(reinterpret_cast<sockaddr_in*>(&address)->sin_port);
}

bool wait_until_accepts(uint16_t port, int limit_ms, bool ipv6, child_process* server) {
  const auto deadline = clock::now() + std::chrono::milliseconds(limit_ms);
  while (clock::now() < deadline) {
    if (accepts(port, ipv6)) return true;
    constexpr int step_ms = 10;
    if (!server)
      poll(nullptr, 0, step_ms);
    else if (server->wait(step_ms))
      return false;
  }
  return false;
}

}  // namespace test
