// SPDX-License-Identifier: MIT
// progress.h: one line on a terminal that shows how far a download is: bytes, share and speed. Redrawn at
// most ten times a second; nothing is written unless it is wanted. One thread.
#ifndef FETCHRIG_CLI_PROGRESS_H
#define FETCHRIG_CLI_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace fetchrig::cli {

// "917 B", "1.5 KiB", "12.0 MiB".
std::string readable_size(double bytes);

// True when standard error is a terminal, so that a person may be watching.
bool somebody_watches();

class progress_meter {
 public:
  // `announced_bytes` is the whole length, when the server told it.
  progress_meter(bool wanted, std::optional<std::uint64_t> announced_bytes);
  progress_meter(const progress_meter&) = delete;
  progress_meter& operator=(const progress_meter&) = delete;
  // Erases the line, so that what is told next starts in an empty one.
  ~progress_meter();

  void add(std::uint64_t bytes);
  std::uint64_t total() const { return total_bytes_; }
  // "12.0 MiB in 2.1 s (5.7 MiB/s)".
  std::string summary() const;

 private:
  using clock = std::chrono::steady_clock;
  double elapsed_s() const;
  void draw();

  const bool wanted_;
  const std::optional<std::uint64_t> announced_bytes_;
  const clock::time_point start_ = clock::now();
  clock::time_point next_draw_ = start_;
  std::uint64_t total_bytes_ = 0;
  bool drawn_ = false;
};

}  // namespace fetchrig::cli
#endif
