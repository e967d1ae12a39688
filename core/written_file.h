// SPDX-License-Identifier: MIT
// written_file.h: the name under which the file behind an open descriptor can be removed. A path will not do:
// it may be a link, and by the time of the clean-up another file may have taken it. Any thread.
#ifndef FETCHRIG_CORE_WRITTEN_FILE_H
#define FETCHRIG_CORE_WRITTEN_FILE_H

#include <limits.h>
#include <sys/stat.h>

#include <array>

namespace fetchrig {

class written_file {
 public:
  // `opened_as` is the path that `fd` was opened by; it serves where /proc is not mounted.
  written_file(int fd, const char* opened_as);

  // Removes the file's name: where it was moved to, or where a link led. Does nothing for a device or pipe,
  // or when the name has come to stand for another file.
  void remove() const;

 private:
  bool is_at_path() const;

  struct stat status_ = {};
  std::array<char, PATH_MAX> path_ = {};  // empty: nothing to remove
};

}  // namespace fetchrig
#endif
