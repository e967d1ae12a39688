// tftp_peer.h: the other side of a TFTP transfer, played from a script: a UDP socket on 127.0.0.1 with a port
// the system chose, and makers of the packets that both sides send. A wait ends after 10 seconds.
// One thread at a time.
#ifndef FETCHRIG_TESTS_PEERS_TFTP_PEER_H
#define FETCHRIG_TESTS_PEERS_TFTP_PEER_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdint.h>
#include <sys/socket.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "core/owners.h"

namespace tftp_test {

inline std::string number(int value) {
  return {static_cast<char>(value >> 8 & 0xff), static_cast<char>(value & 0xff)};
}
inline std::string request(char opcode, const std::string& name) {
  using namespace std::string_literals;
  return "\0"s + opcode + name + "\0octet\0blksize\0"s + "1432\0"s;
}
inline std::string data(int block, const std::string& payload) {
  return number(3) + number(block) + payload;
}
inline std::string ack(int block) {
  return number(4) + number(block);
}
inline std::string error(int code, const std::string& message) {
  return number(5) + number(code) + message + '\0';
}
// Names and values in turn, each terminated.
inline std::string oack(const std::vector<std::string>& options) {
  std::string packet = number(6);
  for (const std::string& text : options) packet += text + '\0';
  return packet;
}

// `count` bytes that differ from place to place; `offset` says where they begin in the endless pattern.
inline std::string pattern(std::size_t count, std::size_t offset = 0) {
  std::string bytes(count, '\0');
  for (std::size_t i = 0; i < count; ++i) bytes[i] = static_cast<char>((offset + i) * 2654435761u >> 13);
  return bytes;
}

// DATA `block` of a file with the first `file_bytes` of the pattern, in blocks of `size`.
inline std::string block_of(int block, std::size_t size, std::size_t file_bytes) {
  const std::size_t offset = static_cast<std::size_t>(block - 1) * size;
  return data(block, pattern(std::min(size, file_bytes - offset), offset));
}

// One step of a script: a datagram to wait for, or to send to the client, perhaps from a fresh port, as
// servers have one for each transfer.
struct step {
  enum { expected, sent, sent_from_new_port } what;
  std::string packet;
};
using script = std::vector<step>;
inline step expects(std::string packet) {
  return {step::expected, std::move(packet)};
}
inline step sends(std::string packet) {
  return {step::sent, std::move(packet)};
}
inline step sends_from_new_port(std::string packet) {
  return {step::sent_from_new_port, std::move(packet)};
}
inline script operator+(script steps, const script& more) {
  steps.insert(steps.end(), more.begin(), more.end());
  return steps;
}
inline script operator*(int times, const script& steps) {
  return times == 0 ? script{} : (times - 1) * steps + steps;
}

// A whole file as a server sends it, and the other side of a script.
inline script served(std::size_t size, std::size_t file_bytes) {
  script steps;
  for (int block = 1; static_cast<std::size_t>(block - 1) * size <= file_bytes; ++block)
    steps = steps + script{sends(block_of(block, size, file_bytes)), expects(ack(block))};
  return steps;
}
inline script flipped(script steps) {
  for (step& each : steps) each.what = each.what == step::expected ? step::sent : step::expected;
  return steps;
}

class peer {
 public:
  peer() { move_to_new_port(); }
  uint16_t port() const { return port_; }

  // A datagram that differs from the expected one is a test failure and ends the script.
  void play(const script& steps) {
    for (const step& next : steps) {
      if (next.what == step::sent_from_new_port) move_to_new_port();
      if (next.what != step::expected) {
        ::sendto(sock_.get(), next.packet.data(), next.packet.size(), 0, as_address(client_), sizeof client_);
      } else if (const std::string got = receive(10000); got != next.packet) {
        EXPECT_EQ(got, next.packet) << "at step " << &next - steps.data();
        return;
      }
    }
  }
  // What has been received and not yet taken.
  std::vector<std::string> queued() {
    std::vector<std::string> packets;
    for (std::string next; (next = receive(0)) != "(silence)";) packets.push_back(next);
    return packets;
  }

 private:
  static sockaddr* as_address(sockaddr_in& address) { return reinterpret_cast<sockaddr*>(&address); }

  void move_to_new_port() {
    sock_.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in own = {};
    own.sin_family = AF_INET;
    own.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof own;
    EXPECT_EQ(::bind(sock_.get(), as_address(own), length), 0);
    EXPECT_EQ(::getsockname(sock_.get(), as_address(own), &length), 0);
    port_ = ntohs(own.sin_port);
  }
  std::string receive(int patience_ms) {
    pollfd wait = {sock_.get(), POLLIN, 0};
    if (::poll(&wait, 1, patience_ms) != 1) return "(silence)";
    std::string packet(2048, '\0');
    socklen_t length = sizeof client_;
    const auto count = ::recvfrom(sock_.get(), packet.data(), packet.size(), 0, as_address(client_), &length);
    return packet.substr(0, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
  }

  fetchrig::unique_fd sock_;
  std::atomic<uint16_t> port_ = 0;
  sockaddr_in client_ = {};
};

// A script played in a thread of its own; the destructor waits for its end.
struct playing {
  playing(peer& server, const script& steps) : thread([&server, steps] { server.play(steps); }) {}
  std::jthread thread;
};

}  // namespace tftp_test
#endif
