// slow_link_bench.cpp: uploads of 3 MiB by FTP, HTTP and HTTPS, all at once, to peers that read 400 kB/s,
// with one second as the limit of every wait. What our socket and the peer's hold when the last byte is
// written must drain within that second, or the peer's answer comes too late. Prints how each went; fails
// when one failed. The argument of all benchmarks is ignored.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_support.h"
#include "bench/tls_server.h"
#include "include/fetchrig.h"

using namespace bench;

namespace {

constexpr std::size_t file_bytes = 3 << 20;
constexpr std::size_t piece_bytes = 4000;
constexpr double bytes_per_s = 400000;

double now_s() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void sleep_until(double when_s) {
  const double left_s = std::max(0.0, when_s - now_s());
  usleep(static_cast<useconds_t>(left_s * 1e6));
}

// Reads `size` bytes, or to the end, at the peer's rate.
void read_slowly(const connection& from, std::size_t size) {
  std::vector<char> piece(piece_bytes);
  const double start_s = now_s();
  for (std::size_t done = 0; done < size;) {
    const ssize_t count = from.read(piece.data(), std::min(piece.size(), size - done));
    if (count <= 0) return;
    done += static_cast<std::size_t>(count);
    sleep_until(start_s + static_cast<double>(done) / bytes_per_s);
  }
}

void say(const connection& to, const std::string& text) {
  if (to.write(text.data(), text.size()) != static_cast<ssize_t>(text.size())) die("write");
}

// Up to and with `end`; empty when the peer has closed.
std::string read_until(const connection& from, const char* end) {
  std::string text;
  char byte = 0;
  while (!text.ends_with(end)) {
    if (from.read(&byte, 1) != 1) return {};
    text.push_back(byte);
  }
  return text;
}

void serve_http(const connection& peer) {
  if (read_until(peer, "\r\n\r\n").empty()) return;
  read_slowly(peer, file_bytes);
  say(peer, "HTTP/1.1 201 Created\r\nContent-Length: 0\r\n\r\n");
  read_until(peer, "\r\n\r\n");
}

void serve_ftp(const connection& control) {
  uint16_t port = 0;
  const int passive = listener(port);
  say(control, "220 ready\r\n");
  for (std::string line = read_until(control, "\r\n"); !line.empty(); line = read_until(control, "\r\n")) {
    const std::string word = line.substr(0, 4);
    if (word == "PASV") {
      say(control,
          "227 (127,0,0,1," + std::to_string(port / 256) + "," + std::to_string(port % 256) + ")\r\n");
    } else if (word == "STOR") {
      const connection data = {accept(passive, nullptr, nullptr), nullptr};
      say(control, "150 go\r\n");
      read_slowly(data, SIZE_MAX);
      data.close();
      say(control, "226 done\r\n");
    } else {
      say(control, word == "USER" ? "230 in\r\n" : word == "QUIT" ? "221 bye\r\n" : "200 ok\r\n");
    }
  }
}

using service = void (*)(const connection& peer);

// Serves one connection in a process of its own.
pid_t start_server(service serve, bool tls, uint16_t& port) {
  const int sock = listener(port);
  SSL_CTX* ctx = tls ? new_server_context() : nullptr;
  const pid_t child = fork();
  if (child < 0) die("fork");
  if (child > 0) {
    close(sock);
    SSL_CTX_free(ctx);
    return child;
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  signal(SIGPIPE, SIG_IGN);
  const connection peer = accept_from(sock, ctx);
  serve(peer);
  peer.close();
  _exit(0);
}

struct upload {
  const char* scheme;
  service serve;
  bool tls;
  uint16_t port = 0;
  pid_t server = 0;
  bool good = false;
};

void run(upload& one, const char* path) {
  const std::string url = std::string(one.scheme) + "://127.0.0.1:" + std::to_string(one.port) + "/file";
  const double start_s = now_s();
  dl_result result = {};
  int rc = 0;
  if (strcmp(one.scheme, "ftp") == 0) {
    rc = dl_ftp_send_file("127.0.0.1", one.port, nullptr, nullptr, "file", path, 2, 1, &result);
  } else {
    const dl_http_request put = {DL_METHOD_PUT, url.c_str(),     nullptr, nullptr,
                                 nullptr,       "X-Slow: 1\r\n", nullptr};
    char redirect[DL_REDIRECT_SIZE] = {};
    dl_http_session* session = nullptr;
    rc = dl_http_post_file(&session, &put, path, redirect, &result);
  }
  one.good = rc == 0;
  printf("%-5s 3 MiB up in %.1f s with a limit of 1 s: %s\n", one.scheme, now_s() - start_s,
         rc == 0 ? "done" : result.message);
}

}  // namespace

int main() {
  char directory[] = "/tmp/fetchrig-bench-XXXXXX";
  if (!mkdtemp(directory)) die("mkdtemp");
  const std::string path = std::string(directory) + "/file";
  FILE* file = fopen(path.c_str(), "w");
  const std::vector<char> content(file_bytes, 'x');
  if (!file || fwrite(content.data(), 1, content.size(), file) != content.size() || fclose(file) != 0)
    die("file");

  upload uploads[] = {{"ftp", serve_ftp, false}, {"http", serve_http, false}, {"https", serve_http, true}};
  for (upload& one : uploads) one.server = start_server(one.serve, one.tls, one.port);
  const uint32_t any_size = UINT32_MAX, any_version = 3, timeout_s = 1;
  dl_set_option(DL_OPT_MAX_FILE_SIZE, &any_size);
  dl_set_option(DL_OPT_SSL_METHOD, &any_version);
  dl_set_option(DL_OPT_NET_TIMEOUT, &timeout_s);
  dl_set_option(DL_OPT_HTTPS_CA_DIR, directory);
  dl_set_tls_wait_limit(timeout_s);
  dl_log_init(0, nullptr);
  {
    std::vector<std::jthread> threads;
    for (upload& one : uploads) threads.emplace_back([&one, &path] { run(one, path.c_str()); });
  }
  bool good = true;
  for (const upload& one : uploads) {
    kill(one.server, SIGTERM);
    waitpid(one.server, nullptr, 0);
    good = good && one.good;
  }
  unlink(path.c_str());
  rmdir(directory);
  dl_exit();
  return good ? 0 : 1;
}
