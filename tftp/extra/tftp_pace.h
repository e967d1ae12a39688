// SPDX-License-Identifier: MIT
// tftp_pace.h: how long a transfer hears nothing before it says its last word again, and when it gives up. A round is
// what lies between an ACK, or a window sent, and what it asks for; a silence of two of them means a loss. Each
// repetition doubles the wait, up to option 7, until a round without one shows how long rounds are now: an answer to
// something that was said twice does not tell to which. Knows no sockets. One thread at a time.
#ifndef FETCHRIG_TFTP_EXTRA_TFTP_PACE_H
#define FETCHRIG_TFTP_EXTRA_TFTP_PACE_H

#include <stdint.h>

#include <algorithm>

#include "log/clock.h"

namespace fetchrig {

class tftp_pace {
 public:
  // Before the first round is over, option 7 is the wait.
  explicit tftp_pace(int timeout_s)
      : longest_ms_(int64_t{timeout_s} * 1000), wait_ms_(longest_ms_), said_ms_(now_ms()) {
    progressed();
  }

  void said() { said_ms_ = now_ms(); }
  void round_over() {
    if (!repeated_) {
      const int64_t took_ms = now_ms() - said_ms_;
      round_ms_ = std::max(took_ms, (round_ms_ * 7 + took_ms) / 8);
      wait_ms_ = usual_wait_ms();
    }
    repeated_ = false;
  }
  // What counts has come: the patience begins anew. Other packets only show that the peer is not silent.
  void progressed() {
    end_ms_ = now_ms() + max_waits * longest_ms_;
    heard();
  }
  void heard() { due_ms_ = std::min(now_ms() + wait_ms_, end_ms_); }
  void repeats() {
    repeated_ = true;
    wait_ms_ = std::min(wait_ms_ * 2, longest_ms_);
    heard();
  }

  int64_t left_ms() const { return due_ms_ - now_ms(); }
  bool is_over() const { return now_ms() >= end_ms_; }
  // Whether what asks for the last word again may have crossed it on the way: a copy, or sent before it was heard.
  bool may_have_crossed() const { return now_ms() - said_ms_ < usual_wait_ms(); }

 private:
  static constexpr int64_t shortest_ms = 100;  // a server may be held up for so long, however near it is
  static constexpr int max_waits = 5;          // of option 7, without progress

  int64_t usual_wait_ms() const { return std::min(std::max(2 * round_ms_, shortest_ms), longest_ms_); }

  const int64_t longest_ms_;
  int64_t wait_ms_;
  int64_t round_ms_ = 0;
  int64_t said_ms_;
  int64_t due_ms_ = 0;
  int64_t end_ms_ = 0;
  bool repeated_ = false;
};

}  // namespace fetchrig
#endif
