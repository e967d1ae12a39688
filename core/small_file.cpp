// SPDX-License-Identifier: MIT
// small_file.cpp: reads small local files.
#include "core/small_file.h"

#include <errno.h>
#include <fcntl.h>
#include <openssl/crypto.h>
#include <sys/stat.h>
#include <unistd.h>

#include <new>

#include "core/files.h"
#include "core/owners.h"

namespace fetchrig {
namespace {

int judge(const struct stat& status) {
  if (const int error = why_not_regular(status); error != 0) return error;
  return static_cast<unsigned long long>(status.st_size) > max_small_file_bytes ? EFBIG : 0;
}

}  // namespace

void wiping_deleter::operator()(char* bytes) const {
  OPENSSL_cleanse(bytes, capacity);
  delete[] bytes;
}

small_file::small_file(const char* path) : error_(read(path)) {
  if (error_ == 0) return;
  bytes_.reset();
  size_ = 0;
}

unique_bio small_file::stream() const {
  return unique_bio(bytes_ ? BIO_new_mem_buf(bytes_.get(), static_cast<int>(size_)) : nullptr);
}

// Looked at before it is opened, because opening alone may move a device or wake the writer of a pipe, and
// once more afterwards, because another file may have taken its place.
int small_file::read(const char* path) {
  struct stat status;
  if (::stat(path, &status) != 0) return errno;
  if (const int error = judge(status); error != 0) return error;
  const unique_fd fd(::open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!fd || ::fstat(fd.get(), &status) != 0) return errno;
  if (const int error = judge(status); error != 0) return error;
  return read_from(fd.get(), static_cast<std::size_t>(status.st_size) + 1);
}

// One byte of room more than the file has, so that its end shows.
int small_file::read_from(int fd, std::size_t capacity) {
  bytes_ = std::unique_ptr<char[], wiping_deleter>(new (std::nothrow) char[capacity], {capacity});
  if (!bytes_) return ENOMEM;
  while (size_ < capacity) {
    const ssize_t count = ::read(fd, bytes_.get() + size_, capacity - size_);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno;
    if (count == 0) return 0;
    size_ += static_cast<std::size_t>(count);
  }
  return EAGAIN;
}

}  // namespace fetchrig
