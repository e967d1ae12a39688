// tls.cpp, tls_host.cpp, tls_bio.cpp and tls_stream.cpp: which certificates name which hosts, and connections
// to TLS servers in this process.
#include <fcntl.h>
#include <openssl/x509v3.h>

#include <chrono>
#include <future>

#include "core/openssl_owners.h"
#include "core/owners.h"
#include "include/fetchrig_openssl.h"
#include "net/tls_host.h"
#include "net/tls_stream.h"
#include "tests/peers/tcp_peer.h"
#include "tests/support/descriptors.h"
#include "tests/support/log_capture.h"
#include "tests/support/options.h"
#include "tests/support/pki.h"

namespace test {
namespace {

using namespace fetchrig;
using namespace std::string_literals;
using lines = std::vector<std::string>;

// A certificate that carries these names and nothing else: an alternative is "DNS:", "URI:" or "IP:" (raw
// bytes) and the value; a null common name is left out.
unique_x509 make_certificate(const std::optional<std::string>& common_name, const lines& alternatives) {
  unique_x509 certificate(X509_new());
  if (common_name) {
    X509_NAME_add_entry_by_NID(X509_get_subject_name(certificate.get()), NID_commonName, V_ASN1_UTF8STRING,
                               reinterpret_cast<const unsigned char*>(common_name->data()),
                               static_cast<int>(common_name->size()), -1, 0);
  }
  GENERAL_NAMES* names = GENERAL_NAMES_new();
  for (const std::string& text : alternatives) {
    const std::string value = text.substr(text.find(':') + 1);
    const int type = text.starts_with("DNS") ? GEN_DNS : text.starts_with("IP") ? GEN_IPADD : GEN_URI;
    ASN1_STRING* bytes = ASN1_STRING_type_new(type == GEN_IPADD ? V_ASN1_OCTET_STRING : V_ASN1_IA5STRING);
    ASN1_STRING_set(bytes, value.data(), static_cast<int>(value.size()));
    GENERAL_NAME* name = GENERAL_NAME_new();
    GENERAL_NAME_set0_value(name, type, bytes);
    sk_GENERAL_NAME_push(names, name);
  }
  X509_add1_ext_i2d(certificate.get(), NID_subject_alt_name, names, 0, 0);
  GENERAL_NAMES_free(names);
  return certificate;
}

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
    const unique_x509 certificate = make_certificate(row.common_name, row.alternatives);
    const auto check = [&](const std::string& host) {
      return ssl_check_host_name(certificate.get(), host.c_str());
    };
    for (const std::string& host : row.named) EXPECT_EQ(check(host), 0) << row.what << ": " << host;
    for (const std::string& host : row.others) EXPECT_EQ(check(host), -1) << row.what << ": " << host;
  }
  EXPECT_EQ(log.messages(), lines{"TLS: unable to get common name from peer certificate."}) << "of \"host\"";
}

// Made once; every test only reads.
struct certificates {
  certificates() {
    write_file(self.key, pem_of(foreign.root().key.get()));
    write_file(dir.file("mismatch.pem"), read_file(phone.cert) + read_file(good.key));
    write_file(dir.file("garbage.pem"), "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n");
    const identity weak = make_identity("old", new_rsa_key(2048), {.digest = EVP_md5()});
    write_file(dir.file("old.pem"), pem_of(weak.certificate.get()) + pem_of(weak.key.get()));
  }

  temp_dir dir;
  const test_ca ca{dir}, foreign{dir, "foreign"};
  const cert_files good = ca.issue("good", {"server", "DNS:localhost,IP:127.0.0.1"});
  const cert_files other = ca.issue("other", {"other.test", ""}),
                   common = ca.issue("common", {"LocalHost", ""});
  const cert_files expired = ca.issue("expired", {"localhost", "", -7200, -3600});
  const cert_files early = ca.issue("early", {"localhost", "", 3600, 7200});
  const cert_files unknown = foreign.issue("unknown", {"localhost", ""});
  const cert_files self = {foreign.file(), dir.file("self.key"), ""};
  const cert_files phone = ca.issue("phone", {"phone", ""});
  const cert_files locked = ca.issue("locked", {.common_name = "phone", .passphrase = "open sesame"});
};
const certificates& pki() {
  static const certificates all;
  return all;
}

tls_settings serving(const cert_files& files, int version = 0, const std::string& client_ca = "") {
  return {files.cert, files.key, version, version, client_ca};
}

// How dl_do_SSL_connect() is called.
struct client_settings {
  int verify_peer = 0;
  int verify_host = 0;
  const char* host = "localhost";
  std::string cert_file = "";
  int method = 3;
  std::string ca_dir = pki().ca.hashed_dir();
};

