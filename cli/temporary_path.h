// SPDX-License-Identifier: MIT
// temporary_path.h: files and directories that must not outlive the command: each is removed by its owner's
// destructor, or by the handler of a signal that ends the command. One thread.
#ifndef FETCHRIG_CLI_TEMPORARY_PATH_H
#define FETCHRIG_CLI_TEMPORARY_PATH_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace fetchrig::cli {

// A file, or a directory that is empty by then.
class temporary_path {
 public:
  temporary_path() = default;
  // Takes charge of what has that name, now or later.
  explicit temporary_path(std::string path);
  temporary_path(temporary_path&& other) noexcept;
  temporary_path& operator=(temporary_path&& other) noexcept;
  ~temporary_path();

  const std::string& get() const { return path_; }
  explicit operator bool() const { return !path_.empty(); }
  // Lets go of it: it has become what was wanted.
  void keep();

 private:
  std::string path_;  // empty: none
};

// A new file with mode 0600 whose name begins with `stem`, and its descriptor;
// on failure no path, -1 and errno.
temporary_path new_temporary_file(const std::string& stem, int& fd);

// A directory for this user alone, under TMPDIR or else /tmp, with what is written into it.
class private_directory {
 public:
  // Throws failure when it cannot be made.
  private_directory();

  const std::string& path() const { return directory_.get(); }
  // Writes a new file from the pieces that `next` gives until an empty one, and returns its path; throws failure when
  // that name exists or the bytes cannot be written whole.
  std::string fill(std::string_view name, const std::function<std::string_view()>& next);
  void write(std::string_view name, std::string_view content);
  // Gives a file of the directory another name in it.
  void rename(std::string_view from, std::string_view to);

 private:
  temporary_path directory_;
  std::vector<temporary_path> files_;  // removed before the directory
};

// Sees to it that a signal that ends the command leaves nothing of all this, nor half a line on the terminal.
void watch_signals();

// While `fd` is set here, a signal that ends the command empties that file: it holds a part of a whole.
// -1: none.
void empty_on_signal(int fd);

}  // namespace fetchrig::cli
#endif
