// tcp_peer.h: the other side of a TCP or TLS conversation, played from a script: lists of steps, one list for
// each connection in the order they come in. Listens on loopback at a port the system chose; every connection
// is played in a thread of its own and records what the client sent. Every wait has a limit; the destructor
// ends all waits, joins, and fails the test when the client did not say what the script expected.
//
//   tcp_peer server({{expect_until("\r\n\r\n"), send("HTTP/1.1 204 No Content\r\n\r\n")}});
//   ... talk to 127.0.0.1 at server.port() ...
//   EXPECT_EQ("GET / HTTP/1.1\r\n...", server.received(0));
#ifndef FETCHRIG_TESTS_PEERS_TCP_PEER_H
#define FETCHRIG_TESTS_PEERS_TCP_PEER_H

#include <stdint.h>

#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace test {

enum class action { expect, expect_until, expect_length, send, stall, hang_up, reset, call };

// One thing a peer does on a connection. "@PORT@" in its bytes stands for the peer's own port. A script that
// ends closes the connection in good order: it ends our direction and reads on until the client closes, too.
struct step {
  action what;
  std::string bytes = {};
  std::size_t amount = 0;
  std::function<void()> hook = {};
};
using connection_script = std::vector<step>;

step expect(std::string bytes);             // exactly these bytes come next
step expect_until(std::string terminator);  // bytes come up to and with the terminator
step expect_length(std::size_t amount);     // so many bytes come
step send(std::string bytes);               // as the peer's delivery says
step stall();                               // waits, silent, until the client closes
step hang_up();                             // closes at once, without TLS's farewell
step reset();                               // closes with RST
step call(std::function<void()> hook);      // runs in the connection's thread

// How `send` steps arrive. glued: what consecutive steps send goes out as one.
enum class delivery { whole, byte_by_byte, glued };
inline constexpr delivery all_deliveries[] = {delivery::whole, delivery::byte_by_byte, delivery::glued};
std::ostream& operator<<(std::ostream& out, delivery mode);

// The server's side of TLS. Versions are OpenSSL's numbers (TLS1_VERSION, TLS1_2_VERSION, ...).
struct tls_settings {
  std::string cert_file;  // PEM, with the chain behind it
  std::string key_file;
  int min_version = 0;
  int max_version = 0;
  std::string client_ca_file = {};  // not empty: a client certificate of this CA is demanded
};

struct peer_settings {
  delivery mode = delivery::whole;
  bool ipv6 = false;
  std::optional<tls_settings> tls = {};
  bool repeat_last = false;  // the last script also serves all further connections
  int limit_ms = 10000;      // of each wait
};

// What the TLS handshake of a connection came to.
struct tls_facts {
  std::string failure;  // empty: it succeeded
  std::string version;  // "TLSv1.2"
  std::string server_name;
  std::string client_subject;  // "/CN=phone", empty without a client certificate
};

class tcp_peer {
 public:
  explicit tcp_peer(std::vector<connection_script> scripts, peer_settings settings = {});
  ~tcp_peer();
  tcp_peer(const tcp_peer&) = delete;
  tcp_peer& operator=(const tcp_peer&) = delete;

  uint16_t port() const;
  // "http://127.0.0.1:PORT" for scheme "http"; an IPv6 peer's address is in brackets.
  std::string url(const std::string& scheme, const std::string& path = "") const;

  // Waits until every scripted connection was made and has ended; false when the time limit came first.
  bool finish();
  // The rest is best asked after finish(). Connections are counted from 0.
  std::size_t num_connections() const;
  std::string received(std::size_t connection) const;
  tls_facts tls(std::size_t connection) const;
  // What went otherwise than scripted. Once asked for, the destructor no longer fails the test for it.
  std::vector<std::string> problems();

 private:
  struct state;
  std::unique_ptr<state> state_;
};

}  // namespace test
#endif
