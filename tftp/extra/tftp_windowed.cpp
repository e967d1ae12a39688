// SPDX-License-Identifier: MIT
// tftp_windowed.cpp: windows of blocks, in both directions.
#include "tftp/extra/tftp_windowed.h"

#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <vector>

#include "core/boundary.h"
#include "core/cause.h"
#include "core/extra/beside.h"
#include "core/upload_file.h"
#include "log/log.h"
#include "net/socket.h"
#include "tftp/extra/tftp_options.h"
#include "tftp/extra/tftp_pace.h"

namespace fetchrig {
namespace {

constexpr int longest_server_timeout_s = 2;  // asked for: what is lost on the way is missed here first
constexpr int max_strangers_told = 4;
constexpr uint16_t half_of_numbers = 32768;  // block numbers wrap: what is further ahead is behind
constexpr uint16_t error_disk_full = 3;
constexpr uint16_t error_unknown_port = 5;

enum class heard { packet, silence, failure, unsaid };

bool same_address(const sockaddr_storage& first, const sockaddr_storage& second) {
  if (first.ss_family != second.ss_family) return false;
  const auto* first4 = reinterpret_cast<const sockaddr_in*>(&first);
  const auto* second4 = reinterpret_cast<const sockaddr_in*>(&second);
  if (first.ss_family == AF_INET) return first4->sin_addr.s_addr == second4->sin_addr.s_addr;
  const auto* first6 = reinterpret_cast<const sockaddr_in6*>(&first);
  const auto* second6 = reinterpret_cast<const sockaddr_in6*>(&second);
  return memcmp(&first6->sin6_addr, &second6->sin6_addr, sizeof first6->sin6_addr) == 0;
}

in_port_t port_of(const sockaddr_storage& address) {
  return reinterpret_cast<const sockaddr_in*>(&address)->sin_port;  // at the same place for both families
}

class windowed_transfer : public beside<windowed_transfer> {
 public:
  windowed_transfer(dl_tftp_session& session, const tftp_beginning& begins, const tftp_wishes& wishes)
      : session_(session), begins_(begins), wishes_(wishes), pace_(begins.timeout_s) {
    const uint32_t blksize = std::max<uint32_t>(wishes.blksize.value_or(0), tftp_default_blksize);
    buffer_.resize(tftp_header_len + blksize + 1);  // one more shows a block that is too long
    make_room(blksize * std::size_t{wishes.window.value_or(1)});
  }

  int negotiate();
  int read(std::span<char> to, dl_result* result);
  int send(int file, const char* local_path, dl_result* result);
  bool exceeds(uint64_t limit, dl_result* result);
  std::optional<uint64_t> announced() const {
    const bool is_told =
        begins_.opcode == tftp_opcode::rrq && terms_.tsize != 0;  // some echo the 0 of the request
    return is_told ? terms_.tsize : std::nullopt;
  }

 private:
  void make_room(std::size_t bytes) const;
  int request();
  int refused(int code);
  int take_answer(const tftp_packet& packet, bool& settled);

  bool is_servers(const sockaddr_storage& sender);
  void tell_stranger(in_port_t port, std::string_view datagram);
  heard receive(tftp_packet& packet);
  heard receive_or_repeat(tftp_packet& packet);
  int next(tftp_packet& packet, dl_result* result);
  int repeat();

  int acknowledge();
  int acknowledge_again();
  int take_data(const tftp_packet& packet, std::span<char>& rest);
  int take_block(std::string_view body, std::span<char>& rest);

  int send_block(uint64_t index);
  int send_window();
  void take_ack(uint16_t block);

  dl_tftp_session& session_;
  const tftp_beginning begins_;
  tftp_wishes wishes_;
  tftp_terms terms_;
  std::vector<char> buffer_;
  sockaddr_storage server_ = {};
  tftp_pace pace_;
  bool is_settled_ = false;  // the server's port and the terms
  int error_ = 0;            // of a failure: the server's code or errno
  bool is_servers_error_ = false;
  int unsaid_ = 0;  // the code of what could not be said again
  bool retried_ = false;
  int strangers_told_ = 0;