// A client's connection; `ssl` is null when the set-up failed.
struct client {
  explicit client(const tcp_peer& server, const client_settings& settings = {})
      : sock(dl_connect("127.0.0.1", server.port(), 0, 5)) {
    SSL* made_ssl = nullptr;
    SSL_CTX* made_ctx = nullptr;
    result =
        dl_do_SSL_connect(sock.get(), settings.cert_file.c_str(), settings.ca_dir.c_str(), settings.method,
                          settings.verify_peer, settings.verify_host, settings.host, &made_ssl, &made_ctx);
    ssl.reset(made_ssl);
    ctx.reset(made_ctx);
    EXPECT_TRUE((ssl && ctx && result == 0) || (!ssl && !ctx && result == DL_ERR_CONNECT)) << result;
  }
  ~client() {
    if (ssl) SSL_shutdown(ssl.get());
  }
  tls_stream bytes() const { return tls_stream(ssl.get()); }
  // Says "bye", expects "hello".
  bool talks() {
    std::string answer(5, '\0');
    return ssl && bytes().write_all({"bye", 3}) == 0 && bytes().read(answer, 5).count == 5 &&
           answer == "hello";
  }

  unique_fd sock;
  unique_ssl_ctx ctx;
  unique_ssl ssl;
  int result = 0;
};

const std::vector<connection_script> small_talk = {{expect("bye"), send("hello")}};
const lines not_connected = {"SSL Connect error"};

class tls : public leak_free {
 protected:
  library library_;
  log_capture log_;
};

TEST_F(tls, connections_are_made_or_refused_for_the_stated_reason) {
  set_option(DL_OPT_KEY_PASSPHRASE, "not it");
  const certificates& all = pki();
  const auto does_not_verify = [](int code) {
    return lines{"Certificate doesn't verify and error is " + std::to_string(code), "trust check error"};
  };
  const lines not_named = {"Common name and subject alt name doesn't match host name", "trust check error"};
  const lines too_old = {"SSL 2.0 and SSL 3.0 are not available"}, no_such = {"wrong method"};
  const lines no_key = {"Can't load private key from CA_serverfile"}, no_match = {"Private key not match"};
  // clang-format off
  const struct { const char* what; const cert_files& server; client_settings client; lines errors; int version = 0; }
  rows[] = {
      {"host check alone checks nothing", all.other, {.verify_host = 1}, {}},
      {"expired, nothing is checked", all.expired, {}, {}},
      {"chain good, name not asked for", all.other, {1}, {}},
      {"CA not in the directory", all.unknown, {1}, does_not_verify(20)},
      {"self-signed", all.self, {1}, does_not_verify(18)},
      {"expired: judged before the name", all.expired, {1, 1, "x"}, does_not_verify(10)},
      {"not yet valid", all.early, {1}, does_not_verify(9)},
      {"missing directory", all.good, {.verify_peer = 1, .ca_dir = "/nonexistent/"}, does_not_verify(20)},
      {"no directory", all.good, {.ca_dir = ""}, {"loading CA certificate: invalid directory"}},
      {"alternative name", all.good, {1, 1, "LOCALHOST"}, {}},
      {"address", all.good, {1, 1, "127.0.0.1"}, {}},
      {"common name", all.common, {1, 1}, {}},
      {"wrong name", all.other, {1, 1}, not_named},
      {"method 0 is TLS 1.0", all.good, {.method = 0}, {}, TLS1_VERSION},
      {"method 0, server for 1.2", all.good, {.method = 0}, not_connected, TLS1_2_VERSION},
      {"method 1", all.good, {.method = 1}, too_old}, {"method 2", all.good, {.method = 2}, too_old},
      {"method 4", all.good, {.method = 4}, no_such}, {"method -1", all.good, {.method = -1}, no_such},
      {"method 3 with 1.2", all.good, {}, {}, TLS1_2_VERSION}, {"method 3 with 1.3", all.good, {}, {}, TLS1_3_VERSION},
      {"no such certificate", all.good, {.cert_file = "/nonexistent/phone.pem"}, {}},
      {"key missing", all.good, {.cert_file = all.phone.cert}, no_key},
      {"encrypted key, wrong pass phrase", all.good, {.cert_file = all.locked.both}, no_key},
      {"key of another certificate", all.good, {.cert_file = all.dir.file("mismatch.pem")}, no_match},
      {"no certificate", all.good, {.cert_file = all.dir.file("garbage.pem")}, {"load publick key error"}},
      {"certificate signed with MD5", all.good, {.cert_file = all.dir.file("old.pem")}, {}},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    log_.clear();
    const bool good = row.errors.empty() || row.errors == no_match;
    tcp_peer server(small_talk, {.tls = serving(row.server, row.version)});
    EXPECT_EQ(client(server, row.client).talks(), good) << log_.all();
    EXPECT_EQ(log_.messages(DL_LOG_ERROR), row.errors) << log_.all();
    EXPECT_TRUE(server.finish());
    if (!good) server.problems();
  }
}

TEST_F(tls, a_server_that_demands_a_certificate_gets_it_or_ends_the_handshake) {
  set_option(DL_OPT_KEY_PASSPHRASE, "open sesame");
  const std::pair<int, std::string> rows[] = {
      {TLS1_VERSION, pki().phone.both}, {TLS1_3_VERSION, pki().locked.both}, {TLS1_2_VERSION, ""}};
  for (const auto& [version, file] : rows) {
    tcp_peer server(small_talk, {.tls = serving(pki().good, version, pki().ca.file())});
    EXPECT_EQ(client(server, {.cert_file = file, .method = version == TLS1_VERSION ? 0 : 3}).talks(),
              !file.empty());
    EXPECT_TRUE(server.finish());
    EXPECT_EQ(server.tls(0).client_subject, file.empty() ? "" : "/O=Test/CN=phone");
    if (file.empty()) server.problems();
  }
  EXPECT_EQ(log_.messages(DL_LOG_ERROR), not_connected);
  EXPECT_TRUE(log_.contains("DCMN", DL_LOG_INFO, "Https ca serverfile file no exist"));
}

