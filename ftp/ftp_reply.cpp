// SPDX-License-Identifier: MIT
// ftp_reply.cpp: the reply reader.
#include "ftp/ftp_reply.h"

#include <algorithm>

#include "core/cause.h"
#include "core/config.h"
#include "core/text.h"
#include "ftp/ftp_codes.h"
#include "ftp/ftp_parse.h"
#include "ftp/ftp_stream.h"
#include "ftp/ftp_wait.h"
#include "log/log.h"
#include "net/line_reader.h"

namespace fetchrig {
namespace {

constexpr int line_too_long = -1;

int reply_too_long(int code) {
  note_symptom(DL_CAUSE_LONG_REPLY);
  log_line(DL_LOG_FTP, DL_LOG_NOTICE, "FTP reply too long\n");
  return code;
}

// Reads one line into `reply`: when the peer closed, what had arrived of it. Returns 0, -8 or -1.
int read_reply_line(const dl_ftp_session& session, ftp_reply& reply, line_state& state) {
  const std::span<char> buffer = reply.buffer();
  ftp_stream control = ftp_stream::control(session);
  const line_result read = read_line(*control, buffer, {buffer.size(), buffer.size()}, net_timeout_seconds());
  reply.set_length(read.text.size());
  state = read.state;
  if (read.io.wait_failed) {
    ftp_log_failed_wait(read.io.error);
  } else if (read.io.count < 0) {
    note_symptom(DL_CAUSE_BROKEN, read.io.error);
    log_line(DL_LOG_FTP, DL_LOG_NOTICE, "read failed, errno %d\n", read.io.error);
  }
  if (read.io.count < 0) return DL_ERR_READ;
  return state == line_state::too_long ? reply_too_long(line_too_long) : 0;
}

}  // namespace

void ftp_reply::assign(std::string_view text) {
  copy_text(buffer_, text);
  length_ = std::min(text.size(), buffer_.size() - 1);
}

int dl_recv_reply(const dl_ftp_session& session, ftp_reply& reply, ftp_expected expected) {
  line_state state = line_state::complete;
  for (int lines = 0; lines < ftp_max_reply_lines && state != line_state::closed; ++lines) {
    if (const int rc = read_reply_line(session, reply, state); rc < 0) return rc;
    if (const auto code = ftp_reply_code(reply.line())) {
      return expected.code != 0 && *code != expected.code ? expected.mismatch : *code;
    }
  }
  if (state != line_state::closed) return reply_too_long(DL_ERR_READ);
  note_symptom(DL_CAUSE_NO_REPLY);
  log_line(DL_LOG_FTP, DL_LOG_NOTICE, "no final reply line\n");
  return DL_ERR_READ;
}

}  // namespace fetchrig
