// SPDX-License-Identifier: MIT
// seeded_rand.cpp: the generator's steps and its installation as OpenSSL's random method.
#include "cert/seeded_rand.h"

#include <openssl/crypto.h>
#include <openssl/md5.h>
#include <openssl/rand.h>
#include <pthread.h>
#include <stddef.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <new>
#include <span>

#include "core/libc_rand.h"

namespace fetchrig {

keygen_state keygen_rand_state;

namespace {

constexpr unsigned libc_seed = 0x4E7B2A93;
constexpr uint32_t counter_start_low = 14873;
constexpr uint32_t counter_start_high = 5;

using libc_values = std::array<int, sizeof(seed_block)>;

// The first values of libc's rand() after srand(libc_seed), leaving libc's generator behind them. Any thread
// may draw from or reseed that generator at the same time, and the key would change with it; so the values come
// from the same sequence on a state of our own.
libc_values draw_libc_values() {
  libc_values values;
  libc_rand own(libc_seed);
  srand(libc_seed);
  for (int& value : values) {
    static_cast<void>(rand());
    value = own.next();
  }
  return values;
}

void store_little_endian(unsigned char* to, uint32_t value) {
  for (unsigned i = 0; i < 4; ++i) to[i] = static_cast<unsigned char>(value >> (8 * i));
}

seed_block first_bytes(std::string_view text) {
  seed_block block = {};
  std::copy_n(text.begin(), std::min(text.size(), block.size()), block.begin());
  return block;
}

void add_libc_values(keygen_state& state) {
  const libc_values values = draw_libc_values();
  for (std::size_t i = 0; i < values.size(); ++i) {
    state.pool[i] = static_cast<unsigned char>(state.pool[i] + static_cast<unsigned>(values[i]));
  }
  state.seeded = true;
}

// What a draw digests, and what the pool becomes the digest of: bytes without gaps.
struct draw_input {
  seed_block salt;
  seed_block pool;
  std::array<unsigned char, 8> counter;
};
struct stir_input {
  seed_block last_digest;
  seed_block pool;
};
static_assert(sizeof(draw_input) == 40 && sizeof(stir_input) == 32);

// The MD5 of the record from byte `from` on.
template <typename Record>
void digest(const Record& record, std::size_t from, seed_block& result) {
  MD5(reinterpret_cast<const unsigned char*>(&record) + from, sizeof record - from, result.data());
}

// Copies the second half of a digest, as much as fits, and returns its length.
std::size_t hand_out(const seed_block& whole, std::span<unsigned char> to) {
  const std::size_t count = std::min(to.size(), whole.size() / 2);
  std::copy_n(whole.begin() + whole.size() / 2, count, to.begin());
  return count;
}

// Guards keygen_rand_state and the installed method for as long as a key is being generated.
std::mutex generation_lock;
// The method that other threads are served from; written under generation_lock, before ours is installed. It
// stays set, as a thread may still be inside our functions when the scope has ended.
std::atomic<const RAND_METHOD*> other_threads_method = nullptr;
// True in the thread that is generating a key.
thread_local bool is_generating = false;

const RAND_METHOD& method_of_others() {
  return *other_threads_method.load(std::memory_order_acquire);
}

int method_bytes(unsigned char* buffer, int count) {
  if (is_generating) return seeded_rand_bytes(buffer, count);
  const RAND_METHOD& others = method_of_others();
  return others.bytes ? others.bytes(buffer, count) : RAND_OpenSSL()->bytes(buffer, count);
}

int method_seed(const void* bytes, int count) {
  const RAND_METHOD& others = method_of_others();
  return others.seed ? others.seed(bytes, count) : 1;
}

int method_add(const void* bytes, int count, double entropy) {
  const RAND_METHOD& others = method_of_others();
  return others.add ? others.add(bytes, count, entropy) : 1;
}

int method_status() {
  if (is_generating) return 1;
  const RAND_METHOD& others = method_of_others();
  return others.status ? others.status() : 1;
}

// Never changes and never goes away, so a thread that fetched it just before it was replaced may still call it.
constexpr RAND_METHOD forwarding_method = {method_seed, method_bytes, nullptr,
                                           method_add,  method_bytes, method_status};

// A child forked while another thread generated a key finds our method in place, but not that thread, nor the
// one that would give the lock back.
const RAND_METHOD* current_method() {
  const RAND_METHOD* const method = RAND_get_rand_method();
  return method == &forwarding_method ? &method_of_others() : method;
}
void after_fork_in_child() {
  new (&generation_lock) std::mutex;
}
__attribute__((constructor)) void on_load() {
  pthread_atfork(nullptr, nullptr, after_fork_in_child);
}

}  // namespace

keygen_state initial_keygen_state(std::string_view common_name, std::string_view key_seed) {
  return {first_bytes(common_name), first_bytes(key_seed), counter_start_low, counter_start_high, false};
}

int seeded_rand_bytes(unsigned char* buffer, int count) {
  if (count <= 0) return 1;
  keygen_state& state = keygen_rand_state;
  if (!state.seeded) add_libc_values(state);

  draw_input input = {state.salt, state.pool, {}};
  store_little_endian(input.counter.data(), state.counter_low++);
  store_little_endian(input.counter.data() + 4, state.counter_high);
  stir_input stir = {{}, state.pool};

  std::span<unsigned char> rest(buffer, static_cast<std::size_t>(count));
  digest(input, 0, stir.last_digest);
  rest = rest.subspan(hand_out(stir.last_digest, rest));
  // Every further block is the same: a digest without the salt.
  if (!rest.empty()) digest(input, offsetof(draw_input, pool), stir.last_digest);
  while (!rest.empty()) rest = rest.subspan(hand_out(stir.last_digest, rest));

  digest(stir, 0, state.pool);
  OPENSSL_cleanse(&input, sizeof input);
  OPENSSL_cleanse(&stir, sizeof stir);
  return 1;
}

// OpenSSL guards the pointer to its method with a lock of its own; all that other threads can see of the swap
// is which of two constant tables they get, and both serve them from the same source.
seeded_rand_scope::seeded_rand_scope(const keygen_state& start)
    : lock_(generation_lock), before_(current_method()), installed_(false) {
  keygen_rand_state = start;
  other_threads_method.store(before_ ? before_ : RAND_OpenSSL(), std::memory_order_release);
  installed_ = RAND_set_rand_method(&forwarding_method) == 1;
  is_generating = installed_;
}

seeded_rand_scope::~seeded_rand_scope() {
  is_generating = false;
  if (installed_) RAND_set_rand_method(before_);
  OPENSSL_cleanse(&keygen_rand_state, sizeof keygen_rand_state);
}

}  // namespace fetchrig
