// cert_fixture.h: the ground of the certificate tests: a directory of their own, the library with its log
// collected, and the openssl tool, the independent judge of what the library says about certificates.
#ifndef FETCHRIG_TESTS_CERT_FIXTURE_H
#define FETCHRIG_TESTS_CERT_FIXTURE_H

#include <sys/resource.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/descriptors.h"
#include "tests/support/log_capture.h"
#include "tests/support/options.h"
#include "tests/support/pki.h"
#include "tests/support/temp_dir.h"

namespace test {

namespace fs = std::filesystem;

// Option 1 names the store. A test fails when it leaves an error in OpenSSL's queue or an open descriptor.
class cert_test : public leak_free {
 protected:
  cert_test();
  ~cert_test() override;

  std::string path(std::string_view name) const { return directory_.file(name); }
  std::string store() const { return path("store/"); }
  // Writes the file, making its directories, and returns its path.
  std::string write(std::string_view name, std::string_view content) const;
  // The content; "(absent)" without the file.
  std::string read(std::string_view name) const;

  // The lines since the log was last forgotten, each as "3 text\n" with its level.
  std::vector<std::string> logged() const;
  // Whether one of them begins with the text, which may leave out the level.
  bool was_logged(std::string_view text) const;
  std::string log() const { return log_.all(); }
  void forget_log() { log_.clear(); }

 private:
  temp_dir directory_;
  library library_;
  log_capture log_;
};

// While it lives no file grows beyond ten bytes, as on a disk that is nearly full.
class full_disk {
 public:
  full_disk();
  ~full_disk();
  full_disk(const full_disk&) = delete;
  full_disk& operator=(const full_disk&) = delete;

 private:
  rlimit before_;
  void (*signal_before_)(int);
};

// What the openssl tool prints for these arguments, without the last line feed; the test fails when it fails.
std::string openssl(const std::string& arguments);

}  // namespace test
#endif
