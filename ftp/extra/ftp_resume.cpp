// SPDX-License-Identifier: MIT
// ftp_resume.cpp: REST, and what tells one version of a file from the next.
#include "ftp/extra/ftp_resume.h"

#include <algorithm>

#include "core/cause.h"
#include "core/ports.h"
#include "core/result.h"
#include "core/text.h"
#include "core/url.h"
#include "ftp/ftp_codes.h"
#include "ftp/ftp_command.h"
#include "ftp/ftp_session.h"
#include "log/log.h"
#include "net/socket.h"

namespace fetchrig {
namespace {

constexpr int positive_completion = 2;  // 226, or 250 (RFC 959 section 5.4)
constexpr std::size_t code_len = 4;     // and the space behind it
constexpr std::size_t min_time_len = 14, max_time_len = 32;

// The time of the last change, "YYYYMMDDHHMMSS" and perhaps a fraction; nothing for another answer.
std::string time_of(std::string_view line) {
  const std::string_view text = trim_white_space(line.substr(std::min(code_len, line.size())));
  const bool is_time = text.size() >= min_time_len && text.size() <= max_time_len &&
                       std::all_of(text.begin(), text.end(), [](char c) { return is_digit(c) || c == '.'; });
  return std::string(is_time ? text : std::string_view());
}

// Sets `validator`, empty where the server does not tell. Returns 0 or a negative code.
int ask_time(const dl_ftp_session& session, std::string_view name, ftp_reply& reply, std::string& validator) {
  const int code = ftp_command(session, "MDTM", name, reply);
  validator = code == ftp_size_known ? time_of(reply.line()) : std::string();
  return std::min(code, 0);
}

}  // namespace

int ftp_resume::ask(dl_ftp_session& session, std::string_view name, ftp_reply& reply) {
  const auto left = ftp_extras_left(session);
  const char* const path = local_path_ ? local_path_ : base_name(name).data();
  if (!left || !partial_file::fits(path)) return 0;
  name_ = name;
  part_.emplace(DL_LOG_FTP);
  if (!part_->open(path)) return DL_ERR_READ;
  const std::string host = host_and_port(server_.host, server_.port ? server_.port : ftp_port, ftp_port);
  // Names are those of the user's own tree.
  const std::string user =
      server_.user && *server_.user ? std::string(server_.user).append("@") : std::string();
  part_source now = {"ftp://" + user + host + "/" + name_, "", *left};
  if (const int rc = ask_time(session, name, reply, now.validator); rc < 0) return rc;
  goes_on_ = !anew_ && part_->goes_on(now);
  if (is_whole()) {
    ftp_extras_set_left(session, 0);
    return 1;
  }
  if (goes_on_) return restart(session, now, reply);
  return part_->start_anew(now) == 0 ? 0 : DL_ERR_READ;
}

bool ftp_resume::begins_anew(const dl_result* result) {
  const bool is_refused = goes_on_ && result->code == DL_ERR_FTP_REPLY && result->message[0] == '5';
  if (!is_refused) return false;
  log_line(DL_LOG_FTP, DL_LOG_NOTICE, "the rest cannot be had, all of it again\n");
  goes_on_ = false;
  return anew_ = true;
}

int ftp_resume::restart(dl_ftp_session& session, const part_source& now, ftp_reply& reply) {
  const int code = ftp_command(session, "REST", std::to_string(part_->held()), reply);
  if (code < 0) return code;
  goes_on_ = code == ftp_restart_accepted;
  if (!goes_on_) return part_->start_anew(now) == 0 ? 0 : DL_ERR_READ;
  log_line(DL_LOG_FTP, DL_LOG_NOTICE, "goes on behind %llu bytes\n",
           static_cast<unsigned long long>(part_->held()));
  ftp_extras_set_left(session, now.size - part_->held());
  return 0;
}

bool ftp_resume::open(download_file& file) {
  if (part_) file.open(*part_);
  return part_.has_value();
}

int ftp_resume::confirm(dl_ftp_session& session, dl_result* result) {
  if (!goes_on_ || is_whole()) return 0;
  close_in_order(session.data_sock);  // some servers tell their verdict when it has ended
  ftp_reply_bytes bytes;
  ftp_reply reply(bytes);
  std::string validator;
  const int code = dl_recv_reply(session, reply, {});
  if (code / 100 != positive_completion) return fail(result, DL_ERR_READ);
  if (ask_time(session, name_, reply, validator) < 0) return fail(result, DL_ERR_READ);
  if (validator == part_->source().validator) return 0;
  part_->drop();
  note_symptom(DL_CAUSE_FILE_CUT);
  log_line(DL_LOG_FTP, DL_LOG_ERROR, "the file has changed meanwhile\n");
  return fail(result, DL_ERR_READ);
}

}  // namespace fetchrig
