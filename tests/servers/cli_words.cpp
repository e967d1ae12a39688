// What the command says and how it ends when nothing is transferred: usage errors, help, rings; and the talk
// with a person at a terminal.
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "tests/peers/tcp_peer.h"
#include "tests/support/command.h"
#include "tests/support/servers.h"

namespace test {
namespace {

class cli_words : public command_test {};

TEST_F(cli_words, usage_errors) {
  const std::string url = "http://127.0.0.1:1/a";  // refused connections would end in 1
  const std::string name_of_126(126, 'n');
  // clang-format off
  const struct { std::vector<std::string> arguments; const char* complaint; } rows[] = {
      {{}, "subcommand"}, {{"get"}, "URL is required"}, {{"gett", "--wrong=5", url}, "unknown option \"--wrong\"\n"},
      {{"gett", url}, "unknown subcommand \"gett\"\n"}, {{"cert", "lst", url}, "unknown subcommand \"lst\"\n"},
      {{"get", url, "b", "c"}, "unexpected word \"b\"\n"}, {{"get", "-o", "", url}, "name of a file"},
      {{"get", "gopher://127.0.0.1/a"}, "only http, https, ftp and tftp"}, {{"get", "http:///a"}, "no host"},
      {{"get", "ftp://:secret@127.0.0.1/a"}, "no user name"},
      {{"get", "http://127.0.0.1/a\r\nX: y"}, "control characters"},
      {{"get", "--timeout", "0", url}, "--timeout"},
      {{"get", "--max-size", "4G", url}, "--max-size"},
      {{"get", "--header", "A: b\r\nC: d", url}, "--header"},
      {{"get", "--header", "A: b", "ftp://127.0.0.1/a"}, "--header"},
      {{"get", "--auth", "ntlm", url}, "--auth"}, {{"get", "--proxy", url, "https://127.0.0.1/a"}, "--proxy"},
      {{"get", "--cert", "missing.pem", url}, "missing.pem"},
      {{"get", "--option", "user-agent=" + std::string(512, 'd'), url}, "too long"},
      {{"get", "--ca-dir", "missing", url}, "missing is not a directory"},
      {{"get", "--option", "colour=red", url}, "colour"},
      {{"get", "--option", "net-timeout=61", url}, "net-timeout"},
      {{"ring", "x", "--entry", name_of_126 + "=1"}, "--entry"},
      {{"cert", "list"}, "--store"}, {{"cert", "device", "show"}, "--device-cert"},
  };
  // clang-format on
  for (const auto& row : rows) {
    const run_result result = fetchrig(row.arguments);
    SCOPED_TRACE(row.complaint);
    expect_failed(result, 2, {row.complaint, "--help"});
    EXPECT_EQ("", result.output);
  }
}

TEST_F(cli_words, help_and_version) {
  const run_result lost = run({"sh", "-c", "\"$0\" --help > /dev/full", fetchrig_binary});
  expect_failed(lost, 1, {"standard output cannot be written"});
  expect_done(fetchrig({"--version"}), "fetchrig 5.3.0.4\n");
  const run_result result = fetchrig({"cert", "device", "install", "--help"});
  EXPECT_EQ(0, result.status);
  EXPECT_TRUE(holds(result.output, "Examples:")) << result.output;
}

TEST_F(cli_words, rings) {
  // clang-format off
  const struct { std::vector<std::string> arguments; int status; const char* output; } rows[] = {
      {{"Bellcore-dr3"}, 0, "ring 3\n"}, {{"unknown", "--name", "ringtone-5"}, 0, "ring 5\n"},
      {{"Door Bell", "--entry", "door bell=7", "--entry", "x=1"}, 0, "ring 7\n"},
      {{"a=b", "--entry", "a=b=0"}, 0, "ring 0\n"},
      {{"http://127.0.0.1/x.wav", "--name", "MyMelody2"}, 0, "ring 2\n"}, {{"unknown"}, 1, ""},
  };
  // clang-format on
  for (auto row : rows) {
    SCOPED_TRACE(row.arguments[0]);
    row.arguments.insert(row.arguments.begin(), "ring");
    const run_result plain = fetchrig(row.arguments);
    EXPECT_EQ(row.status, plain.status);
    EXPECT_EQ(row.output, plain.output);
    row.arguments.push_back("--json");
    const auto json = nlohmann::json::parse(fetchrig(row.arguments).output);
    EXPECT_EQ(row.status == 0, json["ok"]);
    EXPECT_TRUE(json["file"].is_null());
    EXPECT_EQ(row.status == 0, json["number"].is_number());
  }
}

// The command on a terminal of its own, until it ends or `limit_ms` pass. When it has written `question`,
// `answer` is typed. Returns what the terminal showed.
struct terminal_run {
  std::string screen;
  int status = -1;
};
terminal_run on_terminal(const std::vector<std::string>& arguments, const std::string& question = "",
                         const std::string& answer = "") {
  std::vector<char*> argv = {const_cast<char*>(fetchrig_binary.c_str())};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  int master = -1;
  const pid_t child = forkpty(&master, nullptr, nullptr, nullptr);
  if (child == 0) {
    execv(argv[0], argv.data());
    _exit(127);
  }
  terminal_run result;
  bool asked = false;
  char buffer[4096];
  for (;;) {
    pollfd ready = {master, POLLIN, 0};
    if (poll(&ready, 1, 20000) != 1) break;
    const ssize_t count = read(master, buffer, sizeof buffer);
    if (count <= 0) break;  // the child closed its side
    result.screen.append(buffer, static_cast<std::size_t>(count));
    if (!asked && !question.empty() && holds(result.screen, question)) {
      asked = true;
      EXPECT_EQ(static_cast<ssize_t>(answer.size()), write(master, answer.data(), answer.size()));
    }
  }
  close(master);
  kill(child, SIGKILL);  // only when the limit has passed is there anything to kill
  int status = 0;
  if (waitpid(child, &status, 0) == child && WIFEXITED(status)) result.status = WEXITSTATUS(status);
  return result;
}

TEST_F(cli_words, progress_on_a_terminal) {
  const std::string body = make_bytes(2 << 20);
  tcp_peer server(
      {{expect_until("\r\n\r\n"), send("HTTP/1.1 200 OK\r\nContent-Length: 2097152\r\n\r\n" + body)}},
      {.repeat_last = true});
  const terminal_run shown = on_terminal({"get", "-o", path("a"), server.url("http", "/a")});
  EXPECT_EQ(0, shown.status);
  EXPECT_TRUE(holds(shown.screen, "% of 2.0 MiB")) << shown.screen;
  EXPECT_TRUE(holds(shown.screen, ": 2.0 MiB in ")) << shown.screen;
  EXPECT_TRUE(body == read_file(path("a")));
  const terminal_run quiet = on_terminal({"get", "-q", "-o", path("a"), server.url("http", "/a")});
  EXPECT_EQ(0, quiet.status);
  EXPECT_EQ("", quiet.screen);
  const terminal_run data = on_terminal({"get", "-o", "-", server.url("http", "/a")});
  EXPECT_EQ(0, data.status);
  EXPECT_FALSE(holds(data.screen, " MiB"));
}

TEST_F(cli_words, a_password_is_asked_for_without_echo) {
  nginx_server web;
  REQUIRE_SERVER(web);
  web.put("a.bin", "private");
  const std::vector<std::string> arguments = {"get",    "-o",        path("a"),
                                              "--user", server_user, web.url("/private/a.bin")};
  const std::string question = std::string("Password for ") + server_user;
  const terminal_run typed = on_terminal(arguments, question, "wrong\x15s3crex\x7ft\n");
  EXPECT_EQ(0, typed.status) << typed.screen;
  EXPECT_EQ("private", read_file(path("a")));
  EXPECT_FALSE(holds(typed.screen, "wrong") || holds(typed.screen, "s3cre")) << typed.screen;
  const terminal_run cancelled = on_terminal(arguments, question, "s3\x03");
  EXPECT_EQ(1, cancelled.status) << cancelled.screen;
  EXPECT_TRUE(holds(cancelled.screen, "no password given")) << cancelled.screen;
}

}  // namespace
}  // namespace test
