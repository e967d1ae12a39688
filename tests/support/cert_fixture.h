// cert_fixture.h: the ground of the certificate tests: a directory of their own, the library's log, and the
// openssl tool, which makes the certificates and is the independent judge of what the library says about
// them.
#ifndef FETCHRIG_TESTS_CERT_FIXTURE_H
#define FETCHRIG_TESTS_CERT_FIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "tests/support/descriptors.h"
#include "tests/support/log_capture.h"
#include "tests/support/options.h"
#include "tests/support/temp_dir.h"

namespace fetchrig::test {

using ::test::read_file;

class cert_test : public ::test::leak_free {
 protected:
  cert_test();
  ~cert_test() override;

  std::string path(std::string_view name) const { return directory_.file(name); }
  std::string store() const { return path("store/"); }
  std::string write(std::string_view name, std::string_view content) const;

  // A self-signed certificate in the file `name` (PEM) and its key in `name`.key. `more` goes to "openssl
  // req".
  std::string make_cert(std::string_view name, std::string_view subject, std::string_view more = "") const;
  // The PEM certificate at `pem` as DER in the file `name`.
  std::string to_der(std::string_view pem, std::string_view name) const;

  // The lines logged since they were last asked for, each as "3 text\n" with its level.
  std::vector<std::string> logged();
  bool was_logged(std::string_view level_and_text);

 private:
  ::test::temp_dir directory_;
  ::test::library library_;
  ::test::log_capture log_;
};

// What the openssl tool prints for these arguments, without the last line feed; the test fails when it fails.
std::string openssl(const std::string& arguments);

// The value of one line of "openssl x509", such as serial, subject_hash or enddate.
std::string x509_value(const std::string& path, const std::string& what);

}  // namespace fetchrig::test
#endif
