// SPDX-License-Identifier: MIT
// boundary.h: what every exported function wraps its work in; those that only compute on their arguments,
// without I/O, OpenSSL or the log, need it not. No exception leaves the library: an allocation that fails
// inside becomes the call's own out-of-memory result. No call is a point of cancellation: see
// log/cancel_hold.h.
#ifndef FETCHRIG_CORE_BOUNDARY_H
#define FETCHRIG_CORE_BOUNDARY_H

#include <exception>

#include "core/result.h"
#include "log/cancel_hold.h"

namespace fetchrig {

// Runs `work`; when it throws (only allocations do), runs `failed` instead and returns what that returns. Neither this
// nor what it calls is noexcept: a log callback that ends its thread, against its contract, unwinds through.
template <typename Work, typename Failed>
auto guarded(Work&& work, Failed&& failed) -> decltype(work()) {
  const cancel_hold hold;
  try {
    return work();
  } catch (const std::exception&) {
    return failed();
  }
}

// The same for work without a result.
template <typename Work>
void guarded(Work&& work) {
  guarded(work, [] {});
}

// The same for a step that returns a code.
template <typename Work>
int guarded_step(Work&& work) {
  return guarded(work, [] { return int{DL_ERR_MEMORY}; });
}

// The same for a transfer call, which fails with -1 and DL_ERR_MEMORY in the caller's record, if there is one.
template <typename Work>
int guarded_transfer(dl_result* result, Work&& work) {
  return guarded(work, [result] { return fail(result, DL_ERR_MEMORY); });
}

}  // namespace fetchrig
#endif
