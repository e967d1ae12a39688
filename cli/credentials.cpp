// SPDX-License-Identifier: MIT
// credentials.cpp: finding the user name and the password.
#include "credentials.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include "environment.h"
#include "report.h"

namespace fetchrig::cli {
namespace {

// Turns echo, line editing and signals of the terminal off while it lives. Signals too: one that ended the
// command here would leave the terminal without echo.
class silent_terminal {
 public:
  silent_terminal() {
    if (tcgetattr(STDIN_FILENO, &before_) != 0) return;
    termios silent = before_;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO | ICANON | ISIG);
    changed_ = tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent) == 0;
  }
  silent_terminal(const silent_terminal&) = delete;
  silent_terminal& operator=(const silent_terminal&) = delete;
  ~silent_terminal() {
    if (changed_) tcsetattr(STDIN_FILENO, TCSAFLUSH, &before_);
  }

 private:
  termios before_ = {};
  bool changed_ = false;
};

constexpr char key_interrupt = 0x03, key_end = 0x04, key_erase = 0x7f, key_backspace = 0x08, key_kill = 0x15;
constexpr std::size_t max_password_len = 511;

// The question comes when the terminal is silent already, so that an early answer is neither shown nor lost.
std::string read_silently(const std::string& question) {
  std::string typed;
  typed.reserve(max_password_len);
  const silent_terminal silent;
  fputs(question.c_str(), stderr);
  fflush(stderr);
  for (;;) {
    char key = 0;
    if (read(STDIN_FILENO, &key, 1) != 1 || key == key_interrupt)
      throw failure(0, "no password given", exit_login);
    if (key == '\n' || key == '\r' || key == key_end) return typed;
    if (key == key_kill) {
      typed.clear();
    } else if (key == key_erase || key == key_backspace) {
      if (!typed.empty()) typed.pop_back();
    } else if (typed.size() < max_password_len) {
      typed += key;
    }
  }
}

std::string ask_password(const std::string& user) {
  try {
    std::string typed = read_silently("Password for " + printable(user) + ": ");
    fputc('\n', stderr);
    return typed;
  } catch (const failure&) {
    fputc('\n', stderr);
    throw;
  }
}

}  // namespace

credentials::credentials(const location& where, const std::optional<std::string>& user,
                         const std::optional<std::string>& password, bool use_netrc)
    : user_(where.user ? where.user : user), password_(where.user ? where.password : password) {
  if (password_ || (!user_ && where.kind != scheme::ftp)) return;
  const char* from_environment = user_ ? getenv("FETCHRIG_PASSWORD") : nullptr;
  if (from_environment) {
    password_ = from_environment;
  } else if (auto found = use_netrc ? environment_login(where, user_) : std::nullopt) {
    take(std::move(*found));
  } else if (user_ && isatty(STDIN_FILENO) == 1 && isatty(STDERR_FILENO) == 1) {
    password_ = ask_password(*user_);
  }
}

credentials::credentials(netrc_login found) {
  take(std::move(found));
}

void credentials::take(netrc_login found) {
  user_ = std::move(found.user);
  password_ = std::move(found.password);
  from_netrc_ = true;
}

credentials::~credentials() {
  if (password_) explicit_bzero(password_->data(), password_->size());
}

}  // namespace fetchrig::cli
