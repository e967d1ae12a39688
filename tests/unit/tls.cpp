// tls.cpp: which certificates name which hosts, and connections as only the system's own sockets tell. All else of TLS
// is told by scenarios.
#include <fcntl.h>
#include <sys/socket.h>

#include <chrono>
#include <functional>
#include <future>
#include <thread>

#include "core/openssl_owners.h"
#include "core/owners.h"
#include "include/fetchrig_openssl.h"
#include "net/tls_host.h"
#include "net/tls_stream.h"
#include "tests/support/descriptors.h"
#include "tests/support/log_capture.h"
#include "tests/support/named_certificate.h"
#include "tests/support/options.h"
#include "tests/support/pki.h"

namespace test {
namespace {

using namespace fetchrig;
using namespace std::string_literals;
using lines = std::vector<std::string>;

TEST(host_name, is_compared_with_the_certificates_names) {
  const log_capture log;
  const std::string ipv4 = "IP:\x7f\0\0\1"s, ipv6 = "IP:\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\1"s,
                    long_name(300, 'n');
  // clang-format off
  const struct { const char* what; std::optional<std::string> common_name; lines alternatives, named, others; }
  rows[] = {
      {"names", "x", {"URI:u.example", "DNS:other", "DNS:Host.Example"}, {"hOST.eXAMPLE", "other"},
       {"host.example2", "www.host.example", "u.example", "x.example"}},
      {"empty names and NUL", "x", {"DNS:", "DNS:\0"s, "DNS:good.example\0.evil.example"s}, {}, {"", "good.example"}},
      {"wildcard", "x", {"DNS:*.Example.org"}, {"WWW.example.org", ".example.org"}, {"a.b.example.org", "example.org"}},
      {"no wildcards", "x", {"DNS:*example.org", "DNS:w*.example.org", "DNS:www.*.org", "DNS:*", "DNS:*.", "DNS:*.h"},
       {}, {"wexample.org", "www.example.org", "h"}},
      {"common name", "host.example", {"DNS:other"}, {"HOST.example"}, {"host"}},
      {"common name, wildcard", "*.example.org", {}, {"www.example.org"}, {"a.b.example.org"}},
      {"common name, 255 characters count", long_name, {}, {long_name.substr(0, 255)}, {long_name}},
      {"no common name", {}, {"DNS:h"}, {"h"}, {"host"}},
      {"IPv4", "x", {ipv4, "DNS:127.0.0.2"}, {"127.0.0.1", "127.1"}, {"127.0.0.2", "localhost", "::1"}},
      {"not quite IPv4", "x", {"DNS:1.2.3.400", "DNS:2130706433", "DNS:127.0.0.1.", "DNS:1.example"},
       {"1.2.3.400", "2130706433", "127.0.0.1.", "1.example"}, {}},
      {"IPv6", "x", {ipv6, "DNS:::2"}, {"::1", "[::1]", "[0:0:0:0:0:0:0:1]"}, {"::2"}},
      {"not quite IPv6", "x", {"DNS:::1::", "DNS:[::g]", "DNS:::h"}, {"::1::", "[::g]"}, {"[::h]"}},
      {"common name spells the address", "::1", {}, {"::1"}, {}},
  };
  // clang-format on
  for (const auto& row : rows) {
    const unique_x509 certificate = named_certificate(row.common_name, row.alternatives);
    const auto check = [&](const std::string& host) {
      return ssl_check_host_name(certificate.get(), host.c_str());
    };
    for (const std::string& host : row.named) EXPECT_EQ(check(host), 0) << row.what << ": " << host;
    for (const std::string& host : row.others) EXPECT_EQ(check(host), -1) << row.what << ": " << host;
  }
  EXPECT_EQ(log.messages(), lines{"TLS: unable to get common name from peer certificate."}) << "of \"host\"";
}

// A connection to a server of TLS 1.2 in a thread, which does `serve` behind the handshake.
struct connection : socket_pair {
  explicit connection(const std::function<void(SSL*)>& serve) {
    server = std::jthread([serve, far = far.release()] {
      static const identity who = make_identity("server");
      const unique_fd end(far);
      const unique_ssl_ctx context(SSL_CTX_new(TLS_server_method()));
      SSL_CTX_set_max_proto_version(context.get(), TLS1_2_VERSION);
      SSL_CTX_use_certificate(context.get(), who.certificate.get());
      SSL_CTX_use_PrivateKey(context.get(), who.key.get());
      const unique_ssl session(SSL_new(context.get()));
      SSL_set_fd(session.get(), far);
      if (SSL_accept(session.get()) == 1) serve(session.get());
    });
    SSL* made_ssl = nullptr;
    SSL_CTX* made_ctx = nullptr;
    EXPECT_EQ(dl_do_SSL_connect(near.get(), "", "/", 3, 0, 0, "h", &made_ssl, &made_ctx), 0);
    ssl.reset(made_ssl);
    ctx.reset(made_ctx);
  }
  ~connection() {
    SSL_shutdown(ssl.get());
    near.reset();
  }

