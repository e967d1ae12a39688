// temp_dir.h: files for tests: a fresh directory that is removed at the end, whole-file reads and writes,
// content that is the same in every run, digests by OpenSSL. Errors throw std::runtime_error, which fails the
// test. Any thread.
#ifndef FETCHRIG_TESTS_SUPPORT_TEMP_DIR_H
#define FETCHRIG_TESTS_SUPPORT_TEMP_DIR_H

#include <openssl/evp.h>
#include <stdint.h>

#include <string>
#include <string_view>
#include <vector>

namespace test {

// A new directory under the system's temporary directory, removed with all it holds.
class temp_dir {
 public:
  temp_dir();
  ~temp_dir();
  temp_dir(const temp_dir&) = delete;
  temp_dir& operator=(const temp_dir&) = delete;

  const std::string& path() const { return path_; }
  // The path of `name` in the directory; nothing is created.
  std::string file(std::string_view name) const;
  // Creates a directory `name`, with its parents, in it and returns its path.
  std::string make_dir(std::string_view name) const;

 private:
  std::string path_;
};

void write_file(const std::string& path, std::string_view content);
std::string read_file(const std::string& path);
// Names in a directory, sorted.
std::vector<std::string> names_in(const std::string& directory);

// `size` bytes that look random, hold every byte value and are the same in every run.
std::string make_bytes(std::size_t size, uint64_t seed = 1);

// "N bytes, MD5": what comparisons of long contents show when they fail.
std::string summary(std::string_view bytes);

// As lower-case hexadecimal digits.
std::string digest_hex(const EVP_MD* kind, std::string_view data);
std::string md5_hex(std::string_view data);

}  // namespace test
#endif
