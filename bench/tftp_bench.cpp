// tftp_bench.cpp: TFTP transfers of a large file against a lock-step peer in this process, compared with a
// bare client that does one wait, one receive and one send per block and nothing else. Both use 1432-byte
// blocks and a file in a fresh directory. Prints the best time of each and their ratio; fails when the
// library takes more than 1.2 times the bare client's time. Argument: MiB to move (default 64).
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_support.h"
#include "include/fetchrig.h"

using namespace bench;

namespace {

constexpr std::size_t block_bytes = 1432;
constexpr std::size_t packet_bytes = block_bytes + 4;
constexpr int rounds = 7;
constexpr double allowed_ratio = 1.2;
constexpr char oack[] = "\0\6blksize\0001432";  // with the literal's own terminator

int loopback_socket(sockaddr_in& address) {
  const int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  address = loopback(0);
  socklen_t length = sizeof address;
  if (sock < 0 || bind(sock, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      getsockname(sock, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    die("socket");
  }
  return sock;
}

unsigned block_of(const char* packet) {
  return static_cast<unsigned>(static_cast<unsigned char>(packet[2]) << 8 |
                               static_cast<unsigned char>(packet[3]));
}

void write_header(char* packet, int opcode, std::size_t block) {
  packet[0] = 0;
  packet[1] = static_cast<char>(opcode);
  packet[2] = static_cast<char>(block >> 8 & 0xff);
  packet[3] = static_cast<char>(block & 0xff);
}

// Waits, receives; returns the length.
std::size_t receive(int sock, char* packet, sockaddr_in& from) {
  pollfd wait = {sock, POLLIN, 0};
  if (poll(&wait, 1, 10000) != 1) die("peer fell silent");
  socklen_t length = sizeof from;
  const ssize_t count = recvfrom(sock, packet, packet_bytes, 0, reinterpret_cast<sockaddr*>(&from), &length);
  if (count < 4) die("recvfrom");
  return static_cast<std::size_t>(count);
}

void send_packet(int sock, const char* packet, std::size_t length, const sockaddr_in& to) {
  if (sendto(sock, packet, length, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to) < 0) die("sendto");
}

// Answers one read or write request after the other, each with 1432-byte blocks, from and to nowhere.
class peer {
 public:
  explicit peer(std::size_t file_bytes) : file_bytes_(file_bytes), sock_(loopback_socket(address_)) {
    thread_ = std::thread([this] { serve(); });
  }
  ~peer() {
    sockaddr_in own;
    const int sock = loopback_socket(own);
    send_packet(sock, "\0\5\0\0", 5, address_);
    thread_.join();
    close(sock);
    close(sock_);
  }
  const sockaddr_in& address() const { return address_; }

 private:
  void serve() {
    char packet[packet_bytes] = {};
    for (;;) {
      sockaddr_in client;
      pollfd wait = {sock_, POLLIN, 0};
      poll(&wait, 1, -1);
      receive(sock_, packet, client);
      if (packet[1] == 1) serve_read(client);
      if (packet[1] == 2) serve_write(client);
      if (packet[1] == 5) return;
    }
  }
  void serve_read(sockaddr_in client) {
    char packet[packet_bytes] = {};
    char reply[packet_bytes];
    send_packet(sock_, oack, sizeof oack, client);
    receive(sock_, reply, client);
    for (std::size_t block = 1, sent = 0, count = block_bytes; count == block_bytes; ++block, sent += count) {
      count = std::min(block_bytes, file_bytes_ - sent);
      write_header(packet, 3, block);
      send_packet(sock_, packet, count + 4, client);
      receive(sock_, reply, client);
      if (block_of(reply) != (block & 0xffff)) die("wrong ACK");
    }
  }
  void serve_write(sockaddr_in client) {
    char packet[packet_bytes];
    char ack[4];
    send_packet(sock_, oack, sizeof oack, client);
    for (std::size_t count = packet_bytes; count == packet_bytes;) {
      count = receive(sock_, packet, client);
      write_header(ack, 4, block_of(packet));
      send_packet(sock_, ack, sizeof ack, client);
    }
  }

  std::size_t file_bytes_;
  sockaddr_in address_ = {};
  int sock_;
  std::thread thread_;
};

int request(char opcode, sockaddr_in server, sockaddr_in& own) {
  const int sock = loopback_socket(own);
  char packet[] = "\0\0file\0octet\0blksize\0001432";
  packet[1] = opcode;
  send_packet(sock, packet, sizeof packet, server);
  return sock;
}

void bare_download(sockaddr_in server, const char* path) {
  sockaddr_in own;
  const int sock = request(1, server, own);
  std::vector<char> file(65536 / block_bytes * block_bytes + block_bytes);
  const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) die(path);
  char packet[packet_bytes];
  char ack[4];
  std::size_t held = 0;
  receive(sock, packet, server);
  write_header(ack, 4, 0);
  send_packet(sock, ack, sizeof ack, server);
  for (std::size_t count = packet_bytes; count == packet_bytes;) {
    count = receive(sock, packet, server);
    write_header(ack, 4, block_of(packet));
    send_packet(sock, ack, sizeof ack, server);
    memcpy(file.data() + held, packet + 4, count - 4);
    held += count - 4;
    if (held + block_bytes <= file.size() && count == packet_bytes) continue;
    if (write(fd, file.data(), held) != static_cast<ssize_t>(held)) die("write");
    held = 0;
  }
  close(fd);
  close(sock);
}

void bare_upload(sockaddr_in server, const char* path) {
  sockaddr_in own;
  const int sock = request(2, server, own);
  FILE* file = fopen(path, "rbe");
  if (!file) die(path);
  char packet[packet_bytes];
  char reply[packet_bytes];
  receive(sock, reply, server);
  std::size_t count = block_bytes;
  for (std::size_t block = 1; count == block_bytes; ++block) {
    count = fread(packet + 4, 1, block_bytes, file);
    write_header(packet, 3, block);
    send_packet(sock, packet, count + 4, server);
    receive(sock, reply, server);
    if (block_of(reply) != (block & 0xffff)) die("wrong ACK");
  }
  fclose(file);
  close(sock);
}

void our_download(sockaddr_in server, const char* path) {
  dl_result result;
  if (dl_tftp_recv_to_file("127.0.0.1", ntohs(server.sin_port), "file", path, &result) == 0) return;
  fprintf(stderr, "download: %d %s\n", result.code, result.message);
  exit(2);
}

void our_upload(sockaddr_in server, const char* path) {
  dl_result result;
  if (dl_tftp_send_file("127.0.0.1", ntohs(server.sin_port), "file", path, &result) == 0) return;
  fprintf(stderr, "upload: %d %s\n", result.code, result.message);
  exit(2);
}

using transfer = void (*)(sockaddr_in, const char*);

double seconds(transfer run, const sockaddr_in& server, const char* path) {
  const auto start = std::chrono::steady_clock::now();
  run(server, path);
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Runs both in turns, so that a busy machine slows both. Returns whether the ratio is allowed.
bool compare(const char* name, transfer ours, transfer bare, const sockaddr_in& server, const char* path,
             double mib) {
  double best_ours = 1e9;
  double best_bare = 1e9;
  for (int round = 0; round < rounds; ++round) {
    best_bare = std::min(best_bare, seconds(bare, server, path));
    best_ours = std::min(best_ours, seconds(ours, server, path));
  }
  const double ratio = best_ours / best_bare;
  printf("tftp %-8s %4.0f MiB: library %.3f s (%.1f MiB/s), bare client %.3f s, ratio %.2f (at most %.1f)\n",
         name, mib, best_ours, mib / best_ours, best_bare, ratio, allowed_ratio);
  return ratio <= allowed_ratio;
}

}  // namespace

int main(int argc, char** argv) {
  const long mib = argc > 1 ? strtol(argv[1], nullptr, 10) : 64;
  if (mib < 1 || mib > 1024) {
    fprintf(stderr, "usage: %s [MiB, 1 to 1024]\n", argv[0]);
    return 2;
  }
  const std::size_t file_bytes = static_cast<std::size_t>(mib) << 20;
  uint32_t limit = UINT32_MAX;
  uint32_t timeout_s = 10;
  dl_config_init();
  dl_set_option(DL_OPT_MAX_FILE_SIZE, &limit);
  dl_set_option(DL_OPT_NET_TIMEOUT, &timeout_s);

  char directory[] = "/tmp/tftp_bench.XXXXXX";
  if (!mkdtemp(directory)) die(directory);
  const std::string path = std::string(directory) + "/file";
  bool good;
  {
    const peer server(file_bytes);
    good = compare("download", our_download, bare_download, server.address(), path.c_str(),
                   static_cast<double>(mib));
    // What the download left is what the upload sends.
    good = compare("upload", our_upload, bare_upload, server.address(), path.c_str(),
                   static_cast<double>(mib)) &&
           good;
  }
  unlink(path.c_str());
  rmdir(directory);
  return good ? 0 : 1;
}
