// tftp_faults.cpp: TFTP calls while the system refuses: the n-th send, receive, bind or allocation fails, for
// each n until none does. After each: the right code, no file, nothing left open.
#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <map>

#include "include/fetchrig.h"
#include "tests/peers/tftp_peer.h"
#include "tests/support/descriptors.h"
#include "tests/support/log_capture.h"
#include "tests/support/options.h"
#include "tests/support/temp_dir.h"

namespace {

enum class call { none, send, receive, bind, socket, allocate };

// What goes wrong in this thread: `times` calls from the `at`-th on. An error of 0 makes a send one byte
// short.
struct fault {
  call which = call::none;
  int at = 1;
  int times = 1;
  int error = EIO;
  int seen = 0;
  bool fired() const { return seen >= at; }
};
thread_local fault armed;

bool fails(call which) {
  if (armed.which != which) return false;
  ++armed.seen;
  if (armed.seen < armed.at || armed.seen >= armed.at + armed.times) return false;
  errno = armed.error;
  return true;
}

}  // namespace

// In place of the C library's, for this program.
extern "C" {

ssize_t sendto(int sock, const void* bytes, size_t size, int flags, const sockaddr* to, socklen_t to_len) {
  if (fails(call::send)) return armed.error ? -1 : static_cast<ssize_t>(size) - 1;
  return syscall(SYS_sendto, sock, bytes, size, flags, to, to_len);
}

ssize_t recvfrom(int sock, void* bytes, size_t size, int flags, sockaddr* from, socklen_t* from_len) {
  if (fails(call::receive)) return -1;
  return syscall(SYS_recvfrom, sock, bytes, size, flags, from, from_len);
}

int bind(int sock, const sockaddr* address, socklen_t length) noexcept {
  if (fails(call::bind)) return -1;
  return static_cast<int>(syscall(SYS_bind, sock, address, length));
}

int socket(int family, int type, int protocol) noexcept {
  if (fails(call::socket)) return -1;
  return static_cast<int>(syscall(SYS_socket, family, type, protocol));
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define CAN_REFUSE_MEMORY 1
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);

void* malloc(size_t size) {
  return fails(call::allocate) ? nullptr : __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
  return fails(call::allocate) ? nullptr : __libc_calloc(count, size);
}
#endif

}  // extern "C"

namespace {

using namespace tftp_test;

constexpr std::size_t file_bytes = 24 + 7;

class tftp_faults : public test::leak_free {
 protected:
  // A download and an upload of 31 bytes in blocks of 24, with the fault armed during the call alone. The
  // peer sends all its packets at once, so that it never waits for one that was not sent.
  int download(const fault& plan) {
    return exchange(
        plan, 1, {sends(data(1, pattern(24))), sends(data(2, pattern(7, 24)))},
        [&](uint16_t port) { return dl_tftp_recv_to_file("127.0.0.1", port, "f", path_.c_str(), &result_); });
  }
  int upload(const fault& plan) {
    test::write_file(path_, pattern(file_bytes));
    return exchange(plan, 2, {sends(ack(1)), sends(ack(2))}, [&](uint16_t port) {
      return dl_tftp_send_file("127.0.0.1", port, "f", path_.c_str(), &result_);
    });
  }

  template <typename Call>
  int exchange(const fault& plan, char opcode, const script& answers, const Call& work) {
    peer server;
    const script opening = {expects(request(opcode, "f")), sends(oack({"blksize", "24"}))};
    const playing thread(server, opening + answers);
    result_ = {};
    log_.clear();
    armed = plan;
    const int rc = work(server.port());
    fired_ = armed.fired();
    armed = {};
    // When the call failed before its request, this one releases the peer; else nobody reads it.
    peer stand_in;
    stand_in.send_to(server.port(), request(opcode, "f"));
    return rc;
  }
  std::string last_line() const {
    const std::vector<std::string> lines = tftp_lines(log_);
    return lines.empty() ? "" : lines.back();
  }

