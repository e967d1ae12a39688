// stream.h: the bytes of one connection, whether plain TCP, TLS or a test's script. A plain stream may own a
// read-ahead, so that reading lines and small pieces does not cost a system call each; a stream over a bare
// socket works without one. Peeking never consumes. One thread at a time per stream.
#ifndef FETCHRIG_NET_STREAM_H
#define FETCHRIG_NET_STREAM_H

#include <openssl/ssl.h>

#include <cstddef>
#include <memory>
#include <span>

namespace fetchrig {

// Outcome of a read or peek. count > 0: bytes; 0: end of stream; below 0: failed, `error` is errno.
struct io_result {
  std::ptrdiff_t count = 0;
  bool wait_failed = false;  // with count below 0: nothing arrived in time, or the wait itself failed
  int error = 0;
};

class stream {
 public:
  virtual ~stream() = default;
  // Up to to.size() bytes; waits for at most timeout_s seconds (plain streams; TLS has its own limit).
  virtual io_result read(std::span<char> to, int timeout_s) = 0;
  // As read(), leaving the bytes in place. An empty `to` gives 0 bytes.
  virtual io_result peek(std::span<char> to, int timeout_s) = 0;
  // All bytes: 0, or -1 with errno set.
  virtual int write_all(std::span<const char> from) = 0;
};

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

// A connected TCP socket, borrowed. Without `ahead` each call is one wait and one receive. With it, a receive
// is tried before waiting, and reads of less than the read-ahead's size go through it; `may_read_ahead`
// bounds how much more than the asked-for bytes may be received (the rest of a body whose length is known).
class tcp_stream final : public stream {
 public:
  explicit tcp_stream(int sock, read_ahead* ahead = nullptr,
                      std::size_t may_read_ahead = read_ahead::capacity)
      : sock_(sock), ahead_(ahead), may_read_ahead_(may_read_ahead) {}
  io_result read(std::span<char> to, int timeout_s) override;
  io_result peek(std::span<char> to, int timeout_s) override;
  int write_all(std::span<const char> from) override;

 private:
  io_result receive(std::span<char> to, int flags, int timeout_s);
  io_result refill(std::size_t wanted, int timeout_s);

  int sock_;
  read_ahead* ahead_;
  std::size_t may_read_ahead_;
};

// A TLS connection, borrowed. OpenSSL's own buffering serves as the read-ahead.
class tls_stream final : public stream {
 public:
  explicit tls_stream(SSL* ssl) : ssl_(ssl) {}
  io_result read(std::span<char> to, int timeout_s) override;
  io_result peek(std::span<char> to, int timeout_s) override;
  int write_all(std::span<const char> from) override;

 private:
  SSL* ssl_;
};

}  // namespace fetchrig
#endif
