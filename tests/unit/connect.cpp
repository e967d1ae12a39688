// connect.cpp: look-ups, connections, waits and whole sends, against sockets of the test on the loopback
// interface.
#include "net/connect.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>

#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/owners.h"
#include "tests/support/descriptors.h"
#include "tests/support/log_capture.h"

namespace {

using namespace fetchrig;

struct list_deleter {
  void operator()(addrinfo* list) const { freeaddrinfo(list); }
};
using address_list = std::unique_ptr<addrinfo, list_deleter>;

struct socket_pair {
  unique_fd near;
  unique_fd far;
  socket_pair() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    near.reset(ends[0]);
    far.reset(ends[1]);
  }
};

// A bound loopback socket that listens when asked to; its port is the system's choice.
class local_port {
 public:
  explicit local_port(int family, int backlog = -1) : socket_(socket(family, SOCK_STREAM, 0)) {
    sockaddr_in6 six = {};
    six.sin6_family = AF_INET6;
    six.sin6_addr = in6addr_loopback;
    sockaddr_in four = {};
    four.sin_family = AF_INET;
    four.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const auto* address =
        family == AF_INET ? reinterpret_cast<sockaddr*>(&four) : reinterpret_cast<sockaddr*>(&six);
    socklen_t length = family == AF_INET ? sizeof four : sizeof six;
    usable_ =
        bind(socket_.get(), address, length) == 0 && (backlog < 0 || listen(socket_.get(), backlog) == 0);
    getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&six), &length);
    port_ = ntohs(six.sin6_port);  // both families have it in one place
  }
  bool usable() const { return usable_; }
  int port() const { return port_; }
  int get() const { return socket_.get(); }

 private:
  unique_fd socket_;
  bool usable_ = false;
  int port_ = 0;
};

double seconds_now() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

class connect_test : public test::leak_free {
 protected:
  test::log_capture log;
};

TEST_F(connect_test, a_listening_port) {
  const local_port server(AF_INET, 5);
  for (const int seconds : {0, 2}) {
    const unique_fd sock(dl_connect("127.0.0.1", server.port(), 0, seconds));
    ASSERT_GT(sock.get(), 2) << log.all();
    EXPECT_EQ(fcntl(sock.get(), F_GETFL) & O_NONBLOCK, 0) << "blocking again";
    EXPECT_TRUE(fcntl(sock.get(), F_GETFD) & FD_CLOEXEC);
    for (const auto& [level, option] :
         {std::pair<int, int>{SOL_SOCKET, SO_KEEPALIVE}, std::pair<int, int>{IPPROTO_TCP, TCP_NODELAY}}) {
      int value = 0;
      socklen_t length = sizeof value;
      EXPECT_EQ(getsockopt(sock.get(), level, option, &value, &length), 0);
      EXPECT_EQ(value, 1);
    }
  }
  EXPECT_TRUE(log.contains("DCMN", DL_LOG_INFO, "Connecting 127.0.0.1:" + std::to_string(server.port())));
  EXPECT_TRUE(log.contains("DCMN", DL_LOG_INFO,
                           "Connecting IP = 127.0.0.1, Port = " + std::to_string(server.port())));
  EXPECT_EQ(log.messages(DL_LOG_ERROR).size(), 0U);
}

TEST_F(connect_test, refused) {
  const local_port server(AF_INET);
  EXPECT_EQ(dl_connect("127.0.0.1", server.port(), 0, 1), DL_ERR_CONNECT);
  const std::string refused = std::to_string(ECONNREFUSED);
  EXPECT_EQ(log.count("Connect Failed! ret "), 1U) << log.all();
  EXPECT_EQ(log.count("timeout 1 error " + refused) + log.count("errno " + refused + " timeout 1"), 1U)
      << log.all();
  EXPECT_EQ(dl_connect("127.0.0.1", server.port(), 0, 0), DL_ERR_CONNECT);
  EXPECT_TRUE(
      log.contains("DCMN", DL_LOG_ERROR, "Connect Failed! ret -1, errno " + refused + " timeout 0 error -1"))
      << log.all();
}

// A server whose queue of waiting connections is full answers nothing.
TEST_F(connect_test, no_answer_ends_with_the_time_out) {
  const local_port server(AF_INET, 0);
  std::vector<unique_fd> fill;
  for (int i = 0; i < 3; ++i) {
    fill.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(server.port()));
    connect(fill.back().get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
  }
  const double begin = seconds_now();
  EXPECT_EQ(dl_connect("127.0.0.1", server.port(), 0, 1), DL_ERR_CONNECT);
  EXPECT_GE(seconds_now() - begin, 0.9);
  EXPECT_EQ(log.count("Connect Failed! ret 0, errno "), 1U) << log.all();
  EXPECT_EQ(log.count("timeout 1 error -1"), 1U) << "SO_ERROR was not read: " << log.all();
}

TEST_F(connect_test, names_that_do_not_resolve) {
  EXPECT_EQ(dl_connect("host\n.invalid.", 80, 0, 1), DL_ERR_HOST);
  EXPECT_TRUE(log.contains("DCMN", DL_LOG_INFO, "Connecting host?.invalid.:80")) << log.all();
  EXPECT_EQ(log.count("getaddrinfo: "), 1U) << log.all();
  EXPECT_EQ(dl_connect("", 80, 0, 1), DL_ERR_HOST);
  EXPECT_EQ(dl_connect(nullptr, 80, 0, 1), DL_ERR_HOST);
  EXPECT_EQ(dl_connect("::1", 80, 0, 1), DL_ERR_HOST) << "an IPv6 address with the switch off";
}