TEST_F(tls, names_are_announced_and_addresses_are_not) {
  for (const char* host : {"localhost", "127.0.0.1", "127.1", "::1", "[::1]", ""}) {
    tcp_peer server(small_talk, {.tls = serving(pki().good)});
    EXPECT_TRUE(client(server, {.host = host}).talks()) << host << log_.all();
    EXPECT_TRUE(server.finish());
    EXPECT_EQ(server.tls(0).server_name, std::string(host) == "localhost" ? host : "");
  }
}

// The limit is in whole seconds, so these wait for one.
TEST_F(tls, a_silent_server_is_given_up_after_the_limit) {
  dl_set_tls_wait_limit(1);
  tcp_peer early({{send("x"), stall()}}, {.tls = serving(pki().good)}), mute({{stall()}});
  const client direct(early);
  ASSERT_TRUE(direct.ssl);
  EXPECT_FALSE(client(mute).ssl);
  EXPECT_TRUE(log_.contains("DCMN", DL_LOG_NOTICE, "TLS handshake errno " + std::to_string(ETIMEDOUT)))
      << log_.all();
  char byte = 0;
  EXPECT_EQ(SSL_read(direct.ssl.get(), &byte, 1), 1) << "the handshake's limit is over with the handshake";
  const io_result nothing = direct.bytes().read({&byte, 1}, 60);
  EXPECT_EQ(std::pair(nothing.count, nothing.error), std::pair(std::ptrdiff_t{-1}, ETIMEDOUT));
}

TEST_F(tls, a_steady_upload_may_take_longer_than_the_limit) {
  dl_set_tls_wait_limit(1);
  constexpr std::size_t piece = 65536;
  connection_script slow;
  for (int i = 0; i < 12; ++i) {
    slow.push_back(call([] { std::this_thread::sleep_for(std::chrono::milliseconds(150)); }));
    slow.push_back(expect_length(piece));
  }
  slow.push_back(send("x"));
  tcp_peer server({slow}, {.tls = serving(pki().good)});
  const client connection(server);
  ASSERT_TRUE(connection.ssl);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(connection.bytes().write_all(std::string(12 * piece, 'c')), 0);
  char answer = 0;
  EXPECT_EQ(connection.bytes().read({&answer, 1}, 5).count, 1);
  EXPECT_GT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
}

// An application polls the descriptor of its session and reads and writes by itself.
TEST_F(tls, a_session_behaves_like_one_over_a_socket_bio) {
  for (const unsigned limit_s : {0U, 60U}) {
    dl_set_tls_wait_limit(limit_s);
    std::promise<void> read_on;
    tcp_peer server({{call([&] { read_on.get_future().wait(); }), send("x"), stall()}},
                    {.tls = serving(pki().good, TLS1_2_VERSION)});
    const client connection(server);
    SSL* ssl = connection.ssl.get();
    ASSERT_TRUE(ssl);
    EXPECT_EQ(SSL_get_fd(ssl), connection.sock.get());
    EXPECT_EQ(BIO_get_close(SSL_get_wbio(ssl)), BIO_NOCLOSE);
    EXPECT_EQ(SSL_get_read_ahead(ssl), 0);
    const int sock = connection.sock.get();
    fcntl(sock, F_SETFL, O_NONBLOCK);
    char byte = 0;
    EXPECT_EQ(SSL_get_error(ssl, SSL_read(ssl, &byte, 1)), SSL_ERROR_WANT_READ);
    const std::string content(16384, 'c');
    int written = 0;
    while ((written = SSL_write(ssl, content.data(), 16384)) > 0) continue;
    EXPECT_EQ(SSL_get_error(ssl, written), SSL_ERROR_WANT_WRITE);
    read_on.set_value();
    EXPECT_GT(dl_select(sock, 2, 5), 0);
    EXPECT_EQ(SSL_write(ssl, content.data(), 16384), 16384) << "goes on where it stopped";
    EXPECT_GT(dl_select(sock, 1, 5), 0);
    EXPECT_EQ(SSL_read(ssl, &byte, 1), 1);
  }
}

// SIGPIPE would end the test.
TEST_F(tls, writing_to_a_closed_connection_fails_without_a_signal) {
  tcp_peer server({{reset()}}, {.tls = serving(pki().good)});
  const client connection(server);
  ASSERT_TRUE(connection.ssl && server.finish());
  const std::string content(1000000, 'c');  // the same bytes again, or OpenSSL refuses before it sends
  for (int again = 0; again < 2; ++again) EXPECT_EQ(connection.bytes().write_all(content), -1);
}

}  // namespace
}  // namespace test
