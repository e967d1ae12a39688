// ftp_reply.cpp: the reply reader.
#include "ftp/ftp_reply.h"

#include <errno.h>
#include <sys/socket.h>

#include <algorithm>

#include "core/config.h"
#include "core/text.h"
#include "ftp/ftp_parse.h"
#include "ftp/ftp_wait.h"
#include "log/log.h"
#include "net/connect.h"

namespace fetchrig {
namespace {

constexpr int max_lines = 10000;
constexpr std::string_view line_end = "\r\n";
constexpr int line_too_long = -1;

// What one step of reading a line came to.
enum class line_state { partial, complete, closed };

ssize_t receive(int sock, std::span<char> to, int flags) {
  for (;;) {
    const ssize_t count = ::recv(sock, to.data(), to.size(), flags);
    if (count >= 0 || errno != EINTR) return count;
  }
}

// Takes what has arrived, at most up to the line's end, behind the `held` bytes of `buffer`. Returns 0 or -8.
int take_arrived(int sock, std::span<char> buffer, std::size_t& held, line_state& state) {
  const std::span<char> room = buffer.subspan(held, buffer.size() - held - 1);
  const ssize_t peeked = receive(sock, room, MSG_PEEK);
  if (peeked < 0) return DL_ERR_READ;

  // The carriage return may have come, and been taken, before its line feed.
  const std::string_view seen(buffer.data(), held + static_cast<std::size_t>(peeked));
  const std::size_t end = seen.find(line_end, held > 0 ? held - 1 : 0);
  const bool found = end != std::string_view::npos;
  const std::size_t wanted = (found ? end + line_end.size() : seen.size()) - held;
  const ssize_t taken = receive(sock, room.first(wanted), 0);
  if (taken < 0) return DL_ERR_READ;

  held += static_cast<std::size_t>(taken);
  const bool whole = static_cast<std::size_t>(taken) == wanted;
  state = taken == 0 ? line_state::closed : found && whole ? line_state::complete : line_state::partial;
  return 0;
}

// Reads one line. Returns 0 with the line in `reply` (on `closed`, what had arrived of it), or -8 or -1.
int read_line(int sock, ftp_reply& reply, line_state& state) {
  const std::span<char> buffer = reply.buffer();
  const int timeout_s = net_timeout_seconds();
  reply.set_length(0);
  std::size_t held = 0;
  do {
    if (!ftp_wait(sock, wait_readable, timeout_s)) return DL_ERR_READ;
    if (const int rc = take_arrived(sock, buffer, held, state); rc < 0) return rc;
    if (held + 1 >= buffer.size()) return line_too_long;
  } while (state == line_state::partial);
  reply.set_length(state == line_state::complete ? held - line_end.size() : held);
  return 0;
}

}  // namespace

void ftp_reply::assign(std::string_view text) {
  copy_text(buffer_, text);
  length_ = std::min(text.size(), buffer_.size() - 1);
}

int dl_recv_reply(const dl_ftp_session& session, ftp_reply& reply, ftp_expected expected) {
  line_state state = line_state::partial;
  for (int lines = 0; lines < max_lines && state != line_state::closed; ++lines) {
    if (const int rc = read_line(session.ctrl_sock, reply, state); rc < 0) {
      reply.set_length(0);
      return rc;
    }
    if (const auto code = ftp_reply_code(reply.line())) {
      return expected.code != 0 && *code != expected.code ? expected.mismatch : *code;
    }
  }
  log_line(DL_LOG_FTP, DL_LOG_NOTICE, "no final reply line\n");
  return DL_ERR_READ;
}

}  // namespace fetchrig
