// scratch_copy.cpp: the temporary copy of a certificate or key.
#include "scratch_copy.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "report.h"

namespace fetchrig::cli {
namespace {

std::string new_private_directory() {
  const char* place = getenv("TMPDIR");
  const std::string parent = place && *place ? place : "/tmp";
  std::string pattern = parent + "/fetchrig.XXXXXX";
  if (!mkdtemp(pattern.data())) throw failure(0, printable(parent) + ": " + strerror(errno));
  return pattern;
}

}  // namespace

scratch_copy::scratch_copy(const std::string& path) : path_(path) {
  const secret_text content = read_small_file(path);
  if (const unique_x509 certificate = der_certificate(content.bytes())) write(pem_of(certificate.get()));
}

scratch_copy::scratch_copy(const secret_text& text) {
  write(text.bytes());
}

scratch_copy::~scratch_copy() {
  if (directory_.empty()) return;
  unlink(path_.c_str());
  rmdir(directory_.c_str());
}

void scratch_copy::write(const std::string& text) {
  const std::string directory = new_private_directory();
  path_ = directory + "/copy.pem";
  try {
    write_new_file(path_, text);
  } catch (const failure&) {
    rmdir(directory.c_str());
    throw;
  }
  directory_ = directory;
}

}  // namespace fetchrig::cli
