// SPDX-License-Identifier: MIT
// process_lock.h: the one lock of the small process-wide tables beside the configuration. Held for a few
// stores and loads, never across I/O, an allocation or another lock. Like the configuration lock it survives
// a fork: a child never finds it held by a thread that it does not have. Any thread.
#ifndef FETCHRIG_CORE_PROCESS_LOCK_H
#define FETCHRIG_CORE_PROCESS_LOCK_H

#include <pthread.h>

namespace fetchrig {

class mutex_hold {
 public:
  explicit mutex_hold(pthread_mutex_t& mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
  ~mutex_hold() { pthread_mutex_unlock(&mutex_); }
  mutex_hold(const mutex_hold&) = delete;
  mutex_hold& operator=(const mutex_hold&) = delete;

 private:
  pthread_mutex_t& mutex_;
};

class process_lock : mutex_hold {
 public:
  process_lock();
};

}  // namespace fetchrig
#endif
