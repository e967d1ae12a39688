// output_file.cpp: creating, writing and naming the file of a download.
#include "output_file.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>

#include "report.h"

namespace fetchrig::cli {
namespace {

// The partial file for the signal handler: set before the handler can need it, empty when there is none.
std::array<char, PATH_MAX> partial_path = {};
volatile sig_atomic_t partial_exists = 0;

extern "C" void remove_partial_and_die(int signal_number) {
  if (partial_exists) unlink(partial_path.data());
  signal(signal_number, SIG_DFL);
  raise(signal_number);
}

// A signal that the caller had ignored (nohup) stays ignored.
void watch_signals() {
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
    struct sigaction action = {};
    if (sigaction(number, nullptr, &action) != 0 || action.sa_handler == SIG_IGN) continue;
    action.sa_handler = remove_partial_and_die;
    sigaction(number, &action, nullptr);
  }
}

void arm_clean_up(const std::string& path) {
  if (path.size() >= partial_path.size()) return;
  memcpy(partial_path.data(), path.c_str(), path.size() + 1);
  partial_exists = 1;
}

// The access a newly created file of the user has; mkstemp() makes files for the owner alone.
mode_t ordinary_mode() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

// The file behind a chain of links, so that the link stays and its target is replaced.
std::string follow_links(const std::string& path) {
  char* const resolved = realpath(path.c_str(), nullptr);
  if (!resolved) return path;
  std::string target(resolved);
  free(resolved);
  return target;
}

}  // namespace

output_file::output_file(const std::string& path) : path_(path) {
  if (path == "-") {
    fd_ = STDOUT_FILENO;
    return;
  }
  struct stat status;
  const bool exists = stat(path.c_str(), &status) == 0;
  if (exists && S_ISDIR(status.st_mode)) throw usage_error(printable(path) + " is a directory");
  if (exists && !S_ISREG(status.st_mode)) {
    open_directly();
  } else {
    if (exists) path_ = follow_links(path);
    open_beside();
  }
}

output_file::~output_file() {
  if (fd_ > STDERR_FILENO) close(fd_);
  if (partial_.empty()) return;
  unlink(partial_.c_str());
  partial_exists = 0;
}

void output_file::open_directly() {
  fd_ = open(path_.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
  if (fd_ < 0) fail("cannot be opened");
}

void output_file::open_beside() {
  const std::size_t slash = path_.rfind('/');
  const std::size_t name = slash == path_.npos ? 0 : slash + 1;
  std::string pattern = path_.substr(0, name) + "." + path_.substr(name, 200) + ".XXXXXX";
  watch_signals();
  fd_ = mkostemp(pattern.data(), O_CLOEXEC);
  if (fd_ < 0) fail("cannot be created");
  partial_ = pattern;
  arm_clean_up(partial_);
  fchmod(fd_, ordinary_mode());
}

void output_file::write(std::span<const char> bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd_, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) fail("cannot be written");
    bytes = bytes.subspan(static_cast<std::size_t>(written));
  }
}

void output_file::commit() {
  if (fd_ > STDERR_FILENO) {
    const int closed = close(fd_);
    fd_ = -1;
    if (closed != 0) fail("cannot be written");
  }
  if (partial_.empty()) return;
  if (rename(partial_.c_str(), path_.c_str()) != 0) fail("cannot be given its name");
  partial_.clear();
  partial_exists = 0;
}

void output_file::fail(const char* what) const {
  throw failure(0, printable(path_ == "-" ? "standard output" : path_) + " " + what + ": " + strerror(errno));
}

}  // namespace fetchrig::cli
