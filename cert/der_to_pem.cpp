// SPDX-License-Identifier: MIT
// der_to_pem.cpp: rewrites certificate files through the scratch file.
#include "cert/der_to_pem.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "cert/file_replacement.h"
#include "cert/private_file.h"
#include "log/log.h"

namespace fetchrig {
namespace {

constexpr const char* scratch_folder = "/tmp";
constexpr const char* scratch_path = "/tmp/ca_tmp.crt";

// Owns the scratch name while it lives, if it was to be had. The folder is what is locked: there is no lock
// file that somebody could plant or keep for himself, and the lock ends with its process. Whoever holds it
// for long only makes others do without the scratch file.
class scratch_lock {
 public:
  scratch_lock() : folder_(::open(scratch_folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    constexpr int max_waits = 500;
    constexpr timespec wait = {0, 2'000'000};
    for (int waits = 0; folder_ && waits < max_waits; ++waits) {
      owned_ = ::flock(folder_.get(), LOCK_EX | LOCK_NB) == 0;
      if (owned_ || (errno != EWOULDBLOCK && errno != EINTR)) return;
      ::nanosleep(&wait, nullptr);
    }
  }
  ~scratch_lock() {
    if (owned_) ::flock(folder_.get(), LOCK_UN);  // a child forked meanwhile would keep it
  }
  scratch_lock(const scratch_lock&) = delete;
  scratch_lock& operator=(const scratch_lock&) = delete;

  bool owned() const { return owned_; }

 private:
  unique_fd folder_;
  bool owned_ = false;
};

// Another user could have put a link under the well-known name, so an old entry goes and a new file is made,
// never opened through a link.
unique_fd create_scratch() {
  ::unlink(scratch_path);
  return unique_fd(::open(scratch_path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
}

// Where the scratch file lies on another file system, the new file is made beside the old one.
bool rewrite_through_scratch(const char* path, std::string_view text, const file_access& access) {
  unique_fd scratch = create_scratch();
  if (!scratch) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "open file err\n");
    return false;
  }
  if (const int error = fill_new_file(std::move(scratch), text, access); error != 0) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "write scratch file errno %d\n", error);
    ::unlink(scratch_path);
    return false;
  }
  if (::rename(scratch_path, path) == 0) return true;
  const int error = errno;
  if (error == EXDEV && replace_file(path, text, access) == 0) {
    ::unlink(scratch_path);
    return true;
  }
  log_line(DL_LOG_CMN, DL_LOG_ERROR, "rename errno %d", error);
  return false;
}

}  // namespace

bool rewrite_as_pem(const char* path, X509* certificate) {
  log_line(DL_LOG_CMN, DL_LOG_INFO, "convert to PEM code\n");
  if (own_descriptor(path)) {  // what a rename there ends with; one onto a link to it must not succeed
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "rename errno %d", EXDEV);
    return false;
  }
  const unique_bio text = pem_text(certificate, nullptr);
  const scratch_lock lock;
  struct stat status;
  const bool is_known = ::stat(path, &status) == 0;
  const file_access access = {is_known ? status.st_mode & 0777 : 0};
  if (is_known && text && lock.owned()) return rewrite_through_scratch(path, text_of(text.get()), access);
  if (is_known && text && replace_file(path, text_of(text.get()), access) == 0) return true;
  log_line(DL_LOG_CMN, DL_LOG_ERROR, "open file err\n");
  return false;
}

}  // namespace fetchrig
