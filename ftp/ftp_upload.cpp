// ftp_upload.cpp: sending a file. The remote file's size and the caller's two modes choose between APPE and
// STOR; the data connection is closed to end the file, and the server's final reply tells the outcome.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "core/boundary.h"
#include "core/config.h"
#include "core/owners.h"
#include "core/result.h"
#include "core/text.h"
#include "core/upload_file.h"
#include "ftp/ftp_command.h"
#include "ftp/ftp_data.h"
#include "ftp/ftp_parse.h"
#include "ftp/ftp_session.h"
#include "ftp/ftp_wait.h"
#include "include/fetchrig.h"
#include "log/log.h"
#include "log/printable.h"
#include "net/socket.h"

namespace fetchrig {
namespace {

constexpr std::size_t piece_bytes = 65536;
constexpr std::size_t final_reply_bytes = 8192;

enum reply_code : int {
  data_connection_open = 125,
  about_to_open_data = 150,
  size_known = 213,
  goodbye = 221,
  transfer_complete = 226,
  not_found = 550,
};

enum post_modes : int32_t { post_append = 1, post_store = 2 };
enum limit_modes : uint32_t { limit_store = 1, limit_stop = 2 };

// The server's part of the goodbye has no effect on the outcome.
void say_goodbye(const dl_ftp_session& session) {
  ftp_reply_bytes bytes;
  ftp_reply reply(bytes);
  if (ftp_command(session, "QUIT", {}, reply, {goodbye}) < 0) {
    log_line(DL_LOG_FTP, DL_LOG_DEBUG, "QUIT was not answered with %d\n", goodbye);
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

// Asks for the remote file's size; a file that does not exist can only be stored.
uint32_t ask_remote_size(upload& job) {
  const int code = ftp_command(job.session, "SIZE", job.name, job.reply);
  if (code == not_found) {
    log_line(DL_LOG_FTP, DL_LOG_INFO, "File not found, use STOR\n");
    job.post_mode = post_store;
  }
  const uint64_t size = code == size_known ? ftp_size_answer(job.reply.line()).value_or(0) : 0;
  return static_cast<uint32_t>(std::min<uint64_t>(size, UINT32_MAX));
}

// The command for an upload that would pass the limit, or null with `reply` holding the message.
const char* command_beyond_limit(const upload& job) {
  switch (job.limit_mode) {
    case limit_store:
      log_line(DL_LOG_FTP, DL_LOG_INFO, "exceed max file size,stor\n");
      return "STOR";
    case limit_stop:
      log_line(DL_LOG_FTP, DL_LOG_INFO, "exceed max file size,stop\n");
      say_goodbye(job.session);
      job.reply.assign("exceed max file size,stop\n");
      return nullptr;
    default:
      log_line(DL_LOG_FTP, DL_LOG_ERROR, "unknow limit mode\n");
      return nullptr;
  }
}

// The command for an upload within the limit, or null.
const char* command_within_limit(const upload& job) {
  switch (job.post_mode) {
    case post_append:
      log_line(DL_LOG_FTP, DL_LOG_INFO, "FTP APPE\n");
      return "APPE";
    case post_store:
      log_line(DL_LOG_FTP, DL_LOG_INFO, "FTP STOR\n");
      return "STOR";
    default:
      log_line(DL_LOG_FTP, DL_LOG_ERROR, "Unknow post mode\n");
      return nullptr;
  }
}

// Chooses the transfer command and has it accepted. Returns 0, a negative code, or the server's reply code.
int start_transfer(upload& job, const char* local_path, uint32_t limit) {
  const uint64_t remote_size = ask_remote_size(job);
  const int32_t local_size = dl_get_file_size(local_path);
  if (local_size == -1) {
    log_line(DL_LOG_FTP, DL_LOG_ERROR, "cannot get local file size\n");
    job.reply.assign("cannot get local file size\n");
    return DL_ERR_FTP_REPLY;
  }
  if (!is_upload_file(DL_LOG_FTP, local_path)) return DL_ERR_READ;
  const bool beyond = remote_size + static_cast<uint32_t>(local_size) > limit;
  const char* command = beyond ? command_beyond_limit(job) : command_within_limit(job);
  if (!command) return DL_ERR_FTP_REPLY;

  const int code = ftp_command(job.session, command, job.name, job.reply);
  if (code == data_connection_open || code == about_to_open_data) return 0;
  log_line(DL_LOG_FTP, DL_LOG_ERROR, "Open data transfer conn err\n");
  return code != 0 ? code : DL_ERR_FTP_REPLY;
}

// What is uploaded under which name, and how.
struct upload_request {
  const char* local_path;
  const char* remote_name;  // null or empty: the local file's name
  int32_t post_mode;
  uint32_t limit_mode;
};

int open_upload(const ftp_outcome& out, const ftp_login_data& login, const upload_request& request) {
  const char* local_path = request.local_path;
  const char* name = request.remote_name && *request.remote_name ? request.remote_name
                     : local_path                                ? base_name(local_path).data()
                                                                 : nullptr;
  if (!ftp_check_open(out, login, local_path ? name : nullptr)) return -1;
  ftp_reply_bytes bytes;
  ftp_reply reply(bytes);
  const net_options options = net_settings();
  if (ftp_session_open(out, login, options, reply) < 0) return -1;
  upload job{**out.handle, ftp_wire_name(name), request.post_mode, request.limit_mode, reply};
  if (const int rc = start_transfer(job, local_path, options.max_file_size); rc != 0)
    return ftp_fail(out, reply, rc);
  log_line(DL_LOG_FTP, DL_LOG_NOTICE, "Post open success\n");
  return 0;
}

// Sends all bytes, waiting only when the connection takes no more. Returns 0, or -1 with the result filled.
int send_piece(int sock, std::span<const char> rest, int timeout_s, dl_result* result) {
  while (!rest.empty()) {
    const ssize_t sent = ::send(sock, rest.data(), rest.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent >= 0) {
      rest = rest.subspan(static_cast<std::size_t>(sent));
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      if (!ftp_wait(sock, wait_writable, timeout_s)) return fail(result, DL_ERR_SEND);
    } else if (errno != EINTR) {
      log_line(DL_LOG_FTP, DL_LOG_ERROR, "read error! errno %d\n", errno);
      return fail(result, DL_ERR_SEND);
    }
  }
  return 0;
}

ssize_t read_piece(int file, std::span<char> to) {
  ssize_t count = 0;
  do {
    count = ::read(file, to.data(), to.size());
  } while (count < 0 && errno == EINTR);
  return count;
}

// A count of bytes has 32 bits with a sign.
int too_large(dl_result* result) {
  log_line(DL_LOG_FTP, DL_LOG_ERROR, "local file of 2 GiB or more\n");
  return fail(result, DL_ERR_PARAMETER);
}

// A local file that cannot be read: the data connection is dropped. To the server a regular end would be the
// end of the file. Returns -1 with the result filled.
int drop_upload(dl_ftp_session& session, dl_result* result) {
  reset_on_close(session.data_sock);
  close_socket(session.data_sock);
  return fail(result, DL_ERR_READ);
}

// Sends the file to its end. Returns the bytes sent, or -1 with the result filled.
int send_contents(dl_ftp_session& session, int file, const char* local_path, std::span<char> buffer,
                  dl_result* result) {
  const int timeout_s = net_timeout_seconds();
  int total = 0;
  for (;;) {
    const ssize_t count = read_piece(file, buffer);
    if (count == 0) return total;
    if (count < 0) {
      log_unreadable(DL_LOG_FTP, local_path, errno);
      return drop_upload(session, result);
    }
    if (count > INT_MAX - total) return too_large(result);
    const std::span<const char> piece = buffer.first(static_cast<std::size_t>(count));
    if (send_piece(session.data_sock, piece, timeout_s, result) < 0) return -1;
    total += static_cast<int>(count);
  }
}

int send_file(dl_ftp_session& session, const char* local_path, dl_result* result) {
  if (local_path && !is_upload_file(DL_LOG_FTP, local_path)) return drop_upload(session, result);
  const unique_fd file(local_path ? ::open(local_path, O_RDONLY | O_CLOEXEC) : -1);
  if (!file) {
    log_line(DL_LOG_FTP, DL_LOG_ERROR, "Can't open %s\n", printable(local_path).c_str());
    return fail(result, DL_ERR_PARAMETER);
  }
  struct stat status = {};
  if (fstat(file.get(), &status) == 0 && status.st_size > INT_MAX) return too_large(result);
  const unique_malloc<char> buffer(static_cast<char*>(::malloc(piece_bytes)));
  if (!buffer) return fail(result, DL_ERR_MEMORY);
  const int count = send_contents(session, file.get(), local_path, {buffer.get(), piece_bytes}, result);
  // Whenever the connection is closed then, the server does not take the part for the whole.
  if (count < 0) reset_on_close(session.data_sock);
  return count;
}

// Reads the server's verdict on the transfer and takes leave. Returns 0, or -1 with the result filled.
int finish_transfer(const dl_ftp_session& session, dl_result* result) {
  std::array<char, final_reply_bytes> bytes;
  ftp_reply reply(bytes);
  if (dl_recv_reply(session, reply, {transfer_complete}) < 0) return fail(result, DL_ERR_SEND);
  say_goodbye(session);
  return 0;
}

int send_whole_file(const ftp_login_data& login, const upload_request& request, dl_result* result) {
  dl_ftp_session* opened = nullptr;
  if (open_upload({&opened, result}, login, request) < 0) return -1;
  const unique_ftp session(opened);
  const int count = dl_ftp_send(session.get(), request.local_path, result);
  if (count < 0) return -1;
  log_line(DL_LOG_FTP, DL_LOG_NOTICE, "send: %d bytes\n", count);
  return 0;
}

}  // namespace
}  // namespace fetchrig

int dl_ftp_send_open(dl_ftp_session** session, const char* host, uint32_t port, const char* user,
                     const char* password, const char* local_path, const char* remote_name, int32_t post_mode,
                     uint32_t limit_mode, dl_result* result) {
  using namespace fetchrig;
  return guarded_transfer(result, [&] {
    return open_upload({session, result}, {host, port, user, password},
                       {local_path, remote_name, post_mode, limit_mode});
  });
}

int dl_ftp_send(dl_ftp_session* session, const char* local_path, dl_result* result) {
  using namespace fetchrig;
  if (!result || !ftp_usable(session)) {
    log_line(DL_LOG_FTP, DL_LOG_ERROR, "ftp read with invalid parameter\n");
    return fail(result, DL_ERR_PARAMETER);
  }
  return guarded_transfer(result, [&] {
    const int count = send_file(*session, local_path, result);
    if (count < 0) return -1;
    close_socket(session->data_sock);
    return finish_transfer(*session, result) < 0 ? -1 : count;
  });
}

int dl_ftp_send_file(const char* host, uint32_t port, const char* user, const char* password,
                     const char* remote_name, const char* local_path, int32_t post_mode, uint32_t limit_mode,
                     dl_result* result) {
  using namespace fetchrig;
  return guarded_transfer(result, [&] {
    return send_whole_file({host, port, user, password}, {local_path, remote_name, post_mode, limit_mode},
                           result);
  });
}
