// "fetchrig get" against real servers: every scheme, where the file goes, trust, logins, and that nothing is
// left of a download that failed.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/peers/tcp_peer.h"
#include "tests/support/command.h"
#include "tests/support/pki.h"
#include "tests/support/servers.h"

namespace test {
namespace {

const std::string content = make_bytes(200000);

class cli_get : public command_test {};

TEST_F(cli_get, every_scheme) {
  const test_ca ca(place_);
  const cert_files files = ca.issue("server");
  nginx_server web({.cert_file = files.cert, .key_file = files.key});
  REQUIRE_SERVER(web);
  pyftpd_server ftp;
  REQUIRE_SERVER(ftp);
  tftp_server tftp(tftp_program::atftpd);
  REQUIRE_SERVER(tftp);
  web.put("a.bin", content);
  ftp.put("a.bin", content);
  tftp.put("a.bin", content);
  // clang-format off
  const struct { const char* name; std::string url; } rows[] = {
      {"http", web.url("/a.bin")}, {"http, chunked", web.url("/chunked/a.bin")},
      {"http, ended by closing", web.url("/streamed/a.bin")},
      {"https", web.https_url("/a.bin")}, {"ftp", ftp.url("/a.bin")}, {"tftp", tftp.url("/a.bin")},
      {"no scheme", "127.0.0.1:" + std::to_string(tftp.port()) + "/a.bin"},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::vector<std::string> trust = {"--ca-dir", ca.hashed_dir()};
    expect_done(fetchrig({"get", row.url, trust[0], trust[1]}));
    EXPECT_EQ(std::vector<std::string>{"a.bin"}, work_names());
    EXPECT_TRUE(content == read_file(path("a.bin")));
    unlink(path("a.bin").c_str());
    const run_result piped = fetchrig({"get", "-o", "-", trust[0], trust[1], row.url});
    EXPECT_TRUE(content == piped.output);
    EXPECT_EQ("", piped.errors);
    EXPECT_TRUE(work_names().empty());
  }
}

TEST_F(cli_get, where_the_file_goes) {
  nginx_server web;
  REQUIRE_SERVER(web);
  web.put("a.bin", content);
  const std::string url = web.url("/a.bin");
  const uid_t owner = geteuid() == 0 ? 1 : geteuid();
  write_file(path("target"), "old and longer than nothing");
  ASSERT_EQ(0, symlink("target", path("link").c_str()));
  ASSERT_EQ(0, chown(path("target").c_str(), owner, static_cast<gid_t>(-1)));
  ASSERT_EQ(0, chmod(path("target").c_str(), 0604));
  expect_done(fetchrig({"get", "-o", "link", url}));
  EXPECT_TRUE(content == read_file(path("target")));
  struct stat status = {};
  ASSERT_EQ(0, lstat(path("link").c_str(), &status));
  EXPECT_TRUE(S_ISLNK(status.st_mode));
  ASSERT_EQ(0, stat(path("target").c_str(), &status));
  EXPECT_EQ(0604u, status.st_mode & 07777);
  EXPECT_EQ(owner, status.st_uid);

  expect_done(fetchrig({"get", "-o", "/dev/null", url}));
  ASSERT_EQ(0, stat("/dev/null", &status));
  EXPECT_TRUE(S_ISCHR(status.st_mode));
  expect_done(run({"sh", "-c", "echo 1; exec \"$0\" get -o /dev/stdout \"$1\"", fetchrig_binary, url}),
              "1\n" + content);
  EXPECT_EQ((std::vector<std::string>{"link", "target"}), work_names());

  expect_failed(fetchrig({"get", "-o", work_, url}), 2, {"is a directory"});
  expect_failed(fetchrig({"get", web.url("/up/..")}), 2, {"names no file"});
  expect_failed(fetchrig({"get", "-o", "missing/x", url}), 1, {"missing/x", "No such file"});
  expect_failed(fetchrig({"get", "-o", "/dev/full", url}), 1, {"/dev/full", "No space left"});
  const auto in_shell = [&](const std::string& first, const std::string& file) {
    return run({"sh", "-c", first + "; exec \"$0\" get -o \"$1\" \"$2\"", fetchrig_binary, file, url});
  };
  expect_failed(in_shell("exec 3>&-", "/dev/fd/3"), 1, {"/dev/fd/3", "Bad file descriptor"});
  expect_failed(in_shell("ulimit -f 1", path("long")), 1, {"long", "File too large"});
  ASSERT_EQ(0, symlink("/proc/thread-self/fd/1", path("through").c_str()));
  expect_done(in_shell("exec > " + path("target") + "; echo 1", path("through")));
  EXPECT_TRUE("1\n" + content == read_file(path("target")));
}

// Root without its right to write everywhere, and with a umask that takes the user's own rights.
TEST_F(cli_get, a_file_in_a_read_only_directory_is_written_in_place) {
  const test_ca ca(place_);
  tcp_peer server({{expect_until("\r\n\r\n"), send("HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nnew")},
                   {expect_until("\r\n\r\n"), send("HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nne")}});
  write_file(path("out"), "longer");
  ASSERT_EQ(0, chmod(work_.c_str(), 0555));
  std::vector<std::string> arguments = {
      "sh", "-c",        "umask 0777; exec \"$0\" \"$@\"", fetchrig_binary, "get", "--ca-file", ca.file(),
      "-o", path("out"), server.url("http", "/a")};
  if (geteuid() == 0) arguments.insert(arguments.begin(), {"setpriv", "--bounding-set=-dac_override"});
  expect_done(run(arguments));
  EXPECT_EQ("new", read_file(path("out")));
  expect_failed(run(arguments), 1, {"ended after 2 of 3 bytes", "is empty now"});
  EXPECT_EQ("", read_file(path("out")));
  ASSERT_EQ(0, chmod(work_.c_str(), 0755));
  EXPECT_EQ(std::vector<std::string>{"out"}, work_names());
}

TEST_F(cli_get, https_servers_must_be_trusted) {
  const test_ca ca(place_), stranger(place_, "stranger");
  const std::string temporary = place_.make_dir("temporary");
  const cert_files good = ca.issue("good");
  const cert_files other =
      ca.issue("other", {.common_name = "other.example", .alt_names = "DNS:other.example"});
  const cert_files expired = ca.issue("expired", {.valid_from_s = -7200, .valid_until_s = -3600});
  const std::vector<std::string> trusted = {"--ca-dir", ca.hashed_dir()};
  // clang-format off
  const struct { const char* name; const cert_files* server; std::vector<std::string> arguments; const char* complaint; /* or null: it works */ } rows[] = {
      {"unknown issuer by default", &good, {}, "unknown issuer"}, {"CAs not hashed", &good, {"--ca-dir", place_.path()}, "is not hashed"},
      {"CAs of a file", &good, {"--ca-file", ca.file()}, nullptr}, {"CAs of a file and a directory", &good, {"--ca-file", stranger.file(), trusted[0], trusted[1]}, nullptr},
      {"CAs of a file alone", &good, {"--ca-file", stranger.file()}, "unknown issuer"}, {"another host's name", &other, trusted, "does not name this host"},
      {"a TLS version that it lacks", &good, {"--tls-method", "tls1.0", trusted[0], trusted[1]}, "the alert \"protocol version\""},
      {"another host's name, not asked", &other, {trusted[0], trusted[1], "--no-verify-host"}, nullptr},
      {"expired", &expired, trusted, "expired"}, {"nothing verified", &expired, {"--insecure"}, nullptr},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    nginx_server web({.cert_file = row.server->cert, .key_file = row.server->key});
    REQUIRE_SERVER(web);
    web.put("a.bin", content);
    std::vector<std::string> arguments = {"get", "-o", "out", web.https_url("/a.bin")};
    arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
    const run_result result = fetchrig(arguments, {"TMPDIR=" + temporary});
    EXPECT_TRUE(names_in(temporary).empty());
    if (row.complaint) {
      expect_failed(result, 1, {"(code -3)", row.complaint});
      EXPECT_TRUE(work_names().empty());
      EXPECT_EQ("", web.access_log());
      continue;
    }
    expect_done(result);
    EXPECT_TRUE(content == read_file(path("out")));
    unlink(path("out").c_str());
  }
}

TEST_F(cli_get, client_certificate_with_an_encrypted_key) {
  const test_ca ca(place_);
  const cert_files server = ca.issue("server");
  const cert_files client =
      ca.issue("client", {.common_name = "phone", .alt_names = "", .passphrase = "open"});
  nginx_server web({.cert_file = server.cert, .key_file = server.key, .client_ca_file = ca.file()});
  REQUIRE_SERVER(web);
  web.put("a.bin", content);
  const std::vector<std::string> arguments = {
      "get", web.https_url("/a.bin"), "--ca-dir", ca.hashed_dir(), "--cert", client.both};
  expect_failed(fetchrig(arguments, {"FETCHRIG_KEY_PASSPHRASE=wrong"}), 1, {"private key cannot be read"});
  expect_done(fetchrig(arguments, {"FETCHRIG_KEY_PASSPHRASE=open"}));
  EXPECT_TRUE(content == read_file(path("a.bin")));
}

TEST_F(cli_get, logins) {
  nginx_server web;
  REQUIRE_SERVER(web);
  pyftpd_server ftp;
  REQUIRE_SERVER(ftp);
  web.put("a.bin", content);
  ftp.put("a.bin", content);
  const std::string good = "FETCHRIG_PASSWORD=" + std::string(server_password);
  const auto inside = [](std::string url, const std::string& login) {
    return url.insert(url.find("//") + 2, login);
  };
  // clang-format off
  const struct { const char* name; std::vector<std::string> arguments; std::vector<std::string> environment; const char* complaint; /* or null: it works */ } rows[] = {
      {"http, from the environment", {"--user", server_user, web.url("/private/a.bin")}, {good}, nullptr},
      {"http, option", {"--user", server_user, "--password", server_password, web.url("/private/a.bin")}, {}, nullptr},
      {"http, inside the URL", {inside(web.url("/private/a.bin"), "phone:s3cret@")}, {}, nullptr},
      {"http, URL wins", {"--user", "x", "--password", "y", inside(web.url("/private/a.bin"), "phone:s3cret@")}, {}, nullptr},
      {"http, wrong", {"--user", server_user, web.url("/private/a.bin")}, {"FETCHRIG_PASSWORD=x"}, "login refused"},
      {"http, none", {web.url("/private/a.bin")}, {}, "login needed"},
      {"ftp, from the environment", {"--user", server_user, ftp.url("/a.bin")}, {good}, nullptr},
      {"ftp, user in the URL", {inside(ftp.url("/a.bin"), "phone@")}, {good}, nullptr},
      {"ftp, wrong", {"--user", server_user, ftp.url("/a.bin")}, {"FETCHRIG_PASSWORD=x"}, "login refused"},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    std::vector<std::string> arguments = {"get", "-o", "out"};
    arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
    const run_result result = fetchrig(arguments, row.environment);
    EXPECT_FALSE(holds(result.errors, server_password)) << result.errors;
    if (row.complaint) {
      expect_failed(result, 1, {row.complaint});
      EXPECT_TRUE(work_names().empty());
      continue;
    }
    expect_done(result);
    EXPECT_TRUE(content == read_file(path("out")));
    unlink(path("out").c_str());
  }
}

TEST_F(cli_get, missing_files) {
  pyftpd_server ftp;
  REQUIRE_SERVER(ftp);
  tftp_server tftp(tftp_program::atftpd);
  REQUIRE_SERVER(tftp);
  const std::string no_scheme = "127.0.0.1:" + std::to_string(tftp.port()) + "/none";
  expect_failed(fetchrig({"get", ftp.url("/none")}), 1, {ftp.url("/none"), "550", "code -15"});
  expect_failed(fetchrig({"get", no_scheme}), 1,
                {"TFTP error 1) (code -8)", "did you mean http://" + no_scheme});
  expect_failed(fetchrig({"get", "http://127.0.0.1:" + std::to_string(free_port()) + "/x"}), 1,
                {"connection refused (code -3)"});
  tcp_peer resets({{send("220 hi\r\n"), expect_until("\r\n"), reset()}});
  expect_failed(fetchrig({"get", resets.url("ftp", "/x")}), 1,
                {"the connection broke: Connection reset by peer (code -8)"});
  std::string lines;
  while (lines.size() < 70000) lines += "220-\r\n";
  tcp_peer babbler({{send("220 " + std::string(600, 'x') + "\r\n")}, {send(lines)}});
  for (const std::string code : {"-1", "-8"}) {
    expect_failed(fetchrig({"get", babbler.url("ftp", "/x")}), 1, {"FTP reply is too long (code " + code});
  }
  EXPECT_TRUE(work_names().empty());
}

std::string response(const std::string& status, const std::string& headers, const std::string& body) {
  return "HTTP/1.1 " + status + "\r\n" + headers + "\r\n" + body;
}

TEST_F(cli_get, a_failed_download_leaves_the_old_file_and_names_the_cause) {
  const test_ca ca(place_);
  const cert_files files = ca.issue("server");
  const tls_settings tls = {files.cert, files.key}, demanding = {files.cert, files.key, 0, 0, ca.file()};
  const step ask = expect_until("\r\n\r\n"),
             four = send(response("200 OK", "Content-Length: 10\r\n", "four"));
  // clang-format off
  const struct { const char* name; connection_script script; const char* max_size; const char* complaint; std::optional<tls_settings> tls = {}; } rows[] = {
      {"ends early", {ask, four}, "1K", "ended after 4 of 10 bytes"},
      {"ends inside a chunk", {ask, send(response("200 OK", "Transfer-Encoding: chunked\r\n", "9\r\nfour"))}, "1K", "code -8"},
      {"ends inside the header", {ask, send("HTTP/1.1 200 OK\r\nContent-Le")}, "1K", "ends inside its header"},
      {"breaks", {ask, four, reset()}, "1K", "the connection broke: Connection reset by peer (code -1)"},
      {"stalls", {ask, four, stall()}, "1K", "no answer within 1 s (code -8)"},
      {"stalls, TLS", {ask, four, stall()}, "1K", "no answer within 1 s (code -1)", tls},
      {"wants a certificate", {}, "1K", "\"certificate required\"", demanding},
      {"no answer", {ask}, "1K", "closed the connection without an answer (code -5)"},
      {"no HTTP", {ask, send("SSH-2.0-x\r\n")}, "1K", "not HTTP (code -5)"},
      {"announced too large", {ask, send(response("200 OK", "Content-Length: 11\r\n", "12345678901"))}, "10", "limit of 10 bytes"},
      {"chunks too large", {ask, send(response("200 OK", "Transfer-Encoding: chunked\r\n", "b\r\n12345678901\r\n0\r\n\r\n"))}, "10", "larger than the limit of 10 bytes"},
      {"no length, reaches the limit", {ask, send(response("200 OK", "", "1234567890"))}, "10", "announced no length"},
      {"a redirect that is not followed", {ask, send(response("307 Temporary", "Location: /b\r\nContent-Length: 4\r\n", "body"))}, "1K", "the server answered 307 (temporary redirect)"},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    write_file(path("out"), "old");
    tcp_peer server({row.script}, {.tls = row.tls});
    const std::string url = server.url(row.tls ? "https" : "http", "/a");
    expect_failed(fetchrig({"get", "-o", "out", "--timeout", "1", "--ca-dir", ca.hashed_dir(), "--max-size",
                            row.max_size, url}),
                  1, {url, row.complaint});
    EXPECT_EQ(std::vector<std::string>{"out"}, work_names());
    EXPECT_EQ("old", read_file(path("out")));
    server.problems();
  }
}

TEST_F(cli_get, bodies_up_to_the_limit) {
  const std::string ten = "1234567890", nine = "123456789";
  const std::pair<std::string, std::string> rows[] = {
      {response("200 OK", "Content-Length: 10\r\n", ten), ten},
      {response("200 OK", "Transfer-Encoding: chunked\r\n", "a\r\n1234567890\r\n0\r\n\r\n"), ten},
      {response("200 OK", "", nine), nine},
      {response("204 No Content", "", ""), ""}};
  for (const auto& [answer, body] : rows) {
    SCOPED_TRACE(answer);
    tcp_peer server({{expect_until("\r\n\r\n"), send(answer)}});
    expect_done(fetchrig({"get", "--max-size", "10", server.url("http", "/a")}));
    EXPECT_EQ(body, read_file(path("a")));
  }
}

TEST_F(cli_get, an_interrupted_download_leaves_nothing) {
  const test_ca ca(place_);
  const std::string temporary = place_.make_dir("temporary");
  const std::string half = response("200 OK", "Content-Length: 200000\r\n", content.substr(0, 100000));
  tcp_peer server({{expect_until("\r\n\r\n"), send(half), stall()}}, {.repeat_last = true});
  for (const int number : {SIGTERM, SIGUSR1, SIGALRM}) {
    child_process command({fetchrig_binary, "get", "--ca-file", ca.file(), server.url("http", "/a")},
                          {.directory = work_, .environment = {"TMPDIR=" + temporary}});
    for (int i = 0; i < 500 && work_names().empty(); ++i) ASSERT_FALSE(command.wait(20));
    ASSERT_FALSE(work_names().empty() || names_in(temporary).empty());
    ASSERT_EQ(0, kill(command.pid(), number));
    EXPECT_EQ(128 + number, command.wait(5000));
    EXPECT_TRUE(work_names().empty() && names_in(temporary).empty());
  }
}

TEST_F(cli_get, what_is_sent) {
  const std::string answer = response("200 OK", "Content-Length: 2\r\n", "ok");
  tcp_peer server({{expect("GET /a%20b?x=1 HTTP/1.1\r\n"), expect_until("\r\n\r\n"), send(answer)}});
  expect_done(fetchrig({"get", "-o", "-", "--header", "X-One: 1", "--header", "X-Two:2", "--option",
                        "user-agent=Me/1", server.url("http", "/a b?x=1#part")}),
              "ok");
  EXPECT_TRUE(server.finish());
  for (const char* line : {"\r\nX-One: 1\r\n", "\r\nX-Two:2\r\n", "\r\nUser-Agent: Me/1\r\n"}) {
    EXPECT_TRUE(holds(server.received(0), line)) << server.received(0);
  }

  const std::string challenge =
      response("401 Unauthorized", "WWW-Authenticate: Basic realm=\"x\"\r\nContent-Length: 0\r\n", "");
  tcp_peer guarded({{expect_until("\r\n\r\n"), send(challenge)}, {expect_until("\r\n\r\n"), send(answer)}});
  expect_done(fetchrig({"get", "-o", "-", "--auth", "xsi", "--user", "u", guarded.url("http", "/a")},
                       {"FETCHRIG_PASSWORD=p"}),
              "ok");
  EXPECT_TRUE(guarded.finish());
  EXPECT_TRUE(
      holds(guarded.received(1), "\r\nAuthorization: BroadWorksSIP basic=\"cA==\", sipUser=\"dQ==\"\r\n"))
      << guarded.received(1);
}

TEST_F(cli_get, through_a_proxy_telling_the_log_when_asked_for_it) {
  tcp_peer proxy({{expect_until("\r\n\r\n"), send(response("200 OK", "Content-Length: 2\r\n", "ok"))}});
  const run_result result =
      fetchrig({"get", "-vv", "-o", "-", "--proxy", proxy.url("http"), "http://origin.invalid/a"});
  EXPECT_EQ("ok", result.output);
  EXPECT_TRUE(holds(result.errors, "HTTP: response code: 200\n")) << result.errors;
  EXPECT_TRUE(proxy.finish());
  EXPECT_TRUE(holds(proxy.received(0), "\r\nHost: origin.invalid\r\n"));
}

TEST_F(cli_get, a_server_cannot_steer_the_terminal) {
  tcp_peer server({{send("500 \x1b[2Jgo\x9b away\r\n")}});
  const run_result result = fetchrig({"get", server.url("ftp", "/a")});
  expect_failed(result, 1, {"code -15", "go"});
  EXPECT_EQ(std::string::npos, result.errors.find_first_of("\x1b\x9b")) << result.errors;
}

}  // namespace
}  // namespace test
