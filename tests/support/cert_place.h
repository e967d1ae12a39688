// cert_place.h: the surroundings of one certificate test: an initialised library whose log is collected, and
// a fresh directory. One at a time per process.
#ifndef FETCHRIG_TESTS_SUPPORT_CERT_PLACE_H
#define FETCHRIG_TESTS_SUPPORT_CERT_PLACE_H

#include <filesystem>
#include <string>

#include "tests/support/log_capture.h"
#include "tests/support/options.h"
#include "tests/support/temp_dir.h"

namespace test {

class cert_place {
 public:
  std::string path(const std::string& name) const { return directory_.file(name); }

  // Writes the file, making its directories, and returns its path.
  std::string write(const std::string& name, const std::string& bytes) const {
    std::filesystem::create_directories(std::filesystem::path(path(name)).parent_path());
    write_file(path(name), bytes);
    return path(name);
  }

  // The content; "(absent)" without the file.
  std::string read(const std::string& name) const {
    return std::filesystem::exists(path(name)) ? read_file(path(name)) : "(absent)";
  }

  // Whether a message that begins with `text` was collected.
  bool logged(const std::string& text) const { return log().find("> " + text) != std::string::npos; }
  std::string log() const { return lines_.all(); }
  void forget_log() { lines_.clear(); }

 private:
  temp_dir directory_;
  library library_;
  log_capture lines_;
};

}  // namespace test
#endif
