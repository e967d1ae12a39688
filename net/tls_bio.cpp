// tls_bio.cpp: the socket BIO under every TLS connection.
#include "net/tls_bio.h"

#include <errno.h>
#include <poll.h>
#include <stdint.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <new>

namespace fetchrig {
namespace {

struct tls_socket {
  int sock;
  unsigned limit_s;
  int64_t deadline_ms;  // of the operation at work, 0 between operations; used with a limit alone
};

int64_t now_ms() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

tls_socket* data_of(BIO* bio) {
  return static_cast<tls_socket*>(BIO_get_data(bio));
}

// False, with errno ETIMEDOUT, when the operation's time is over before the socket is ready.
bool wait_ready(const tls_socket& data, short events) {
  if (data.limit_s == 0) return true;
  const int64_t deadline_ms =
      data.deadline_ms > 0 ? data.deadline_ms : now_ms() + int64_t{data.limit_s} * 1000;
  for (;;) {
    const int64_t left = deadline_ms - now_ms();
    pollfd entry = {data.sock, events, 0};
    const int ready = left > 0 ? ::poll(&entry, 1, static_cast<int>(std::min<int64_t>(left, INT32_MAX))) : 0;
    if (ready > 0) return true;
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) errno = ETIMEDOUT;
    return false;
  }
}

int bio_read(BIO* bio, char* to, int size) {
  const tls_socket& data = *data_of(bio);
  BIO_clear_retry_flags(bio);
  if (size <= 0 || !wait_ready(data, POLLIN)) return -1;
  ssize_t count = 0;
  do {
    count = ::recv(data.sock, to, static_cast<std::size_t>(size), 0);
  } while (count < 0 && errno == EINTR);
  if (count == 0) BIO_set_flags(bio, BIO_FLAGS_IN_EOF);
  return static_cast<int>(count);
}

int bio_write(BIO* bio, const char* from, int size) {
  const tls_socket& data = *data_of(bio);
  BIO_clear_retry_flags(bio);
  if (size <= 0 || !wait_ready(data, POLLOUT)) return -1;
  ssize_t count = 0;
  do {
    count = ::send(data.sock, from, static_cast<std::size_t>(size), MSG_NOSIGNAL);
  } while (count < 0 && errno == EINTR);
  return static_cast<int>(count);
}

long bio_control(BIO* bio, int command, long, void*) {
  switch (command) {
    case BIO_CTRL_FLUSH:
    case BIO_CTRL_DUP:
      return 1;
    case BIO_CTRL_EOF:
      return BIO_test_flags(bio, BIO_FLAGS_IN_EOF) != 0;
    default:
      return 0;
  }
}

int bio_destroy(BIO* bio) {
  delete data_of(bio);
  BIO_set_data(bio, nullptr);
  return 1;
}

// Marks BIOs as ours.
int bio_type() {
  static const int type = BIO_get_new_index() | BIO_TYPE_SOURCE_SINK;
  return type;
}

BIO_METHOD* make_method() {
  BIO_METHOD* method = BIO_meth_new(bio_type(), "fetchrig socket");
  if (!method) return nullptr;
  BIO_meth_set_read(method, bio_read);
  BIO_meth_set_write(method, bio_write);
  BIO_meth_set_ctrl(method, bio_control);
  BIO_meth_set_destroy(method, bio_destroy);
  return method;
}

// Made at the first connection and kept for the process, as connections refer to it until they are freed.
const BIO_METHOD* socket_method() {
  static const BIO_METHOD* const method = make_method();
  return method;
}

// Null for a connection over another kind of BIO.
tls_socket* socket_of(SSL* ssl) {
  BIO* bio = SSL_get_rbio(ssl);
  return bio && BIO_method_type(bio) == bio_type() ? data_of(bio) : nullptr;
}

}  // namespace

BIO* new_tls_bio(int sock, unsigned limit_s) {
  const BIO_METHOD* method = socket_method();
  BIO* bio = method ? BIO_new(method) : nullptr;
  if (!bio) return nullptr;
  auto* data = new (std::nothrow) tls_socket{sock, limit_s, 0};
  if (!data) {
    BIO_free(bio);
    return nullptr;
  }
  BIO_set_data(bio, data);
  BIO_set_init(bio, 1);
  return bio;
}

void start_tls_operation(SSL* ssl) {
  tls_socket* data = socket_of(ssl);
  if (data && data->limit_s > 0) data->deadline_ms = now_ms() + int64_t{data->limit_s} * 1000;
}

void end_tls_operation(SSL* ssl) {
  if (tls_socket* data = socket_of(ssl)) data->deadline_ms = 0;
}

}  // namespace fetchrig
