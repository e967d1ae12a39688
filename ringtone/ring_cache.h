// SPDX-License-Identifier: MIT
// ring_cache.h: the file a ring is downloaded into. It is written under a name of its own beside the final
// one and renamed by finish(); without that it is removed. One thread at a time.
#ifndef FETCHRIG_RINGTONE_RING_CACHE_H
#define FETCHRIG_RINGTONE_RING_CACHE_H

#include <span>
#include <string>

#include "core/owners.h"

namespace fetchrig {

// "/tmp/<MD5 of the URL>.wav".
[[nodiscard]] std::string ring_cache_path(const char* url);

[[nodiscard]] bool is_regular_file(const char* path);

class ring_cache_file {
 public:
  explicit ring_cache_file(std::string path) : path_(std::move(path)) {}
  ~ring_cache_file();
  ring_cache_file(const ring_cache_file&) = delete;
  ring_cache_file& operator=(const ring_cache_file&) = delete;

  [[nodiscard]] bool open();
  [[nodiscard]] bool write(std::span<const char> bytes);
  // Closes the file and gives it its final name.
  [[nodiscard]] bool finish();

 private:
  std::string path_;
  std::string partial_path_;  // empty when there is nothing to remove
  unique_file file_;
};

}  // namespace fetchrig
#endif
