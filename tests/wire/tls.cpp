// tls.cpp, tls_bio.cpp and tls_stream.cpp against TLS servers in this process, with certificates made for the
// test.
#include <errno.h>
#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <stdio.h>
#include <time.h>

#include <string>
#include <thread>
#include <vector>

#include "core/openssl_owners.h"
#include "core/owners.h"
#include "include/fetchrig_openssl.h"
#include "net/stream.h"
#include "tests/peers/tcp_peer.h"
#include "tests/support/descriptors.h"
#include "tests/support/log_capture.h"
#include "tests/support/options.h"
#include "tests/support/pki.h"
#include "tests/support/temp_dir.h"

namespace {

using fetchrig::unique_fd;

// The certificates of the tests: one CA in a hashed directory, another that no directory holds, servers and
// clients.
class certificates {
 public:
  certificates() {
    const auto server_key = test::new_ec_key();
    const std::vector<std::pair<const char*, const char*>> local_names = {
        {"subjectAltName", "DNS:localhost,DNS:*.example.test,IP:127.0.0.1,IP:::1"}};
    write_server("good",
                 test::make_identity("server", server_key, {.issuer = &ca_, .extensions = local_names}));
    write_server("other", test::make_identity("other.test", server_key, {.issuer = &ca_}));
    write_server("common", test::make_identity("LocalHost", server_key, {.issuer = &ca_}));
    write_server("expired",
                 test::make_identity("localhost", server_key,
                                     {.issuer = &ca_, .valid_from_s = -7200, .valid_until_s = -3600}));
    write_server("early", test::make_identity("localhost", server_key,
                                              {.issuer = &ca_, .valid_from_s = 3600, .valid_until_s = 7200}));
    write_server("foreign", test::make_identity("localhost", server_key, {.issuer = &foreign_ca_}));
    write_server("self", test::make_identity("localhost", server_key));
    store_ = dir_.make_dir("store");
    char name[32];
    snprintf(name, sizeof name, "/%08lx.0", X509_subject_name_hash(ca_.certificate.get()));
    test::write_file(store_ + name, test::pem_of(ca_.certificate.get()));
    test::write_file(file("ca.pem"), test::pem_of(ca_.certificate.get()));
    write_clients();
  }

  std::string file(const std::string& name) const { return dir_.file(name); }
  const std::string& store() const { return store_; }
  test::tls_settings server(const std::string& name, int version = 0) const {
    return {.cert_file = file(name + ".pem"),
            .key_file = file(name + ".key"),
            .min_version = version,
            .max_version = version};
  }

 private:
  void write_server(const std::string& name, const test::identity& server) const {
    test::write_file(file(name + ".pem"), test::pem_of(server.certificate.get()));
    test::write_file(file(name + ".key"), test::pem_of(server.key.get()));
  }
  void write_clients() const {
    const test::identity phone = test::make_identity("phone", test::new_ec_key(), {.issuer = &ca_});
    const std::string certificate = test::pem_of(phone.certificate.get());
    test::write_file(file("phone.pem"), certificate + test::pem_of(phone.key.get()));
    test::write_file(file("phone-encrypted.pem"), certificate + test::pem_of(phone.key.get(), "open sesame"));
    test::write_file(file("phone-without-key.pem"), certificate);
    test::write_file(file("phone-mismatch.pem"), certificate + test::pem_of(test::new_ec_key().get()));
    test::write_file(file("garbage.pem"), "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n");
    const test::identity old = test::make_identity("old", test::new_rsa_key(2048), {.digest = EVP_md5()});
    test::write_file(file("old.pem"), test::pem_of(old.certificate.get()) + test::pem_of(old.key.get()));
  }

  test::temp_dir dir_;
  const test::identity ca_ =
      test::make_identity("Test CA", test::new_ec_key(), {.extensions = test::ca_extensions});
  const test::identity foreign_ca_ =
      test::make_identity("Foreign CA", test::new_ec_key(), {.extensions = test::ca_extensions});
  std::string store_;
};

// Made once; every test only reads.
const certificates& pki() {
  static const certificates all;
  return all;
}

// How dl_do_SSL_connect() is called.
struct client_settings {
  int method = 3;
  int verify_peer = 0;
  int verify_host = 0;
  const char* host = "localhost";
  std::string ca_dir = pki().store();
  std::string cert_file = "";
};

// A client's connection; `ssl` is null when the set-up failed.
struct client {
  unique_fd sock;
  fetchrig::unique_ssl_ctx ctx;
  fetchrig::unique_ssl ssl;
  int result = 0;

