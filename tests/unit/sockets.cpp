// sockets.cpp: what only the system's own sockets tell: their options, readiness, and how a file goes over them. All
// else of connections is told by scenarios.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/resource.h>

#include "core/owners.h"
#include "include/fetchrig.h"
#include "include/fetchrig_openssl.h"
#include "net/send_file.h"
#include "net/socket.h"
#include "tests/support/descriptors.h"
#include "tests/support/options.h"
#include "tests/support/temp_dir.h"

namespace {

using namespace fetchrig;

class sockets : public test::leak_free, protected test::socket_pair {
 protected:
  // A listener on loopback.
  int listen_at(int& port) {
    sockaddr_in address = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof address;
    auto* any = reinterpret_cast<sockaddr*>(&address);
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_TRUE(bind(listener, any, length) == 0 && listen(listener, 1) == 0);
    getsockname(listener, any, &length);
    port = ntohs(address.sin_port);
    return listener;
  }

  test::library library_;
};

TEST_F(sockets, have_their_options) {
  int port = 0;
  const unique_fd server(listen_at(port));
  for (const int limit : {0, 2}) {
    const unique_fd sock(dl_connect("127.0.0.1", port, 0, limit));
    ASSERT_GT(sock.get(), 2);
    EXPECT_EQ(fcntl(sock.get(), F_GETFL) & O_NONBLOCK, 0) << "blocking again";
    EXPECT_TRUE(fcntl(sock.get(), F_GETFD) & FD_CLOEXEC);
    const auto value = [&](int level, int option) {
      int set = 0;
      socklen_t length = sizeof set;
      EXPECT_EQ(getsockopt(sock.get(), level, option, &set, &length), 0);
      return set;
    };
    EXPECT_EQ(value(SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(value(IPPROTO_TCP, TCP_NODELAY), 1);
    EXPECT_EQ(value(IPPROTO_TCP, TCP_NOTSENT_LOWAT), 16384);
  }
}

TEST_F(sockets, tell_readiness_above_descriptor_1023_too) {
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit raised = {std::max<rlim_t>(limit.rlim_cur, 1200), limit.rlim_max};
  if (setrlimit(RLIMIT_NOFILE, &raised) != 0) GTEST_SKIP() << "too few descriptors";
  {
    const unique_fd high(fcntl(near.get(), F_DUPFD_CLOEXEC, 1100));
    EXPECT_EQ(dl_select(high.get(), wait_readable, 0), 0);
    EXPECT_EQ(dl_select(high.get(), wait_readable | wait_writable, 5), 1);
    ASSERT_EQ(send(far.get(), "x", 1, 0), 1);
    EXPECT_EQ(dl_select(high.get(), wait_readable | wait_writable, 5), 2) << "counts like select()";
    EXPECT_LT(dl_select(high.get(), wait_readable, -1), 0);
  }
  for (const int closed : {1100, -1}) {
    errno = 0;
    EXPECT_LT(dl_select(closed, wait_readable, 1), 0);
    EXPECT_EQ(errno, EBADF);
  }
  setrlimit(RLIMIT_NOFILE, &limit);
  far.reset();
  EXPECT_EQ(dl_send_all(near.get(), "x", 1), DL_ERR_SEND) << "and no SIGPIPE";
}

// A file with a size, and one that has contents without.
TEST_F(sockets, take_a_file_from_where_it_stands_to_its_end_or_limit) {
  const test::temp_dir dir;
  const std::string path = dir.file("file");
  test::write_file(path, "abcdef");
  const std::tuple<const char*, int, send_end, std::string> rows[] = {
      {path.c_str(), 4, send_end::whole, "cdef"},
      {path.c_str(), 3, send_end::too_large, "cde"},
      {"/proc/sys/kernel/ostype", 100, send_end::whole, "nux\n"}};
  for (const auto& [name, limit, end, arrives] : rows) {
    const unique_fd file(::open(name, O_RDONLY | O_CLOEXEC));
    lseek(file.get(), 2, SEEK_SET);
    const send_result sent = send_file(near.get(), file.get(), limit, 1);
    EXPECT_EQ(std::pair(sent.end, sent.total), std::pair(end, static_cast<int64_t>(arrives.size()))) << name;
    std::string got(arrives.size() + 1, '\0');
    got.resize(static_cast<std::size_t>(std::max<ssize_t>(recv(far.get(), got.data(), got.size(), 0), 0)));
    EXPECT_EQ(got, arrives);
  }
}

// Symptom: the program was killed, as sendfile() had sent a part when it met the peer's reset.
TEST_F(sockets, that_stop_a_file_are_told_without_a_signal) {
  const test::temp_dir dir;
  const std::string path = dir.file("file");
  test::write_file(path, test::make_bytes(4000000));
  const unique_fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  const send_result stuck = send_file(near.get(), file.get(), INT_MAX, 0);
  EXPECT_EQ(std::pair(stuck.end, stuck.error), std::pair(send_end::wait_failed, 0))
      << "a time-out has no errno";
  EXPECT_EQ(fcntl(near.get(), F_GETFL) & O_NONBLOCK, 0) << "as it was";
  far.reset();
  const send_result closed = send_file(near.get(), file.get(), INT_MAX, 1);
  EXPECT_EQ(std::pair(closed.end, closed.error), std::pair(send_end::send_failed, EPIPE));
  int port = 0;
  const unique_fd listener(listen_at(port));
  near.reset(dl_connect("127.0.0.1", port, 0, 5));
  unique_fd(accept(listener.get(), nullptr, nullptr)).reset();
  lseek(file.get(), 0, SEEK_SET);
  EXPECT_EQ(send_file(near.get(), file.get(), INT_MAX, 5).end, send_end::send_failed);
  sigset_t pending;
  sigpending(&pending);
  EXPECT_FALSE(sigismember(&pending, SIGPIPE));
}

}  // namespace