  std::jthread server;
  unique_ssl_ctx ctx;
  unique_ssl ssl;
};

// Takes so many bytes at most.
bool take(SSL* ssl, std::size_t count) {
  std::string bytes(count, '\0');
  for (int got = 0; count > 0; count -= static_cast<std::size_t>(got))
    if ((got = SSL_read(ssl, bytes.data(), static_cast<int>(count))) <= 0) return false;
  return true;
}

class tls : public leak_free {
  const library library_;
};

// The limit is in whole seconds, so this takes longer than one.
TEST_F(tls, a_steady_upload_may_take_longer_than_the_limit) {
  dl_set_tls_wait_limit(1);
  const connection to([](SSL* ssl) {
    char bytes[1024];
    for (int i = 0; i < 16; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(120));
      recv(SSL_get_fd(ssl), bytes, sizeof bytes, MSG_WAITALL);
    }
  });
  const int least = 1;
  setsockopt(to.near.get(), SOL_SOCKET, SO_SNDBUF, &least, sizeof least);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(tls_stream(to.ssl.get()).write_all(std::string(16384, 'c')), 0) << "one record";
  EXPECT_GT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
}

// An application polls the descriptor of its session and reads and writes by itself.
TEST_F(tls, a_session_behaves_like_one_over_a_socket_bio) {
  for (const unsigned limit_s : {0U, 60U}) {
    dl_set_tls_wait_limit(limit_s);
    std::promise<void> read_on;
    const connection to([&](SSL* server) {
      read_on.get_future().wait();
      SSL_write(server, "x", 1);
      while (take(server, 16384)) continue;
    });
    SSL* ssl = to.ssl.get();
    const int sock = to.near.get();
    EXPECT_EQ(SSL_get_fd(ssl), sock);
    EXPECT_EQ(BIO_get_close(SSL_get_wbio(ssl)), BIO_NOCLOSE);
    EXPECT_EQ(SSL_get_read_ahead(ssl), 0);
    fcntl(sock, F_SETFL, O_NONBLOCK);
    char byte = 0;
    EXPECT_EQ(SSL_get_error(ssl, SSL_read(ssl, &byte, 1)), SSL_ERROR_WANT_READ);
    const std::string content(16384, 'c');
    int written = 0;
    while ((written = SSL_write(ssl, content.data(), 16384)) > 0) continue;
    EXPECT_EQ(SSL_get_error(ssl, written), SSL_ERROR_WANT_WRITE);
    read_on.set_value();
    EXPECT_GT(dl_select(sock, 2, 5), 0);
    while (SSL_write(ssl, content.data(), 16384) < 0) dl_select(sock, 2, 5);  // goes on where it stopped
    EXPECT_GT(dl_select(sock, 1, 5), 0);
    EXPECT_EQ(SSL_read(ssl, &byte, 1), 1);
  }
}

// SIGPIPE would end the test.
TEST_F(tls, writing_to_a_closed_connection_fails_without_a_signal) {
  connection to([](SSL*) {});
  to.server.join();
  const std::string content(1000000, 'c');  // the same bytes again, or OpenSSL refuses before it sends
  for (int again = 0; again < 2; ++again) EXPECT_EQ(tls_stream(to.ssl.get()).write_all(content), -1);
}

}  // namespace
}  // namespace test
