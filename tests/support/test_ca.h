// test_ca.h: a certification authority for TLS tests: files on disk as servers and the library read them,
// made with pki.h. P-256 keys unless asked otherwise. One thread at a time.
#ifndef FETCHRIG_TESTS_SUPPORT_TEST_CA_H
#define FETCHRIG_TESTS_SUPPORT_TEST_CA_H

#include <string>

#include "tests/support/pki.h"
#include "tests/support/temp_dir.h"

namespace test {

// Paths of PEM files.
struct cert_files {
  std::string cert;
  std::string key;
  std::string both;  // certificate, then key
};

struct cert_request {
  std::string common_name = "127.0.0.1";
  std::string alt_names = "IP:127.0.0.1,IP:::1,DNS:localhost";  // empty: no such extension
  long valid_from_s = -3600;                                    // from now
  long valid_until_s = 86400;
  std::string passphrase = {};  // not empty: the key is encrypted with it
  unsigned rsa_bits = 0;        // 0: a P-256 key
};

class test_ca {
 public:
  // Its files go into a directory of its own in `place`, named after it.
  explicit test_ca(const temp_dir& place, const std::string& name = "root");

  // Certificate and key in files named after `file_name`.
  cert_files issue(const std::string& file_name, const cert_request& request = {}) const;
  // The CA's own certificate: as a file, and as a hashed directory (with a "/" at its end).
  std::string file() const { return directory_ + "/ca.pem"; }
  std::string hashed_dir() const { return directory_ + "/hashed/"; }
  const identity& root() const { return root_; }

 private:
  std::string directory_;
  identity root_;
};

}  // namespace test
#endif
