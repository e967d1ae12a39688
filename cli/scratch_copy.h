// scratch_copy.h: reading a certificate file without changing it. The library turns DER files into PEM in
// place, which nobody expects of their own file: a DER file is copied to a temporary place first, for the
// library to work on. A PEM file, which may hold a private key, is used where it lies. One operation at a
// time.
#ifndef FETCHRIG_CLI_SCRATCH_COPY_H
#define FETCHRIG_CLI_SCRATCH_COPY_H

#include <string>

namespace fetchrig::cli {

class scratch_copy {
 public:
  // Throws failure when `path` is no readable file or too large for a certificate.
  explicit scratch_copy(const std::string& path);
  scratch_copy(const scratch_copy&) = delete;
  scratch_copy& operator=(const scratch_copy&) = delete;
  ~scratch_copy();

  // The file that the library may take; lives as long as the record.
  const char* path() const { return path_.c_str(); }

 private:
  std::string directory_;  // empty: the file itself is used
  std::string path_;
};

}  // namespace fetchrig::cli
#endif
