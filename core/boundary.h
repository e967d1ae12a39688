// boundary.h: what every exported function wraps its work in. No exception leaves the library: an allocation
// that fails inside becomes the call's own out-of-memory result.
#ifndef FETCHRIG_CORE_BOUNDARY_H
#define FETCHRIG_CORE_BOUNDARY_H

#include <exception>

namespace fetchrig {

// Runs `work`; when it throws (only allocations do), runs `failed` instead and returns what that returns.
template <typename Work, typename Failed>
auto guarded(Work&& work, Failed&& failed) noexcept -> decltype(work()) {
  try {
    return work();
  } catch (const std::exception&) {
    return failed();
  }
}

}  // namespace fetchrig
#endif
