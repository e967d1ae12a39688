// private_file.cpp: writes files that hold private keys.
#include "cert/private_file.h"

#include <errno.h>
#include <fcntl.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <span>

#include "core/owners.h"
#include "include/fetchrig.h"
#include "log/printable.h"

namespace fetchrig {
namespace {

constexpr mode_t owner_only = 0600;

bool write_all(int fd, std::span<const char> bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes = bytes.subspan(static_cast<std::size_t>(written));
  }
  return true;
}

bool report_failure(const char* path, int error) {
  qxfr_log(DL_LOG_CMN, DL_LOG_ERROR, "Can't write %s, errno %d\n", printable(path).c_str(), error);
  return false;
}

}  // namespace

unique_bio pem_text(X509* certificate, EVP_PKEY* key) {
  unique_bio text(BIO_new(BIO_s_mem()));
  if (!text) return nullptr;
  if (certificate && PEM_write_bio_X509(text.get(), certificate) != 1) return nullptr;
  if (key && PEM_write_bio_PrivateKey(text.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1)
    return nullptr;
  return text;
}

bool is_special_file(const char* path) {
  struct stat status;
  return ::stat(path, &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode);
}

void remove_plain_file(const char* path) {
  struct stat status;
  if (lstat(path, &status) == 0 && (S_ISREG(status.st_mode) || S_ISLNK(status.st_mode))) ::unlink(path);
}

void reserve_private_file(const char* path) {
  const unique_fd made_or_there(::open(path, O_WRONLY | O_CREAT | O_CLOEXEC, owner_only));
}

bool write_private_file(const char* path, BIO* text) {
  char* bytes = nullptr;
  const long length = BIO_get_mem_data(text, &bytes);
  unique_fd file(::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, owner_only));
  if (!file) return report_failure(path, errno);
  if (!write_all(file.get(), {bytes, static_cast<std::size_t>(length)})) return report_failure(path, errno);
  if (::close(file.release()) != 0) return report_failure(path, errno);
  return true;
}

}  // namespace fetchrig
