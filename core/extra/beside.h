// SPDX-License-Identifier: MIT
// beside.h: what is kept of a session beside its record, found by the record's address. Callers hold session records,
// some of their own making; nothing behind the stated fields of one may be touched. Any thread.
#ifndef FETCHRIG_CORE_EXTRA_BESIDE_H
#define FETCHRIG_CORE_EXTRA_BESIDE_H

#include <memory>
#include <utility>

#include "core/process_lock.h"

namespace fetchrig {

// What `State` derives from.
template <typename State>
class beside {
 public:
  // Keeps it until it is taken; the record is alive until then.
  static void keep(const void* record, std::unique_ptr<State> state) {
    beside& own = *state;
    own.record_ = record;
    const process_lock lock;
    own.next_ = first_;
    first_ = state.release();
  }
  // Null for a record that has nothing.
  static State* of(const void* record) {
    const process_lock lock;
    return *place_of(record);
  }
  static std::unique_ptr<State> take(const void* record) {
    const process_lock lock;
    State** const place = place_of(record);
    std::unique_ptr<State> found(*place);
    if (found) *place = link_of(*found);
    return found;
  }

 private:
  // The link that leads to it, or the last one, which is null.
  static State** place_of(const void* record) {
    State** place = &first_;
    while (*place && static_cast<beside&>(**place).record_ != record) place = &link_of(**place);
    return place;
  }
  static State*& link_of(State& state) { return static_cast<beside&>(state).next_; }

  static inline constinit State* first_ = nullptr;  // under process_lock
  const void* record_ = nullptr;
  State* next_ = nullptr;
};

}  // namespace fetchrig
#endif
