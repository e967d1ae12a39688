// SPDX-License-Identifier: MIT
// output_file.h: where a download goes. A file is written beside its final name and takes that name when it
// is complete; until then, and after any failure or a signal that ends the command, nothing of it remains. A
// file that exists keeps its mode and, as far as the user may give it, its owner. Where its directory takes
// no new file it is written in place, and a failure that comes after the first byte leaves it empty. Standard
// output ("-"), descriptors by their path ("/dev/stdout") and existing devices and pipes are written
// directly. One file at a time.
#ifndef FETCHRIG_CLI_OUTPUT_FILE_H
#define FETCHRIG_CLI_OUTPUT_FILE_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "temporary_path.h"

struct stat;

namespace fetchrig::cli {

enum class name_use { replacing, new_only };

class output_file {
 public:
  // Made before anything else is opened: a descriptor that `path` names is held from here on. Throws
  // usage_error when `path` is empty, failure when it names a descriptor that cannot be written to.
  explicit output_file(const std::string& path);
  output_file(const output_file&) = delete;
  output_file& operator=(const output_file&) = delete;
  ~output_file();

  // Comes before all that follows. Throws failure when nothing can be created there.
  void open();
  // In place of open() and write(): `whole` is all of the file, and beside it.
  void take(temporary_path whole);
  // The name of a directory in which a part of the file may wait, if it can be replaced at all.
  std::optional<std::string> waiting_place() const;
  // Back to before open(), with nothing left of what was written as far as that can be taken back.
  void discard();
  // Throws failure when the bytes cannot be written whole.
  void write(std::span<const char> bytes);
  // Closes the file and gives it its name, which with `name_use::new_only` nobody may have taken; throws failure,
  // after which nothing remains.
  void commit(name_use use);
  // Seconds since 1970, for a file.
  void set_modification_time(std::int64_t seconds);
  // A descriptor of the caller's, before commit(): what is written goes behind what is there.
  bool is_descriptor() const { return held_; }
  // What is written is gone: to a descriptor, a device, a pipe.
  bool is_direct() const { return !partial_ && !in_place_; }
  // True when the bytes show on a terminal.
  bool is_terminal() const;

 private:
  void hold_descriptor(int fd);
  void open_directly();
  void replace(const struct stat* existing);
  void open_in_place();
  void close_checked();
  [[noreturn]] void fail(const char* what) const;

  std::string path_;
  temporary_path partial_;  // the name until commit(); none when the target is written directly
  int fd_ = -1;
  bool held_ = false;  // a descriptor of the caller's, which open() finds
  bool in_place_ = false;
  bool touched_ = false;  // in place: bytes of the old file may be gone
  std::uint64_t written_bytes_ = 0;
  std::int64_t modified_s_ = -1;
};

}  // namespace fetchrig::cli
#endif
