// SPDX-License-Identifier: MIT
// scratch_copy.cpp: the temporary copy of a certificate or key.
#include "scratch_copy.h"

namespace fetchrig::cli {
scratch_copy::scratch_copy(const std::string& path) : path_(path) {
  const secret_text content = read_small_file(path);
  if (const unique_x509 certificate = der_certificate(content.bytes())) {
    write(pem_of(certificate.get()));
  } else if (content.bytes().find("BEGIN") == std::string::npos) {
    write(content.bytes());  // whatever the library makes of it, it makes of a copy
  }
}

scratch_copy::scratch_copy(const secret_text& text) {
  write(text.bytes());
}

void scratch_copy::write(const std::string& text) {
  directory_.emplace();
  directory_->write("copy.pem", text);
  path_ = directory_->path() + "/copy.pem";
}

}  // namespace fetchrig::cli
