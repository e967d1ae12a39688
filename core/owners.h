// SPDX-License-Identifier: MIT
// owners.h: one owner with a destructor for each kind of plain resource. Destructors ignore errors, so a path
// that must know whether a write reached the disk closes explicitly. One thread at a time per owner.
#ifndef FETCHRIG_CORE_OWNERS_H
#define FETCHRIG_CORE_OWNERS_H

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <string_view>
#include <utility>

namespace fetchrig {

// A file descriptor; -1 when empty.
class unique_fd {
 public:
  unique_fd() = default;
  explicit unique_fd(int fd) : fd_(fd) {}
  unique_fd(unique_fd&& other) noexcept : fd_(other.release()) {}
  unique_fd& operator=(unique_fd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  ~unique_fd() { reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

struct free_deleter {
  void operator()(void* memory) const { free(memory); }
};

// Memory of malloc(), for texts and records that cross the C boundary.
template <typename T>
using unique_malloc = std::unique_ptr<T, free_deleter>;
using unique_text = unique_malloc<char>;

// A terminated copy from malloc(); null without memory.
inline unique_text duplicate_text(std::string_view text) {
  unique_text copy(static_cast<char*>(malloc(text.size() + 1)));
  if (!copy) return copy;
  if (!text.empty()) memcpy(copy.get(), text.data(), text.size());
  copy.get()[text.size()] = '\0';
  return copy;
}

// A zeroed record from calloc(), for session records that callers may also hold.
template <typename T>
unique_malloc<T> zeroed_record() {
  return unique_malloc<T>(static_cast<T*>(calloc(1, sizeof(T))));
}

struct file_closer {
  void operator()(FILE* file) const { fclose(file); }
};
using unique_file = std::unique_ptr<FILE, file_closer>;

}  // namespace fetchrig
#endif
