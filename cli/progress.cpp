// SPDX-License-Identifier: MIT
// progress.cpp: drawing the progress line.
#include "progress.h"

#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>

namespace fetchrig::cli {

std::string readable_size(double bytes) {
  constexpr const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  std::size_t unit = 0;
  for (; bytes >= 1024 && unit + 1 < std::size(units); ++unit) bytes /= 1024;
  char text[32];
  snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, units[unit]);
  return text;
}

bool somebody_watches() {
  return isatty(STDERR_FILENO) == 1;
}

progress_meter::progress_meter(bool wanted, std::optional<std::uint64_t> announced_bytes)
    : wanted_(wanted && somebody_watches()), announced_bytes_(announced_bytes) {}

progress_meter::~progress_meter() {
  if (drawn_) fputs("\r\033[K", stderr);
}

void progress_meter::add(std::uint64_t bytes) {
  total_bytes_ += bytes;
  if (!wanted_ || clock::now() < next_draw_) return;
  next_draw_ = clock::now() + std::chrono::milliseconds(100);
  draw();
}

std::string progress_meter::summary() const {
  const double seconds = elapsed_s();
  const auto total = static_cast<double>(total_bytes_);
  char time[32];
  snprintf(time, sizeof time, "%.1f s", seconds);
  return readable_size(total) + " in " + time + " (" + readable_size(total / std::max(seconds, 0.001)) +
         "/s)";
}

double progress_meter::elapsed_s() const {
  return std::chrono::duration<double>(clock::now() - start_).count();
}

void progress_meter::draw() {
  std::string share;
  if (announced_bytes_ && *announced_bytes_ > 0) {
    const double part = static_cast<double>(total_bytes_) / static_cast<double>(*announced_bytes_);
    char text[32];
    snprintf(text, sizeof text, "%3.0f%% of ", std::min(part, 1.0) * 100);
    share = text + readable_size(static_cast<double>(*announced_bytes_)) + "  ";
  }
  const auto total = static_cast<double>(total_bytes_);
  const std::string speed = readable_size(total / std::max(elapsed_s(), 0.001));
  fprintf(stderr, "\r%s  %s%s/s\033[K", readable_size(total).c_str(), share.c_str(), speed.c_str());
  drawn_ = true;
}

}  // namespace fetchrig::cli
