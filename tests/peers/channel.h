// channel.h: one connection of a scripted peer, plain or TLS, with a time limit on every wait and a
// descriptor that ends all waits. One thread at a time.
#ifndef FETCHRIG_TESTS_PEERS_CHANNEL_H
#define FETCHRIG_TESTS_PEERS_CHANNEL_H

#include <openssl/ssl.h>

#include <memory>
#include <string>
#include <string_view>

namespace test {

struct ssl_free {
  void operator()(SSL* ssl) const { SSL_free(ssl); }
};
struct ssl_ctx_free {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};

class channel {
 public:
  // Owns `fd`, a connected socket. `wake_fd` becomes readable when the peer is to stop.
  channel(int fd, int wake_fd, int limit_ms) : fd_(fd), wake_fd_(wake_fd), limit_ms_(limit_ms) {}
  ~channel();
  channel(const channel&) = delete;
  channel& operator=(const channel&) = delete;

  // The server's side of the TLS handshake; everything after it is encrypted. An empty text or the reason.
  std::string accept_tls(SSL_CTX* context);
  // Some bytes; empty at the end of the stream, when the time is up or when stopping.
  std::string read_some();
  // False when the client is gone or does not read.
  bool write_all(std::string_view bytes);
  // Ends our direction, with TLS's farewell when there is TLS, and reads until the client closes.
  std::string end_and_drain();
  // Closes now. `reset`: with RST, and without TLS's farewell in any case.
  void close_now(bool reset);
  const SSL* tls() const { return ssl_.get(); }

 private:
  int fd_;
  int wake_fd_;
  int limit_ms_;
  std::unique_ptr<SSL, ssl_free> ssl_;
  // Waits for `events` on the socket; false when the time is up or when stopping.
  bool wait(short events) const;
  bool wait_for_tls(int result) const;
};

}  // namespace test
#endif
