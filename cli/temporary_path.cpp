// SPDX-License-Identifier: MIT
// temporary_path.cpp: the list of what is to be removed, and the signal handler that removes it.
#include "temporary_path.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "report.h"
#include "terminal_line.h"

namespace fetchrig::cli {
namespace {

// All that end a program by default, but for those that cannot be caught or tell of a fault in it.
constexpr int ending_signals[] = {SIGHUP,  SIGINT,  SIGQUIT,   SIGPIPE, SIGALRM, SIGTERM, SIGUSR1,
                                  SIGUSR2, SIGXCPU, SIGVTALRM, SIGPROF, SIGPOLL, SIGPWR};

// Changed only while the signals are held, so that the handler finds it whole. Never destroyed: a signal may
// come while the process ends.
std::vector<std::string>& doomed() {
  static auto& list = *new std::vector<std::string>;
  return list;
}
volatile sig_atomic_t fd_to_empty = -1;

extern "C" void clean_up_and_die(int signal_number) {
  if (fd_to_empty >= 0 && ftruncate(fd_to_empty, 0) != 0) fd_to_empty = -1;
  for (auto path = doomed().rbegin(); path != doomed().rend(); ++path) {
    if (unlink(path->c_str()) != 0) rmdir(path->c_str());
  }
  end_line_in_handler();
  signal(signal_number, SIG_DFL);
  raise(signal_number);
}

class held_signals {
 public:
  held_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : ending_signals) sigaddset(&signals, number);
    sigprocmask(SIG_BLOCK, &signals, &before_);
  }
  held_signals(const held_signals&) = delete;
  held_signals& operator=(const held_signals&) = delete;
  ~held_signals() {
    const int error = errno;
    sigprocmask(SIG_SETMASK, &before_, nullptr);
    errno = error;
  }

 private:
  sigset_t before_;
};

void forget(const std::string& path) {
  const auto found = std::find(doomed().rbegin(), doomed().rend(), path);
  if (found != doomed().rend()) doomed().erase(std::next(found).base());
}

void remove_now(std::string& path) {
  if (path.empty()) return;
  const held_signals held;
  if (unlink(path.c_str()) != 0) rmdir(path.c_str());
  forget(path);
  path.clear();
}

// Calls `make`, which fills in the name's end, and takes charge of what it made.
template <typename Make>
temporary_path take_new(std::string pattern, Make make) {
  const held_signals held;
  return make(pattern.data()) ? temporary_path(std::move(pattern)) : temporary_path();
}

// A list of directories is separated by colons, so the name of one must not hold any.
std::string temporary_place() {
  const char* place = getenv("TMPDIR");
  return place && *place && !strchr(place, ':') ? place : "/tmp";
}

// Whatever the umask, it is for this user to use.
bool make_own_directory(char* pattern) {
  return mkdtemp(pattern) && chmod(pattern, 0700) == 0;
}

bool write_whole(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = write(fd, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

class new_file {
 public:
  explicit new_file(const std::string& path)
      : path_(path), fd_(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600)) {
    if (fd_ < 0 || fchmod(fd_, 0600) != 0) fail();
  }
  new_file(const new_file&) = delete;
  new_file& operator=(const new_file&) = delete;
  ~new_file() {
    if (fd_ >= 0) close(fd_);
  }
  void write(std::string_view bytes) const {
    if (!write_whole(fd_, bytes)) fail();
  }
  // A full disk may show only now.
  void close_checked() {
    if (close(std::exchange(fd_, -1)) != 0) fail();
  }

 private:
  [[noreturn]] void fail() const {
    throw failed_file(printable(path_) + " cannot be written: " + strerror(errno));
  }

  const std::string& path_;
  int fd_;
};

}  // namespace

// A signal that the caller had ignored (nohup) stays ignored.
void watch_signals() {
  static bool watched = false;
  if (std::exchange(watched, true)) return;
  doomed();
  for (const int number : ending_signals) {
    struct sigaction action = {};
    if (sigaction(number, nullptr, &action) != 0 || action.sa_handler == SIG_IGN) continue;
    action.sa_handler = clean_up_and_die;
    sigaction(number, &action, nullptr);
  }
}

temporary_path::temporary_path(std::string path) : path_(std::move(path)) {
  watch_signals();
  const held_signals held;
  doomed().push_back(path_);
}

temporary_path::temporary_path(temporary_path&& other) noexcept : path_(std::exchange(other.path_, {})) {}

temporary_path& temporary_path::operator=(temporary_path&& other) noexcept {
  if (this == &other) return *this;
  remove_now(path_);
  path_ = std::exchange(other.path_, {});
  return *this;
}

temporary_path::~temporary_path() {
  remove_now(path_);
}

void temporary_path::keep() {
  const held_signals held;
  forget(path_);
  path_.clear();
}

temporary_path new_temporary_file(const std::string& stem, int& fd) {
  return take_new(stem + ".XXXXXX", [&](char* pattern) {
    fd = mkostemp(pattern, O_CLOEXEC);
    return fd >= 0;
  });
}

private_directory::private_directory()
    : directory_(take_new(temporary_place() + "/fetchrig.XXXXXX", make_own_directory)) {
  if (!directory_) throw failed_file(printable(temporary_place()) + ": " + strerror(errno));
}

std::string private_directory::fill(std::string_view name, const std::function<std::string_view()>& next) {
  std::string path = directory_.get() + "/" + std::string(name);
  files_.emplace_back(path);
  new_file file(path);
  for (std::string_view piece = next(); !piece.empty(); piece = next()) file.write(piece);
  file.close_checked();
  return path;
}

void private_directory::write(std::string_view name, std::string_view content) {
  fill(name, [&] { return std::exchange(content, {}); });
}

void private_directory::rename(std::string_view from, std::string_view to) {
  const std::string old_path = directory_.get() + "/" + std::string(from);
  const std::string path = directory_.get() + "/" + std::string(to);
  files_.emplace_back(path);
  if (::rename(old_path.c_str(), path.c_str()) != 0) {
    throw failed_file(printable(path) + " cannot be written: " + strerror(errno));
  }
}

void empty_on_signal(int fd) {
  watch_signals();
  fd_to_empty = fd;
}

}  // namespace fetchrig::cli