TEST_F(connect_test, look_up_keeps_to_the_ipv6_switch_and_the_socket_type) {
  for (const auto& [address, family] : {std::pair{"127.0.0.1", AF_INET}, std::pair{"::1", AF_INET6}}) {
    const address_list found(dl_look_up_host(address, family == AF_INET6, SOCK_DGRAM));
    ASSERT_TRUE(found);
    EXPECT_EQ(found->ai_family, family);
    EXPECT_EQ(found->ai_socktype, SOCK_DGRAM);
  }
}

// localhost has both addresses on most machines; whichever refuses, the one that listens is reached.
TEST_F(connect_test, a_refused_address_is_followed_by_the_next) {
  const address_list list(dl_look_up_host("localhost", 1, SOCK_STREAM));
  const bool both = list && list->ai_next && list->ai_family != list->ai_next->ai_family;
  if (!both) GTEST_SKIP() << "localhost has one address here";
  const local_port server(list->ai_next->ai_family, 5);
  if (!server.usable()) GTEST_SKIP() << "no IPv6 on this machine";
  const unique_fd sock(dl_connect("localhost", server.port(), 1, 1));
  EXPECT_GT(sock.get(), 2) << log.all();
  EXPECT_EQ(log.count("Connect Failed!"), 1U) << log.all();
}

class wait_test : public test::leak_free {};

TEST_F(wait_test, readiness) {
  socket_pair pair;
  EXPECT_EQ(dl_select(pair.near.get(), wait_readable, 0), 0);
  EXPECT_EQ(dl_select(pair.near.get(), wait_writable, 5), 1);
  EXPECT_EQ(dl_select(pair.near.get(), wait_readable | wait_writable, 5), 1);
  ASSERT_EQ(send(pair.far.get(), "x", 1, 0), 1);
  EXPECT_EQ(dl_select(pair.near.get(), wait_readable, 5), 1);
  EXPECT_EQ(dl_select(pair.near.get(), wait_readable | wait_writable, 5), 2) << "counts like select()";
  pair.far.reset();
  EXPECT_GT(dl_select(pair.near.get(), wait_readable, 5), 0) << "the end of a stream";
  EXPECT_LT(dl_select(pair.near.get(), wait_readable, -1), 0);
  errno = 0;
  EXPECT_LT(dl_select(-1, wait_readable, 1), 0);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(wait_test, descriptors_above_1023) {
  rlimit limit = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  if (limit.rlim_max < 1200) GTEST_SKIP() << "the system allows only " << limit.rlim_max << " descriptors";
  const rlimit before = limit;
  limit.rlim_cur = 1200;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  {
    const socket_pair pair;
    const unique_fd high(fcntl(pair.near.get(), F_DUPFD_CLOEXEC, 1100));
    ASSERT_GE(high.get(), 1100);
    EXPECT_EQ(dl_select(high.get(), wait_readable, 0), 0);
    ASSERT_EQ(send(pair.far.get(), "x", 1, 0), 1);
    EXPECT_EQ(dl_select(high.get(), wait_readable, 5), 1);
  }
  setrlimit(RLIMIT_NOFILE, &before);
}

volatile sig_atomic_t signals_taken = 0;
void take_signal(int) {
  signals_taken = signals_taken + 1;
}

TEST_F(wait_test, signals_neither_end_nor_prolong_a_wait) {
  struct sigaction action = {};
  struct sigaction before = {};
  action.sa_handler = take_signal;  // without SA_RESTART
  ASSERT_EQ(sigaction(SIGALRM, &action, &before), 0);
  signals_taken = 0;
  const socket_pair pair;
  const itimerval often = {{0, 20000}, {0, 20000}};
  const itimerval never = {};
  ASSERT_EQ(setitimer(ITIMER_REAL, &often, nullptr), 0);
  const double begin = seconds_now();
  const int result = dl_select(pair.near.get(), wait_readable, 1);
  const double waited = seconds_now() - begin;
  setitimer(ITIMER_REAL, &never, nullptr);
  sigaction(SIGALRM, &before, nullptr);
  EXPECT_EQ(result, 0);
  EXPECT_GT(signals_taken, 1);
  EXPECT_GE(waited, 0.99);
  EXPECT_LT(waited, 5.0);
}

class send_test : public test::leak_free {};

TEST_F(send_test, whole_buffers_or_a_failure_without_a_signal) {
  socket_pair pair;
  EXPECT_EQ(dl_send_all(pair.near.get(), nullptr, 0), 0);
  const std::string content(3000000, 'c');
  size_t received = 0;
  std::thread reader([&] {
    std::vector<char> buffer(65536);
    ssize_t count = 0;
    while ((count = recv(pair.far.get(), buffer.data(), buffer.size(), 0)) > 0)
      received += static_cast<size_t>(count);
  });
  EXPECT_EQ(dl_send_all(pair.near.get(), content.data(), static_cast<int>(content.size())), 0);
  pair.near.reset();
  reader.join();
  EXPECT_EQ(received, content.size());
  socket_pair closed;
  closed.far.reset();
  EXPECT_EQ(dl_send_all(closed.near.get(), "x", 1), DL_ERR_SEND) << "SIGPIPE would end the test";
}

// SIGPIPE would end the test.
TEST_F(send_test, a_peer_that_never_reads_fails_the_send_after_the_time_out) {
  const local_port server(AF_INET, 5);
  const unique_fd sock(dl_connect("127.0.0.1", server.port(), 0, 1));
  ASSERT_GT(sock.get(), 2);
  const unique_fd peer(accept(server.get(), nullptr, nullptr));
  const std::string content(16000000, 'c');
  EXPECT_EQ(dl_send_all(sock.get(), content.data(), static_cast<int>(content.size())), DL_ERR_SEND);
}

}  // namespace
