// The real servers' fixtures, spoken to with curl and the openssl tool, so that what the library's tests rely
// on is known to work.
#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include "tests/peers/tcp_peer.h"
#include "tests/support/descriptors.h"
#include "tests/support/process.h"
#include "tests/support/servers.h"
#include "tests/support/test_ca.h"

namespace test {
namespace {

run_result curl(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {"curl", "-sS", "--noproxy", "*", "--max-time", "20"});
  return run(arguments);
}

// What curl prints for "HTTP status and bytes".
run_result curl_status(std::vector<std::string> arguments) {
  arguments.insert(arguments.end(), {"-o", "/dev/null", "-w", "%{http_code} %{size_download}"});
  return curl(std::move(arguments));
}

void expect_same(const std::string& wanted, const std::string& got) {
  EXPECT_EQ(summary(wanted), summary(got)) << got.substr(0, 200);
}

const std::string login = std::string(server_user) + ":" + server_password;

class servers : public leak_free {
 protected:
  temp_dir place_;
  std::string upload_ = place_.file("up.bin");
  std::string content_ = make_bytes(70000);
  servers() { write_file(upload_, content_); }
};

TEST_F(servers, nginx_http) {
  nginx_server server;
  REQUIRE_SERVER(server);
  server.put("a.bin", content_);
  expect_same(content_, curl({server.url("/a.bin")}).output);
  EXPECT_NE(std::string::npos, curl({"-I", server.url("/a.bin")}).output.find("Content-Length: 70000"));
  expect_same(content_, curl({server.url("/chunked/a.bin")}).output);
  EXPECT_NE(std::string::npos,
            curl({"-D-", server.url("/chunked/a.bin")}).output.find("Transfer-Encoding: chunked"));
  const std::string streamed = curl({"-D-", server.url("/streamed/a.bin")}).output;
  EXPECT_EQ(std::string::npos, streamed.substr(0, 300).find("Transfer-Encoding"));
  EXPECT_EQ(std::string::npos, streamed.substr(0, 300).find("Content-Length"));
  expect_same(content_, streamed.substr(streamed.find("\r\n\r\n") + 4));
  EXPECT_EQ("401", curl_status({server.url("/private/a.bin")}).output.substr(0, 3));
  expect_same(content_, curl({"-u", login, server.url("/private/a.bin")}).output);
  EXPECT_EQ(nginx_server::hop_text, curl({"-L", server.url("/hop/6")}).output);
  expect_same(content_, curl({"-L", server.url("/moved/a.bin")}).output);
  EXPECT_EQ("201 0", curl_status({"-T", upload_, server.url("/upload/x")}).output);
  expect_same(content_, server.get("upload/x"));
  EXPECT_EQ("201 0", curl_status({"-u", login, "-T", upload_, server.url("/closed/y")}).output);
  EXPECT_TRUE(server.has("upload/y"));
  EXPECT_NE(std::string::npos, server.access_log().find("PUT /closed/y 201\n"));
  if (have_ipv6()) {
    expect_same(content_, curl({"-g", server.url("/a.bin", true)}).output);
  }
}

TEST_F(servers, nginx_https) {
  const test_ca ca(place_);
  const cert_files files = ca.issue("server");
  const cert_files client = ca.issue("client", {.common_name = "phone", .alt_names = ""});
  for (const char* version : {"1.0", "1.2", "1.3"}) {
    SCOPED_TRACE(version);
    const std::string protocol = version[2] == '0' ? "TLSv1" : std::string("TLSv") + version;
    nginx_server server({files.cert, files.key, protocol, ca.file()});
    REQUIRE_SERVER(server);
    server.put("a.bin", content_);
    const std::vector<std::string> trust = {"--tlsv1.0", "--ciphers", "DEFAULT:@SECLEVEL=0", "--capath",
                                            ca.hashed_dir()};
    std::vector<std::string> with_cert = trust;
    with_cert.insert(with_cert.end(), {"--cert", client.both, server.https_url("/a.bin")});
    expect_same(content_, curl(with_cert).output);
    std::vector<std::string> without = trust;
    without.push_back(server.https_url("/a.bin"));
    EXPECT_EQ("400", curl_status(without).output.substr(0, 3));
    EXPECT_EQ(60, curl({server.https_url("/")}).status);  // an unknown issuer
  }
}

TEST_F(servers, apache_digest_form_and_proxy) {
  apache_server server;
  REQUIRE_SERVER(server);
  server.put("a.bin", content_);
  EXPECT_EQ("401", curl_status({server.url("/digest/a.bin")}).output.substr(0, 3));
  expect_same(content_, curl({"--digest", "-u", login, server.url("/digest/a.bin")}).output);
  EXPECT_EQ("received 1 parts\n", curl({"-F", "upfile=@" + upload_, server.url("/form")}).output);
  EXPECT_EQ("upfile up.bin application/octet-stream 70000\n", server.last_form());
  expect_same(content_, server.get("form/up.bin"));
  EXPECT_EQ("received 1 parts\n",
            curl({"--digest", "-u", login, "-F", "upfile=@" + upload_, server.url("/digest-form")}).output);
  tcp_peer origin({{expect("GET / HTTP/1.1\r\n"), expect_until("\r\n\r\n"),
                    send("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok")}});
  const std::string through = server.proxy_url();
  EXPECT_EQ("ok",
            run({"curl", "-sS", "--max-time", "20", "--noproxy", "", "-x", through, origin.url("http", "/")})
                .output);
}

TEST_F(servers, ftp) {
  const auto check = [&](const loopback_server& server, const std::string& base, const std::string& who) {
    server.put("a.bin", content_);
    const std::vector<std::string> user = {"-g", "-u", who};
    const auto with = [&](std::vector<std::string> more) {
      more.insert(more.begin(), user.begin(), user.end());
      return curl(more);
    };
    expect_same(content_, with({base + "a.bin"}).output);
    EXPECT_EQ(0, with({"-T", upload_, base + "upload/x"}).status);
    expect_same(content_, server.get("upload/x"));
    EXPECT_EQ(0, with({"-a", "-T", upload_, base + "upload/x"}).status);
    expect_same(content_ + content_, server.get("upload/x"));
    EXPECT_EQ(78, with({base + "missing"}).status);
  };
  {
    SCOPED_TRACE("pyftpdlib");
    pyftpd_server server;
    REQUIRE_SERVER(server);
    check(server, server.url("/"), login);
    EXPECT_EQ(67, curl({"-u", "phone:wrong", server.url("/a.bin")}).status);
  }
  if (have_ipv6()) {
    SCOPED_TRACE("pyftpdlib, IPv6");
    pyftpd_server server(true);
    REQUIRE_SERVER(server);
    check(server, server.url("/"), login);
  }
  SCOPED_TRACE("vsftpd");
  vsftpd_server server;
  REQUIRE_SERVER(server);
  check(server, server.url("/"), "anonymous:");
}

void check_tftp(tftp_server& server, const std::string& upload, const std::string& content) {
  server.put("a.bin", content);
  expect_same(content, curl({"-g", server.url("/a.bin")}).output);
  EXPECT_EQ(0, curl({"-g", "-T", upload, server.url("/upload/x")}).status);
  expect_same(content, server.get_whole("upload/x", content.size()));
}

TEST_F(servers, atftpd) {
  tftp_server server(tftp_program::atftpd);
  REQUIRE_SERVER(server);
  check_tftp(server, upload_, content_);
}

TEST_F(servers, tftpd_hpa) {
  for (const bool ipv6 : {false, true}) {
    if (ipv6 && !have_ipv6()) continue;
    SCOPED_TRACE(ipv6);
    tftp_server server(tftp_program::tftpd_hpa, ipv6);
    REQUIRE_SERVER(server);
    check_tftp(server, upload_, content_);
  }
}

TEST_F(servers, scripted_tls) {
  const test_ca ca(place_);
  const cert_files files = ca.issue("server");
  const cert_files client = ca.issue("client", {.common_name = "phone", .passphrase = "open"});
  const connection_script script = {expect_until("\r\n\r\n"),
                                    send("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok")};
  tcp_peer server({script, script}, {.tls = tls_settings{.cert_file = files.cert,
                                                         .key_file = files.key,
                                                         .max_version = TLS1_2_VERSION,
                                                         .client_ca_file = ca.file()}});
  const std::string resolve = "localhost:" + std::to_string(server.port()) + ":127.0.0.1";
  const std::string url = "https://localhost:" + std::to_string(server.port()) + "/";
  EXPECT_EQ("ok",
            curl({"--resolve", resolve, "--cacert", ca.file(), "--cert", client.both + ":open", url}).output);
  EXPECT_NE(0, curl({"--resolve", resolve, "--cacert", ca.file(), url}).status);
  EXPECT_TRUE(server.finish());
  EXPECT_EQ("TLSv1.2", server.tls(0).version);
  EXPECT_EQ("localhost", server.tls(0).server_name);
  EXPECT_EQ("/O=Test/CN=phone", server.tls(0).client_subject);
  EXPECT_EQ("peer did not return a certificate", server.tls(1).failure);
}

TEST_F(servers, one_that_cannot_start_says_why) {
  const nginx_server server({.cert_file = place_.file("missing.crt"), .key_file = "missing.key"});
  ASSERT_FALSE(server.started());
  EXPECT_NE(std::string::npos, server.why().find("missing.crt")) << server.why();
}

}  // namespace
}  // namespace test
