// ftp_bench.cpp: CPU time of FTP transfers of a large file, compared with a bare client that does nothing but
// receive and write (read and send) 64 KiB at a time. The server is a forked process, so that only the
// client's time counts. Prints the best time of each and their ratio; fails when the library takes more than
// 1.3 times the bare client's time for a download, or more than 0.7 times for an upload, whose bytes need not pass
// through the process. Argument: MiB to move (default 512).
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bench/bench_support.h"
#include "include/fetchrig.h"

using namespace bench;

namespace {

constexpr std::size_t piece_bytes = 65536;
constexpr double allowed_download_ratio = 1.3;
constexpr double allowed_upload_ratio = 0.7;

void send_all(int sock, const char* from, std::size_t length) {
  for (std::size_t done = 0; done < length;) {
    const ssize_t sent = send(sock, from + done, length - done, MSG_NOSIGNAL);
    if (sent <= 0) die("send");
    done += static_cast<std::size_t>(sent);
  }
}

void say(int sock, const std::string& line) {
  send_all(sock, line.data(), line.size());
}

// A line up to its line feed; empty when the peer has closed.
std::string read_line(int sock) {
  std::string line;
  char c = 0;
  while (c != '\n' && recv(sock, &c, 1, 0) == 1) line.push_back(c);
  return line;
}

// The server's side: files come from and go to nowhere.
void serve_file(int data, std::size_t file_bytes) {
  const std::vector<char> piece(piece_bytes, 'x');
  for (std::size_t sent = 0; sent < file_bytes; sent += piece_bytes) {
    send_all(data, piece.data(), std::min(piece_bytes, file_bytes - sent));
  }
}

void swallow_file(int data) {
  std::vector<char> piece(piece_bytes);
  while (recv(data, piece.data(), piece.size(), 0) > 0) continue;
}

void serve_session(int control, std::size_t file_bytes) {
  uint16_t port = 0;
  const int passive = listener(port);
  say(control, "220 ready\r\n");
  for (std::string line = read_line(control); !line.empty(); line = read_line(control)) {
    const std::string word = line.substr(0, 4);
    if (word == "PASV") {
      say(control,
          "227 (127,0,0,1," + std::to_string(port / 256) + "," + std::to_string(port % 256) + ")\r\n");
    } else if (word == "SIZE") {
      say(control, "213 " + std::to_string(file_bytes) + "\r\n");
    } else if (word == "RETR" || word == "STOR") {
      const int data = accept4(passive, nullptr, nullptr, SOCK_CLOEXEC);
      if (data < 0) die("accept");
      say(control, "150 go\r\n");
      if (word == "RETR") serve_file(data, file_bytes);
      if (word == "STOR") swallow_file(data);
      close(data);
      say(control, "226 done\r\n");
    } else {
      say(control, word == "USER" ? "230 in\r\n" : word == "QUIT" ? "221 bye\r\n" : "200 ok\r\n");
    }
  }
  close(passive);
  close(control);
}

// Starts the server and returns its process id.
pid_t start_server(std::size_t file_bytes, uint16_t& port) {
  const int sock = listener(port);
  const pid_t child = fork();
  if (child < 0) die("fork");
  if (child > 0) {
    close(sock);
    return child;
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  for (;;) {
    const int control = accept4(sock, nullptr, nullptr, SOCK_CLOEXEC);
    if (control < 0) die("accept");
    serve_session(control, file_bytes);
  }
}

// The bare client: the shortest dialogue that reaches the data connection.
int bare_open(uint16_t port, const char* command, int& control) {
  control = connect_to(port);
  read_line(control);
  say(control, "PASV\r\n");
  unsigned high = 0;
  unsigned low = 0;
  if (sscanf(read_line(control).c_str(), "227 (127,0,0,1,%u,%u", &high, &low) != 2) die("PASV");
  const int data = connect_to(static_cast<uint16_t>(high * 256 + low));
  say(control, command);
  read_line(control);
  return data;
}

void bare_download(uint16_t port, const char* path) {
  int control = -1;
  const int data = bare_open(port, "RETR file\r\n", control);
  const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  std::vector<char> piece(piece_bytes);
  for (ssize_t count; (count = recv(data, piece.data(), piece.size(), 0)) > 0;) {
    if (write(file, piece.data(), static_cast<std::size_t>(count)) != count) die("write");
  }
  close(file);
  close(data);
  close(control);
}

void bare_upload(uint16_t port, const char* path) {
  int control = -1;
  const int data = bare_open(port, "STOR file\r\n", control);
  const int file = open(path, O_RDONLY | O_CLOEXEC);
  std::vector<char> piece(piece_bytes);
  for (ssize_t count; (count = read(file, piece.data(), piece.size())) > 0;) {
    send_all(data, piece.data(), static_cast<std::size_t>(count));
  }
  close(file);
  close(data);
  read_line(control);
  close(control);
}

void check(const char* what, int rc, const dl_result& result) {
  if (rc == 0) return;
  fprintf(stderr, "%s: %d %s\n", what, result.code, result.message);
  _exit(2);
}

void our_download(uint16_t port, const char* path) {
  dl_result result = {};
  check("download", dl_ftp_recv_to_file("127.0.0.1", port, nullptr, nullptr, "file", path, &result), result);
}

void our_upload(uint16_t port, const char* path) {
  dl_result result = {};
  check("upload", dl_ftp_send_file("127.0.0.1", port, nullptr, nullptr, "file", path, 2, 1, &result), result);
}

using transfer = void (*)(uint16_t port, const char* path);

struct contest {
  const char* name;
  transfer ours;
  transfer bare;
  double allowed_ratio;
  int rounds;
};
constexpr contest download = {"download", our_download, bare_download, allowed_download_ratio, 7};
constexpr contest upload = {"upload", our_upload, bare_upload, allowed_upload_ratio, 21};

double measure(transfer run, uint16_t port, const char* path) {
  const double start = cpu_seconds();
  run(port, path);
  return cpu_seconds() - start;
}

// Runs both in turns, so that a busy machine slows both. Returns whether the ratio is allowed.
bool compare(const contest& both, uint16_t port, const char* path, long mib) {
  double best_ours = 1e9;
  double best_bare = 1e9;
  for (int round = 0; round < both.rounds; ++round) {
    best_bare = std::min(best_bare, measure(both.bare, port, path));
    best_ours = std::min(best_ours, measure(both.ours, port, path));
  }
  const double ratio = best_ours / best_bare;
  printf("ftp %-8s %4ld MiB: library %.3f s CPU, bare client %.3f s CPU, ratio %.2f (at most %.1f)\n",
         both.name, mib, best_ours, best_bare, ratio, both.allowed_ratio);
  return ratio <= both.allowed_ratio;
}

}  // namespace

int main(int argc, char** argv) {
  const long mib = argc > 1 ? strtol(argv[1], nullptr, 10) : 512;
  if (mib < 1 || mib > 2047) {
    fprintf(stderr, "usage: %s [MiB, 1 to 2047]\n", argv[0]);
    return 2;
  }
  uint16_t port = 0;
  const pid_t server = start_server(static_cast<std::size_t>(mib) << 20, port);
  const uint32_t limit = UINT32_MAX;
  const uint32_t timeout_s = 10;
  dl_config_init();
  dl_set_option(DL_OPT_MAX_FILE_SIZE, &limit);
  dl_set_option(DL_OPT_NET_TIMEOUT, &timeout_s);

  char directory[] = "/tmp/ftp_bench.XXXXXX";
  if (!mkdtemp(directory)) die(directory);
  const std::string path = std::string(directory) + "/file";
  bool good = compare(download, port, path.c_str(), mib);
  // What the download left is what the upload sends.
  good = compare(upload, port, path.c_str(), mib) && good;
  unlink(path.c_str());
  rmdir(directory);
  kill(server, SIGKILL);
  waitpid(server, nullptr, 0);
  return good ? 0 : 1;
}
