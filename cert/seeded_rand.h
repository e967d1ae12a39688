// SPDX-License-Identifier: MIT
// seeded_rand.h: the deterministic random generator from which a device's RSA key is derived. The same seed
// gives the same key with the same OpenSSL and libc, so it is for that purpose only and answers only the
// thread that asked for it: a seeded_rand_scope is held around the key generation and nothing else (no I/O,
// no log line). Scopes of several threads wait for one another.
#ifndef FETCHRIG_CERT_SEEDED_RAND_H
#define FETCHRIG_CERT_SEEDED_RAND_H

#include <stdint.h>

#include <array>
#include <mutex>
#include <string_view>

typedef struct rand_meth_st RAND_METHOD;

namespace fetchrig {

using seed_block = std::array<unsigned char, 16>;

struct keygen_state {
  seed_block pool;
  seed_block salt;
  uint32_t counter_low;
  uint32_t counter_high;
  bool seeded;  // libc's values are in the pool
};

// The generator's state, one per process. Written only under the lock of seeded_rand_scope.
extern keygen_state keygen_rand_state;

// The state that every generation starts from; of each text the first 16 bytes count. Wipe it after use.
[[nodiscard]] keygen_state initial_keygen_state(std::string_view common_name, std::string_view key_seed);

// Draws `count` bytes from the generator, in the form of OpenSSL's random-bytes function. Returns 1.
int seeded_rand_bytes(unsigned char* buffer, int count);

// While it lives, OpenSSL's random bytes come from the generator for this thread; every other thread keeps
// the source it had. Afterwards the method that was installed before is back and the state is wiped.
class seeded_rand_scope {
 public:
  explicit seeded_rand_scope(const keygen_state& start);
  ~seeded_rand_scope();
  seeded_rand_scope(const seeded_rand_scope&) = delete;
  seeded_rand_scope& operator=(const seeded_rand_scope&) = delete;

  // False when OpenSSL refused the method: then nothing must be generated.
  bool installed() const { return installed_; }

 private:
  std::lock_guard<std::mutex> lock_;
  const RAND_METHOD* before_;
  bool installed_;
};

}  // namespace fetchrig
#endif
