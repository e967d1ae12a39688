// tftp_peer.h: the other side of a TFTP transfer, played from a script or by hand: a UDP socket on 127.0.0.1
// with a port the system chose, and makers of the packets that both sides send. Waits end after 10 seconds
// with a test failure. One thread at a time.
#ifndef FETCHRIG_TESTS_PEERS_TFTP_PEER_H
#define FETCHRIG_TESTS_PEERS_TFTP_PEER_H

#include <netinet/in.h>
#include <stdint.h>

#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "core/owners.h"
#include "tests/support/log_capture.h"

namespace tftp_test {

std::string request(char opcode, const std::string& name);
std::string data(int block, const std::string& payload);
std::string ack(int block);
std::string error(int code, const std::string& message);
// Names and values in turn, each terminated.
std::string oack(const std::vector<std::string>& options);

// `count` bytes that differ from place to place; `offset` says where they begin in the endless pattern.
std::string pattern(std::size_t count, std::size_t offset = 0);

// One step of a script: a datagram to wait for, or to send to the client, from a fresh port when `new_port`.
struct step {
  enum { expects, sends, sends_from_new_port } what;
  std::string packet;
};
using script = std::vector<step>;
step expects(std::string packet);
step sends(std::string packet);
step sends_from_new_port(std::string packet);

// `steps` with `more` behind them.
script operator+(script steps, const script& more);

class peer {
 public:
  peer();
  uint16_t port() const { return port_; }
  // The socket address of the port, for session records made by hand.
  sockaddr_in address() const;

  // Waits for a datagram; its sender becomes the client. "(silence)" after the time limit.
  std::string receive();
  void send(const std::string& packet);
  // To any port on 127.0.0.1.
  void send_to(uint16_t to, const std::string& packet);
  // Closes nothing: later sends and receives use a port of their own, as servers do for each transfer.
  void move_to_new_port();
  // Plays the script; a datagram that differs from the expected one is a test failure and ends it.
  void play(const script& steps);
  // What has been received and not yet taken; empty when nothing.
  std::vector<std::string> queued();
  // Where the next send goes.
  void aim_at(int client_sock);

 private:
  fetchrig::unique_fd first_;
  fetchrig::unique_fd moved_;
  uint16_t port_ = 0;
  sockaddr_in client_ = {};
  int active() const { return moved_ ? moved_.get() : first_.get(); }
};

// A script played in a thread of its own; the destructor waits for its end.
class playing {
 public:
  playing(peer& server, const script& steps) : thread_([&server, steps] { server.play(steps); }) {}
  ~playing() { thread_.join(); }
  playing(const playing&) = delete;
  playing& operator=(const playing&) = delete;

 private:
  std::thread thread_;
};

// The TFTP lines that were captured, as "3 text": level and message.
std::vector<std::string> tftp_lines(const test::log_capture& log);

}  // namespace tftp_test
#endif
