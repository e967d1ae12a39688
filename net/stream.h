// SPDX-License-Identifier: MIT
// stream.h: the bytes of one connection, whether plain TCP or TLS. Peeking never consumes. One thread at
// a time per stream.
#ifndef FETCHRIG_NET_STREAM_H
#define FETCHRIG_NET_STREAM_H

#include <cstddef>
#include <span>

namespace fetchrig {

// Outcome of a read or peek. count > 0: bytes; 0: end of stream; below 0: failed, `error` is errno.
struct io_result {
  std::ptrdiff_t count = 0;
  bool wait_failed =
      false;  // with count below 0: nothing moved in time (no errno), or the wait itself failed
  int error = 0;
};

class stream {
 public:
  virtual ~stream() = default;
  // Up to to.size() bytes; waits for at most timeout_s seconds (plain streams; TLS has its own limit).
  virtual io_result read(std::span<char> to, int timeout_s) = 0;
  // As read(), leaving the bytes in place. An empty `to` gives 0 bytes; a plain stream waits for the peer all the same.
  virtual io_result peek(std::span<char> to, int timeout_s) = 0;
  // All bytes: 0, or -1 with errno set.
  virtual int write_all(std::span<const char> from) = 0;
};

}  // namespace fetchrig
#endif
