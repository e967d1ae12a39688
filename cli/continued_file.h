// SPDX-License-Identifier: MIT
// continued_file.h: a download that goes on with what an earlier call of the command left, over HTTP and FTP. The part
// waits in a directory beside the file, for this user alone: the library keeps in it what came, and what tells whether
// the source is still the same. The directory goes with its last file. One thread, but for received().
#ifndef FETCHRIG_CLI_CONTINUED_FILE_H
#define FETCHRIG_CLI_CONTINUED_FILE_H

#include <cstdint>
#include <string>
#include <utility>

#include "source.h"
#include "temporary_path.h"
#include "transfer.h"

namespace fetchrig::cli {

class continued_file {
 public:
  // Makes the directory, or finds it; throws failure when it is not this user's own.
  explicit continued_file(const std::string& directory);

  // Fetches the rest, or all of it, and stores what the server told; throws failure, after which the part waits.
  void download(const source_request& request, server_facts& told);
  // The whole file, which is the caller's to keep or to remove.
  temporary_path take() { return std::move(whole_); }
  const std::string& path() const { return whole_.get(); }
  std::uint64_t size_bytes() const;
  // Bytes that this call brought. Any thread, while the file is here.
  std::uint64_t received() const;

 private:
  temporary_path directory_;  // stays while a part is in it
  temporary_path whole_;
  const std::string part_;
  std::uint64_t held_bytes_;  // before the download
};

}  // namespace fetchrig::cli
#endif
