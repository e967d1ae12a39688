// http_bench.cpp: the CPU time of one 512 MiB download to a file, over HTTP and HTTPS, against a bare loop
// that reads and writes 64 KiB at a time (recv() or SSL_read(), then write()). The server is a process of its
// own. Prints the best CPU time of each and their ratio, and the growth of the process over the downloads;
// fails above 1.3 for HTTP and 1.15 for HTTPS. Argument: MiB to move (default 512).
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bench/bench_support.h"
#include "bench/tls_server.h"
#include "include/fetchrig.h"

using namespace bench;

namespace {

constexpr std::size_t block_bytes = 65536;
constexpr int rounds = 5;

long peak_kib() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

void serve_one(const connection& peer, std::size_t file_bytes) {
  std::vector<char> block(block_bytes, 'x');
  if (peer.read(block.data(), block.size()) <= 0) return;
  const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(file_bytes) + "\r\n\r\n";
  peer.write(head.data(), head.size());
  for (std::size_t left = file_bytes; left > 0;) {
    const ssize_t sent = peer.write(block.data(), std::min(left, block.size()));
    if (sent <= 0) return;
    left -= static_cast<std::size_t>(sent);
  }
  while (peer.read(block.data(), block.size()) > 0) continue;
}

// Serves one connection after the other until it is stopped.
pid_t start_server(bool tls, std::size_t file_bytes, uint16_t& port) {
  const int sock = listener(port);
  const pid_t pid = fork();
  if (pid != 0) {
    close(sock);
    return pid;
  }
  signal(SIGPIPE, SIG_IGN);
  SSL_CTX* ctx = tls ? new_server_context() : nullptr;
  for (;;) {
    const connection peer = accept_from(sock, ctx);
    serve_one(peer, file_bytes);
    peer.close();
  }
}

void bare_download(bool tls, uint16_t port, const char* path) {
  connection server = {connect_to(port), nullptr};
  SSL_CTX* ctx = tls ? SSL_CTX_new(TLS_client_method()) : nullptr;
  if (tls) {
    server.ssl = SSL_new(ctx);
    SSL_set_fd(server.ssl, server.sock);
    if (SSL_connect(server.ssl) != 1) die("SSL_connect");
  }
  const std::string request = "GET / HTTP/1.1\r\nHost: x\r\n\r\n";
  server.write(request.data(), request.size());
  const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  std::vector<char> block(block_bytes);
  ssize_t count = server.read(block.data(), block.size());
  const auto head = std::string_view(block.data(), static_cast<std::size_t>(count)).find("\r\n\r\n") + 4;
  std::size_t left = strtoul(strstr(block.data(), "Length: ") + 8, nullptr, 10);
  for (std::size_t from = head; count > 0; from = 0) {
    const auto bytes = static_cast<std::size_t>(count) - from;
    if (write(file, block.data() + from, bytes) != static_cast<ssize_t>(bytes)) die("write");
    left -= bytes;
    if (left == 0) break;
    count = server.read(block.data(), std::min(left, block.size()));
  }
  close(file);
  server.close();
  SSL_CTX_free(ctx);
}

void library_download(bool tls, uint16_t port, const char* path) {
  const std::string url = std::string(tls ? "https" : "http") + "://127.0.0.1:" + std::to_string(port) + "/";
  dl_request request = {};
  request.url = url.c_str();
  char redirect[DL_REDIRECT_SIZE] = {};
  dl_result result = {};
  if (dl_download(&request, path, redirect, &result) == 0) return;
  fprintf(stderr, "download: %d %s\n", result.code, result.message);
  exit(2);
}

template <typename Work>
double measured(Work work) {
  const double before = cpu_seconds();
  work();
  return cpu_seconds() - before;
}

// True when the library stays within `allowed` times the bare loop's CPU time.
bool compare(bool tls, std::size_t file_bytes, double allowed, const std::string& path) {
  uint16_t port = 0;
  const pid_t server = start_server(tls, file_bytes, port);
  double bare = 1e9;
  double library = 1e9;
  library_download(tls, port, path.c_str());
  const long peak_before = peak_kib();
  for (int i = 0; i < rounds; ++i) {
    bare = std::min(bare, measured([&] { bare_download(tls, port, path.c_str()); }));
    library = std::min(library, measured([&] { library_download(tls, port, path.c_str()); }));
  }
  kill(server, SIGTERM);
  waitpid(server, nullptr, 0);
  const double ratio = library / bare;
  printf("%-5s %4zu MiB: bare %.3f s, library %.3f s of CPU, ratio %.2f (at most %.2f), memory +%ld KiB\n",
         tls ? "https" : "http", file_bytes >> 20, bare, library, ratio, allowed, peak_kib() - peak_before);
  return ratio <= allowed;
}

}  // namespace

int main(int argc, char** argv) {
  const std::size_t mib = argc > 1 ? strtoul(argv[1], nullptr, 10) : 512;
  char directory[] = "/tmp/fetchrig-bench-XXXXXX";
  if (!mkdtemp(directory)) die("mkdtemp");
  const std::string path = std::string(directory) + "/file";
  const uint32_t any_size = UINT32_MAX;
  const uint32_t any_version = 3;
  const uint32_t timeout_s = 30;
  dl_set_option(DL_OPT_MAX_FILE_SIZE, &any_size);
  dl_set_option(DL_OPT_SSL_METHOD, &any_version);
  dl_set_option(DL_OPT_NET_TIMEOUT, &timeout_s);
  dl_set_option(DL_OPT_HTTPS_CA_DIR, directory);
  dl_log_init(0, nullptr);
  const bool http = compare(false, mib << 20, 1.3, path);
  const bool https = compare(true, mib << 20, 1.15, path);
  unlink(path.c_str());
  rmdir(directory);
  dl_exit();
  return http && https ? 0 : 1;
}
