// SPDX-License-Identifier: MIT
// openssl_start.cpp: OpenSSL start-up. OpenSSL 1.1 and later initialise themselves and lock by themselves: the
// callback registrations below are empty macros there, and the table documents what older releases were promised.
#include "core/openssl_start.h"

#include <openssl/crypto.h>
#include <pthread.h>
#include <stdint.h>

#include "log/log.h"

namespace fetchrig {
namespace {

// One mutex and one use counter per lock number. Written by openssl_start() and openssl_stop().
struct lock_table {
  pthread_mutex_t* locks = nullptr;
  uint32_t* counters = nullptr;
};
lock_table ssl_locks;

[[maybe_unused]] void dl_ssl_lock_cb(int mode, int number, const char*, int) {
  constexpr int lock_request = 1;
  if (!ssl_locks.locks || !ssl_locks.counters || number < 0 || number >= CRYPTO_num_locks()) return;
  if (mode & lock_request) {
    pthread_mutex_lock(&ssl_locks.locks[number]);
    ssl_locks.counters[number]++;
  } else {
    pthread_mutex_unlock(&ssl_locks.locks[number]);
  }
}

[[maybe_unused]] unsigned long dl_ssl_id_cb() {
  return static_cast<unsigned long>(pthread_self());
}

template <typename T>
T* allocate_table(int count) {
  return static_cast<T*>(CRYPTO_malloc(sizeof(T) * static_cast<std::size_t>(count), __FILE__, __LINE__));
}

void release_table() {
  CRYPTO_free(ssl_locks.locks, __FILE__, __LINE__);
  CRYPTO_free(ssl_locks.counters, __FILE__, __LINE__);
  ssl_locks = {};
}

// Without memory there is no table; current OpenSSL never asks for it.
void create_table() {
  const int count = CRYPTO_num_locks();
  ssl_locks.locks = allocate_table<pthread_mutex_t>(count);
  ssl_locks.counters = allocate_table<uint32_t>(count);
  if (!ssl_locks.locks || !ssl_locks.counters) {
    release_table();
    return;
  }
  for (int i = 0; i < count; ++i) {
    ssl_locks.counters[i] = 0;
    pthread_mutex_init(&ssl_locks.locks[i], nullptr);
  }
}

// For a process that unloads the library without dl_exit().
__attribute__((destructor)) void on_unload() {
  release_table();
}

// Algorithms, texts of errors and the system's configuration are loaded by the first call that needs one of
// them, SSL_CTX_new() included, once for all threads; asking for them here would cost each plain transfer a
// quarter of its instructions. OPENSSL_INIT_NO_LOAD_CONFIG must not be passed: that counts as loaded, and the
// system's policy would never hold. What cannot wait is OpenSSL's place among the exit handlers: those that
// the application registers from now on run before it, with sessions that still work. The one flag names work
// that OpenSSL 3 no longer has.
void prepare_exit() {
  OPENSSL_init_crypto(OPENSSL_INIT_ATFORK, nullptr);
}

}  // namespace

void openssl_start() {
  log_line(DL_LOG_CMN, DL_LOG_INFO, "dl_ssl_init\n");
  prepare_exit();
  log_line(DL_LOG_CMN, DL_LOG_INFO, "create ssl lock\n");
  create_table();
  CRYPTO_set_id_callback(dl_ssl_id_cb);
  CRYPTO_set_locking_callback(dl_ssl_lock_cb);
}

void openssl_stop() {
  log_line(DL_LOG_CMN, DL_LOG_INFO, "destroy ssl lock\n");
  CRYPTO_set_locking_callback(nullptr);
  for (int i = 0; ssl_locks.locks && i < CRYPTO_num_locks(); ++i) pthread_mutex_destroy(&ssl_locks.locks[i]);
  release_table();
}

}  // namespace fetchrig
