// channel.cpp: non-blocking reads and writes behind poll().
#include "tests/peers/channel.h"

#include <errno.h>
#include <fcntl.h>
#include <openssl/err.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

namespace test {

channel::~channel() {
  if (fd_ >= 0) close_now(false);
}

bool channel::wait(short events) const {
  pollfd watched[2] = {{fd_, events, 0}, {wake_fd_, POLLIN, 0}};
  int ready = -1;
  do ready = poll(watched, 2, limit_ms_);
  while (ready < 0 && errno == EINTR);
  return ready > 0 && watched[1].revents == 0;
}

// Waits for what TLS needs after `result`; false when it failed for good.
bool channel::wait_for_tls(int result) const {
  switch (SSL_get_error(ssl_.get(), result)) {
    case SSL_ERROR_WANT_READ:
      return wait(POLLIN);
    case SSL_ERROR_WANT_WRITE:
      return wait(POLLOUT);
    default:
      return false;
  }
}

std::string channel::accept_tls(SSL_CTX* context) {
  fcntl(fd_, F_SETFL, fcntl(fd_, F_GETFL) | O_NONBLOCK);
  ssl_.reset(SSL_new(context));
  SSL_set_fd(ssl_.get(), fd_);
  for (;;) {
    ERR_clear_error();
    const int result = SSL_accept(ssl_.get());
    if (result == 1) return {};
    if (wait_for_tls(result)) continue;
    const unsigned long code = ERR_peek_error();
    const char* reason = code ? ERR_reason_error_string(code) : nullptr;
    ssl_.reset();
    return reason ? reason : "the client went away";
  }
}

std::string channel::read_some() {
  char buffer[16384];
  for (;;) {
    ssize_t received = -1;
    if (ssl_) {
      ERR_clear_error();
      const int result = SSL_read(ssl_.get(), buffer, sizeof buffer);
      if (result <= 0 && wait_for_tls(result)) continue;
      received = result;
    } else {
      if (!wait(POLLIN)) return {};
      received = recv(fd_, buffer, sizeof buffer, 0);
      if (received < 0 && errno == EINTR) continue;
    }
    return received > 0 ? std::string(buffer, static_cast<std::size_t>(received)) : std::string();
  }
}

bool channel::write_all(std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t sent = -1;
    if (ssl_) {
      ERR_clear_error();
      const int result = SSL_write(ssl_.get(), bytes.data(), static_cast<int>(bytes.size()));
      if (result <= 0 && wait_for_tls(result)) continue;
      sent = result;
    } else {
      if (!wait(POLLOUT)) return false;
      sent = send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    }
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

std::string channel::end_and_drain() {
  if (ssl_) SSL_shutdown(ssl_.get());
  if (!ssl_) shutdown(fd_, SHUT_WR);
  std::string rest;
  for (std::string piece = read_some(); !piece.empty(); piece = read_some()) rest += piece;
  close_now(false);
  return rest;
}

void channel::close_now(bool reset) {
  ssl_.reset();
  if (fd_ < 0) return;
  const linger abortive = {1, 0};
  if (reset) setsockopt(fd_, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
  close(fd_);
  fd_ = -1;
}

}  // namespace test
