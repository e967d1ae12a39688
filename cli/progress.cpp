// SPDX-License-Identifier: MIT
// progress.cpp: measuring and drawing the progress line.
#include "progress.h"

#include <signal.h>
#include <stdio.h>

#include <algorithm>
#include <iterator>

#include "temporary_path.h"
#include "terminal_line.h"

namespace fetchrig::cli {
namespace {

constexpr double window_s = 5;
constexpr double stall_s = 2;  // less than this is no stall yet
constexpr auto redraw_time = std::chrono::milliseconds(100);

// "7 s", "3 min 20 s", "2 h 5 min".
std::string readable_time(double seconds) {
  const auto whole = static_cast<long long>(std::min(seconds, 1e9));
  const auto two = [](long long first, const char* unit, long long second, const char* smaller) {
    return std::to_string(first) + unit + std::to_string(second) + smaller;
  };
  if (whole < 60) return std::to_string(whole) + " s";
  return whole < 3600 ? two(whole / 60, " min ", whole % 60, " s")
                      : two(whole / 3600, " h ", whole % 3600 / 60, " min");
}

std::string share_of(std::uint64_t total, std::uint64_t expected) {
  const double part = static_cast<double>(total) / static_cast<double>(expected);
  char text[32];
  snprintf(text, sizeof text, "  %3.0f%% of ", std::min(part, 1.0) * 100);
  return text + readable_size(static_cast<double>(expected));
}

// Starts a thread that no signal is handled in: the handlers are the main thread's.
template <typename Run>
std::jthread quiet_thread(Run run) {
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  std::jthread thread(run);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return thread;
}

}  // namespace

std::string readable_size(double bytes) {
  constexpr const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  std::size_t unit = 0;
  for (; bytes >= 1024 && unit + 1 < std::size(units); ++unit) bytes /= 1024;
  char text[32];
  snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, units[unit]);
  return text;
}

void speed_window::add(time now, std::uint64_t total_bytes) {
  if (total_bytes != samples_.back().total_bytes) last_change_ = now;
  samples_.push_back({now, total_bytes});
  while (samples_.size() > 2 && (now - samples_[1].at).count() >= window_s) samples_.pop_front();
}

double speed_window::bytes_per_s() const {
  const sample &first = samples_.front(), &last = samples_.back();
  if (last.total_bytes <= first.total_bytes) return 0;  // an upload that starts again goes back
  return static_cast<double>(last.total_bytes - first.total_bytes) / std::max(length_s(), 0.001);
}

double speed_window::still_for_s() const {
  return (samples_.back().at - last_change_).count();
}

progress_meter::progress_meter(bool wanted, std::optional<std::uint64_t> whole_bytes)
    : progress_meter(wanted, [this, whole_bytes] {
        return position{total_bytes_, 0, whole_bytes};
      }) {}

progress_meter::progress_meter(bool wanted, watch look) : look_(std::move(look)) {
  if (!wanted || !somebody_watches()) return;
  watch_signals();
  drawer_ = quiet_thread([this](const std::stop_token& stop) { run(stop); });
}

progress_meter::~progress_meter() {
  drawer_ = {};
  erase_line();
}

double progress_meter::elapsed_s() const {
  return std::chrono::duration<double>(clock::now() - start_).count();
}

std::string progress_meter::summary() const {
  const double seconds = elapsed_s();
  const auto total = static_cast<double>(total_bytes_);
  char time[32];
  snprintf(time, sizeof time, "%.1f s", seconds);
  return readable_size(total) + " in " + time + " (" + readable_size(total / std::max(seconds, 0.001)) +
         "/s)";
}

// Without memory for its line a transfer goes on without one.
void progress_meter::run(const std::stop_token& stop) try {
  do {
    const position now = look_();
    window_.add(clock::now() - start_, now.moved_bytes);
    draw_line(line(now));
    std::unique_lock asleep(sleep_);
    wake_.wait_for(asleep, stop, redraw_time, [] { return false; });
  } while (!stop.stop_requested());
} catch (const std::bad_alloc&) {
}

std::string progress_meter::line(const position& now) const {
  const std::uint64_t there = now.held_bytes + now.moved_bytes, whole = now.whole_bytes.value_or(0);
  std::string text = readable_size(static_cast<double>(there));
  if (whole > 0) text += share_of(there, whole);
  if (window_.still_for_s() >= stall_s) return text + "  stalled for " + readable_time(window_.still_for_s());
  if (window_.length_s() < 1) return text;  // the first moments say little
  const double speed = window_.bytes_per_s();
  text += "  " + readable_size(speed) + "/s";
  if (speed > 0 && whole > there)
    text += "  " + readable_time(static_cast<double>(whole - there) / speed) + " left";
  return text;
}

}  // namespace fetchrig::cli
