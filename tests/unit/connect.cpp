// connect.cpp: look-ups, connections, waits and whole sends, against sockets of the test on the loopback
// interface.
#include "net/socket.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/time.h>

#include <atomic>
#include <stop_token>

#include "core/owners.h"
#include "include/fetchrig_openssl.h"
#include "tests/support/descriptors.h"
#include "tests/support/log_capture.h"

namespace {

using namespace fetchrig;

// A bound loopback socket that listens when asked to; its port is the system's choice.
struct local_port {
  explicit local_port(bool listening, int backlog = 5) {
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(sock.get(), get(), length), 0);
    EXPECT_TRUE(!listening || listen(sock.get(), backlog) == 0);
    getsockname(sock.get(), get(), &length);
  }
  sockaddr* get() { return reinterpret_cast<sockaddr*>(&address); }
  int port() const { return ntohs(address.sin_port); }

  const unique_fd sock{socket(AF_INET, SOCK_STREAM, 0)};
  sockaddr_in address = {};
  socklen_t length = sizeof address;
};

using clock = std::chrono::steady_clock;
using seconds = std::chrono::duration<double>;

class connecting : public test::leak_free {
 protected:
  connecting() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    near.reset(ends[0]);
    far.reset(ends[1]);
  }

  unique_fd near, far;
  test::log_capture log;
};

TEST_F(connecting, a_listening_port) {
  const local_port server(true);
  const std::string port = std::to_string(server.port());
  for (const int limit : {0, 2}) {
    log.clear();
    const unique_fd sock(dl_connect("127.0.0.1", server.port(), 0, limit));
    EXPECT_EQ(log.messages(), (std::vector<std::string>{"Connecting 127.0.0.1:" + port,
                                                        "Connecting IP = 127.0.0.1, Port = " + port}));
    ASSERT_GT(sock.get(), 2);
    EXPECT_EQ(fcntl(sock.get(), F_GETFL) & O_NONBLOCK, 0) << "blocking again";
    EXPECT_TRUE(fcntl(sock.get(), F_GETFD) & FD_CLOEXEC);
    for (const auto& [level, option, wanted] : {std::tuple<int, int, int>{SOL_SOCKET, SO_KEEPALIVE, 1},
                                                {IPPROTO_TCP, TCP_NODELAY, 1},
                                                {IPPROTO_TCP, TCP_NOTSENT_LOWAT, 16384}}) {
      int value = 0;
      socklen_t length = sizeof value;
      EXPECT_EQ(getsockopt(sock.get(), level, option, &value, &length), 0);
      EXPECT_EQ(value, wanted) << option;
    }
  }
}

TEST_F(connecting, refused) {
  const local_port server(false);
  const std::string refused = std::to_string(ECONNREFUSED);
  for (const int limit : {0, 1}) EXPECT_EQ(dl_connect("127.0.0.1", server.port(), 0, limit), DL_ERR_CONNECT);
  const auto errors = log.messages(DL_LOG_ERROR);
  ASSERT_EQ(errors.size(), 2U) << log.all();
  EXPECT_EQ(errors[0], "Connect Failed! ret -1, errno " + refused + " timeout 0 error -1");
  EXPECT_NE(errors[1].find(refused), std::string::npos) << "as errno or, behind a wait, as SO_ERROR";
}

