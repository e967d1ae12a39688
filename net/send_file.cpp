// SPDX-License-Identifier: MIT
// send_file.cpp: sendfile() first, then read and send.
#include "net/send_file.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <span>

#include "core/owners.h"
#include "net/socket.h"

namespace fetchrig {
namespace {

constexpr std::size_t piece_bytes = 65536;
constexpr int64_t max_sendfile_bytes = 1 << 20;

sigset_t pipe_signal() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  return set;
}

// sendfile() has no flag against SIGPIPE: the signal is held off from the thread meanwhile.
class sigpipe_hold {
 public:
  sigpipe_hold() {
    sigset_t pending;
    pthread_sigmask(SIG_BLOCK, &signal_, &before_);
    ::sigpending(&pending);
    was_pending_ = sigismember(&pending, SIGPIPE) == 1;
  }
  ~sigpipe_hold() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  sigpipe_hold(const sigpipe_hold&) = delete;
  sigpipe_hold& operator=(const sigpipe_hold&) = delete;

  // After a send to a closed connection: takes back the signal that it raised.
  void take_back() {
    const timespec at_once = {};
    while (!was_pending_ && ::sigtimedwait(&signal_, nullptr, &at_once) < 0 && errno == EINTR) {
    }
  }

 private:
  const sigset_t signal_ = pipe_signal();
  sigset_t before_;
  bool was_pending_;
};

// A socket that does not wait by itself; as it was before when this ends. sendfile() cannot be told otherwise.
class not_blocking {
 public:
  explicit not_blocking(int sock) : sock_(sock), before_(::fcntl(sock, F_GETFL)) {
    good_ = before_ >= 0 && ::fcntl(sock, F_SETFL, before_ | O_NONBLOCK) == 0;
  }
  ~not_blocking() {
    if (good_) ::fcntl(sock_, F_SETFL, before_);
  }
  not_blocking(const not_blocking&) = delete;
  not_blocking& operator=(const not_blocking&) = delete;
  explicit operator bool() const { return good_; }

 private:
  int sock_;
  int before_;
  bool good_ = false;
};

bool is_regular(int file) {
  struct stat status = {};
  return ::fstat(file, &status) == 0 && S_ISREG(status.st_mode);
}

bool is_connection(int sock) {
  int type = 0;
  socklen_t length = sizeof type;
  return ::getsockopt(sock, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_STREAM;
}

// Errors of a connection. A file may give ETIMEDOUT too, so it is asked first.
bool is_connection_error(int error) {
  return error == EPIPE || error == ECONNRESET || error == ETIMEDOUT || error == EHOSTUNREACH ||
         error == ENETUNREACH || error == ENETDOWN;
}

class file_sender {
 public:
  file_sender(int sock, int file, int64_t max_bytes, int timeout_s)
      : sock_(sock), file_(file), max_bytes_(max_bytes), timeout_s_(timeout_s) {}

  // sendfile() goes as far as it can. Reading then finds the end of the file, or tells whose fault the stop was.
  send_result run() {
    const unique_malloc<char> buffer(static_cast<char*>(malloc(piece_bytes)));
    if (!buffer) return {send_end::no_memory};
    if (is_regular(file_) && is_connection(sock_)) pass_on();
    if (!failed()) copy({buffer.get(), piece_bytes});
    return result_;
  }

 private:
  bool failed() const { return result_.end != send_end::whole; }
  void fail(send_end end, int error = 0) {
    result_.end = end;
    result_.error = error;
  }
  void pass_on();
  void copy(std::span<char> buffer);
  void send_piece(std::span<const char> rest);
  void await_room();

  int sock_;
  int file_;
  int64_t max_bytes_;
  int timeout_s_;
  int refusal_ = 0;  // errno with which sendfile() stopped
  send_result result_ = {send_end::whole};
};

void file_sender::await_room() {
  errno = 0;  // a wait that runs out sets none
  if (wait_ready(sock_, wait_writable, timeout_s_) < 1) fail(send_end::wait_failed, errno);
}

void file_sender::pass_on() {
  const not_blocking mode(sock_);
  sigpipe_hold hold;
  while (mode && !failed() && result_.total < max_bytes_) {
    const int64_t wanted = std::min(max_sendfile_bytes, max_bytes_ - result_.total);
    const ssize_t sent = ::sendfile(sock_, file_, nullptr, static_cast<std::size_t>(wanted));
    if (sent == 0) return;
    if (sent > 0) {
      result_.total += sent;
    } else if (would_block()) {
      await_room();
    } else if (errno != EINTR) {
      refusal_ = errno;
      if (refusal_ == EPIPE) hold.take_back();
      return;
    }
  }
}

void file_sender::send_piece(std::span<const char> rest) {
  while (!rest.empty() && !failed()) {
    const ssize_t sent = ::send(sock_, rest.data(), rest.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent >= 0) {
      rest = rest.subspan(static_cast<std::size_t>(sent));
    } else if (would_block()) {
      await_room();
    } else if (errno != EINTR) {
      fail(send_end::send_failed, errno);
    }
  }
}

void file_sender::copy(std::span<char> buffer) {
  while (!failed()) {
    const ssize_t count = ::read(file_, buffer.data(), buffer.size());
    if (count == 0) return;
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return fail(send_end::read_failed, errno);
    if (is_connection_error(refusal_)) return fail(send_end::send_failed, refusal_);
    if (count > max_bytes_ - result_.total) return fail(send_end::too_large);
    send_piece(buffer.first(static_cast<std::size_t>(count)));
    if (!failed()) result_.total += count;
  }
}

}  // namespace

send_result send_file(int sock, int file, int64_t max_bytes, int timeout_s) {
  return file_sender(sock, file, max_bytes, timeout_s).run();
}

}  // namespace fetchrig
