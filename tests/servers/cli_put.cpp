// "fetchrig put" against real servers: every scheme and way of sending, remote names, limits and refusals.
#include <gtest/gtest.h>
#include <poll.h>

#include "tests/peers/tcp_peer.h"
#include "tests/support/command.h"
#include "tests/support/pki.h"
#include "tests/support/servers.h"

namespace test {
namespace {

const std::string content = make_bytes(100000);
const std::string login = std::string("FETCHRIG_PASSWORD=") + server_password;

// Whether the file is on the server; a TFTP server may still be writing it when it has acknowledged the last
// block.
bool arrived(const loopback_server& server, const std::string& name) {
  for (int i = 0; i < 500; ++i) {
    if (server.has(name) && server.get(name).size() >= content.size()) break;
    poll(nullptr, 0, 10);
  }
  return server.has(name) && server.get(name) == content;
}

class cli_put : public command_test {
 protected:
  cli_put() { write_file(path("up file.bin"), content); }
};

TEST_F(cli_put, every_scheme) {
  const test_ca ca(place_);
  const cert_files files = ca.issue("server");
  nginx_server web({.cert_file = files.cert, .key_file = files.key});
  REQUIRE_SERVER(web);
  pyftpd_server ftp;
  REQUIRE_SERVER(ftp);
  tftp_server tftp(tftp_program::atftpd);
  REQUIRE_SERVER(tftp);
  // clang-format off
  const struct { const char* name; const loopback_server* server; std::vector<std::string> arguments; const char* remote; } rows[] = {
      {"http", &web, {web.url("/upload/x")}, "upload/x"},
      {"http, own name", &web, {web.url("/upload/")}, "upload/up file.bin"},
      {"http, login", &web, {"--user", server_user, web.url("/closed/y")}, "upload/y"},
      {"https", &web, {"--ca-dir", ca.hashed_dir(), web.https_url("/upload/z")}, "upload/z"},
      {"ftp", &ftp, {ftp.url("/upload/x")}, "upload/x"},
      {"ftp, own name", &ftp, {ftp.url("/upload/")}, "upload/up file.bin"},
      {"ftp, login and --name", &ftp, {"--user", server_user, "--name", "upload/n", ftp.url("/")}, "upload/n"},
      {"tftp", &tftp, {tftp.url("/upload/x")}, "upload/x"},
      {"tftp, own name", &tftp, {tftp.url("/upload/")}, "upload/up file.bin"},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    std::vector<std::string> arguments = {"put", "up file.bin"};
    arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
    expect_done(fetchrig(arguments, {login}));
    EXPECT_TRUE(arrived(*row.server, row.remote));
  }
}

TEST_F(cli_put, what_is_sent) {
  write_file(path("s.txt"), "short");
  const std::string created = "HTTP/1.1 201 Created\r\nContent-Length: 0\r\n\r\n";
  const connection_script take = {expect_until("\r\n\r\nshort"), send(created)};
  const connection_script take_form = {expect_until("--\r\n"), send(created)};
  tcp_peer server({take, take, take_form, take_form});
  const auto put = [&](std::vector<std::string> more) {
    more.insert(more.begin(), "put");
    more.insert(more.end(), {"s.txt", server.url("http", "/d?q=1")});
    expect_done(fetchrig(more));
  };
  put({});
  put({"--header", "content-type: text/plain"});
  put({"--method", "post"});
  put({"--method", "post"});
  ASSERT_TRUE(server.finish());
  EXPECT_EQ(0u, server.received(0).find("PUT /d?q=1 HTTP/1.1\r\n"));
  EXPECT_TRUE(holds(server.received(0), "\r\nContent-Type: application/octet-stream\r\n"));
  EXPECT_TRUE(holds(server.received(1), "\r\ncontent-type: text/plain\r\n"));
  EXPECT_FALSE(holds(server.received(1), "octet-stream"));
  EXPECT_EQ(0u, server.received(2).find("POST /d?q=1 HTTP/1.1\r\n"));
  const auto boundary = [&](std::size_t connection) {
    const std::string text = server.received(connection);
    const std::string mark = "multipart/form-data; boundary=";
    const std::size_t start = text.find(mark) + mark.size();
    return text.substr(start, text.find("\r\n", start) - start);
  };
  EXPECT_GE(boundary(2).size(), 32u);
  EXPECT_TRUE(holds(server.received(2), "\r\n\r\n--" + boundary(2) + "\r\n"));
  EXPECT_NE(boundary(2), boundary(3));
}

TEST_F(cli_put, ftp_append_and_the_limit) {
  pyftpd_server ftp;
  REQUIRE_SERVER(ftp);
  const std::string url = ftp.url("/upload/log");
  for (int i = 0; i < 2; ++i) expect_done(fetchrig({"put", "--append", "up file.bin", url}));
  EXPECT_TRUE(content + content == ftp.get("upload/log"));
  expect_failed(fetchrig({"put", "--append", "--max-size", "250000", "up file.bin", url}), 1,
                {"exceed max file size", "code -15"});
  EXPECT_TRUE(content + content == ftp.get("upload/log"));
  expect_done(
      fetchrig({"put", "--append", "--max-size", "250000", "--when-full", "store", "up file.bin", url}));
  EXPECT_TRUE(content == ftp.get("upload/log"));
}

TEST_F(cli_put, refusals) {
  nginx_server web;
  REQUIRE_SERVER(web);
  pyftpd_server ftp;
  REQUIRE_SERVER(ftp);
  const std::string target = web.url("/upload/x");
  // clang-format off
  const struct { const char* name; std::vector<std::string> arguments; int status; std::vector<std::string> complaint; } rows[] = {
      {"no such file", {"missing", target}, 1, {"missing", "No such file"}},
      {"a directory", {"/tmp", target}, 1, {"not a regular file"}},
      {"too large", {"--max-size", "1K", "up file.bin", target}, 1, {"limit of 1024 bytes"}},
      {"refused by http", {"up file.bin", web.url("/a.bin")}, 1, {"the server answered 405"}},
      {"wrong login", {"--user", "x", "--password", "y", "up file.bin", web.url("/closed/y")}, 1, {"login refused"}},
      {"refused by ftp", {"up file.bin", ftp.url("/no/such/dir")}, 1, {"the server answered 55"}},
      {"append over http", {"--append", "up file.bin", target}, 2, {"--append"}},
      {"header over ftp", {"--header", "A: b", "up file.bin", ftp.url("/x")}, 2, {"--header"}},
      {"form without a boundary", {"--method", "post", "--header", "Content-Type: text/plain", "up file.bin", target}, 2, {"boundary="}},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    std::vector<std::string> arguments = {"put"};
    arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
    expect_failed(fetchrig(arguments), row.status, row.complaint);
    EXPECT_FALSE(web.has("upload/x"));
  }
}

TEST_F(cli_put, answers_that_are_no_success) {
  const std::pair<const char*, const char*> rows[] = {
      {"HTTP/1.1 308 Permanent Redirect\r\nLocation: /b\r\nContent-Length: 0\r\n\r\n",
       "308 (permanent redirect)"},
      {"HTTP/1.1 201 Created\r\nCont", "ends inside its header"}};
  for (const auto& [answer, complaint] : rows) {
    tcp_peer server({{expect_until("\r\n\r\n"), expect_length(content.size()), send(answer)}});
    expect_failed(fetchrig({"put", "up file.bin", server.url("http", "/a")}), 1, {complaint});
  }
}

}  // namespace
}  // namespace test