  uint16_t next_ = 1;  // block that is due
  uint32_t unacknowledged_ = 0;
  bool owes_ack_ = false;  // of the OACK
  bool gap_told_ = false;
  std::vector<char> carry_;  // of a block, what the caller had no room for
  std::size_t carry_from_ = 0;

  int file_ = -1;
  const char* local_path_ = nullptr;
  uint64_t size_ = 0;
  uint64_t num_blocks_ = 0;
  uint64_t acked_ = 0;
  uint64_t sent_ = 0;
};

// A window arrives while nobody reads.
void windowed_transfer::make_room(std::size_t bytes) const {
  constexpr std::size_t overhead = 2;  // the system counts what it needs beside a datagram
  const int wanted = static_cast<int>(std::min<std::size_t>(bytes * overhead, std::size_t{8} << 20));
  int now = 0;
  socklen_t length = sizeof now;
  if (::getsockopt(session_.sock, SOL_SOCKET, SO_RCVBUF, &now, &length) == 0 && now < wanted)
    ::setsockopt(session_.sock, SOL_SOCKET, SO_RCVBUF, &wanted, sizeof wanted);
}

// To the server's own port, whoever else has sent something.
int windowed_transfer::request() {
  tftp_set_server_port(session_, port_of(server_));
  pace_.said();
  tftp_request_buffer packet;
  const std::string_view bytes = tftp_build_wishes(begins_.opcode, begins_.remote_name, wishes_, packet);
  if (tftp_send_packet(session_, bytes) == static_cast<ssize_t>(bytes.size())) return 0;
  note_symptom(DL_CAUSE_SEND, errno);
  return log_and_return(DL_LOG_TFTP, DL_ERR_SEND, "Send Error error! errno = %d\n", errno);
}

int windowed_transfer::negotiate() {
  memcpy(&server_, session_.server, sizeof session_.server);
  if (const int rc = request(); rc < 0) return rc;
  while (!is_settled_) {
    tftp_packet packet;
    const heard outcome = receive_or_repeat(packet);
    if (outcome == heard::silence) {
      note_symptom(DL_CAUSE_WAIT);
      return begins_.opcode == tftp_opcode::rrq ? DL_ERR_NOT_TFTP : DL_ERR_READ;
    }
    if (outcome == heard::unsaid) return unsaid_;
    const int rc = outcome == heard::failure ? refused(DL_ERR_READ) : take_answer(packet, is_settled_);
    if (rc < 0) return rc;
  }
  session_.blksize = static_cast<int32_t>(terms_.blksize);
  log_line(DL_LOG_TFTP, DL_LOG_INFO, "using blksize %u, window %u\n", static_cast<unsigned>(terms_.blksize),
           static_cast<unsigned>(terms_.window));
  return 0;
}

// A server that refuses the options is asked once more without any.
int windowed_transfer::refused(int code) {
  if (!is_servers_error_ || error_ != tftp_error_options || retried_) return code;
  log_line(DL_LOG_TFTP, DL_LOG_NOTICE, "options refused, asking without\n");
  clear_cause();
  retried_ = true;
  is_servers_error_ = false;
  wishes_ = {};
  return request();
}

// The server's first packet. Its port is this transfer's from now on (RFC 1350, section 4).
int windowed_transfer::take_answer(const tftp_packet& packet, bool& settled) {
  const bool reads = begins_.opcode == tftp_opcode::rrq;
  if (packet.kind == tftp_kind::oack) {
    const auto terms = tftp_parse_terms(packet.body, wishes_);
    if (!terms) {
      tftp_send_error(session_, tftp_error_options, "options refused");
      return log_and_return(DL_LOG_TFTP, DL_ERR_READ, "options that were not asked for\n");
    }
    terms_ = *terms;
    settled = true;
    owes_ack_ = reads;
    pace_.round_over();
  } else if (reads && packet.kind == tftp_kind::data && packet.block == 1) {
    std::span<char> nowhere;
    settled = true;
    return take_data(packet, nowhere) < 0 ? DL_ERR_SEND : 0;
  } else if (!reads && packet.kind == tftp_kind::ack && packet.block == 0) {
    settled = true;
    pace_.round_over();
  }
  return 0;
}

bool windowed_transfer::is_servers(const sockaddr_storage& sender) {
  if (!same_address(sender, server_)) return false;
  if (is_settled_) return tftp_server_port(session_) == port_of(sender);
  tftp_set_server_port(session_, port_of(sender));
  return true;
}

// A server that heard the request twice may have begun twice: the transfer on the other port ends (RFC 1350, section
// 4). Few are told, without a text, and never an ERROR: nobody is made to flood the server, or to talk for ever.
void windowed_transfer::tell_stranger(in_port_t port, std::string_view datagram) {
  const bool transfers = tftp_parse_packet(datagram).kind != tftp_kind::unexpected;
  if (!transfers || strangers_told_ == max_strangers_told) return;
  ++strangers_told_;
  const uint16_t own = tftp_server_port(session_);
  tftp_set_server_port(session_, port);
  tftp_send_error(session_, error_unknown_port, {});
  tftp_set_server_port(session_, own);
}

// The next packet of the server, at the latest when something is due.
heard windowed_transfer::receive(tftp_packet& packet) {
  for (;;) {
    sockaddr_storage sender = {};
    socklen_t sender_len = sizeof sender;
    const ssize_t length = ::recvfrom(session_.sock, buffer_.data(), buffer_.size(), MSG_DONTWAIT,
                                      reinterpret_cast<sockaddr*>(&sender), &sender_len);
    const int64_t left_ms = pace_.left_ms();
    error_ = length < 0 ? errno : 0;
    if (length < 0 && error_ != EINTR && !would_block()) return heard::failure;
    const std::string_view datagram(buffer_.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    if (length >= 0 && is_servers(sender)) {
      packet = tftp_parse_packet(datagram);
      if (packet.kind != tftp_kind::unexpected) return heard::packet;
      if (const auto code = tftp_note_server_error(datagram)) {
        error_ = *code;
        is_servers_error_ = true;
        return heard::failure;
      }
    } else if (length >= 0 && same_address(sender, server_)) {
      tell_stranger(port_of(sender), datagram);
    }
    if (left_ms <= 0) return heard::silence;
    if (length >= 0 || error_ == EINTR) continue;
    if (wait_for(session_.sock, POLLIN, left_ms) < 0) {
      error_ = errno;
      return heard::failure;
    }
  }
}

// The same; silence only when nothing came of all repeats, or for as long nothing but what leads no further.
heard windowed_transfer::receive_or_repeat(tftp_packet& packet) {
  for (;;) {
    const heard outcome = receive(packet);
    if (outcome == heard::failure) return outcome;
    if (pace_.is_over()) return heard::silence;
    if (outcome == heard::packet) return outcome;
    pace_.repeats();
    if (unsaid_ = repeat(); unsaid_ < 0) return heard::unsaid;
  }
}

// Says again what was said last. Returns 0 or a negative code, logged.
int windowed_transfer::repeat() {
  if (!is_settled_) return request();
  if (begins_.opcode == tftp_opcode::rrq) return acknowledge() < 0 ? DL_ERR_SEND : 0;
  sent_ = acked_;
  return send_window();
}

// Returns 0, or -1 with the result filled.
int windowed_transfer::next(tftp_packet& packet, dl_result* result) {
  const heard outcome = receive_or_repeat(packet);
  if (outcome == heard::packet) return 0;
  if (outcome == heard::unsaid) return fail(result, unsaid_);
  if (outcome == heard::silence) {
    note_symptom(DL_CAUSE_WAIT);
    log_line(DL_LOG_TFTP, DL_LOG_ERROR, "Error Select! errno 0\n");
  } else if (!is_servers_error_) {
    note_symptom(DL_CAUSE_BROKEN, error_);
    log_line(DL_LOG_TFTP, DL_LOG_ERROR, "Recvfrom error! errno %d\n", error_);
  }
  return fail(result, DL_ERR_READ);
}

bool windowed_transfer::exceeds(uint64_t limit, dl_result* result) {
  if (terms_.tsize.value_or(0) <= limit) return false;
  owes_ack_ = false;
  tftp_send_error(session_, error_disk_full, "file too large");
  log_line(DL_LOG_TFTP, DL_LOG_ERROR, "exceed max size\n");
  fail_exceeded(result, limit);
  return true;
}

int windowed_transfer::acknowledge() {
  if (tftp_send_ack(session_, static_cast<uint16_t>(next_ - 1)) < 0) return -1;
  unacknowledged_ = 0;
  owes_ack_ = false;
  pace_.said();
  return 0;
}

// What was answered has come once more: the ACK is lost, and the server was silent for a while; else it is a copy on
// the way, and an answer would make the server send the next window twice, and so on to the end.
int windowed_transfer::acknowledge_again() {
  return pace_.may_have_crossed() ? 0 : acknowledge();
}

// The block that is due, with the ACK that may be due with it. The ACK goes out before anything changes.
int windowed_transfer::take_block(std::string_view body, std::span<char>& rest) {
  const bool last = body.size() < terms_.blksize;
  ++next_;
  if (++unacknowledged_ >= terms_.window || last) {
    pace_.round_over();
    if (acknowledge() < 0) {
      --next_, --unacknowledged_;
      return -1;
    }
  }
  const std::size_t count = std::min(rest.size(), body.size());
  body.copy(rest.data(), count);
  rest = rest.subspan(count);
  carry_.assign(body.begin() + static_cast<std::ptrdiff_t>(count), body.end());
  carry_from_ = 0;
  session_.block = next_;
  session_.done = last;
  gap_told_ = false;
  pace_.progressed();
  return 0;
}

int windowed_transfer::take_data(const tftp_packet& packet, std::span<char>& rest) {
  const auto ahead = static_cast<uint16_t>(packet.block - next_);
  if (ahead == 0) return packet.body.size() <= terms_.blksize ? take_block(packet.body, rest) : 0;
  if (ahead == UINT16_MAX) return acknowledge_again();
  if (ahead >= half_of_numbers) return 0;
  pace_.heard();  // of a window that goes on without it
  if (gap_told_) return 0;
  gap_told_ = true;
  return acknowledge();  // the server goes on behind it
}

int windowed_transfer::read(std::span<char> to, dl_result* result) {
  std::span<char> rest = to;
  const std::size_t carried = std::min(rest.size(), carry_.size() - carry_from_);
  std::copy_n(carry_.data() + carry_from_, carried, rest.data());
  carry_from_ += carried;
  rest = rest.subspan(carried);
  pace_.progressed();
  const auto unsent = [result] { return fail(result, DL_ERR_SEND); };
  if (owes_ack_ && acknowledge() < 0) return unsent();
  while (!session_.done && !rest.empty()) {
    tftp_packet packet;
    if (next(packet, result) < 0) return -1;
    const bool is_late_oack = packet.kind == tftp_kind::oack && next_ == 1;
    if (is_late_oack && acknowledge_again() < 0) return unsent();
    if (packet.kind == tftp_kind::data && take_data(packet, rest) < 0) return unsent();
  }
  return static_cast<int>(to.size() - rest.size());
}

// The last block is shorter than the others, so that it may be empty.
int windowed_transfer::send_block(uint64_t index) {
  const uint64_t from = index * terms_.blksize;
  const auto length = static_cast<std::size_t>(std::min<uint64_t>(size_ - from, terms_.blksize));
  tftp_write_header(std::span(buffer_).first<tftp_header_len>(), tftp_opcode::data,
                    static_cast<uint16_t>(index + 1));
  for (std::size_t have = 0; have < length;) {
    const ssize_t count = ::pread(file_, buffer_.data() + tftp_header_len + have, length - have,
                                  static_cast<off_t>(from + have));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return DL_ERR_READ;
    have += static_cast<std::size_t>(count);
  }
  const std::string_view packet(buffer_.data(), tftp_header_len + length);
  return tftp_send_packet(session_, packet) == static_cast<ssize_t>(packet.size()) ? 0 : DL_ERR_SEND;
}

// What is left of the window. Returns 0 or a negative code, logged.
int windowed_transfer::send_window() {
  const uint64_t end = std::min(acked_ + terms_.window, num_blocks_);
  if (sent_ < end) pace_.said();
  for (; sent_ < end; ++sent_) {
    errno = 0;
    const int rc = send_block(sent_);
    const int error = errno;
    if (rc == DL_ERR_READ) log_unreadable(DL_LOG_TFTP, local_path_, error);
    if (rc == DL_ERR_SEND) {
      note_symptom(DL_CAUSE_BROKEN, error);
      log_line(DL_LOG_TFTP, DL_LOG_ERROR, "Send DATA Error\n");
    }
    if (rc < 0) return rc;
  }
  return 0;
}

// Blocks behind the acknowledged one are sent again: whoever acknowledges fewer than a window has missed one. An old
// ACK may be a copy, and to answer it would make copies of all that follows: a window's first block that is missed is
// sent again after a silence.
void windowed_transfer::take_ack(uint16_t block) {
  const auto count = static_cast<uint16_t>(block - static_cast<uint16_t>(acked_));
  if (count == 0 || count > sent_ - acked_) return;
  pace_.round_over();
  acked_ += count;
  sent_ = acked_;
  pace_.progressed();
}

int windowed_transfer::send(int file, const char* local_path, dl_result* result) {
  struct stat status = {};
  if (::fstat(file, &status) != 0) return fail(result, DL_ERR_READ);
  file_ = file;
  local_path_ = local_path;
  size_ = static_cast<uint64_t>(status.st_size);
  num_blocks_ = size_ / terms_.blksize + 1;
  acked_ = sent_ = 0;
  pace_.progressed();
  while (acked_ < num_blocks_) {
    if (const int rc = send_window(); rc < 0) return fail(result, rc);
    tftp_packet packet;
    if (next(packet, result) < 0) return -1;
    if (packet.kind == tftp_kind::ack) take_ack(packet.block);
  }
  session_.done = 1;
  return static_cast<int>(size_);
}

tftp_wishes wishes_of(const tftp_beginning& begins, const transfer_extras& extras) {
  const bool reads = begins.opcode == tftp_opcode::rrq;
  tftp_wishes wishes;
  wishes.blksize = extras.tftp_blksize != 0 ? extras.tftp_blksize : tftp_max_blksize;
  if (extras.tftp_window > 1) {
    wishes.window = extras.tftp_window;
    wishes.timeout_s = static_cast<uint32_t>(std::min(begins.timeout_s, longest_server_timeout_s));
  }
  wishes.tsize = reads ? uint64_t{0} : begins.size;
  return wishes;
}

}  // namespace

bool tftp_windowed_wanted(const transfer_extras& extras) {
  return extras.tftp_window > 1 || extras.tftp_blksize != 0;
}

std::optional<int> tftp_windowed_open(dl_tftp_session& session, const tftp_beginning& begins,
                                      const transfer_extras& extras) {
  if (!tftp_windowed_wanted(extras)) return {};
  return guarded_step([&] {
    auto transfer = std::make_unique<windowed_transfer>(session, begins, wishes_of(begins, extras));
    const int rc = transfer->negotiate();
    if (rc == 0) windowed_transfer::keep(&session, std::move(transfer));
    return rc;
  });
}

std::optional<int> tftp_windowed_read(dl_tftp_session& session, std::span<char> to, dl_result* result) {
  auto* const transfer = windowed_transfer::of(&session);
  return transfer ? std::optional(transfer->read(to, result)) : std::nullopt;
}

std::optional<int> tftp_windowed_send(dl_tftp_session& session, int file, const char* local_path,
                                      dl_result* result) {
  auto* const transfer = windowed_transfer::of(&session);
  return transfer ? std::optional(transfer->send(file, local_path, result)) : std::nullopt;
}

std::optional<uint64_t> tftp_windowed_size(const dl_tftp_session& session) {
  auto* const transfer = windowed_transfer::of(&session);
  return transfer ? transfer->announced() : std::nullopt;
}

bool tftp_windowed_exceeds(dl_tftp_session& session, uint64_t limit, dl_result* result) {
  auto* const transfer = windowed_transfer::of(&session);
  return transfer && transfer->exceeds(limit, result);
}

void tftp_windowed_close(const dl_tftp_session& session) {
  windowed_transfer::take(&session);
}

}  // namespace fetchrig
