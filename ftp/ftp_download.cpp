// SPDX-License-Identifier: MIT
// ftp_download.cpp: fetching a file.
#include "ftp/ftp_download.h"

#include <algorithm>

#include "core/boundary.h"
#include "core/cause.h"
#include "core/config.h"
#include "core/download_file.h"
#include "core/result.h"
#include "core/text.h"
#include "ftp/ftp_codes.h"
#include "ftp/ftp_command.h"
#include "ftp/ftp_parse.h"
#include "ftp/ftp_stream.h"
#include "ftp/ftp_wait.h"
#include "log/log.h"

namespace fetchrig {
namespace {

// A file is delivered in reads of this size; totals and the size limit are judged in it.
constexpr uint32_t file_step = 512;

// Asks for the file's size, which the session then counts down. Returns 0 or a negative code.
int take_size(dl_ftp_session& session, std::string_view name, ftp_reply& reply) {
  log_line(DL_LOG_FTP, DL_LOG_INFO, "Sending size cmd to get file size\n");
  int rc = ftp_command(session, "SIZE", name, reply, {ftp_size_known});
  const auto size = rc < 0 ? std::nullopt : ftp_size_answer(reply.line());
  if (rc >= 0 && !size) rc = DL_ERR_FTP_REPLY;
  if (rc < 0) return log_and_return(DL_LOG_FTP, rc, "Get file size error\n");
  session.remaining = static_cast<uint32_t>(std::min<uint64_t>(*size, UINT32_MAX));
  if (*size > UINT32_MAX && !ftp_extras_count(session, *size)) {
    note_cause(DL_CAUSE_TOO_LARGE);
    log_line(DL_LOG_FTP, DL_LOG_WARNING, "File of 4 GiB or more, its end is out of reach\n");
    ftp_mark_cut(session);
  }
  log_line(DL_LOG_FTP, DL_LOG_INFO, "File size:%d\n", static_cast<int>(session.remaining));
  return 0;
}

int request_file(const dl_ftp_session& session, std::string_view name, ftp_reply& reply) {
  const int code = ftp_command(session, "RETR", name, reply);
  if (code > ftp_about_to_open_data) {
    return log_and_return(DL_LOG_FTP, DL_ERR_FTP_REPLY, "Server response wrong code : %d\n", code);
  }
  return code < 0 ? log_and_return(DL_LOG_FTP, code, "Send RETR cmd Error\n")
                  : ftp_extras_secure_data(session);
}

// Receives between one byte and `to.size()` bytes, which is above 0: what is there, else what comes within
// the time-out. Returns the count, or -1 with the result filled.
ssize_t receive_some(const dl_ftp_session& session, std::span<char> to, int timeout_s, dl_result* result) {
  const io_result received = ftp_stream::data(session)->read(to, timeout_s);
  if (received.count > 0) return received.count;
  if (received.wait_failed) {
    ftp_log_failed_wait(received.error);
  } else if (received.count == 0) {
    note_symptom(DL_CAUSE_FILE_CUT);
    log_line(DL_LOG_FTP, DL_LOG_ERROR, "data connection closed too early\n");
  } else {
    note_symptom(DL_CAUSE_BROKEN, received.error);
    log_line(DL_LOG_FTP, DL_LOG_ERROR, "read error! errno %d\n", received.error);
  }
  return fail(result, DL_ERR_READ);
}

// The file goes on where the count of what remains has ended: this is no complete copy.
int fail_cut(dl_result* result) {
  note_cause(DL_CAUSE_TOO_LARGE);
  log_line(DL_LOG_FTP, DL_LOG_ERROR, "File of 4 GiB or more cannot be read to its end\n");
  return fail(result, DL_ERR_READ);
}

// Fills `to`, which is no larger than what remains. Returns its size or -1 with the result filled.
int read_whole(dl_ftp_session& session, std::span<char> to, dl_result* result) {
  const int timeout_s = net_timeout_seconds();
  for (std::span<char> rest = to; !rest.empty();) {
    const ssize_t count = receive_some(session, rest, timeout_s, result);
    if (count < 0) return -1;
    rest = rest.subspan(static_cast<std::size_t>(count));
  }
  session.remaining -= static_cast<uint32_t>(to.size());
  return static_cast<int>(to.size());
}

// Receives what remains straight into the file's buffer, to its end. Returns 0 or -1 with the result filled.
int copy_to_file(dl_ftp_session& session, download_file& file, dl_result* result) {
  while (session.remaining > 0) {
    const int timeout_s = net_timeout_seconds();
    const std::span<char> room = file.room();
    const auto wanted = std::min<std::size_t>(room.size(), session.remaining);
    const ssize_t count = receive_some(session, room.first(wanted), timeout_s, result);
    if (count < 0) return -1;
    session.remaining -= static_cast<uint32_t>(count);
    if (file.accept(static_cast<uint32_t>(count), result) < 0) return -1;
    ftp_extras_fill_up(session);
  }
  if (ftp_is_cut(session)) return fail_cut(result);
  return ftp_extras_end_download(session, result);
}

}  // namespace

int ftp_open(const ftp_outcome& out, const ftp_server& server, const char* path, ftp_resume* resume) {
  if (!ftp_check_open(out, server, path)) return -1;
  ftp_reply_bytes bytes;
  ftp_reply reply(bytes);
  if (ftp_session_open(out, server, net_settings(), reply) < 0) return -1;
  const std::string_view name = ftp_wire_name(path);
  if (const int rc = take_size(**out.handle, name, reply); rc < 0) return ftp_fail(out, reply, rc);
  const auto ask = [&] { return resume ? resume->ask(**out.handle, name, reply) : 0; };
  int rc = guarded_step(ask);
  if (rc == 0) rc = request_file(**out.handle, name, reply);
  if (rc < 0) return ftp_fail(out, reply, rc);
  log_line(DL_LOG_FTP, DL_LOG_NOTICE, "Open Success\n");
  return 0;
}

int ftp_read(dl_ftp_session& session, std::span<char> to, dl_result* result) {
  ftp_extras_fill_up(session);
  if (!to.empty() && session.remaining == 0) {
    return ftp_is_cut(session) ? fail_cut(result) : ftp_extras_end_download(session, result);
  }
  return read_whole(session, to.first(std::min<std::size_t>(to.size(), session.remaining)), result);
}

int ftp_recv_to_file(const ftp_server& server, const char* path, const char* local_path, dl_result* result) {
  dl_ftp_session* opened = nullptr;
  ftp_resume resume(server, local_path);
  int rc = ftp_open({&opened, result}, server, path, &resume);
  if (rc < 0 && resume.begins_anew(result)) rc = ftp_open({&opened, result}, server, path, &resume);
  if (rc < 0) return -1;
  const unique_ftp session(opened);
  download_file file(DL_LOG_FTP, file_step, ftp_extras_limit(*session, max_file_size()));
  const bool is_open = resume.open(file) || file.open(local_path ? local_path : base_name(path).data());
  if (!is_open || copy_to_file(*session, file, result) < 0 || resume.confirm(*session, result) < 0) return -1;
  if (file.finish(result) < 0) return -1;
  log_line(DL_LOG_FTP, DL_LOG_NOTICE, "recv: %lld bytes\n", static_cast<long long>(file.total()));
  return 0;
}

}  // namespace fetchrig
