// cert_fixture.h: the ground of the certificate tests: a directory of their own, the library's log, and the
// openssl tool, which makes the certificates and is the independent judge of what the library says about
// them.
#ifndef FETCHRIG_TESTS_CERT_FIXTURE_H
#define FETCHRIG_TESTS_CERT_FIXTURE_H

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace fetchrig::test {

class cert_test : public ::testing::Test {
 protected:
  cert_test();
  ~cert_test() override;

  std::string path(std::string_view name) const { return root_ / name; }
  std::string store() const { return path("store/"); }
  std::string write(std::string_view name, std::string_view content) const;

  // A self-signed certificate in the file `name` (PEM) and its key in `name`.key. `more` goes to "openssl
  // req".
  std::string make_cert(std::string_view name, std::string_view subject, std::string_view more = "") const;
  // The PEM certificate at `pem` as DER in the file `name`.
  std::string to_der(std::string_view pem, std::string_view name) const;

  // The lines logged since the last call, "level text", of modules DCMN and HTTP.
  std::vector<std::string> logged() const;
  bool was_logged(std::string_view level_and_text) const;

 private:
  std::filesystem::path root_;
};

std::string read_file(const std::string& path);

// What the openssl tool prints for these arguments, without the last line feed; the test fails when it fails.
std::string openssl(const std::string& arguments);

// "key=value" lines of "openssl x509", such as serial, subject_hash (a bare value) and enddate.
std::string x509_value(const std::string& path, const std::string& what);

}  // namespace fetchrig::test
#endif
