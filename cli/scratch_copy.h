// SPDX-License-Identifier: MIT
// scratch_copy.h: reading a certificate file without changing it. The library turns DER files into PEM in
// place, through one scratch file that all processes share: a DER file is therefore handed over as a PEM copy
// in a private directory under TMPDIR (or /tmp). A PEM file, which may hold a private key, is used where it
// lies. The copy goes with the record, or when a signal ends the command. One thread.
#ifndef FETCHRIG_CLI_SCRATCH_COPY_H
#define FETCHRIG_CLI_SCRATCH_COPY_H

#include <optional>
#include <string>

#include "pem.h"
#include "temporary_path.h"

namespace fetchrig::cli {

class scratch_copy {
 public:
  // Throws failure when `path` is no readable file or too large for a certificate.
  explicit scratch_copy(const std::string& path);
  // A file of its own that holds the text, for the owner alone.
  explicit scratch_copy(const secret_text& text);
  scratch_copy(const scratch_copy&) = delete;
  scratch_copy& operator=(const scratch_copy&) = delete;

  // The file that the library may take; lives as long as the record.
  const char* path() const { return path_.c_str(); }

 private:
  void write(const std::string& text);

  std::optional<private_directory> directory_;  // none: the file itself is used
  std::string path_;
};

}  // namespace fetchrig::cli
#endif
