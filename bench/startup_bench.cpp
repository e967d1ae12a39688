// startup_bench.cpp: the user instructions of a program that fetches three bytes over HTTP (examples/get.c),
// from its first to its last, as callgrind counts them: loading the libraries, initialising them, the
// transfer, the end. Printed for the library as it is usually built and with the C++ runtime inside it; fails
// above 6.7 and 4.6 million.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>

#include <string>

#include "bench/bench_support.h"

using namespace bench;

namespace {

pid_t start_server(uint16_t& port) {
  const int sock = listener(port);
  const pid_t pid = fork();
  if (pid != 0) {
    close(sock);
    return pid;
  }
  for (;;) {
    const int client = accept(sock, nullptr, nullptr);
    char request[4096];
    const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nhi\n";
    if (recv(client, request, sizeof request, 0) > 0)
      send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
    close(client);
  }
}

// The number behind "Collected : " in what callgrind prints, in millions.
double collected(const std::string& command) {
  FILE* output = popen(command.c_str(), "r");
  if (!output) die("popen");
  char line[512];
  double count = 0;
  while (fgets(line, sizeof line, output)) {
    if (const char* found = strstr(line, "Collected : "))
      count = strtod(found + strlen("Collected : "), nullptr);
  }
  if (pclose(output) != 0 || count == 0) {
    fprintf(stderr, "failed: %s\n", command.c_str());
    exit(2);
  }
  return count / 1e6;
}

// True when the program stays within `allowed` million instructions.
bool measure(const char* what, const char* program, uint16_t port, double allowed) {
  const double millions =
      collected("valgrind --tool=callgrind --callgrind-out-file=/dev/null '" + std::string(program) +
                "' http://127.0.0.1:" + std::to_string(port) + "/ /dev/null 2>&1");
  printf("start %s: %.2f million instructions (at most %.1f)\n", what, millions, allowed);
  return millions <= allowed;
}

}  // namespace

int main() {
  uint16_t port = 0;
  const pid_t server = start_server(port);
  const bool outside = measure("with the C++ runtime outside", GET_PROGRAM, port, 6.7);
  const bool inside = measure("with the C++ runtime inside", GET_ALONE_PROGRAM, port, 4.6);
  kill(server, SIGTERM);
  waitpid(server, nullptr, 0);
  return outside && inside ? 0 : 1;
}
