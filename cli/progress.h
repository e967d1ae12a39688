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

// How far a transfer is.
struct position {
  std::uint64_t moved_bytes = 0;
  std::uint64_t held_bytes = 0;              // those of an earlier transfer that this one goes on with
  std::optional<std::uint64_t> whole_bytes;  // the length of all, when it is known
};

class progress_meter {
 public:
  using watch = std::function<position()>;

  // The bytes that move are those of add(), of so many when that is known.
  progress_meter(bool wanted, std::optional<std::uint64_t> whole_bytes);
  // The drawing thread asks `look`.
  progress_meter(bool wanted, watch look);
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
  std::string line(const position& now) const;

  const watch look_;
  const clock::time_point start_ = clock::now();
  std::atomic<std::uint64_t> total_bytes_ = 0;
  speed_window window_;  // the drawing thread's
  std::mutex sleep_;
  std::condition_variable_any wake_;
  std::jthread drawer_;
};

}  // namespace fetchrig::cli
#endif
