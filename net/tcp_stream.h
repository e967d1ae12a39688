// SPDX-License-Identifier: MIT
// tcp_stream.h: the stream over a plain TCP connection. It may own a read-ahead, so that reading lines and small pieces
// does not cost a system call each; a stream over a bare socket works without one and takes nothing that was not asked
// for. One thread at a time per stream.
#ifndef FETCHRIG_NET_TCP_STREAM_H
#define FETCHRIG_NET_TCP_STREAM_H

#include <memory>

#include "net/stream.h"

namespace fetchrig {

// Bytes received ahead of what was asked for.
class read_ahead {
 public:
  static constexpr std::size_t capacity = 16384;
  std::span<const char> held() const { return {buffer_.get() + begin_, end_ - begin_}; }
  void consume(std::size_t count) { begin_ += count; }
  // The empty buffer to receive into; nothing may be held. Null without memory: the stream then does without.
  char* storage();
  void filled(std::size_t count) { begin_ = 0, end_ = count; }

 private:
  std::unique_ptr<char[]> buffer_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

// What a stream does first. Where bytes are usually there already, a receive is tried before it is waited for.
enum class first_step { wait, receive };

// Whether a read may fill the read-ahead when that is empty, or only drain what it holds. A peek fills it.
enum class read_ahead_use { fill, drain };

// A connected TCP socket, borrowed.
class tcp_stream final : public stream {
 public:
  explicit tcp_stream(int sock, first_step first = first_step::wait) : sock_(sock), first_(first) {}
  // Receives first, and reads of less than the read-ahead's size go through it. A null one is none: waits first.
  tcp_stream(int sock, read_ahead* ahead, read_ahead_use use = read_ahead_use::fill)
      : sock_(sock), first_(ahead ? first_step::receive : first_step::wait), ahead_(ahead), use_(use) {}
  io_result read(std::span<char> to, int timeout_s) override;
  io_result peek(std::span<char> to, int timeout_s) override;
  int write_all(std::span<const char> from) override;

 private:
  io_result receive(std::span<char> to, int flags, int timeout_s);
  io_result refill(int timeout_s);

  int sock_;
  first_step first_;
  read_ahead* ahead_ = nullptr;
  read_ahead_use use_ = read_ahead_use::fill;
};

}  // namespace fetchrig
#endif
