// SPDX-License-Identifier: MIT
// upload_watch.h: how much of an upload has arrived, while the library is busy with it. Over TCP the kernel knows what
// the peer has acknowledged; over TFTP, where a block is read when the last one has been acknowledged, it is how far
// the file has been read. An estimate for a person: protocol lines and TLS records count too. Any thread.
#ifndef FETCHRIG_CLI_UPLOAD_WATCH_H
#define FETCHRIG_CLI_UPLOAD_WATCH_H

#include <sys/types.h>

#include <bitset>
#include <cstdint>
#include <string>

#include "location.h"

namespace fetchrig::cli {

class upload_watch {
 public:
  // Made before the upload is opened: descriptors that are open by then are not the library's.
  upload_watch(scheme kind, const std::string& path, std::uint64_t size_bytes);
  // At most the size of the file.
  std::uint64_t operator()() const;

 private:
  static constexpr int max_watched = 256;
  std::uint64_t moved_through(int fd) const;

  std::uint64_t size_bytes_;
  bool by_file_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
  std::bitset<max_watched> foreign_;
};

}  // namespace fetchrig::cli
#endif
