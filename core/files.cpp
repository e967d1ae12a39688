// files.cpp: small routines over local files for the upload and certificate calls, and the dial-pad test.
#include <errno.h>
#include <fcntl.h>
#include <openssl/md5.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <array>
#include <span>
#include <vector>

#include "core/boundary.h"
#include "core/owners.h"
#include "core/text.h"
#include "include/fetchrig.h"
#include "log/log.h"

namespace fetchrig {
namespace {

constexpr std::size_t copy_block_bytes = 524288;

int log_failure(const char* message) {
  log_line(DL_LOG_CMN, DL_LOG_ERROR, "%s", message);
  return -1;
}

bool is_same_file(FILE* source, const char* target) {
  struct stat from = {};
  struct stat to = {};
  return fstat(fileno(source), &from) == 0 && stat(target, &to) == 0 && from.st_dev == to.st_dev &&
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

int copy_file(const char* source, const char* target) {
  const unique_file from(fopen(source, "rbe"));
  if (!from) return log_failure("Source file can't open! \n");
  if (is_same_file(from.get(), target)) return 0;
  std::vector<char> block(copy_block_bytes);  // first: without memory the target stays as it is
  unique_file to(fopen(target, "wbe"));
  if (!to) return log_failure("Target file can't open! \n");
  setvbuf(from.get(), nullptr, _IONBF, 0);
  setvbuf(to.get(), nullptr, _IONBF, 0);
  copy_bytes(from.get(), to.get(), block);
  if (fclose(to.release()) != 0) warn_stopped_short("copy");
  return 0;
}

int file_md5(const char* path, char* digest) {
  const unique_file file(path ? fopen(path, "rbe") : nullptr);
  if (!file) return log_failure("file can't be opened\n");
  MD5_CTX md5;
  MD5_Init(&md5);
  std::array<char, 1024> block;
  while (const std::size_t count = fread(block.data(), 1, block.size(), file.get())) {
    MD5_Update(&md5, block.data(), count);
  }
  if (ferror(file.get())) warn_stopped_short("digest");
  std::array<unsigned char, MD5_DIGEST_LENGTH> bytes;
  MD5_Final(bytes.data(), &md5);
  for (std::size_t i = 0; i < bytes.size(); ++i) snprintf(digest + 2 * i, 3, "%02x", bytes[i]);
  return 0;
}

}  // namespace
}  // namespace fetchrig

using namespace fetchrig;

int isfromdialpad(const char* text) {
  for (; *text != '\0'; ++text) {
    if (!is_digit(*text) && *text != '#' && *text != '*') return 0;
  }
  return 1;
}

int dl_path_is_directory(const char* path) {
  constexpr mode_t directory_bit = 040000;
  if (!path) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "NULL path!\n");
    return 0;
  }
  const auto work = [path] {
    struct stat status = {};
    return stat(path, &status) == 0 && (status.st_mode & directory_bit) ? 1 : 0;
  };
  return guarded(work, [] { return 0; });
}

int32_t dl_get_file_size(const char* path) {
  if (!path) return log_failure("NULL path!\n");
  const auto work = [path]() -> int32_t {
    struct stat status = {};
    if (stat(path, &status) != 0 || status.st_size > INT32_MAX) return -1;
    return static_cast<int32_t>(status.st_size);
  };
  return guarded(work, [] { return -1; });
}

int dl_copy_file(const char* source, const char* target) {
  if (!source || !target) return -1;
  return guarded([&] { return copy_file(source, target); }, [] { return -1; });
}

int dl_get_file_md5(const char* path, char* digest) {
  if (!digest) return log_failure("MD5 error\n");
  return guarded([&] { return file_md5(path, digest); }, [] { return -1; });
}
