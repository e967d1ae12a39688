// network.cpp: how bytes travel and time passes.
#include "tests/scenario/network.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace scenario {
namespace {

constexpr std::size_t send_room = 65536;
constexpr int for_ever_ms = 100'000'000;

std::size_t size_of(const std::deque<packet>& queue) {
  std::size_t size = 0;
  for (const packet& next : queue) size += next.bytes.size();
  return size;
}

int fails(int error) {
  errno = error;
  return -1;
}

// Bytes of a stream join those before them.
void join(scenario::link& way, std::deque<packet>& queue, packet&& next) {
  if (way.datagrams || queue.empty()) {
    queue.push_back(std::move(next));
  } else {
    queue.back().bytes += next.bytes;
  }
}

}  // namespace

network net;

void network::start(peers& others, const conditions& with) {
  others_ = &others;
  with_ = with;
  links.clear();
  num_waits = bound_port = 0;
  struck = silent_ = interrupts = false;
  failure.clear();
  clock_us = noon_us;
}

void network::stop() {
  others_ = nullptr;
  for (const auto& [fd, left_open] : sockets_) syscall(SYS_close, fd);
  sockets_.clear();
}

int network::socket(int family, int type) {
  const int fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, "/dev/null", O_RDWR | O_CLOEXEC));
  if (fd < 0) return fd;
  sockets_[fd] = std::make_shared<socket_state>();
  at(fd).family = family;
  at(fd).type = type & ~(SOCK_CLOEXEC | SOCK_NONBLOCK);
  return fd;
}

int network::duplicate(int fd, int first) {
  const int copy = static_cast<int>(syscall(SYS_fcntl, fd, F_DUPFD_CLOEXEC, first));
  if (copy >= 0) sockets_[copy] = sockets_.at(fd);
  return copy;
}

void network::close(int fd) {
  const auto last = sockets_.at(fd);
  sockets_.erase(fd);
  if (last.use_count() != 1 || !last->way) return;
  last->way->client_closed = true;
  last->way->client_aborted = last->aborts || last->connecting;
}

std::shared_ptr<link> network::attach(socket_state& socket, const endpoint& to) {
  move();
  socket.way = others_ ? others_->accept(to, socket.type == SOCK_DGRAM) : nullptr;
  if (!socket.way) return nullptr;
  socket.way->datagrams = socket.type == SOCK_DGRAM;
  socket.way->server = to;
  links.push_back(socket.way);
  return socket.way;
}

int network::connect(int fd, const endpoint& to) {
  socket_state& socket = at(fd);
  if (!silent_ && !attach(socket, to)) return fails(ECONNREFUSED);
  const bool waits = (socket.status_flags & O_NONBLOCK) == 0;
  const bool interrupted = socket.way && socket.way->interrupted;
  socket.connecting = !waits || interrupted;
  return socket.connecting ? fails(waits ? EINTR : EINPROGRESS) : 0;
}

int network::bind(int port) {
  bound_port = port;
  return 0;
}

bool network::is_cut(const scenario::link& way, bool up) const {
  return with_.how != cut::none && with_.cut_up == up && with_.cut_link < links.size() &&
         links[with_.cut_link].get() == &way && (way.datagrams || !way.dead);
}

void network::strike(scenario::link& way) {
  struck = way.dead = true;
  way.on_way.clear();
  way.in_flight.clear();
  way.ended = true;
  if (with_.how != cut::reset) return;
  way.reset = true;
  way.error = ECONNRESET;
}

// What travels arrives in `into`, unless it is cut; `number` counts it.
void network::pass(scenario::link& way, bool up, packet&& next) {
  std::deque<packet>& into = up ? way.received : way.arrived;
  std::size_t& number = up ? way.num_up : way.num_down;
  const bool cut_here = is_cut(way, up);
  if (way.datagrams) {
    const bool lost = cut_here && (with_.how == cut::end ? number >= with_.cut_at : number == with_.cut_at);
    ++number;
    struck |= lost;
    if (!lost) into.push_back(std::move(next));
    return;
  }
  const std::size_t room = cut_here ? with_.cut_at - number : next.bytes.size();
  const bool over = cut_here && next.bytes.size() >= room;
  next.bytes.resize(std::min(room, next.bytes.size()));
  number += next.bytes.size();
  if (up || !next.bytes.empty()) join(way, into, std::move(next));
  if (over) strike(way);
}

void network::carry_up(scenario::link& way) {
  while (!way.in_flight.empty() && !way.deaf) {
    packet next = std::move(way.in_flight.front());
    way.in_flight.pop_front();
    pass(way, true, std::move(next));
  }
}

void network::move() {
  if (silent_ || !others_) return;
  for (const auto& way : links) carry_up(*way);
  others_->play();
  if (with_.pieces == delivery::glued) {
    for (const auto& way : links) arrive(*way);
  }
}

// The next piece arrives, or all that is on the way when it is glued or datagrams; behind the last one the end.
void network::arrive(scenario::link& way) {
  for (bool again = !silent_; again && !way.on_way.empty();) {
    packet next = std::move(way.on_way.front());
    way.on_way.pop_front();
    if (!way.datagrams && with_.pieces == delivery::byte_by_byte && next.taken + 1 < next.bytes.size()) {
      const char byte = next.bytes[next.taken++];
      way.on_way.push_front(std::exchange(next, {std::string(1, byte)}));
    } else {
      next.bytes.erase(0, next.taken);
    }
    pass(way, false, std::move(next));
    again = way.datagrams || with_.pieces == delivery::glued;
  }
  if (!silent_ && way.ended && way.on_way.empty()) way.end_arrived = true;
}

