// scratch_copy.cpp: the temporary copy of a DER file.
#include "scratch_copy.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "report.h"

namespace fetchrig::cli {
namespace {

constexpr std::size_t max_certificate_bytes = 1024 * 1024;

struct file_close {
  void operator()(FILE* file) const { fclose(file); }
};
using file_owner = std::unique_ptr<FILE, file_close>;

std::string read_whole(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) throw failure(0, printable(path) + ": " + strerror(errno));
  if (!S_ISREG(status.st_mode)) throw failure(0, printable(path) + " is not a regular file");
  const file_owner file(fopen(path.c_str(), "rbe"));
  if (!file) throw failure(0, printable(path) + ": " + strerror(errno));
  std::string content(max_certificate_bytes + 1, '\0');
  content.resize(fread(content.data(), 1, content.size(), file.get()));
  if (ferror(file.get())) throw failure(0, printable(path) + " cannot be read");
  if (content.size() > max_certificate_bytes)
    throw failure(0, printable(path) + " is too large for a certificate");
  return content;
}

bool write_whole(const std::string& path, const std::string& content) {
  file_owner file(fopen(path.c_str(), "wbe"));
  if (!file) return false;
  const bool written = fwrite(content.data(), 1, content.size(), file.get()) == content.size();
  return fclose(file.release()) == 0 && written;
}

}  // namespace

scratch_copy::scratch_copy(const std::string& path) : path_(path) {
  const std::string content = read_whole(path);
  if (content.find("BEGIN") != content.npos) return;  // PEM
  std::string pattern = "/tmp/fetchrig.XXXXXX";
  if (!mkdtemp(pattern.data())) throw failure(0, std::string("/tmp: ") + strerror(errno));
  directory_ = pattern;
  path_ = directory_ + "/certificate";
  if (write_whole(path_, content)) return;
  unlink(path_.c_str());
  rmdir(directory_.c_str());
  throw failure(0, "the temporary copy of " + printable(path) + " cannot be written");
}

scratch_copy::~scratch_copy() {
  if (directory_.empty()) return;
  unlink(path_.c_str());
  rmdir(directory_.c_str());
}

}  // namespace fetchrig::cli
