// SPDX-License-Identifier: MIT
// small_file.h: files that are small by their nature, certificates and keys, read whole. Only a regular file
// of at most 16 MiB is read: a device, a pipe or something huge under the name costs neither time nor memory.
// What was read is wiped in the end. Any thread.
#ifndef FETCHRIG_CORE_SMALL_FILE_H
#define FETCHRIG_CORE_SMALL_FILE_H

#include <cstddef>
#include <memory>
#include <string_view>

#include "core/openssl_owners.h"

namespace fetchrig {

inline constexpr std::size_t max_small_file_bytes = std::size_t{16} << 20;

struct wiping_deleter {
  std::size_t capacity = 0;
  void operator()(char* bytes) const;
};

class small_file {
 public:
  explicit small_file(const char* path);

  // 0, or the errno that says why there are no bytes: that of the failed call, EISDIR, EINVAL for another
  // file that is not regular, EFBIG, EAGAIN when the file grew meanwhile.
  int error() const { return error_; }
  std::string_view bytes() const { return {bytes_.get(), size_}; }
  // A stream over the bytes, which must not outlive them; null without bytes or memory.
  [[nodiscard]] unique_bio stream() const;

 private:
  int read(const char* path);
  int read_from(int fd, std::size_t capacity);

  std::unique_ptr<char[], wiping_deleter> bytes_;
  std::size_t size_ = 0;
  int error_ = 0;
};

}  // namespace fetchrig
#endif