  client(uint16_t port, const client_settings& settings) : sock(dl_connect("127.0.0.1", port, 0, 5)) {
    SSL* made_ssl = nullptr;
    SSL_CTX* made_ctx = nullptr;
    result =
        dl_do_SSL_connect(sock.get(), settings.cert_file.c_str(), settings.ca_dir.c_str(), settings.method,
                          settings.verify_peer, settings.verify_host, settings.host, &made_ssl, &made_ctx);
    ssl.reset(made_ssl);
    ctx.reset(made_ctx);
    EXPECT_EQ(made_ssl != nullptr, result == 0);
    EXPECT_EQ(made_ctx != nullptr, result == 0);
  }
  ~client() {
    if (ssl) SSL_shutdown(ssl.get());
  }
};

// Says "bye", expects "hello".
bool talks(const client& connection) {
  if (!connection.ssl) return false;
  fetchrig::tls_stream stream(connection.ssl.get());
  std::string answer(5, '\0');
  return stream.write_all({"bye", 3}) == 0 && stream.read(answer, 5).count == 5 && answer == "hello";
}

const std::vector<test::connection_script> small_talk = {{test::expect("bye"), test::send("hello")}};

class tls : public test::leak_free {
 protected:
  test::library library;
  test::log_capture log;
};

struct connect_row {
  const char* what;
  const char* server;
  client_settings client;
  std::vector<std::string>
      errors;       // logged at error level; only "Private key not match" lets the set-up go on
  int version = 0;  // the only one that the server offers; 0: any
};

std::string does_not_verify(int code) {
  return "Certificate doesn't verify and error is " + std::to_string(code);
}
const std::string not_trusted = "trust check error";
const std::string not_named = "Common name and subject alt name doesn't match host name";

std::vector<connect_row> server_rows() {
  return {
      {"self-signed, nothing is checked", "self", {.host = "else.test"}, {}},
      {"host check alone checks nothing", "other", {.verify_host = 1}, {}},
      {"chain of the CA directory", "good", {.verify_peer = 1}, {}},
      {"chain good, name not asked for", "other", {.verify_peer = 1}, {}},
      {"CA not in the directory", "foreign", {.verify_peer = 1}, {does_not_verify(20), not_trusted}},
      {"self-signed", "self", {.verify_peer = 1}, {does_not_verify(18), not_trusted}},
      {"expired", "expired", {.verify_peer = 1}, {does_not_verify(10), not_trusted}},
      {"not yet valid", "early", {.verify_peer = 1}, {does_not_verify(9), not_trusted}},
      {"expired, nothing is checked", "expired", {}, {}},
      {"alternative name", "good", {.verify_peer = 1, .verify_host = 1, .host = "LOCALHOST"}, {}},
      {"wildcard", "good", {.verify_peer = 1, .verify_host = 1, .host = "www.example.test"}, {}},
      {"IPv4 address", "good", {.verify_peer = 1, .verify_host = 1, .host = "127.0.0.1"}, {}},
      {"IPv6 address", "good", {.verify_peer = 1, .verify_host = 1, .host = "[::1]"}, {}},
      {"common name", "common", {.verify_peer = 1, .verify_host = 1}, {}},
      {"wrong name", "other", {.verify_peer = 1, .verify_host = 1}, {not_named, not_trusted}},
      {"a bad chain is judged before the name",
       "expired",
       {.verify_peer = 1, .verify_host = 1, .host = "x"},
       {does_not_verify(10), not_trusted}},
      {"empty directory",
       "good",
       {.verify_peer = 1, .ca_dir = pki().file("")},
       {does_not_verify(20), not_trusted}},
      {"missing directory",
       "good",
       {.verify_peer = 1, .ca_dir = "/nonexistent/"},
       {does_not_verify(20), not_trusted}},

      {"method 0 is TLS 1.0", "good", {.method = 0}, {}, TLS1_VERSION},
      {"method 0 with a server for 1.2", "good", {.method = 0}, {"SSL Connect error"}, TLS1_2_VERSION},
      {"method 1", "good", {.method = 1}, {"SSL 2.0 and SSL 3.0 are not available"}},
      {"method 2", "good", {.method = 2}, {"SSL 2.0 and SSL 3.0 are not available"}},
      {"method 3 with 1.2", "good", {.method = 3}, {}, TLS1_2_VERSION},
      {"method 3 with 1.3", "good", {.method = 3}, {}, TLS1_3_VERSION},
      {"method 4", "good", {.method = 4}, {"wrong method"}},
      {"method -1", "good", {.method = -1}, {"wrong method"}},
  };
}

std::vector<connect_row> client_rows() {
  const std::string no_key = "Can't load private key from CA_serverfile";
  return {
      {"no such file", "good", {.cert_file = "/nonexistent/phone.pem"}, {}},
      {"certificate and key", "good", {.cert_file = pki().file("phone.pem")}, {}},
      {"key missing", "good", {.cert_file = pki().file("phone-without-key.pem")}, {no_key}},
      {"key of another certificate",
       "good",
       {.cert_file = pki().file("phone-mismatch.pem")},
       {"Private key not match"}},
      {"no certificate", "good", {.cert_file = pki().file("garbage.pem")}, {"load publick key error"}},
      {"encrypted key, wrong pass phrase",
       "good",
       {.cert_file = pki().file("phone-encrypted.pem")},
       {no_key}},
      {"certificate signed with MD5", "good", {.cert_file = pki().file("old.pem")}, {}},
  };
}

bool set_up_succeeds(const connect_row& row) {
  return row.errors.empty() || row.errors == std::vector<std::string>{"Private key not match"};
}

void check_row(const connect_row& row, test::log_capture& log) {
  SCOPED_TRACE(row.what);
  log.clear();
  test::tcp_peer server(small_talk, {.tls = pki().server(row.server, row.version)});
  {
    const client connection(server.port(), row.client);
    EXPECT_EQ(connection.result, set_up_succeeds(row) ? 0 : DL_ERR_CONNECT);
    EXPECT_EQ(talks(connection), set_up_succeeds(row)) << log.all();
    EXPECT_GT(connection.sock.get(), 2);
  }
  EXPECT_EQ(log.messages(DL_LOG_ERROR), row.errors) << log.all();
  server.finish();
  if (!set_up_succeeds(row)) server.problems();
}

TEST_F(tls, servers_are_accepted_or_refused_for_the_stated_reason) {
  for (const auto& row : server_rows()) check_row(row, log);
}

TEST_F(tls, client_certificates_load_or_fail_for_the_stated_reason) {
  test::set_option(DL_OPT_KEY_PASSPHRASE, "not it");
  for (const auto& row : client_rows()) check_row(row, log);
}

TEST_F(tls, the_ca_directory_must_be_given) {
  test::tcp_peer server({{test::stall()}});
  const client connection(server.port(), {.ca_dir = ""});
  EXPECT_EQ(connection.result, DL_ERR_CONNECT);
  const auto errors = log.messages(DL_LOG_ERROR);
  ASSERT_EQ(errors.size(), 1U) << log.all();
  EXPECT_EQ(errors[0].rfind("loading CA certificate: ", 0), 0U) << errors[0];
}

TEST_F(tls, a_server_that_demands_a_certificate_gets_it) {
  test::set_option(DL_OPT_KEY_PASSPHRASE, "open sesame");
  for (const char* file : {"phone.pem", "phone-encrypted.pem"}) {
    for (const int version : {TLS1_VERSION, TLS1_2_VERSION, TLS1_3_VERSION}) {
      SCOPED_TRACE(std::string(file) + " " + std::to_string(version));
      test::tls_settings settings = pki().server("good", version);
      settings.client_ca_file = pki().file("ca.pem");
      test::tcp_peer server(small_talk, {.tls = settings});
      {
        const client connection(server.port(),
                                {.method = version == TLS1_VERSION ? 0 : 3, .cert_file = pki().file(file)});
        EXPECT_TRUE(talks(connection)) << log.all();
      }
      EXPECT_TRUE(server.finish());
      EXPECT_EQ(server.tls(0).client_subject, "/O=Test/CN=phone");
    }
  }
}

TEST_F(tls, a_server_that_demands_a_certificate_in_vain_ends_the_handshake) {
  test::tls_settings settings = pki().server("good", TLS1_2_VERSION);
  settings.client_ca_file = pki().file("ca.pem");
  test::tcp_peer server(small_talk, {.tls = settings});
  const client connection(server.port(), {});
  EXPECT_EQ(connection.result, DL_ERR_CONNECT);
  EXPECT_EQ(log.messages(DL_LOG_ERROR), std::vector<std::string>{"SSL Connect error"});
  EXPECT_TRUE(log.contains("DCMN", DL_LOG_INFO, "Https ca serverfile file no exist"));
}

TEST_F(tls, names_are_announced_and_addresses_are_not) {
  const struct {
    const char* host;
    const char* announced;
  } rows[] = {
      {"localhost", "localhost"}, {"127.0.0.1", ""}, {"127.1", ""}, {"::1", ""}, {"[::1]", ""}, {"", ""}};
  for (const auto& row : rows) {
    test::tcp_peer server(small_talk, {.tls = pki().server("good")});
    {
      const client connection(server.port(), {.host = row.host});
      EXPECT_TRUE(talks(connection)) << row.host << log.all();
    }
    EXPECT_TRUE(server.finish());
    EXPECT_EQ(server.tls(0).server_name, row.announced);
  }
}

TEST_F(tls, servers_that_speak_no_tls) {
  for (const auto& script :
       {test::connection_script{test::send("HTTP/1.1 400 Bad Request\r\n\r\n"), test::stall()},
        test::connection_script{test::hang_up()}, test::connection_script{test::reset()}}) {
    log.clear();
    test::tcp_peer server({script});
    const client connection(server.port(), {});
    EXPECT_EQ(connection.result, DL_ERR_CONNECT);
    EXPECT_EQ(log.messages(DL_LOG_ERROR), std::vector<std::string>{"SSL Connect error"}) << log.all();
  }
}

// The limit is in whole seconds, so these wait for one.
TEST_F(tls, a_silent_server_is_given_up_after_the_limit) {
  dl_set_tls_wait_limit(1);
  test::tcp_peer early({{test::send("x"), test::stall()}}, {.tls = pki().server("good")});
  const client direct(early.port(), {});
  ASSERT_TRUE(direct.ssl);
  test::tcp_peer mute({{test::stall()}});
  const client refused(mute.port(), {});
  EXPECT_EQ(refused.result, DL_ERR_CONNECT);
  EXPECT_TRUE(log.contains("DCMN", DL_LOG_NOTICE, "TLS handshake errno " + std::to_string(ETIMEDOUT)))
      << log.all();

  char byte = 0;
  EXPECT_EQ(SSL_read(direct.ssl.get(), &byte, 1), 1) << "the handshake's limit is over with the handshake";

  test::tcp_peer server({{test::send("x"), test::stall()}}, {.tls = pki().server("good")});
  const client connection(server.port(), {});
  dl_set_tls_wait_limit(0);
  ASSERT_TRUE(connection.ssl);
  fetchrig::tls_stream stream(connection.ssl.get());
  EXPECT_EQ(stream.read({&byte, 1}, 60).count, 1);
  const fetchrig::io_result nothing = stream.read({&byte, 1}, 60);
  EXPECT_LT(nothing.count, 0);
  EXPECT_EQ(nothing.error, ETIMEDOUT);
}

TEST_F(tls, peeking_leaves_the_bytes) {
  for (const test::delivery mode : test::all_deliveries) {
    test::tcp_peer server({{test::send("ab"), test::send("cdef")}},
                          {.mode = mode, .tls = pki().server("good")});
    const client connection(server.port(), {});
    ASSERT_TRUE(connection.ssl);
    fetchrig::tls_stream stream(connection.ssl.get());
    std::string all;
    char buffer[8];
    EXPECT_EQ(stream.peek({buffer, 0}, 5).count, 0);
    for (;;) {
      const auto peeked = stream.peek({buffer, 1}, 5).count;
      const char seen = buffer[0];
      const auto count = stream.read(buffer, 5).count;
      if (count <= 0) {
        EXPECT_EQ(peeked, 0) << "the end is seen by both";
        EXPECT_EQ(count, 0);
        break;
      }
      EXPECT_EQ(peeked, 1);
      EXPECT_EQ(buffer[0], seen);
      all.append(buffer, static_cast<size_t>(count));
    }
    EXPECT_EQ(all, "abcdef");
  }
}

// SIGPIPE would end the test.
TEST_F(tls, writing_to_a_closed_connection_fails_without_a_signal) {
  test::tcp_peer server({{test::reset()}}, {.tls = pki().server("good")});
  {
    const client connection(server.port(), {});
    ASSERT_TRUE(connection.ssl);
    EXPECT_TRUE(server.finish());
    fetchrig::tls_stream stream(connection.ssl.get());
    const std::string content(1000000, 'c');
    EXPECT_EQ(stream.write_all(content), -1);
    EXPECT_EQ(stream.write_all(content), -1);
  }
}

TEST_F(tls, connections_are_made_by_several_threads_at_once) {
  test::tcp_peer server(small_talk, {.tls = pki().server("good"), .repeat_last = true});
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < 5; ++round) {
        const client connection(server.port(), {.verify_peer = 1, .verify_host = 1});
        EXPECT_TRUE(talks(connection));
      }
    });
  }
  for (auto& thread : threads) thread.join();
}

}  // namespace
