// SPDX-License-Identifier: MIT
// progress.h: one line on a terminal that shows how far a transfer is: bytes, share, speed, the time that is left, or
// for how long nothing has moved. A thread of its own draws it ten times a second, as the library may be waiting;
// nothing is drawn and no thread started unless it is wanted. Its owner's thread calls it.
#ifndef FETCHRIG_CLI_PROGRESS_H
#define FETCHRIG_CLI_PROGRESS_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace fetchrig::cli {

// "917 B", "1.5 KiB", "12.0 MiB".
std::string readable_size(double bytes);

// The speed of the last few seconds, and for how long nothing has moved. One thread.
class speed_window {
 public:
  using time = std::chrono::duration<double>;  // since the start

  void add(time now, std::uint64_t total_bytes);
  double bytes_per_s() const;
  double still_for_s() const;
  // How much time the speed was measured over.
  double length_s() const { return (samples_.back().at - samples_.front().at).count(); }

 private:
  struct sample {
    time at;
    std::uint64_t total_bytes;
  };
  std::deque<sample> samples_ = {{time(0), 0}};
  time last_change_{0};
};

class progress_meter {
 public:
  // Asked by the drawing thread for the bytes that have moved.
  using watch = std::function<std::uint64_t()>;

  // `expected_bytes` is the whole length, when it is known. Without a `watch` the bytes are those of add().
  progress_meter(bool wanted, std::optional<std::uint64_t> expected_bytes, watch bytes_moved = {});
  progress_meter(const progress_meter&) = delete;
  progress_meter& operator=(const progress_meter&) = delete;
  // Erases the line, so that what is told next starts in an empty one.
  ~progress_meter();

  // Whether somebody sees it.
  bool draws() const { return drawer_.joinable(); }
  void add(std::uint64_t bytes) { total_bytes_ += bytes; }
  std::uint64_t total() const { return total_bytes_; }
  double elapsed_s() const;
  // "12.0 MiB in 2.1 s (5.7 MiB/s)".
  std::string summary() const;

 private:
  using clock = std::chrono::steady_clock;
  void run(const std::stop_token& stop);
  std::string line(std::uint64_t total_bytes) const;

  const std::optional<std::uint64_t> expected_bytes_;
  const watch bytes_moved_;
  const clock::time_point start_ = clock::now();
  std::atomic<std::uint64_t> total_bytes_ = 0;
  speed_window window_;  // the drawing thread's
  std::mutex sleep_;
  std::condition_variable_any wake_;
  std::jthread drawer_;
};

}  // namespace fetchrig::cli
#endif
