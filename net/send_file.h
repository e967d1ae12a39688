// SPDX-License-Identifier: MIT
// send_file.h: a local file out through a plain connection. Where the system can, the bytes go from the file's pages to
// the connection by sendfile(), which costs half of reading and sending them; else, and whenever it stops, they are
// read and sent. What comes of it is the same: the file to the end that a read finds. One thread at a time per socket.
#ifndef FETCHRIG_NET_SEND_FILE_H
#define FETCHRIG_NET_SEND_FILE_H

#include <stdint.h>

namespace fetchrig {

enum class send_end {
  whole,        // to the end of the file
  too_large,    // the file goes on behind `max_bytes`
  read_failed,  // the file cannot be read
  wait_failed,  // the connection took nothing more in time (no errno), or the wait itself failed
  send_failed,
  no_memory,
};

struct send_result {
  send_end end;
  int error = 0;      // errno
  int64_t total = 0;  // bytes sent
};

// Sends `file` from where it stands to its end, waiting at most timeout_s seconds whenever the connection takes no
// more. Never raises SIGPIPE. Who changes the file meanwhile changes what arrives.
[[nodiscard]] send_result send_file(int sock, int file, int64_t max_bytes, int timeout_s);

}  // namespace fetchrig
#endif
