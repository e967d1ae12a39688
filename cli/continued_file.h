// SPDX-License-Identifier: MIT
// continued_file.h: a download that goes on with what an earlier call of the command left, over HTTP and FTP. The part
// waits in a directory beside the file, for this user alone: the library keeps in it what came, and what tells whether
// the source is still the same. The directory goes with its last file. One thread, but for progress().
#ifndef FETCHRIG_CLI_CONTINUED_FILE_H
#define FETCHRIG_CLI_CONTINUED_FILE_H

#include <mutex>
#include <string>
#include <utility>

#include "progress.h"
#include "report.h"
#include "source.h"
#include "temporary_path.h"
#include "transfer.h"

namespace fetchrig::cli {

// Sees whether the library has begun anew: it makes a new record beside the part then.
class record_watch {
 public:
  explicit record_watch(const std::string& directory);
  record_watch(const record_watch&) = delete;
  record_watch& operator=(const record_watch&) = delete;
  ~record_watch();
  // Any thread.
  bool has_new_record();

 private:
  int fd_;
  std::mutex reading_;
  bool seen_ = false;
};

class continued_file {
 public:
  // Makes the directory, or finds it; throws failure when it is not this user's own.
  explicit continued_file(const std::string& directory);
  continued_file(const continued_file&) = delete;
  continued_file& operator=(const continued_file&) = delete;
  ~continued_file();

  // Fetches the rest, or all of it, and stores what the server told. Returns the outcome: code 0, or the one that
  // failed() words, after which the part waits.
  dl_result download(const source_request& request, server_facts& told);
  failure failed(const source_request& request, const dl_result& outcome) const;
  // The whole file, which is the caller's to keep or to remove.
  temporary_path take() { return std::move(whole_); }
  const std::string& path() const { return whole_.get(); }
  // Of the file that the library writes, also when it is gone by now. Any thread, before take().
  position progress();

 private:
  temporary_path directory_;  // stays while a part is in it
  temporary_path whole_;
  const std::string part_;
  record_watch record_;
  const int fd_;                    // of the part, which becomes the whole file; -1: none
  const std::uint64_t held_bytes_;  // before the download
};

}  // namespace fetchrig::cli
#endif
