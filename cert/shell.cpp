// SPDX-License-Identifier: MIT
// shell.cpp: forming and running the store's shell commands.
#include "cert/shell.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "core/cause.h"
#include "core/owners.h"
#include "core/text.h"
#include "log/log.h"
#include "log/printable.h"

namespace fetchrig {
namespace {

// Characters that mean nothing to the shell anywhere in a word after the first.
constexpr bool is_ordinary(char c) {
  return is_digit(c) || (lower(c) >= 'a' && lower(c) <= 'z') ||
         std::string_view("_./+,:@%=-").find(c) != std::string_view::npos;
}

// Within single quotes only the single quote itself ends the word, so it is written outside of them.
void append_quoted(std::string& command, std::string_view path) {
  command += '\'';
  for (const char c : path) {
    if (c == '\'') {
      command += "'\\''";
    } else {
      command += c;
    }
  }
  command += '\'';
}

void append_word(std::string& command, std::string_view path) {
  command += ' ';
  if (path.starts_with('-')) command += "./";
  if (!path.empty() && std::all_of(path.begin(), path.end(), is_ordinary)) {
    command += path;
  } else {
    append_quoted(command, path);
  }
}

// The shell tells the command's status here: an application that ignores SIGCHLD, or waits for every child,
// takes the one that wait() would give us.
constexpr int status_fd = 3;
constexpr const char* runner = "eval \"$1\" 3>&-; echo \"$?\" >&3";

// What the shell is started with: nothing to read, `status_to` as status_fd, and children it can wait for.
class shell_settings {
 public:
  explicit shell_settings(int status_to) {
    sigset_t to_default;
    sigemptyset(&to_default);
    sigaddset(&to_default, SIGCHLD);
    complete_ = posix_spawn_file_actions_init(&actions_) == 0 && posix_spawnattr_init(&attributes_) == 0 &&
                posix_spawn_file_actions_adddup2(&actions_, status_to, status_fd) == 0 &&
                posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0) == 0 &&
                posix_spawnattr_setsigdefault(&attributes_, &to_default) == 0 &&
                posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF) == 0;
  }
  ~shell_settings() {
    posix_spawn_file_actions_destroy(&actions_);
    posix_spawnattr_destroy(&attributes_);
  }
  shell_settings(const shell_settings&) = delete;
  shell_settings& operator=(const shell_settings&) = delete;

  // The shell's process, or -1.
  pid_t start(const std::string& command) const {
    const char* const arguments[] = {"sh", "-c", runner, "sh", command.c_str(), nullptr};
    pid_t shell = -1;
    if (!complete_ || ::posix_spawn(&shell, "/bin/sh", &actions_, &attributes_,
                                    const_cast<char* const*>(arguments), environ) != 0) {
      return -1;
    }
    return shell;
  }

 private:
  posix_spawn_file_actions_t actions_ = {};
  posix_spawnattr_t attributes_ = {};
  bool complete_ = false;
};

// The number that the shell writes before a line feed; -1 when it ends without one. Its end alone is not
// waited for: another thread may have started a process that holds the descriptor too.
int read_status(int fd) {
  char line[4];
  for (std::size_t length = 0; length < sizeof line;) {
    const ssize_t count = ::read(fd, line + length, 1);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return -1;
    if (line[length] == '\n') {
      const auto status = whole_number({line, length}, 255);
      return status ? static_cast<int>(*status) : -1;
    }
    ++length;
  }
  return -1;
}

int run(const std::string& command) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return -1;
  const unique_fd from(ends[0]);
  unique_fd to(ends[1]);
  const pid_t shell = shell_settings(to.get()).start(command);
  to.reset();
  if (shell < 0) return -1;
  const int status = read_status(from.get());
  while (::waitpid(shell, nullptr, 0) < 0 && errno == EINTR) {
  }
  return status;
}

}  // namespace

std::optional<std::string> shell_command(std::size_t size, std::string_view program,
                                         std::initializer_list<std::string_view> paths) {
  std::string command(program);
  for (const std::string_view path : paths) append_word(command, path);
  if (command.size() >= size) return std::nullopt;
  return command;
}

int run_shell(const std::optional<std::string>& command, int level) {
  if (!command) {
    note_cause(DL_CAUSE_COMMAND, -1);
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "command is too long, not run\n");
    return -1;
  }
  const int status = run(*command);
  if (status != 0) {
    if (level == DL_LOG_ERROR) note_cause(DL_CAUSE_COMMAND, status);
    log_line(DL_LOG_CMN, level, "command ended with status %d: %s\n", status, printable(*command).c_str());
  }
  return status;
}

}  // namespace fetchrig
