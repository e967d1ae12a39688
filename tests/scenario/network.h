// network.h: a network in memory for one thread, with a clock of its own. The calls of the C library that reach
// sockets and clocks are replaced for the whole program (system.cpp) and come here. What a peer puts on the way arrives
// when the client waits for it; a wait in which nothing comes moves the clock by its limit and ends. A socket is a real
// descriptor, so that numbers, duplicates and leaks are those of the system. No GoogleTest in here.
#ifndef FETCHRIG_TESTS_SCENARIO_NETWORK_H
#define FETCHRIG_TESTS_SCENARIO_NETWORK_H

#include <poll.h>
#include <stdint.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace scenario {

// Numeric address and port.
struct endpoint {
  std::string address;
  int port = 0;
  bool operator==(const endpoint&) const = default;
};

// A piece of a stream, or a datagram with the other side's address.
struct packet {
  std::string bytes;
  endpoint other = {};
  std::size_t taken = 0;  // bytes at its front that have arrived already
};

// What lies between the client and one peer.
struct link {
  bool datagrams = false;
  endpoint server;
  std::deque<packet> on_way;     // from the peer, not arrived yet
  std::deque<packet> arrived;    // for the client to receive; of a stream at most one
  std::deque<packet> in_flight;  // from the client
  std::deque<packet> received;   // at the peer
  bool deaf = false;             // the peer takes nothing
  bool ended = false;            // the peer sends nothing behind what is on the way
  bool end_arrived = false;
  bool dead = false;  // the peer takes no more part
  bool reset = false;
  int error = 0;  // that the next call reports
  bool client_closed = false;
  bool client_aborted = false;  // and so that the peer does not take it for an end in good order
  bool mute = false;            // no connection comes about
  bool interrupted = false;     // a signal ends the connect() that waits
  std::size_t num_down = 0;     // bytes to the client, datagrams counting 1
  std::size_t num_up = 0;       // from it
};

// Who is at the other end.
class peers {
 public:
  virtual ~peers() = default;
  // Null: nobody listens there.
  virtual std::shared_ptr<link> accept(const endpoint& server, bool datagrams) = 0;
  // Takes what was received and puts answers on the way.
  virtual void play() = 0;
  // When they go on by themselves; 0: not at all.
  virtual int64_t wakes_us() const { return 0; }
};

enum class delivery { as_sent, byte_by_byte, glued };
enum class cut { none, end, reset };

// What the network does to one run. A cut strikes once so many bytes have passed; of datagrams, from that one on all
// are lost (end), or that one alone (reset).
struct conditions {
  delivery pieces = delivery::as_sent;
  cut how = cut::none;
  std::size_t cut_link = 0;
  bool cut_up = false;  // of what the client sends
  std::size_t cut_at = 0;
  long silent_from = 0;  // from this wait on nothing moves any more; 0: never
};

class network {
 public:
  static constexpr int64_t noon_us = int64_t{1767268800} * 1000000;  // 1 January 2026

  void start(peers& others, const conditions& with);
  void stop();
  // Lets the peers take what is left.
  void settle() { move(); }

  std::map<std::string, std::vector<std::string>> hosts;  // name, addresses
  std::vector<std::shared_ptr<link>> links;               // in the order they were made
  long num_waits = 0;
  bool struck = false;  // the cut or the silence has come
  std::string failure;  // a wait that would never end
  int64_t clock_us = noon_us;
  bool interrupts = false;  // a signal comes to the next wait
  int bound_port = 0;       // the last one

  struct socket_state {
    int family = 0;
    int type = 0;
    int status_flags = 0;
    timeval send_limit = {};
    bool connecting = false;
    bool aborts = false;  // when it is closed
    std::shared_ptr<scenario::link> way;
  };
  socket_state& at(int fd) const { return *sockets_.at(fd); }
  bool owns(int fd) const { return sockets_.contains(fd); }
  std::size_t num_open() const { return sockets_.size(); }
  int socket(int family, int type);
  int duplicate(int fd, int first);
  void close(int fd);
  int connect(int fd, const endpoint& to);
  int bind(int port);
  ssize_t send(int fd, const char* from, std::size_t count, int flags);
  ssize_t send_to(int fd, const char* from, std::size_t count, const endpoint& to);
  ssize_t receive(int fd, char* to, std::size_t count, int flags, endpoint* sender);
  int poll(pollfd* entries, nfds_t count, int limit_ms);
  int pending_error(int fd);

 private:
  void move();
  void pass(scenario::link& way, bool up, packet&& next);
  void carry_up(scenario::link& way);
  void arrive(scenario::link& way);
  void strike(scenario::link& way);
  bool is_cut(const scenario::link& way, bool up) const;
  bool wait_begins();
  short ready(const socket_state& socket) const;
  int num_ready(pollfd* entries, nfds_t count, bool alive);
  std::shared_ptr<scenario::link> attach(socket_state& socket, const endpoint& to);

  std::map<int, std::shared_ptr<socket_state>> sockets_;
  peers* others_ = nullptr;
  conditions with_;
  bool silent_ = false;
};

extern network net;

}  // namespace scenario
#endif
