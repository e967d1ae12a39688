// output_file.h: where a download goes. A file is written beside its final name and takes that name when it
// is complete; until then, and after any failure or a signal that ends the command, nothing of it remains.
// Standard output ("-") and existing devices and pipes are written directly. One file at a time.
#ifndef FETCHRIG_CLI_OUTPUT_FILE_H
#define FETCHRIG_CLI_OUTPUT_FILE_H

#include <span>
#include <string>

namespace fetchrig::cli {

class output_file {
 public:
  // Throws usage_error when `path` is a directory, failure when nothing can be created there.
  explicit output_file(const std::string& path);
  output_file(const output_file&) = delete;
  output_file& operator=(const output_file&) = delete;
  ~output_file();

  // Throws failure when the bytes cannot be written whole.
  void write(std::span<const char> bytes);
  // Closes the file and gives it its name; throws failure, after which nothing remains.
  void commit();

 private:
  void open_beside();
  void open_directly();
  [[noreturn]] void fail(const char* what) const;

  std::string path_;
  std::string partial_;  // the name until commit(); empty when the target is written directly
  int fd_ = -1;
};

}  // namespace fetchrig::cli
#endif
