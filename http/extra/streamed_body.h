// SPDX-License-Identifier: MIT
// streamed_body.h: a local file as a request's body, read while it is sent, of any size. One thread at a time.
#ifndef FETCHRIG_HTTP_EXTRA_STREAMED_BODY_H
#define FETCHRIG_HTTP_EXTRA_STREAMED_BODY_H

#include <stdint.h>

#include <string>

#include "core/owners.h"
#include "include/fetchrig_types.h"
#include "net/stream.h"

namespace fetchrig {

// What stands before and behind the file is of a form; empty without one.
struct streamed_body {
  unique_fd file;
  std::string before;
  std::string after;
  uint64_t file_bytes = 0;  // when it was opened: so many are sent

  [[nodiscard]] uint64_t size() const { return before.size() + file_bytes + after.size(); }
};

#if FETCHRIG_EXTRAS

// Takes the size of the file, which is a regular one. Returns 0 or -8, logged.
[[nodiscard]] int measure(streamed_body& body);

// Sends all of it, as often as it is asked to. Returns 0; -4 when the connection takes no more, errno being set; or -8,
// logged, when the file has become shorter or cannot be read.
[[nodiscard]] int send_streamed(const streamed_body& body, stream& to);

#else

inline int measure(streamed_body& /*body*/) {
  return DL_ERR_READ;
}
inline int send_streamed(const streamed_body& /*body*/, stream& /*to*/) {
  return DL_ERR_SEND;
}

#endif

}  // namespace fetchrig
#endif
