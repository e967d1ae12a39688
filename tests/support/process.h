// process.h: child processes with captured output and a limit on every wait, and ports for servers on
// loopback. A child leads a process group of its own and is stopped, with its children, by that id; it also
// ends when the test program does. One thread at a time per object.
#ifndef FETCHRIG_TESTS_SUPPORT_PROCESS_H
#define FETCHRIG_TESTS_SUPPORT_PROCESS_H

#include <stdint.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace test {

struct child_settings {
  std::string input = {};                     // standard input
  std::string directory = {};                 // working directory; empty: this process's
  std::vector<std::string> environment = {};  // "NAME=value", added to this process's
};

class child_process {
 public:
  // Starts argv[0], looked up in PATH and the sbin directories. A program that cannot be started exits with
  // 127.
  explicit child_process(std::vector<std::string> argv, const child_settings& settings = {});
  ~child_process();  // stops it
  child_process(const child_process&) = delete;
  child_process& operator=(const child_process&) = delete;

  // The exit status (128 + signal for a killed one), or nothing when it still runs after `limit_ms`.
  std::optional<int> wait(int limit_ms);
  bool running() { return !wait(0); }
  // Sends SIGTERM to the group, then SIGKILL to what is still there after a few seconds.
  void stop();
  pid_t pid() const { return pid_; }
  // What it has written so far.
  std::string output() const;
  std::string errors() const;

 private:
  pid_t pid_ = -1;
  int pid_fd_ = -1;
  int output_fd_ = -1;
  int errors_fd_ = -1;
  std::optional<int> status_;
};

struct run_result {
  std::optional<int> status;  // nothing: stopped at the time limit
  std::string output;
  std::string errors;
};
// Runs a program to its end.
run_result run(std::vector<std::string> argv, const child_settings& settings = {}, int limit_ms = 60000);

// Whether a program of that name could be started.
bool have_program(const std::string& name);
// The first of the paths and names that is a program, as a path; empty when none is.
std::string find_program(const std::vector<std::string>& names);

enum class transport { tcp, udp };
// A port that is free now. Somebody else may take it before its user does; servers are then started once
// more.
uint16_t free_port(transport kind = transport::tcp);
// Waits until connections to the port on 127.0.0.1 (::1) are accepted, or `server`, when given, has ended.
bool wait_until_accepts(uint16_t port, int limit_ms, bool ipv6 = false, child_process* server = nullptr);

}  // namespace test
#endif