// A server whose queue of waiting connections is full answers nothing until it takes one.
struct full_port : local_port {
  full_port() : local_port(true, 0) {
    for (unique_fd& one : fill) {
      one.reset(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
      connect(one.get(), get(), length);
    }
  }
  unique_fd fill[3];
};

TEST_F(connecting, no_answer_ends_with_the_time_out) {
  full_port server;
  const auto begin = clock::now();
  EXPECT_EQ(dl_connect("127.0.0.1", server.port(), 0, 1), DL_ERR_CONNECT);
  EXPECT_GE(seconds(clock::now() - begin).count(), 0.9);
  EXPECT_EQ(log.count("Connect Failed! ret 0, errno "), 1U) << log.all();
  EXPECT_EQ(log.count("timeout 1 error -1"), 1U) << "no SO_ERROR: " << log.all();
}

TEST_F(connecting, hosts_that_cannot_be_looked_up) {
  for (const char* host : {"host\n.invalid.", "", "::1", static_cast<const char*>(nullptr)})  // IPv6 is off
    EXPECT_EQ(dl_connect(host, 80, 0, 1), DL_ERR_HOST);
  EXPECT_TRUE(log.contains("DCMN", DL_LOG_INFO, "Connecting host?.invalid.:80")) << log.all();
  EXPECT_EQ(log.count("getaddrinfo: "), 4U) << log.all();
}

TEST_F(connecting, waits_tell_readiness_above_descriptor_1023_too) {
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit raised = {std::max<rlim_t>(limit.rlim_cur, 1200), limit.rlim_max};
  if (setrlimit(RLIMIT_NOFILE, &raised) != 0) GTEST_SKIP() << "too few descriptors";
  {
    const unique_fd high(fcntl(near.get(), F_DUPFD_CLOEXEC, 1100));
    EXPECT_EQ(dl_select(high.get(), wait_readable, 0), 0);
    EXPECT_EQ(dl_select(high.get(), wait_readable | wait_writable, 5), 1);
    ASSERT_EQ(send(far.get(), "x", 1, 0), 1);
    EXPECT_EQ(dl_select(high.get(), wait_readable, 5), 1);
    EXPECT_EQ(dl_select(high.get(), wait_readable | wait_writable, 5), 2) << "counts like select()";
    EXPECT_LT(dl_select(high.get(), wait_readable, -1), 0);
  }
  for (const int closed : {1100, -1}) {
    errno = 0;
    EXPECT_LT(dl_select(closed, wait_readable, 1), 0);
    EXPECT_EQ(errno, EBADF);
  }
  setrlimit(RLIMIT_NOFILE, &limit);
}

std::atomic<int> signals_taken{0};
void take_signal(int) {
  ++signals_taken;
}

// Signals every 20 ms, without SA_RESTART.
struct many_signals {
  many_signals() {
    struct sigaction action = {};
    action.sa_handler = take_signal;
    EXPECT_EQ(sigaction(SIGALRM, &action, &before), 0);
    EXPECT_EQ(setitimer(ITIMER_REAL, &often, nullptr), 0);
  }
  ~many_signals() {
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    EXPECT_GT(signals_taken.exchange(0), 1);
  }
  const itimerval often = {{0, 20000}, {0, 20000}}, never = {};
  struct sigaction before = {};
};

TEST_F(connecting, signals_neither_end_nor_prolong_a_wait) {
  const many_signals signals;
  const auto begin = clock::now();
  EXPECT_EQ(dl_select(near.get(), wait_readable, 1), 0);
  const double waited = seconds(clock::now() - begin).count();
  EXPECT_TRUE(waited >= 0.99 && waited < 5) << waited;
}

TEST_F(connecting, a_signal_does_not_end_a_connect_without_a_time_out) {
  full_port server;
  const many_signals signals;
  const std::jthread later([&](const std::stop_token& over) {
    while (signals_taken < 3) std::this_thread::yield();
    for (unique_fd& one : server.fill) one.reset();
    while (!over.stop_requested()) {
      if (wait_for(server.sock.get(), POLLIN, 20) > 0) unique_fd(accept(server.sock.get(), nullptr, nullptr));
    }
  });
  const unique_fd sock(dl_connect("127.0.0.1", server.port(), 0, 0));
  EXPECT_GT(sock.get(), 2) << log.all();
}

// SIGPIPE would end the test.
TEST_F(connecting, sends_fail_without_a_signal) {
  far.reset();
  EXPECT_EQ(dl_send_all(near.get(), "x", 1), DL_ERR_SEND);
  const local_port server(true);
  const unique_fd unread(dl_connect("127.0.0.1", server.port(), 0, 1));
  const std::string more(16000000, 'c');
  EXPECT_EQ(dl_send_all(unread.get(), more.data(), 16000000), DL_ERR_SEND) << "given up after the time-out";
}

}  // namespace
