// tcp_peer.cpp: the accepting thread, a thread per connection, and the steps.
#include "tests/peers/tcp_peer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "tests/peers/channel.h"

namespace test {

step expect(std::string bytes) {
  return {action::expect, std::move(bytes)};
}
step expect_until(std::string terminator) {
  return {action::expect_until, std::move(terminator)};
}
step expect_length(std::size_t amount) {
  return {action::expect_length, {}, amount};
}
step send(std::string bytes) {
  return {action::send, std::move(bytes)};
}
step stall() {
  return {action::stall};
}
step hang_up() {
  return {action::hang_up};
}
step reset() {
  return {action::reset};
}
step call(std::function<void()> hook) {
  return {action::call, {}, 0, std::move(hook)};
}

std::ostream& operator<<(std::ostream& out, delivery mode) {
  switch (mode) {
    case delivery::whole:
      return out << "whole";
    case delivery::byte_by_byte:
      return out << "byte by byte";
    case delivery::glued:
      return out << "glued";
  }
  return out;
}

namespace {

using ssl_ctx_ptr = std::unique_ptr<SSL_CTX, ssl_ctx_free>;

// At security level 0, so that old protocol versions and weak certificates can be offered as well.
ssl_ctx_ptr make_context(const tls_settings& tls) {
  ssl_ctx_ptr context(SSL_CTX_new(TLS_server_method()));
  SSL_CTX* raw = context.get();
  SSL_CTX_set_security_level(raw, 0);
  SSL_CTX_set_min_proto_version(raw, tls.min_version);
  SSL_CTX_set_max_proto_version(raw, tls.max_version);
  if (SSL_CTX_use_certificate_chain_file(raw, tls.cert_file.c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(raw, tls.key_file.c_str(), SSL_FILETYPE_PEM) != 1) {
    throw std::runtime_error("cannot use " + tls.cert_file + " with " + tls.key_file);
  }
  if (!tls.client_ca_file.empty()) {
    if (SSL_CTX_load_verify_file(raw, tls.client_ca_file.c_str()) != 1) {
      throw std::runtime_error("cannot use " + tls.client_ca_file);
    }
    SSL_CTX_set_verify(raw, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  }
  return context;
}

tls_facts facts_of(const SSL* ssl) {
  tls_facts facts;
  facts.version = SSL_get_version(ssl);
  if (const char* name = SSL_get_servername(ssl, TLSEXT_NAMETYPE_host_name)) facts.server_name = name;
  if (const X509* certificate = SSL_get0_peer_certificate(ssl)) {
    char* subject = X509_NAME_oneline(X509_get_subject_name(certificate), nullptr, 0);
    facts.client_subject = subject;
    OPENSSL_free(subject);
  }
  return facts;
}

int listen_on_loopback(bool ipv6, uint16_t& port) {
  const int fd = socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in6 address = {};
  socklen_t address_len = ipv6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  if (ipv6) {
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
  } else {
    auto* ipv4 = reinterpret_cast<sockaddr_in*>(&address);
    ipv4->sin_family = AF_INET;
    ipv4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  }
  if (fd < 0 || bind(fd, generic, address_len) != 0 || listen(fd, 64) != 0 ||
      getsockname(fd, generic, &address_len) != 0) {
    if (fd >= 0) close(fd);
    throw std::runtime_error("cannot listen on loopback");
  }
  port = ntohs(address.sin6_port);  // at the same place in both address families
  return fd;
}

void name_port(std::vector<connection_script>& scripts, uint16_t port) {
  const std::string_view mark = "@PORT@";
  for (connection_script& script : scripts) {
    for (step& now : script) {
      for (auto at = now.bytes.find(mark); at != std::string::npos; at = now.bytes.find(mark, at)) {
        now.bytes.replace(at, mark.size(), std::to_string(port));
      }
    }
  }
}

std::string shown(const std::string& bytes) {
  return ::testing::PrintToString(bytes.substr(0, 2000));
}

// What one connection did; written by its thread under the peer's lock.
struct connection_record {
  std::string received;
  tls_facts tls;
};

}  // namespace

struct tcp_peer::state {
  std::vector<connection_script> scripts;
  peer_settings settings;
  ssl_ctx_ptr context;
  int listener = -1;
  int wake_fd = -1;
  uint16_t port = 0;

  std::mutex lock;  // guards what follows
  std::condition_variable ended_one;
  std::deque<connection_record> records;
  std::vector<std::string> problems;
  std::size_t ended = 0;
  bool problems_taken = false;
  std::vector<std::thread> players;
  std::thread acceptor;

  void accept_all();
  void serve(int fd, std::size_t index);
  void add_problem(std::size_t index, const std::string& text) {
    const std::lock_guard hold(lock);
    problems.push_back("connection " + std::to_string(index) + ": " + text);
  }
};

namespace {

// Plays one connection's script. `received` grows by what the client sends; `taken` of it was expected
// already.
class player {
 public:
  player(channel& link, delivery mode) : link_(link), mode_(mode) {}

  // An empty text, or what went wrong.
  std::string play(const connection_script& script);
  std::string received;

 private:
  channel& link_;
  delivery mode_;
  std::size_t taken_ = 0;
  bool closed_ = false;

  bool read_more();
  std::string take(const step& wanted);
  std::string run(const step& now);
  bool send_bytewise(std::string_view bytes);
};

bool player::read_more() {
  const std::string piece = link_.read_some();
  received += piece;
  return !piece.empty();
}

std::string player::take(const step& wanted) {
  for (;;) {
    const std::string_view rest = std::string_view(received).substr(taken_);
    if (wanted.what == action::expect_until) {
      const std::size_t at = rest.find(wanted.bytes);
      if (at != std::string_view::npos) return taken_ += at + wanted.bytes.size(), "";
    } else if (wanted.what == action::expect_length) {
      if (rest.size() >= wanted.amount) return taken_ += wanted.amount, "";
    } else {
      const std::size_t common = std::min(rest.size(), wanted.bytes.size());
      if (rest.substr(0, common) != std::string_view(wanted.bytes).substr(0, common)) break;
      if (common == wanted.bytes.size()) return taken_ += common, "";
    }
    if (!read_more()) break;
  }
  const std::string what =
      wanted.what == action::expect_length ? std::to_string(wanted.amount) + " bytes" : shown(wanted.bytes);
  return "expected " + what + ", got " + shown(received.substr(taken_));
}

bool player::send_bytewise(std::string_view bytes) {
  for (; !bytes.empty(); bytes.remove_prefix(1)) {
    if (!link_.write_all(bytes.substr(0, 1))) return false;
  }
  return true;
}

// A client that goes away while we send is no fault of its own: what it made of the answer is for the test to
// check.
std::string player::run(const step& now) {
  switch (now.what) {
    case action::expect:
    case action::expect_until:
    case action::expect_length:
      return take(now);
    case action::send:
      if (mode_ == delivery::byte_by_byte)
        closed_ = !send_bytewise(now.bytes);
      else
        closed_ = !link_.write_all(now.bytes);
      return {};
    case action::stall:
      while (read_more()) {
      }
      closed_ = true;
      return {};
    case action::hang_up:
    case action::reset:
      link_.close_now(now.what == action::reset);
      closed_ = true;
      return {};
    case action::call:
      now.hook();
      return {};
  }
  return {};
}

// Consecutive sends as one.
connection_script glued(const connection_script& script) {
  connection_script joined;
  for (const step& now : script) {
    if (now.what == action::send && !joined.empty() && joined.back().what == action::send) {
      joined.back().bytes += now.bytes;
    } else {
      joined.push_back(now);
    }
  }
  return joined;
}

std::string player::play(const connection_script& script) {
  for (const step& now : mode_ == delivery::glued ? glued(script) : script) {
    if (closed_) return {};
    if (std::string problem = run(now); !problem.empty()) return problem;
  }
  if (!closed_) received += link_.end_and_drain();
  return {};
}

}  // namespace

void tcp_peer::state::serve(int fd, std::size_t index) {
  channel link(fd, wake_fd, settings.limit_ms);
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  connection_record record;
  if (context) {
    record.tls.failure = link.accept_tls(context.get());
    if (record.tls.failure.empty()) record.tls = facts_of(link.tls());
  }
  if (record.tls.failure.empty()) {
    player one(link, settings.mode);
    const std::string problem = one.play(scripts[std::min(index, scripts.size() - 1)]);
    if (!problem.empty()) add_problem(index, problem);
    record.received = std::move(one.received);
  }
  link.close_now(false);
  const std::lock_guard hold(lock);
  records[index] = std::move(record);
  ++ended;
  ended_one.notify_all();
}

void tcp_peer::state::accept_all() {
  for (;;) {
    pollfd watched[2] = {{listener, POLLIN, 0}, {wake_fd, POLLIN, 0}};
    if (poll(watched, 2, -1) < 0) continue;
    if (watched[1].revents != 0) return;
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    const std::lock_guard hold(lock);
    const std::size_t index = records.size();
    records.emplace_back();
    if (index >= scripts.size() && !settings.repeat_last) {
      problems.push_back("connection " + std::to_string(index) + " has no script");
      ++ended;
      close(fd);
      continue;
    }
    players.emplace_back([this, fd, index] { serve(fd, index); });
  }
}

tcp_peer::tcp_peer(std::vector<connection_script> scripts, peer_settings settings)
    : state_(std::make_unique<state>()) {
  state_->scripts = std::move(scripts);
  if (settings.tls) state_->context = make_context(*settings.tls);
  state_->settings = std::move(settings);
  state_->listener = listen_on_loopback(state_->settings.ipv6, state_->port);
  name_port(state_->scripts, state_->port);
  state_->wake_fd = eventfd(0, EFD_CLOEXEC);
  // A client that closes raises SIGPIPE in OpenSSL's writes. It is blocked in the peer's threads alone, so
  // that the library's own care for it is tested.
  sigset_t pipe_signal;
  sigset_t before;
  sigemptyset(&pipe_signal);
  sigaddset(&pipe_signal, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe_signal, &before);
  state_->acceptor = std::thread([this] { state_->accept_all(); });
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

tcp_peer::~tcp_peer() {
  eventfd_write(state_->wake_fd, 1);
  state_->acceptor.join();
  for (std::thread& player : state_->players) player.join();
  close(state_->listener);
  close(state_->wake_fd);
  if (state_->problems_taken) return;
  for (const std::string& problem : state_->problems) ADD_FAILURE() << "scripted peer, " << problem;
}

uint16_t tcp_peer::port() const {
  return state_->port;
}

std::string tcp_peer::url(const std::string& scheme, const std::string& path) const {
  const char* host = state_->settings.ipv6 ? "[::1]" : "127.0.0.1";
  return scheme + "://" + host + ":" + std::to_string(state_->port) + path;
}

bool tcp_peer::finish() {
  std::unique_lock hold(state_->lock);
  const auto limit = std::chrono::milliseconds(state_->settings.limit_ms);
  return state_->ended_one.wait_for(hold, limit, [this] {
    return state_->ended >= state_->scripts.size() && state_->ended == state_->records.size();
  });
}

std::size_t tcp_peer::num_connections() const {
  const std::lock_guard hold(state_->lock);
  return state_->records.size();
}

std::string tcp_peer::received(std::size_t connection) const {
  const std::lock_guard hold(state_->lock);
  return connection < state_->records.size() ? state_->records[connection].received : std::string();
}

tls_facts tcp_peer::tls(std::size_t connection) const {
  const std::lock_guard hold(state_->lock);
  return connection < state_->records.size() ? state_->records[connection].tls : tls_facts{};
}

std::vector<std::string> tcp_peer::problems() {
  const std::lock_guard hold(state_->lock);
  state_->problems_taken = true;
  return state_->problems;
}

}  // namespace test
