// SPDX-License-Identifier: MIT
// ftp_resume.h: a download that goes on where an earlier one stopped, by REST (RFC 3659). SIZE and the answer to MDTM
// tell whether it still is the same file; where they cannot, it begins anew. A file of which a part was there already
// is asked about once more behind its last byte, as it may have changed meanwhile; what changes twice within a second
// and keeps its size goes unnoticed. One thread at a time per object.
#ifndef FETCHRIG_FTP_EXTRA_FTP_RESUME_H
#define FETCHRIG_FTP_EXTRA_FTP_RESUME_H

#include <optional>
#include <string>
#include <string_view>

#include "ftp/extra/ftp_extras.h"
#if FETCHRIG_EXTRAS
#include "core/extra/partial_file.h"
#endif

namespace fetchrig {

class download_file;
struct ftp_server;

#if FETCHRIG_EXTRAS

class ftp_resume {
 public:
  // The server and the local path, which may be null, outlive the object.
  ftp_resume(const ftp_server& server, const char* local_path) : server_(server), local_path_(local_path) {}

  // Between SIZE and RETR of `name`: opens the part that is there, and has the server go on behind it. Returns 0, 1
  // when all of it is there already and nothing is left to ask for, or a negative code; does nothing unless it is
  // wanted.
  [[nodiscard]] int ask(dl_ftp_session& session, std::string_view name, ftp_reply& reply);
  // Has the file go on with the part. False when there is none.
  [[nodiscard]] bool open(download_file& file);
  // All bytes are there. Returns 0, or -1 with the result filled: the server's verdict is another, or the file is.
  [[nodiscard]] int confirm(dl_ftp_session& session, dl_result* result);

  // The open call has failed. True when the server would not send the rest: the next one asks for all of it.
  [[nodiscard]] bool begins_anew(const dl_result* result);

 private:
  [[nodiscard]] bool is_whole() const { return goes_on_ && part_->held() == part_->source().size; }
  [[nodiscard]] int restart(dl_ftp_session& session, const part_source& now, ftp_reply& reply);

  const ftp_server& server_;
  const char* local_path_;
  std::string name_;
  std::optional<partial_file> part_;
  bool goes_on_ = false;
  bool anew_ = false;
};

#else

class ftp_resume {
 public:
  ftp_resume(const ftp_server& /*server*/, const char* /*local_path*/) {}
  [[nodiscard]] static int ask(dl_ftp_session& /*session*/, std::string_view /*name*/, ftp_reply& /*reply*/) {
    return 0;
  }
  [[nodiscard]] static bool open(download_file& /*file*/) { return false; }
  [[nodiscard]] static int confirm(const dl_ftp_session& /*session*/, dl_result* /*result*/) { return 0; }
  [[nodiscard]] static bool begins_anew(const dl_result* /*result*/) { return false; }
};

#endif

}  // namespace fetchrig
#endif
