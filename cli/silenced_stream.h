// SPDX-License-Identifier: MIT
// silenced_stream.h: sends a standard stream of the process to nowhere while a library call writes to it, and
// shell commands that the call runs. One thread.
#ifndef FETCHRIG_CLI_SILENCED_STREAM_H
#define FETCHRIG_CLI_SILENCED_STREAM_H

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

namespace fetchrig::cli {

class silenced_stream {
 public:
  silenced_stream(FILE* stream, bool wanted) : stream_(stream) {
    if (!wanted) return;
    fflush(stream_);
    kept_ = fcntl(fileno(stream_), F_DUPFD_CLOEXEC, 3);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (kept_ >= 0 && nowhere >= 0) dup2(nowhere, fileno(stream_));
    if (nowhere >= 0) close(nowhere);
  }
  silenced_stream(const silenced_stream&) = delete;
  silenced_stream& operator=(const silenced_stream&) = delete;
  ~silenced_stream() {
    if (kept_ < 0) return;
    fflush(stream_);
    dup2(kept_, fileno(stream_));
    close(kept_);
  }

 private:
  FILE* stream_;
  int kept_ = -1;
};

}  // namespace fetchrig::cli
#endif
