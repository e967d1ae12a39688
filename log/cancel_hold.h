// SPDX-License-Identifier: MIT
// cancel_hold.h: holds off the cancellation of the calling thread for its own lifetime, so that a call is
// never left half done: with a lock taken, a descriptor open, a record unfreed. What was asked meanwhile
// takes effect after it, at the caller's next cancellation point. Nests; costs two stores. Any thread.
#ifndef FETCHRIG_LOG_CANCEL_HOLD_H
#define FETCHRIG_LOG_CANCEL_HOLD_H

#include <pthread.h>

namespace fetchrig {

class cancel_hold {
 public:
  cancel_hold() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  // A thread that is cancelled asynchronously ends in here, by unwinding, which must meet no noexcept.
  ~cancel_hold() noexcept(false) { pthread_setcancelstate(before_, nullptr); }
  cancel_hold(const cancel_hold&) = delete;
  cancel_hold& operator=(const cancel_hold&) = delete;

 private:
  int before_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace fetchrig
#endif
