// SPDX-License-Identifier: MIT
// ftp_upload.cpp: sending a file.
#include "ftp/ftp_upload.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>

#include <algorithm>

#include "core/cause.h"
#include "core/config.h"
#include "core/files.h"
#include "core/owners.h"
#include "core/result.h"
#include "core/text.h"
#include "core/upload_file.h"
#include "ftp/extra/ftp_extras.h"
#include "ftp/ftp_codes.h"
#include "ftp/ftp_command.h"
#include "ftp/ftp_parse.h"
#include "ftp/ftp_wait.h"
#include "log/log.h"
#include "log/printable.h"
#include "net/send_file.h"
#include "net/socket.h"

namespace fetchrig {
namespace {

// The server's part of the goodbye has no effect on the outcome.
void say_goodbye(const dl_ftp_session& session) {
  ftp_reply_bytes bytes;
  ftp_reply reply(bytes);
  if (ftp_command(session, "QUIT", {}, reply, {ftp_goodbye}) < 0) {
    log_line(DL_LOG_FTP, DL_LOG_DEBUG, "QUIT was not answered with %d\n", ftp_goodbye);
  }
}

// An upload on its way to its transfer command.
struct upload {
  const dl_ftp_session& session;
  std::string_view name;
  int32_t post_mode;
  uint32_t limit_mode;
  ftp_reply& reply;
};

// What the server says of the file under the remote name.
struct remote_file {
  bool missing;
  uint64_t size;  // 0 when it does not tell
};

remote_file ask_remote_file(const upload& job) {
  const int code = ftp_command(job.session, "SIZE", job.name, job.reply);
  const uint64_t size = code == ftp_size_known ? ftp_size_answer(job.reply.line()).value_or(0) : 0;
  return {code == ftp_file_not_found, ftp_extras_remote_size(job.session, size)};
}

// The upload would pass the limit, and stops there: takes leave, and the failure tells why.
int stop_at_limit(const upload& job) {
  log_line(DL_LOG_FTP, DL_LOG_INFO, "exceed max file size,stop\n");
  say_goodbye(job.session);
  job.reply.assign("exceed max file size,stop\n");
  return DL_ERR_FTP_REPLY;
}

// The command for an upload that would pass the limit, or null.
const char* command_beyond_limit(uint32_t limit_mode) {
  if (limit_mode == DL_FTP_LIMIT_STORE) {
    log_line(DL_LOG_FTP, DL_LOG_INFO, "exceed max file size,stor\n");
    return "STOR";
  }
  log_line(DL_LOG_FTP, DL_LOG_ERROR, "unknow limit mode\n");
  return nullptr;
}

// The command for an upload within the limit, or null.
const char* command_within_limit(int32_t post_mode) {
  switch (post_mode) {
    case DL_FTP_APPEND:
      log_line(DL_LOG_FTP, DL_LOG_INFO, "FTP APPE\n");
      return "APPE";
    case DL_FTP_STORE:
      log_line(DL_LOG_FTP, DL_LOG_INFO, "FTP STOR\n");
      return "STOR";
    default:
      log_line(DL_LOG_FTP, DL_LOG_ERROR, "Unknow post mode\n");
      return nullptr;
  }
}

// Chooses the transfer command and has it accepted. Returns 0, a negative code, or the server's reply code.
int start_transfer(upload& job, const ftp_upload_request& request, uint64_t limit) {
  const char* const local_path = request.local_path;
  const remote_file remote = ask_remote_file(job);
  if (remote.missing) {
    log_line(DL_LOG_FTP, DL_LOG_INFO, "File not found, use STOR\n");
    job.post_mode = DL_FTP_STORE;
  }
  const int64_t local_size =
      request.is_counted ? file_size(local_path) : ftp_extras_local_size(job.session, local_path);
  if (local_size == -1) {
    job.reply.assign("cannot get local file size\n");
    return log_and_return(DL_LOG_FTP, DL_ERR_FTP_REPLY, "cannot get local file size\n");
  }
  if (!is_upload_file(DL_LOG_FTP, local_path)) return DL_ERR_READ;
  const bool beyond = remote.size + static_cast<uint64_t>(local_size) > limit;
  if (beyond && job.limit_mode == DL_FTP_LIMIT_STOP) return stop_at_limit(job);
  const char* command = beyond ? command_beyond_limit(job.limit_mode) : command_within_limit(job.post_mode);
  if (!command) return DL_ERR_FTP_REPLY;

  const int code = ftp_command(job.session, command, job.name, job.reply);
  if (code == ftp_data_connection_open || code == ftp_about_to_open_data)
    return ftp_extras_secure_data(job.session);
  return log_and_return(DL_LOG_FTP, code != 0 ? code : DL_ERR_FTP_REPLY, "Open data transfer conn err\n");
}

// A local file that cannot be read: the data connection is dropped. Returns -1 with the result filled.
int drop_upload(dl_ftp_session& session, dl_result* result) {
  close_socket(session.data_sock);
  return fail(result, DL_ERR_READ);
}

// A count of bytes that is returned has 32 bits with a sign.
int too_large(dl_result* result) {
  log_line(DL_LOG_FTP, DL_LOG_ERROR, "local file of 2 GiB or more\n");
  return fail(result, DL_ERR_PARAMETER);
}

// Sends the file to its end. Returns the bytes sent, or -1 with the result filled.
int64_t send_contents(dl_ftp_session& session, int file, const ftp_upload_source& source, dl_result* result) {
  const auto secured = ftp_extras_send(session, file, source.max_bytes);
  const send_result sent =
      secured ? *secured : send_file(session.data_sock, file, source.max_bytes, net_timeout_seconds());
  switch (sent.end) {
    case send_end::whole:
      return sent.total;
    case send_end::too_large:
      return too_large(result);
    case send_end::read_failed:
      log_unreadable(DL_LOG_FTP, source.path, sent.error);
      return drop_upload(session, result);
    case send_end::wait_failed:
      ftp_log_failed_wait(sent.error);
      return fail(result, DL_ERR_SEND);
    case send_end::send_failed:
      note_symptom(DL_CAUSE_BROKEN, sent.error);
      log_line(DL_LOG_FTP, DL_LOG_ERROR, "read error! errno %d\n", sent.error);
      return fail(result, DL_ERR_SEND);
    case send_end::no_memory:
      break;
  }
  return fail(result, DL_ERR_MEMORY);
}

int64_t send_local_file(dl_ftp_session& session, const ftp_upload_source& source, dl_result* result) {
  const char* const local_path = source.path;
  if (local_path && !is_upload_file(DL_LOG_FTP, local_path)) return drop_upload(session, result);
  const unique_fd file(local_path ? ::open(local_path, O_RDONLY | O_CLOEXEC) : -1);
  if (!file) {
    log_line(DL_LOG_FTP, DL_LOG_ERROR, "Can't open %s\n", printable(local_path).c_str());
    return fail(result, DL_ERR_PARAMETER);
  }
  struct stat status = {};
  if (::fstat(file.get(), &status) == 0 && status.st_size > source.max_bytes) return too_large(result);
  return send_contents(session, file.get(), source, result);
}

// Reads the server's verdict on the transfer and takes leave. Returns 0, or -1 with the result filled.
int finish_transfer(const dl_ftp_session& session, dl_result* result) {
  ftp_final_reply_bytes bytes;
  ftp_reply reply(bytes);
  const int rc = dl_recv_reply(session, reply, {ftp_transfer_complete});
  if (rc == DL_ERR_FTP_REPLY)
    note_cause(DL_CAUSE_FTP_REPLY, ftp_reply_code(reply.line()).value_or(0), reply.line());
  if (rc < 0) return fail(result, DL_ERR_SEND);
  say_goodbye(session);
  return 0;
}

// As the request says, or the local file's; null without a local file.
const char* remote_name_of(const ftp_upload_request& request) {
  if (!request.local_path) return nullptr;
  const bool named = request.remote_name && *request.remote_name;
  return named ? request.remote_name : base_name(request.local_path).data();
}

}  // namespace

int ftp_send_open(const ftp_outcome& out, const ftp_server& server, const ftp_upload_request& request) {
  const char* name = remote_name_of(request);
  if (!ftp_check_open(out, server, name)) return -1;
  ftp_reply_bytes bytes;
  ftp_reply reply(bytes);
  const net_options options = net_settings();
  if (ftp_session_open(out, server, options, reply) < 0) return -1;
  // To the server a regular end is the end of the file: only a whole one has it, whatever happens until then.
  reset_on_close((*out.handle)->data_sock);
  upload job{**out.handle, ftp_wire_name(or_empty(name)), request.post_mode, request.limit_mode, reply};
  const uint64_t limit = ftp_extras_limit(**out.handle, options.max_file_size);
  if (const int rc = start_transfer(job, request, limit); rc != 0) return ftp_fail(out, reply, rc);
  log_line(DL_LOG_FTP, DL_LOG_NOTICE, "Post open success\n");
  return 0;
}

int64_t ftp_send(dl_ftp_session& session, const ftp_upload_source& source, dl_result* result) {
  reset_on_close(session.data_sock);  // the caller may have opened it by itself
  const int64_t count = send_local_file(session, source, result);
  if (count < 0) return -1;
  if (!ftp_extras_end_upload(session)) return fail(result, DL_ERR_SEND);
  close_in_order(session.data_sock);
  return finish_transfer(session, result) < 0 ? -1 : count;
}

int ftp_send_file(const ftp_server& server, const ftp_upload_request& request, dl_result* result) {
  dl_ftp_session* opened = nullptr;
  ftp_upload_request uncounted = request;
  uncounted.is_counted = false;
  if (ftp_send_open({&opened, result}, server, uncounted) < 0) return -1;
  const unique_ftp session(opened);
  const ftp_upload_source source = {request.local_path, ftp_extras_max_upload(*session)};
  const int64_t count = ftp_send(*session, source, result);
  if (count < 0) return -1;
  log_line(DL_LOG_FTP, DL_LOG_NOTICE, "send: %lld bytes\n", static_cast<long long>(count));
  return 0;
}

}  // namespace fetchrig
