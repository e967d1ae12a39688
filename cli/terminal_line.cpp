// SPDX-License-Identifier: MIT
// terminal_line.cpp: drawing, under a lock that keeps the line whole.
#include "terminal_line.h"

#include <stdio.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

namespace fetchrig::cli {
namespace {

std::mutex lock;                  // for what follows, and for the order on the terminal
std::atomic<bool> drawn = false;  // the cursor stands behind a drawn line; also read by a signal's handler

void erase_drawn() {
  if (drawn) fputs("\r\033[K", stderr);
  drawn = false;
}

}  // namespace

void draw_line(std::string_view text) {
  const std::scoped_lock hold(lock);
  fprintf(stderr, "\r%.*s\033[K", static_cast<int>(text.size()), text.data());
  drawn = true;
}

void erase_line() {
  const std::scoped_lock hold(lock);
  erase_drawn();
}

void end_line_in_handler() {
  if (drawn && write(STDERR_FILENO, "\n", 1) < 0) drawn = false;
}

void write_line(std::string_view prefix, std::string_view text) {
  const std::scoped_lock hold(lock);
  erase_drawn();
  fprintf(stderr, "%.*s%.*s\n", static_cast<int>(prefix.size()), prefix.data(), static_cast<int>(text.size()),
          text.data());
}

bool somebody_watches() {
  return isatty(STDERR_FILENO) == 1;
}

}  // namespace fetchrig::cli
