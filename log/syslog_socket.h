// syslog_socket.h: the datagram socket to the system log. Lock-free: writers hold a share while they write,
// and the descriptor is closed by whoever gives up the last share, so a writer never writes to a descriptor
// number that has been reused meanwhile. Any thread.
#ifndef FETCHRIG_LOG_SYSLOG_SOCKET_H
#define FETCHRIG_LOG_SYSLOG_SOCKET_H

#include <stdint.h>

#include <atomic>
#include <cstddef>

namespace fetchrig {

class syslog_socket {
 public:
  // Opens and connects unless open already; stays closed silently when that fails.
  void open();
  // Closes as soon as no thread is writing. Harmless when closed.
  void close();
  bool is_open() const;
  // Writes one datagram; a failed write closes the socket.
  void write(const char* line, std::size_t length);

 private:
  int acquire();
  void release();

  // Descriptor plus one (0: closed) in the high half; bit 31: to be closed; low bits: writers at work.
  std::atomic<uint64_t> state_{0};
};

// The path of the log socket, "/dev/log"; tests put their own in its place before they log.
extern std::atomic<const char*> syslog_path;

}  // namespace fetchrig
#endif