  test::library library_;
  test::log_capture log_;
  test::temp_dir place_;
  std::string path_ = place_.file("file");
  dl_result result_ = {};
  bool fired_ = false;
};

struct outcome {
  int code;  // of the result; 0 with success
  const char* line;
};

TEST_F(tftp_faults, each_send_fails_once) {
  const outcome downloads[] = {
      {DL_ERR_SEND, "3 Send Error error! errno = 5 ret = -1 send_size = 23"},
      {0, "5 recv: 31 bytes"},  // the ACK of an OACK may be lost
      {DL_ERR_SEND, "3 Send Ack Error"},
      {DL_ERR_SEND, "3 Send Ack Error"},
  };
  const outcome uploads[] = {
      {DL_ERR_SEND, "3 Send Error error! errno = 5 ret = -1 send_size = 23"},
      {DL_ERR_SEND, "3 Send DATA Error"},
      {DL_ERR_SEND, "3 Send DATA Error"},
  };
  const auto check = [&](int rc, const outcome& expected) {
    EXPECT_TRUE(fired_);
    EXPECT_EQ(rc, expected.code ? -1 : 0);
    EXPECT_EQ(result_.code, expected.code);
    EXPECT_EQ(last_line(), expected.line);
  };
  for (int n = 1; n <= 4; ++n) {
    SCOPED_TRACE(n);
    check(download({.which = call::send, .at = n}), downloads[n - 1]);
    EXPECT_EQ(test::file_exists(path_), downloads[n - 1].code == 0);
    if (n <= 3) check(upload({.which = call::send, .at = n}), uploads[n - 1]);
  }
  EXPECT_EQ(download({.which = call::send, .at = 5}), 0);
  EXPECT_FALSE(fired_);
  EXPECT_EQ(upload({.which = call::send, .at = 4}), 0);
  EXPECT_FALSE(fired_);
}

TEST_F(tftp_faults, short_and_interrupted_sends) {
  EXPECT_EQ(upload({.which = call::send, .at = 2, .error = 0}), -1);
  EXPECT_EQ(last_line(), "3 Send DATA Error");
  EXPECT_EQ(download({.which = call::send, .at = 3, .error = 0}), -1);
  EXPECT_EQ(last_line(), "3 Send Ack Error");
  for (int n = 1; n <= 4; ++n) {
    EXPECT_EQ(download({.which = call::send, .at = n, .times = 3, .error = EINTR}), 0);
    EXPECT_EQ(test::read_file(path_), pattern(file_bytes));
    EXPECT_EQ(upload({.which = call::send, .at = n, .times = 3, .error = EINTR}), 0);
  }
}

TEST_F(tftp_faults, each_receive_fails_once) {
  for (int n = 1; n <= 3; ++n) {
    SCOPED_TRACE(n);
    for (const bool up : {false, true}) {
      const fault plan = {.which = call::receive, .at = n};
      EXPECT_EQ(up ? upload(plan) : download(plan), -1);
      EXPECT_EQ(result_.code, DL_ERR_READ);
      EXPECT_EQ(last_line(), "3 Recvfrom error! errno 5");
      EXPECT_EQ(test::file_exists(path_), up) << "what was downloaded is removed, what was uploaded stays";
    }
    // Interrupted, or the datagram was dropped after the wait: received again.
    for (const int error : {EINTR, EAGAIN}) {
      EXPECT_EQ(download({.which = call::receive, .at = n, .times = 4, .error = error}), 0);
      EXPECT_EQ(test::read_file(path_), pattern(file_bytes));
      EXPECT_EQ(upload({.which = call::receive, .at = n, .times = 4, .error = error}), 0);
    }
  }
}

TEST_F(tftp_faults, thirty_ports_are_tried) {
  EXPECT_EQ(download({.which = call::bind, .times = 29, .error = EADDRINUSE}), 0);
  EXPECT_EQ(download({.which = call::bind, .times = 30, .error = EADDRINUSE}), -1);
  EXPECT_EQ(result_.code, DL_ERR_SOCKET);
  EXPECT_STREQ(result_.message, "Create Socket Error");
}

TEST_F(tftp_faults, no_socket) {
  for (const bool up : {false, true}) {
    const fault plan = {.which = call::socket, .times = 100, .error = EMFILE};
    EXPECT_EQ(up ? upload(plan) : download(plan), -1);
    EXPECT_EQ(result_.code, DL_ERR_SOCKET);
  }
}

#if CAN_REFUSE_MEMORY
TEST_F(tftp_faults, each_allocation_fails_once) {
  dl_log_init(0, nullptr);  // the capture allocates, too
  std::map<int, int> codes;
  int n = 0;
  do {
    SCOPED_TRACE(++n);
    const int rc = download({.which = call::allocate, .at = n});
    EXPECT_EQ(rc, fired_ ? -1 : 0);
    EXPECT_EQ(test::file_exists(path_), !fired_);
    ++codes[result_.code];
  } while (fired_);
  EXPECT_EQ(codes[DL_ERR_MEMORY], 4) << "the session, its carry, the file's buffer and its path";
  EXPECT_EQ(codes[0], 1) << "the success";
  codes.erase(DL_ERR_HOST);  // the resolver's own
  EXPECT_EQ(codes.size(), 2u);
  EXPECT_EQ(upload({.which = call::allocate}), -1);
  EXPECT_EQ(result_.code, DL_ERR_MEMORY);
}
#endif

}  // namespace
