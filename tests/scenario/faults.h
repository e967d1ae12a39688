// faults.h: which call of the C library fails in a run, and how. The calls are replaced for the whole program
// (system.cpp), and misbehave only while the library is at work: not inside a `host`, which what plays the other side
// holds.
#ifndef FETCHRIG_TESTS_SCENARIO_FAULTS_H
#define FETCHRIG_TESTS_SCENARIO_FAULTS_H

#include <errno.h>
#include <netdb.h>
#include <stddef.h>

namespace scenario {

// clang-format off
enum class call {
  memory, socket, connect, bind, getaddrinfo, send, recv, sendto, recvfrom, poll, sendfile,
  open, fopen, fdopen, read, write, close, fclose, rename, opendir, mkstemp, fsync, mkdir, pipe, spawn, num_calls
};
// clang-format on

constexpr int short_count = -1000;  // instead of an error: one byte is moved

struct fault {
  const char* name;
  call which;
  int error;  // errno, or short_count; of getaddrinfo its own code
  bool may_last;
  bool harmless = false;  // nothing may come of it
};

// clang-format off
inline constexpr fault faults[] = {
    {"memory", call::memory, ENOMEM, true},
    {"socket-EMFILE", call::socket, EMFILE, true},
    {"connect-ECONNREFUSED", call::connect, ECONNREFUSED, true},
    {"connect-ETIMEDOUT", call::connect, ETIMEDOUT, true},
    {"bind-EADDRINUSE", call::bind, EADDRINUSE, true},
    {"getaddrinfo-EAI_AGAIN", call::getaddrinfo, EAI_AGAIN, true},
    {"getaddrinfo-EAI_MEMORY", call::getaddrinfo, EAI_MEMORY, true},
    {"send-EPIPE", call::send, EPIPE, true},
    {"send-EINTR", call::send, EINTR, false, true},
    {"send-short", call::send, short_count, true, true},
    {"recv-ECONNRESET", call::recv, ECONNRESET, true},
    {"recv-EINTR", call::recv, EINTR, false, true},
    {"recv-short", call::recv, short_count, true, true},
    {"sendto-ENETUNREACH", call::sendto, ENETUNREACH, true},
    {"sendto-EINTR", call::sendto, EINTR, false, true},
    {"sendto-short", call::sendto, short_count, true},
    {"recvfrom-ECONNREFUSED", call::recvfrom, ECONNREFUSED, true},
    {"recvfrom-EAGAIN", call::recvfrom, EAGAIN, false, true},  // the datagram was damaged
    {"recvfrom-EINTR", call::recvfrom, EINTR, false, true},
    {"poll-EINTR", call::poll, EINTR, false, true},
    {"poll-ENOMEM", call::poll, ENOMEM, true},
    {"sendfile-EINVAL", call::sendfile, EINVAL, true, true},
    {"sendfile-EINTR", call::sendfile, EINTR, false, true},
    {"sendfile-EPIPE", call::sendfile, EPIPE, true},
    {"sendfile-short", call::sendfile, short_count, true, true},
    {"open-EACCES", call::open, EACCES, true},
    {"open-EMFILE", call::open, EMFILE, true},
    {"open-ENOSPC", call::open, ENOSPC, true},
    {"fopen-EACCES", call::fopen, EACCES, true},
    {"fopen-EMFILE", call::fopen, EMFILE, true},
    {"fdopen-ENOMEM", call::fdopen, ENOMEM, true},
    {"read-EIO", call::read, EIO, true},
    {"read-EINTR", call::read, EINTR, false, true},
    {"read-short", call::read, short_count, true, true},
    {"write-ENOSPC", call::write, ENOSPC, true},
    {"write-EIO", call::write, EIO, true},
    {"write-EINTR", call::write, EINTR, false, true},
    {"write-short", call::write, short_count, true, true},
    {"close-EIO", call::close, EIO, true},
    {"fclose-ENOSPC", call::fclose, ENOSPC, true},
    {"rename-EXDEV", call::rename, EXDEV, true},
    {"rename-ENOSPC", call::rename, ENOSPC, true},
    {"opendir-EMFILE", call::opendir, EMFILE, true},
    {"mkstemp-ENOSPC", call::mkstemp, ENOSPC, true},
    {"fsync-EIO", call::fsync, EIO, true},
    {"mkdir-ENOSPC", call::mkdir, ENOSPC, true},
    {"pipe-EMFILE", call::pipe, EMFILE, true},
    {"spawn-EAGAIN", call::spawn, EAGAIN, true},
};
// clang-format on

// The run at work.
struct fault_plan {
  bool active = false;  // the library is at work
  int host_depth = 0;
  const fault* what = nullptr;
  bool lasting = false;  // all further calls fail as well
  long nth = 0;
  bool happened = false;
  long counts[static_cast<int>(call::num_calls)] = {};  // of each call
};
extern constinit fault_plan plan;

// While it lives, calls are counted by nobody and do not fail.
class host {
 public:
  host() { ++plan.host_depth; }
  ~host() { --plan.host_depth; }
  host(const host&) = delete;
  host& operator=(const host&) = delete;
};

}  // namespace scenario
#endif
