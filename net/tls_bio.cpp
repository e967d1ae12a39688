// SPDX-License-Identifier: MIT
// tls_bio.cpp: the socket BIO under every TLS connection.
#include "net/tls_bio.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdint.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <new>

#include "log/clock.h"
#include "net/socket.h"

namespace fetchrig {
namespace {

// One operation may take this many limits altogether, however steadily bytes trickle.
constexpr int max_limits_per_operation = 10;

struct tls_socket {
  int sock;
  unsigned limit_s;  // of a wait; 0: none
  int64_t end_ms;    // of the operation at work, 0 between operations; used with a limit alone
};

tls_socket* data_of(BIO* bio) {
  return static_cast<tls_socket*>(BIO_get_data(bio));
}

bool is_blocking(int sock) {
  const int flags = ::fcntl(sock, F_GETFL);
  return flags >= 0 && (flags & O_NONBLOCK) == 0;
}

// What a wait may take: the limit, and no longer than the operation at work.
int64_t wait_left_ms(const tls_socket& data) {
  const int64_t limit_ms = int64_t{data.limit_s} * 1000;
  return data.end_ms > 0 ? std::min(limit_ms, data.end_ms - now_ms()) : limit_ms;
}

// False with errno; the end of the time is an error like any other.
bool wait_ready(const tls_socket& data, short events) {
  if (data.limit_s == 0) return wait_to_send(data.sock);
  const int ready = wait_for(data.sock, events, std::max<int64_t>(0, wait_left_ms(data)));
  if (ready == 0) errno = ETIMEDOUT;
  return ready > 0;
}

// Calls `transfer` with the flags for recv() or send() until it moves bytes or fails. Without a limit a blocking
// receive waits by itself; with one, and for sending, it is tried, then waited for. On a socket that its owner made
// non-blocking nothing waits.
template <typename Transfer>
int move_bytes(const tls_socket& data, short events, Transfer transfer) {
  const bool tries_first = data.limit_s > 0 || events == POLLOUT;
  for (;;) {
    if (data.limit_s > 0 && wait_left_ms(data) <= 0) {
      errno = ETIMEDOUT;
      return -1;
    }
    const ssize_t count = transfer(tries_first ? MSG_DONTWAIT : 0);
    if (count >= 0) return static_cast<int>(count);
    if (errno == EINTR) continue;
    const bool waits = tries_first && would_block() && is_blocking(data.sock);
    if (!waits || !wait_ready(data, events)) return -1;
  }
}

int bio_read(BIO* bio, char* to, int size) {
  BIO_clear_retry_flags(bio);
  if (size <= 0) return -1;
  const int count = move_bytes(*data_of(bio), POLLIN, [&](int flags) {
    return ::recv(data_of(bio)->sock, to, static_cast<std::size_t>(size), flags);
  });
  if (count == 0) BIO_set_flags(bio, BIO_FLAGS_IN_EOF);
  if (count < 0 && would_block()) BIO_set_retry_read(bio);
  return count;
}

int bio_write(BIO* bio, const char* from, int size) {
  BIO_clear_retry_flags(bio);
  if (size <= 0) return -1;
  const int count = move_bytes(*data_of(bio), POLLOUT, [&](int flags) {
    return ::send(data_of(bio)->sock, from, static_cast<std::size_t>(size), flags | MSG_NOSIGNAL);
  });
  if (count < 0 && would_block()) BIO_set_retry_write(bio);
  return count;
}

// A control command of our own, by which our BIOs are known. Only those of this copy of the library answer.
constexpr int ask_for_socket = 0x66726967;
const char this_copy = 0;
struct socket_question {
  const char* asked_by = &this_copy;
  tls_socket* answer = nullptr;
};

long answer(BIO* bio, void* asked) {
  auto* question = static_cast<socket_question*>(asked);
  if (!question || question->asked_by != &this_copy) return 0;
  question->answer = data_of(bio);
  return 1;
}

long bio_control(BIO* bio, int command, long number, void* place) {
  switch (command) {
    case ask_for_socket:
      return answer(bio, place);
    case BIO_C_GET_FD:
      if (place) *static_cast<int*>(place) = data_of(bio)->sock;
      return data_of(bio)->sock;
    case BIO_CTRL_GET_CLOSE:
      return BIO_get_shutdown(bio);
    case BIO_CTRL_SET_CLOSE:
      BIO_set_shutdown(bio, static_cast<int>(number));
      return 1;
    case BIO_CTRL_FLUSH:
    case BIO_CTRL_DUP:
      return 1;
    case BIO_CTRL_EOF:
      return BIO_test_flags(bio, BIO_FLAGS_IN_EOF) != 0;
    default:
      return 0;
  }
}

// Over a descriptor that SSL_get_fd() finds. Without an index of its own, as OpenSSL never takes one back.
constexpr int bio_type = BIO_TYPE_SOURCE_SINK | BIO_TYPE_DESCRIPTOR;

// Made at the first connection. Connections refer to it until they are freed, so when the process ends or unloads the
// library it is freed only if there are none. Who makes a connection counts it before looking for the method.
std::atomic<BIO_METHOD*> socket_method{nullptr};
std::atomic<int> num_connections{0};

int bio_create(BIO*) {
  ++num_connections;
  return 1;
}

int bio_destroy(BIO* bio) {
  if (data_of(bio) && BIO_get_shutdown(bio)) ::close(data_of(bio)->sock);
  delete data_of(bio);
  BIO_set_data(bio, nullptr);
  --num_connections;
  return 1;
}

BIO_METHOD* make_method() {
  BIO_METHOD* method = BIO_meth_new(bio_type, "fetchrig socket");
  if (!method) return nullptr;
  BIO_meth_set_read(method, bio_read);
  BIO_meth_set_write(method, bio_write);
  BIO_meth_set_ctrl(method, bio_control);
  BIO_meth_set_create(method, bio_create);
  BIO_meth_set_destroy(method, bio_destroy);
  return method;
}

const BIO_METHOD* method_of_connections() {
  if (const BIO_METHOD* known = socket_method) return known;
  BIO_METHOD* const made = make_method();
  BIO_METHOD* known = nullptr;
  if (socket_method.compare_exchange_strong(known, made)) return made;
  BIO_meth_free(made);
  return known;
}

__attribute__((destructor)) void on_unload() {
  BIO_METHOD* const method = socket_method.exchange(nullptr);
  if (num_connections == 0) BIO_meth_free(method);
}

BIO* new_bio() {
  ++num_connections;
  const BIO_METHOD* method = method_of_connections();
  BIO* bio = method ? BIO_new(method) : nullptr;
  --num_connections;  // it counts itself
  return bio;
}

// Null for a connection over another kind of BIO.
tls_socket* socket_of(SSL* ssl) {
  socket_question question;
  if (BIO* bio = SSL_get_rbio(ssl)) BIO_ctrl(bio, ask_for_socket, 0, &question);
  return question.answer;
}

}  // namespace

BIO* new_tls_bio(int sock, unsigned limit_s) {
  BIO* bio = new_bio();
  if (!bio) return nullptr;
  auto* data = new (std::nothrow) tls_socket{sock, limit_s, 0};
  if (!data) {
    BIO_free(bio);
    return nullptr;
  }
  BIO_set_data(bio, data);
  BIO_set_shutdown(bio, BIO_NOCLOSE);
  BIO_set_init(bio, 1);
  return bio;
}

void start_tls_operation(SSL* ssl) {
  tls_socket* data = socket_of(ssl);
  if (data && data->limit_s > 0)
    data->end_ms = now_ms() + int64_t{data->limit_s} * 1000 * max_limits_per_operation;
}

void end_tls_operation(SSL* ssl) {
  if (tls_socket* data = socket_of(ssl)) data->end_ms = 0;
}

}  // namespace fetchrig
