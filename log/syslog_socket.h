// SPDX-License-Identifier: MIT
// syslog_socket.h: the datagram socket to the system log. Lock-free: writers hold a share while they write,
// and the descriptor is closed by whoever gives up the last share, so a writer never writes to a descriptor
// number that has been reused meanwhile. A descriptor that the application closed behind our back, and may
// use for something else now, is neither written to nor closed. A daemon that no longer reads delays one line
// by a second; then lines are dropped. Any thread.
#ifndef FETCHRIG_LOG_SYSLOG_SOCKET_H
#define FETCHRIG_LOG_SYSLOG_SOCKET_H

#include <stdint.h>

#include <atomic>
#include <cstddef>

namespace fetchrig {

// What became of a line. But for the first, the socket is closed now.
enum class log_write {
  sent,
  refused,  // or the socket was closed already
  blocked,  // the daemon does not read
  foreign,  // the descriptor is no longer ours; it may be opened again at once
};

class syslog_socket {
 public:
  // Opens and connects unless open already; stays closed silently when that fails.
  void open();
  // Closes as soon as no thread is writing. Harmless when closed.
  void close();
  bool is_open() const;
  // Writes one datagram, waiting at most a second for room when `may_wait`; a failed write closes the socket.
  log_write write(const char* line, std::size_t length, bool may_wait);
  // In the child of a fork: the threads that were writing are not there.
  void forget_writers();

 private:
  uint64_t acquire();
  void release();

  // From high to low: descriptor plus one (24 bits, 0: closed), its identity (24), to be closed
  // (1), writers at work (15).
  std::atomic<uint64_t> state_{0};
};

// The path of the log socket, "/dev/log"; tests put their own in its place before they log.
extern std::atomic<const char*> syslog_path;
// How long a blocked system log is left alone.
extern std::atomic<int> syslog_pause_ms;

}  // namespace fetchrig
#endif
