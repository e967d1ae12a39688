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
  open, fopen, fdopen, fwrite, read, write, close, fclose, rename, opendir, mkstemp, fsync, mkdir,
  pipe, spawn, flock, fstat, stat, lstat, fchmod, ftruncate, fcntl, getsockopt, getpeername, random, num_calls
};
// clang-format on

constexpr int shortened = -1000;  // instead of an error: one byte is moved

struct fault {
  const char* name;  // "send-EPIPE"
  call which;
  int error;  // errno, or shortened; of getaddrinfo its own code

  bool may_last() const { return error != EINTR && (error != EAGAIN || which == call::spawn); }
  // Nothing may come of it. A datagram that cannot be sent whole is an error, one that cannot be received was damaged.
  bool harmless() const {
    return !may_last() || (error == shortened && which != call::sendto) || error == EINVAL;
  }
};

#define FAULT(which, error) \
  { #which "-" #error, call::which, error }
// clang-format off
inline constexpr fault faults[] = {
    FAULT(memory, ENOMEM),
    FAULT(socket, EMFILE),
    FAULT(connect, ECONNREFUSED), FAULT(connect, ETIMEDOUT),
    FAULT(bind, EADDRINUSE),
    FAULT(getaddrinfo, EAI_AGAIN), FAULT(getaddrinfo, EAI_MEMORY),
    FAULT(send, EPIPE), FAULT(send, EINTR), FAULT(send, shortened),
    FAULT(recv, ECONNRESET), FAULT(recv, EINTR), FAULT(recv, shortened),
    FAULT(sendto, ENETUNREACH), FAULT(sendto, EINTR), FAULT(sendto, shortened),
    FAULT(poll, EINTR), FAULT(poll, ENOMEM),
    FAULT(recvfrom, ECONNREFUSED), FAULT(recvfrom, EAGAIN), FAULT(recvfrom, EINTR),
    FAULT(sendfile, EINVAL), FAULT(sendfile, EINTR), FAULT(sendfile, EPIPE), FAULT(sendfile, shortened),
    FAULT(open, EACCES), FAULT(open, EMFILE), FAULT(open, ENOSPC),
    FAULT(fopen, EACCES), FAULT(fopen, EMFILE),
    FAULT(fdopen, ENOMEM),
    FAULT(fwrite, ENOSPC),
    FAULT(read, EIO), FAULT(read, EINTR), FAULT(read, shortened),
    FAULT(write, ENOSPC), FAULT(write, EIO), FAULT(write, EINTR), FAULT(write, shortened),
    FAULT(close, EIO),
    FAULT(fclose, ENOSPC),
    FAULT(rename, EXDEV), FAULT(rename, ENOSPC),
    FAULT(opendir, EMFILE),
    FAULT(mkstemp, ENOSPC),
    FAULT(fsync, EIO),
    FAULT(mkdir, ENOSPC),
    FAULT(pipe, EMFILE),
    FAULT(spawn, EAGAIN),
    FAULT(flock, EAGAIN), FAULT(flock, EINTR),
    FAULT(fstat, EIO), FAULT(stat, EACCES), FAULT(lstat, EIO),
    FAULT(fchmod, EPERM),
    FAULT(ftruncate, EIO),
    FAULT(fcntl, EMFILE),
    FAULT(getsockopt, ENOBUFS),
    FAULT(getpeername, ENOTCONN),
    FAULT(random, EIO),
};
// clang-format on
#undef FAULT

// The run at work.
struct fault_plan {
  bool active = false;  // the library is at work
  int host_depth = 0;
  const fault* what = nullptr;
  long nth = 0, times = 1;  // the first call that fails, and how many do
  bool happened = false;
  const char* secret = nullptr;  // that no memory may hold when it is given back
  bool secret_freed = false;
  long counts[static_cast<int>(call::num_calls)] = {};  // of each call
};
extern constinit fault_plan plan;

// Beside a definition of ours that the library and OpenSSL are to use.
#define REPLACED __attribute__((visibility("default")))
// The sanitizers' own start allocates, before any memory is known to them.
#define EARLY __attribute__((no_sanitize("address", "undefined")))

// Counts a call of the library; true with errno when it is to fail.
EARLY bool strikes(call which);

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
