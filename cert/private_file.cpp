// SPDX-License-Identifier: MIT
// private_file.cpp: writes files that hold private keys.
#include "cert/private_file.h"

#include <errno.h>
#include <fcntl.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "cert/file_replacement.h"
#include "core/cause.h"
#include "core/files.h"
#include "core/owners.h"
#include "log/log.h"
#include "log/printable.h"

namespace fetchrig {
namespace {

// In a folder where everybody may make names, a stranger's link leads nowhere, as the kernel has it
// with protected_symlinks.
bool is_planted(const std::string& link, const struct stat& status) {
  const std::string folder(folder_of(link));
  struct stat around;
  if (::stat(folder.empty() ? "." : folder.c_str(), &around) != 0) return true;
  constexpr mode_t shared = S_ISVTX | S_IWOTH;
  return (around.st_mode & shared) == shared && status.st_uid != ::geteuid() &&
         status.st_uid != around.st_uid;
}

// Leaves in `path` what its links lead to, which need not exist. 0, or errno.
int follow_links(std::string& path) {
  for (int links = 0; links < max_links; ++links) {
    struct stat status;
    if (::lstat(path.c_str(), &status) != 0) return errno == ENOENT ? 0 : errno;
    if (!S_ISLNK(status.st_mode)) return 0;
    if (is_planted(path, status)) return EACCES;
    if (const int error = read_link(path); error != 0) return error;
  }
  return ELOOP;
}

// Leaves in `access` who may use the file that takes the place of the one at `path`. 0, or errno.
int find_access(const std::string& path, file_access& access) {
  struct stat old;
  if (::lstat(path.c_str(), &old) != 0) return errno == ENOENT ? 0 : errno;
  const bool chosen = S_ISREG(old.st_mode) && old.st_uid == ::geteuid() && (old.st_mode & S_IRWXO) == 0;
  if (chosen) access = {old.st_mode & (S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP), old.st_gid};
  return 0;
}

// Opening its path instead would start at the file's beginning, over what was written before.
int write_descriptor(int descriptor, std::string_view text) {
  unique_fd file(::fcntl(descriptor, F_DUPFD_CLOEXEC, 0));
  if (!file) return errno;
  if (const int error = write_all(file.get(), text); error != 0) return error;
  return ::close(file.release()) == 0 ? 0 : errno;
}

// A pipe without a reader is not waited for, and one that somebody else made gets no key.
int write_special_file(const char* path, std::string_view text) {
  unique_fd file(::open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status;
  if (!file || ::fstat(file.get(), &status) != 0) return errno;
  if (S_ISREG(status.st_mode)) return EEXIST;  // it was no such file a moment ago
  if (S_ISFIFO(status.st_mode) && status.st_uid != ::geteuid()) return EACCES;
  if (const int error = write_all(file.get(), text); error != 0) return error;
  return ::close(file.release()) == 0 ? 0 : errno;
}

bool is_link(const char* path) {
  struct stat status;
  return ::lstat(path, &status) == 0 && S_ISLNK(status.st_mode);
}

int write_file(const char* path, std::string_view text, at_link choice) {
  if (const auto descriptor = own_descriptor(path)) return write_descriptor(*descriptor, text);
  struct stat status;
  const int error = ::stat(path, &status) == 0 ? 0 : errno;
  const bool found = error == 0, absent = error == ENOENT || error == ELOOP;
  // What cannot be looked at could be a device; a link that leads where this process may not look goes like any other.
  if (!found && !absent && !(choice == at_link::replace_link && is_link(path))) return error;
  if (found && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) return write_special_file(path, text);
  std::string target = path;
  file_access access;
  if (choice == at_link::replace_target) {
    if (const int lost = follow_links(target); lost != 0) return lost;
  }
  if (const int unknown = find_access(target, access); unknown != 0) return unknown;
  return replace_file(target, text, access);
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

std::string_view text_of(BIO* memory) {
  char* bytes = nullptr;
  const long length = BIO_get_mem_data(memory, &bytes);
  return length > 0 ? std::string_view(bytes, static_cast<std::size_t>(length)) : std::string_view();
}

bool is_special_file(const char* path) {
  struct stat status;
  if (::stat(path, &status) != 0 || S_ISDIR(status.st_mode)) return false;
  return !S_ISREG(status.st_mode) || own_descriptor(path).has_value();
}

void remove_plain_file(const char* path) {
  struct stat status;
  if (own_descriptor(path)) return;
  if (::lstat(path, &status) == 0 && (S_ISREG(status.st_mode) || S_ISLNK(status.st_mode))) ::unlink(path);
}

bool write_private_file(const char* path, std::string_view text, at_link choice) {
  const int error = write_file(path, text, choice);
  if (error == 0) return true;
  note_cause(DL_CAUSE_LOCAL_FILE, error);
  log_line(DL_LOG_CMN, DL_LOG_ERROR, "Can't write %s, errno %d\n", printable(path).c_str(), error);
  return false;
}

}  // namespace fetchrig
