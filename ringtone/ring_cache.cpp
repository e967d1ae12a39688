// SPDX-License-Identifier: MIT
// ring_cache.cpp: names and files of the ring cache.
#include "ringtone/ring_cache.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>

#include "core/md5.h"
#include "core/text.h"

namespace fetchrig {

std::string ring_cache_path(const char* url) {
  md5_digest digest;
  digest.add(url);
  md5_text digits;
  digest.finish(digits);
  return std::string("/tmp/") + digits.data() + ".wav";
}

bool is_regular_file(const char* path) {
  struct stat status;
  return ::stat(path, &status) == 0 && S_ISREG(status.st_mode);
}

ring_cache_file::~ring_cache_file() {
  if (!partial_path_.empty()) ::unlink(partial_path_.c_str());
}

// A fresh name each time, so that two calls for one URL cannot meet in one file, and a link left under a
// known name is never followed. Whoever plays the ring may read it, as far as the umask allows.
bool ring_cache_file::open() {
  std::array<unsigned char, 8> random;
  if (::getrandom(random.data(), random.size(), 0) != std::ssize(random)) return false;
  std::string name = path_ + "." + to_hex(random);
  unique_fd fd(::open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
  if (!fd) return false;
  partial_path_ = std::move(name);
  file_.reset(::fdopen(fd.get(), "wb+"));
  if (file_) fd.release();
  return file_ != nullptr;
}

bool ring_cache_file::write(std::span<const char> bytes) {
  return fwrite(bytes.data(), 1, bytes.size(), file_.get()) == bytes.size();
}

bool ring_cache_file::finish() {
  if (fclose(file_.release()) != 0) return false;
  if (::rename(partial_path_.c_str(), path_.c_str()) != 0) return false;
  partial_path_.clear();
  return true;
}

}  // namespace fetchrig
