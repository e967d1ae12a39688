// SPDX-License-Identifier: MIT
// process_lock.cpp: the lock, and what a fork does with it and the configuration lock.
#include "core/process_lock.h"

#include "include/fetchrig_types.h"

namespace fetchrig {
namespace {

pthread_mutex_t tables_lock = PTHREAD_MUTEX_INITIALIZER;

// A fork waits until nobody is inside, so that the child also finds whole texts and tables. Nothing else
// holds both locks, and no holder of one waits for anything.
void before_fork() {
  pthread_mutex_lock(&g_dl_cfg.lock);
  pthread_mutex_lock(&tables_lock);
}
void after_fork() {
  pthread_mutex_unlock(&tables_lock);
  pthread_mutex_unlock(&g_dl_cfg.lock);
}

// The system forgets the handlers when the library is unloaded.
__attribute__((constructor)) void on_load() {
  pthread_atfork(before_fork, after_fork, after_fork);
}

}  // namespace

process_lock::process_lock() : mutex_hold(tables_lock) {}

}  // namespace fetchrig
