// tftp_peer.cpp: a UDP peer that speaks TFTP from a script.
#include "tests/peers/tftp_peer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>

namespace tftp_test {

namespace {

constexpr int patience_ms = 10000;

std::string number(int value) {
  return {static_cast<char>(value >> 8 & 0xff), static_cast<char>(value & 0xff)};
}

fetchrig::unique_fd bound_socket(sockaddr_in& address) {
  fetchrig::unique_fd sock(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  EXPECT_EQ(::bind(sock.get(), reinterpret_cast<sockaddr*>(&address), length), 0);
  EXPECT_EQ(::getsockname(sock.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
  return sock;
}

// Opcode and block number in words, for failure messages; equal packets have equal texts.
std::string shown(const std::string& packet) {
  return testing::PrintToString(packet);
}

}  // namespace

std::string request(char opcode, const std::string& name) {
  using namespace std::string_literals;
  return "\0"s + opcode + name + "\0octet\0blksize\0"s + "1432\0"s;
}

std::string data(int block, const std::string& payload) {
  return number(3) + number(block) + payload;
}

std::string ack(int block) {
  return number(4) + number(block);
}

std::string error(int code, const std::string& message) {
  return number(5) + number(code) + message + '\0';
}

std::string oack(const std::vector<std::string>& options) {
  std::string packet = number(6);
  for (const std::string& text : options) packet += text + '\0';
  return packet;
}

std::string pattern(std::size_t count, std::size_t offset) {
  std::string bytes(count, '\0');
  for (std::size_t i = 0; i < count; ++i) bytes[i] = static_cast<char>((offset + i) * 2654435761u >> 13);
  return bytes;
}

step expects(std::string packet) {
  return {step::expects, std::move(packet)};
}
step sends(std::string packet) {
  return {step::sends, std::move(packet)};
}
step sends_from_new_port(std::string packet) {
  return {step::sends_from_new_port, std::move(packet)};
}

script operator+(script steps, const script& more) {
  steps.insert(steps.end(), more.begin(), more.end());
  return steps;
}

peer::peer() {
  sockaddr_in address;
  first_ = bound_socket(address);
  port_ = ntohs(address.sin_port);
}

sockaddr_in peer::address() const {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port_);
  return address;
}

std::string peer::receive() {
  pollfd wait = {active(), POLLIN, 0};
  if (::poll(&wait, 1, patience_ms) != 1) return "(silence)";
  std::array<char, 2048> bytes;
  socklen_t length = sizeof client_;
  const ssize_t count =
      ::recvfrom(active(), bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&client_), &length);
  return {bytes.data(), count < 0 ? 0 : static_cast<std::size_t>(count)};
}

void peer::send(const std::string& packet) {
  EXPECT_EQ(::sendto(active(), packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr*>(&client_),
                     sizeof client_),
            static_cast<ssize_t>(packet.size()));
}

void peer::send_to(uint16_t to, const std::string& packet) {
  client_ = address();
  client_.sin_port = htons(to);
  send(packet);
}

void peer::move_to_new_port() {
  sockaddr_in address;
  moved_ = bound_socket(address);
}

void peer::play(const script& steps) {
  for (std::size_t i = 0; i < steps.size(); ++i) {
    switch (steps[i].what) {
      case step::expects: {
        const std::string got = receive();
        if (got == steps[i].packet) break;
        ADD_FAILURE() << "step " << i << ": expected " << shown(steps[i].packet) << ", got " << shown(got);
        return;
      }
      case step::sends_from_new_port:
        move_to_new_port();
        [[fallthrough]];
      case step::sends:
        send(steps[i].packet);
        break;
    }
  }
}

std::vector<std::string> peer::queued() {
  std::vector<std::string> packets;
  for (pollfd wait = {active(), POLLIN, 0}; ::poll(&wait, 1, 0) == 1;) packets.push_back(receive());
  return packets;
}

void peer::aim_at(int client_sock) {
  socklen_t length = sizeof client_;
  EXPECT_EQ(::getsockname(client_sock, reinterpret_cast<sockaddr*>(&client_), &length), 0);
  client_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
}

std::vector<std::string> tftp_lines(const test::log_capture& log) {
  std::vector<std::string> lines;
  for (const test::log_message& message : log.records()) {
    if (message.module == "TFTP") lines.push_back(std::to_string(message.level) + " " + message.text);
  }
  return lines;
}

}  // namespace tftp_test