// Counts a wait; false when nothing moves any more.
bool network::wait_begins() {
  ++num_waits;
  if (with_.silent_from > 0 && num_waits >= with_.silent_from) struck = silent_ = true;
  move();
  return !silent_;
}

short network::ready(const socket_state& socket) const {
  const auto& way = socket.way;
  if (!way) return 0;
  short events = 0;
  if (!way->arrived.empty() || way->end_arrived || way->error) events |= POLLIN;
  if (way->datagrams || way->dead || size_of(way->in_flight) < send_room) events |= POLLOUT;
  if (way->error) events |= POLLERR;
  return (silent_ || way->mute) && socket.connecting ? 0 : events;
}

int network::num_ready(pollfd* entries, nfds_t count, bool alive) {
  int number = 0;
  for (pollfd* entry = entries; entry < entries + count; ++entry) {
    entry->revents = 0;
    if (entry->fd < 0) continue;
    if (!owns(entry->fd)) {
      entry->revents = POLLNVAL;
    } else {
      socket_state& socket = at(entry->fd);
      if (alive && socket.way && (entry->events & POLLIN) && socket.way->arrived.empty()) arrive(*socket.way);
      const short shown = ready(socket);
      entry->revents = static_cast<short>(shown & (entry->events | POLLERR));
      if (entry->revents && alive) socket.connecting = false;
    }
    number += entry->revents != 0;
  }
  return number;
}

int network::poll(pollfd* entries, nfds_t count, int limit_ms) {
  const bool alive = wait_begins();
  const int64_t end_us = clock_us + int64_t{limit_ms} * 1000;
  int number = num_ready(entries, count, alive);
  while (number == 0 && alive && others_) {
    const int64_t wakes_us = others_->wakes_us();
    if (wakes_us == 0 || (limit_ms >= 0 && wakes_us > end_us)) break;
    clock_us = wakes_us;
    move();
    number = num_ready(entries, count, alive);
    if (interrupts) break;
  }
  if (std::exchange(interrupts, false)) return fails(EINTR);
  if (number > 0) return number;
  if (limit_ms < 0 || limit_ms > for_ever_ms) {
    failure = "waits for ever";
    return fails(EBADF);
  }
  clock_us = end_us;
  return 0;
}

ssize_t network::send(int fd, const char* from, std::size_t count, int flags) {
  socket_state& socket = at(fd);
  const auto way = socket.way;
  if (!way) return fails(ENOTCONN);
  if (!(flags & MSG_NOSIGNAL)) failure = "a send that may raise SIGPIPE";
  if (way->error) return fails(std::exchange(way->error, 0));
  if (way->reset) return fails(EPIPE);
  if (way->dead) {  // nobody takes it; the answer to it is a reset
    way->reset = true;
    return static_cast<ssize_t>(count);
  }
  const std::size_t held = size_of(way->in_flight);
  if (held >= send_room) {
    const bool waits = !(flags & MSG_DONTWAIT) && !(socket.status_flags & O_NONBLOCK);
    if (waits) failure = "sends without a limit";
    return fails(EAGAIN);
  }
  const std::size_t taken = std::min(count, send_room - held);
  join(*way, way->in_flight, {std::string(from, taken)});
  if (with_.pieces == delivery::glued) move();
  return static_cast<ssize_t>(taken);
}

ssize_t network::send_to(int fd, const char* from, std::size_t count, const endpoint& to) {
  socket_state& socket = at(fd);
  if (!socket.way && !silent_) attach(socket, to);
  if (socket.way && !silent_) socket.way->in_flight.push_back({std::string(from, count), to});
  if (with_.pieces == delivery::glued) move();
  return static_cast<ssize_t>(count);
}

ssize_t network::receive(int fd, char* to, std::size_t count, int flags, endpoint* sender) {
  socket_state& socket = at(fd);
  const auto way = socket.way;
  if (!way && socket.type == SOCK_STREAM) return fails(ENOTCONN);
  if (!way || (way->arrived.empty() && !way->end_arrived && !way->error)) {
    if ((flags & MSG_DONTWAIT) || (socket.status_flags & O_NONBLOCK)) return fails(EAGAIN);
    const bool alive = wait_begins();
    if (alive && way) arrive(*way);
    if (!way || (way->arrived.empty() && !way->end_arrived && !way->error)) {
      failure = "receives for ever";
      return fails(EBADF);
    }
  }
  if (way->arrived.empty()) return way->error ? fails(std::exchange(way->error, 0)) : 0;
  packet& first = way->arrived.front();
  const std::size_t taken = std::min(count, first.bytes.size());
  first.bytes.copy(to, taken);
  if (sender) *sender = first.other;
  if (flags & MSG_PEEK) return static_cast<ssize_t>(taken);
  first.bytes.erase(0, taken);
  if (first.bytes.empty() || way->datagrams) way->arrived.pop_front();
  return static_cast<ssize_t>(taken);
}

int network::pending_error(int fd) {
  const auto& way = at(fd).way;
  return way ? std::exchange(way->error, 0) : 0;
}

}  // namespace scenario
