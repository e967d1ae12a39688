// SPDX-License-Identifier: MIT
// files.cpp: asks the system about files, copies them and takes their digests.
#include "core/files.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <span>
#include <vector>

#include "core/owners.h"
#include "log/log.h"

namespace fetchrig {
namespace {

constexpr std::size_t copy_block_bytes = 524288;
constexpr char null_path[] = "NULL path!\n";

bool is_same_file(FILE* source, const char* target) {
  struct stat from = {};
  struct stat to = {};
  return ::fstat(fileno(source), &from) == 0 && ::stat(target, &to) == 0 && from.st_dev == to.st_dev &&
         from.st_ino == to.st_ino;
}

void warn_stopped_short(const char* operation) {
  log_line(DL_LOG_CMN, DL_LOG_WARNING, "%s stopped short, errno %d\n", operation, errno);
}

void copy_bytes(FILE* from, FILE* to, std::span<char> block) {
  while (const std::size_t count = fread(block.data(), 1, block.size(), from)) {
    if (fwrite(block.data(), 1, count, to) == count) continue;
    warn_stopped_short("copy");
    return;
  }
  if (ferror(from)) warn_stopped_short("copy");
}

}  // namespace

bool is_directory(const char* path) {
  constexpr mode_t directory_bit = 040000;
  if (!path) return log_and_return(DL_LOG_CMN, 0, null_path);
  struct stat status = {};
  return ::stat(path, &status) == 0 && (status.st_mode & directory_bit);
}

int why_not_regular(const struct stat& status) {
  if (S_ISREG(status.st_mode)) return 0;
  return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
}

int write_all(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errno;
    if (written == 0) return EIO;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}

int32_t file_size(const char* path) {
  if (!path) return log_and_return(DL_LOG_CMN, -1, null_path);
  struct stat status = {};
  if (::stat(path, &status) != 0 || status.st_size > INT32_MAX) return -1;
  return static_cast<int32_t>(status.st_size);
}

int copy_file(const char* source, const char* target) {
  const unique_file from(fopen(source, "rbe"));
  if (!from) return log_and_return(DL_LOG_CMN, -1, "Source file can't open! \n");
  if (is_same_file(from.get(), target)) return 0;
  std::vector<char> block(copy_block_bytes);  // first: without memory the target stays as it is
  unique_file to(fopen(target, "wbe"));
  if (!to) return log_and_return(DL_LOG_CMN, -1, "Target file can't open! \n");
  setvbuf(from.get(), nullptr, _IONBF, 0);
  setvbuf(to.get(), nullptr, _IONBF, 0);
  copy_bytes(from.get(), to.get(), block);
  if (fclose(to.release()) != 0) warn_stopped_short("copy");
  return 0;
}

int file_md5(md5_text& digits, const char* path) {
  const unique_file file(path ? fopen(path, "rbe") : nullptr);
  if (!file) return log_and_return(DL_LOG_CMN, -1, "file can't be opened\n");
  md5_digest digest;
  std::array<char, 1024> block;
  while (const std::size_t count = fread(block.data(), 1, block.size(), file.get())) {
    digest.add({block.data(), count});
  }
  if (ferror(file.get())) warn_stopped_short("digest");
  digest.finish(digits);
  return 0;
}

}  // namespace fetchrig
