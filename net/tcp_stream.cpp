// SPDX-License-Identifier: MIT
// tcp_stream.cpp: reading, peeking and writing on plain TCP connections.
#include "net/tcp_stream.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <new>

#include "net/socket.h"

namespace fetchrig {
namespace {

// One receive, repeated when a signal interrupts it.
std::ptrdiff_t receive_once(int sock, std::span<char> to, int flags) {
  for (;;) {
    const std::ptrdiff_t count = ::recv(sock, to.data(), to.size(), flags);
    if (count >= 0 || errno != EINTR) return count;
  }
}

io_result failed(bool in_wait) {
  return {-1, in_wait, errno};
}

// The front of what is held, copied out.
std::ptrdiff_t copy_held(const read_ahead& ahead, std::span<char> to) {
  const std::size_t count = std::min(ahead.held().size(), to.size());
  memcpy(to.data(), ahead.held().data(), count);
  return static_cast<std::ptrdiff_t>(count);
}

}  // namespace

char* read_ahead::storage() {
  if (!buffer_) buffer_.reset(new (std::nothrow) char[capacity]);
  return buffer_.get();
}

io_result tcp_stream::receive(std::span<char> to, int flags, int timeout_s) {
  if (first_ == first_step::receive) {
    const std::ptrdiff_t count = receive_once(sock_, to, flags | MSG_DONTWAIT);
    if (count >= 0) return {count};
    if (!would_block()) return failed(false);
  }
  errno = 0;  // a wait that runs out sets none
  if (wait_ready(sock_, wait_readable, timeout_s) < 1) return failed(true);
  const std::ptrdiff_t count = receive_once(sock_, to, flags);
  return count >= 0 ? io_result{count} : failed(false);
}

// Receives into the empty read-ahead, whose memory is there.
io_result tcp_stream::refill(int timeout_s) {
  const io_result received = receive({ahead_->storage(), read_ahead::capacity}, 0, timeout_s);
  if (received.count > 0) ahead_->filled(static_cast<std::size_t>(received.count));
  return received;
}

io_result tcp_stream::read(std::span<char> to, int timeout_s) {
  if (!ahead_) return receive(to, 0, timeout_s);
  if (ahead_->held().empty()) {
    const bool past_it = use_ == read_ahead_use::drain || to.size() >= read_ahead::capacity;
    if (past_it || !ahead_->storage()) return receive(to, 0, timeout_s);
    if (const io_result received = refill(timeout_s); received.count <= 0) return received;
  }
  const std::ptrdiff_t count = copy_held(*ahead_, to);
  ahead_->consume(static_cast<std::size_t>(count));
  return {count};
}

io_result tcp_stream::peek(std::span<char> to, int timeout_s) {
  if (to.empty()) {
    char probe = 0;
    const io_result seen = peek({&probe, 1}, timeout_s);
    return seen.count < 0 ? seen : io_result{};
  }
  if (!ahead_) return receive(to, MSG_PEEK, timeout_s);
  if (ahead_->held().empty()) {
    if (!ahead_->storage()) return receive(to, MSG_PEEK, timeout_s);
    if (const io_result received = refill(timeout_s); received.count <= 0) return received;
  }
  return {copy_held(*ahead_, to)};
}

int tcp_stream::write_all(std::span<const char> from) {
  return dl_send_all(sock_, from.data(), from.size()) < 0 ? -1 : 0;
}

}  // namespace fetchrig
