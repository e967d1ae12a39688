// The key generator against an independently written one, and how it keeps to its own thread.
#include <openssl/rand.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <set>
#include <thread>

#include "cert/keygen.h"
#include "cert/seeded_rand.h"
#include "include/fetchrig_openssl.h"
#include "tests/support/cert_fixture.h"

using namespace fetchrig;

namespace {

std::string md5(const std::string& text) {
  unsigned char digest[16];
  EVP_Digest(text.data(), text.size(), digest, nullptr, EVP_md5(), nullptr);
  return {digest, digest + sizeof digest};
}

// The generator once more, over strings: the judge of ours.
class reference_generator {
 public:
  reference_generator(const std::string& common_name, const std::string& key_seed, uint32_t counter = 14873)
      : pool_(padded(common_name)), salt_(padded(key_seed)), counter_(counter) {
    srand(0x4E7B2A93u);
    for (char& byte : pool_) byte = static_cast<char>(byte + rand());
  }

  std::string draw(int count) {
    if (count <= 0) return {};
    std::string counter;
    for (const uint32_t word : {counter_++, uint32_t{5}}) {
      for (int shift = 0; shift < 32; shift += 8) counter += static_cast<char>(word >> shift);
    }
    std::string last = md5(salt_ + pool_ + counter);
    std::string out = last.substr(8);
    const auto length = static_cast<std::size_t>(count);
    while (out.size() < length) out += (last = md5(pool_ + counter)).substr(8);
    pool_ = md5(last + pool_);
    return out.substr(0, length);
  }

 private:
  static std::string padded(const std::string& text) { return (text + std::string(16, '\0')).substr(0, 16); }

  std::string pool_, salt_;
  uint32_t counter_;
};

TEST(seeded_rand, draws_equal_the_reference) {
  // clang-format off
  const struct { const char* common_name; const char* seed; uint32_t counter; } rows[] = {
      {"0011AB", "", 14873},
      {"16 bytes of the name count", "16 bytes of the seed count", 14873},
      {"the counter wraps without a carry", "seed", 0xFFFFFFFF},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.common_name);
    keygen_rand_state = initial_keygen_state(row.common_name, row.seed);
    keygen_rand_state.counter_low = row.counter;
    reference_generator reference(row.common_name, row.seed, row.counter);
    const int next_of_libc = rand();
    for (const int count : {20, 1, 7, 8, 9, 0, -1, 128, 255}) {
      std::string drawn(static_cast<std::size_t>(std::max(count, 0)), 'x');
      EXPECT_EQ(seeded_rand_bytes(reinterpret_cast<unsigned char*>(drawn.data()), count), 1);
      EXPECT_EQ(drawn, reference.draw(count)) << count;
    }
    EXPECT_EQ(rand(), next_of_libc) << "libc's generator is left behind its first sixteen values";
  }
}

using keygen = test::cert_test;

reference_generator* current_reference = nullptr;

int reference_bytes(unsigned char* buffer, int count) {
  const std::string bytes = current_reference->draw(count);
  memcpy(buffer, bytes.data(), bytes.size());
  return 1;
}

// The modulus that OpenSSL makes of the reference generator's bytes.
std::string reference_modulus(const std::string& common_name, const std::string& seed, unsigned bits) {
  constexpr RAND_METHOD method = {nullptr, reference_bytes, nullptr, nullptr, reference_bytes, nullptr};
  reference_generator generator(common_name, seed);
  current_reference = &generator;
  const RAND_METHOD* before = RAND_get_rand_method();
  RAND_set_rand_method(&method);
  const std::shared_ptr<EVP_PKEY> key = test::new_rsa_key(bits);
  RAND_set_rand_method(before);
  return test::modulus_of(key.get());
}

std::string seeded_modulus(const std::string& common_name, const std::string& seed, int bits) {
  const keygen_state start = initial_keygen_state(common_name, seed);
  device_key result;
  EXPECT_EQ(build_rsa_key(result, "/dev/null/absent", bits, &start), 0);
  return result.key ? test::modulus_of(result.key.get()) : "none";
}

// What the other threads are served by while a key is generated: a method of the application's own.
std::atomic<int> served = 0;
int serve_bytes(unsigned char* buffer, int count) {
  ++served;
  return RAND_OpenSSL()->bytes(buffer, count);
}
int ready() {
  return 1;
}

TEST_F(keygen, keys_equal_the_reference_whatever_other_threads_do) {
  const std::string short_key = reference_modulus("0011AB", "seed", 512);
  const std::string long_key = reference_modulus("0011AB", "seed", 2048);
  constexpr RAND_METHOD bytes_alone = {nullptr, serve_bytes, nullptr, nullptr, serve_bytes, ready};
  const RAND_METHOD* before = RAND_get_rand_method();
  RAND_set_rand_method(&bytes_alone);
  std::atomic<bool> stopping = false;
  std::atomic<int> drawn = 0;
  std::thread drawing([&] {
    unsigned char bytes[8] = {};
    for (unsigned seed = 0; !stopping; srand(seed++), ++drawn) {
      EXPECT_EQ(RAND_bytes(bytes, sizeof bytes), 1);
      EXPECT_EQ(RAND_status(), 1);
      RAND_seed(bytes, sizeof bytes);
      RAND_add(bytes, sizeof bytes, 1);
    }
  });
  while (drawn == 0) std::this_thread::yield();
  std::thread generating([&] { EXPECT_EQ(seeded_modulus("0011AB", "seed", 2048), long_key); });
  for (int i = 0; i < 100; ++i) EXPECT_EQ(seeded_modulus("0011AB", "seed", 512), short_key);
  generating.join();
  stopping = true;
  drawing.join();
  EXPECT_EQ(served, drawn) << "no draw of the generator's, every one of the other thread's";
  EXPECT_EQ(RAND_get_rand_method(), &bytes_alone);
  EXPECT_FALSE(keygen_rand_state.seeded) << "the state is wiped";
  RAND_set_rand_method(before);
}

TEST_F(keygen, fails_after_the_application_has_cleaned_up_openssl) {
  const keygen_state start = initial_keygen_state("name", "seed");
  const auto build = [&] {
    device_key result;
    return build_rsa_key(result, path("absent").c_str(), 512, &start);
  };
  const pid_t child = fork();
  if (child == 0) {
    const int before = build();
    OPENSSL_cleanup();
    _exit(before == 0 && build() == -1 ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

TEST_F(keygen, exported_form_makes_random_keys_or_takes_the_files) {
  const std::string file = path("key.pem");
  std::set<std::string> moduli;
  for (int round = 0; round < 3; ++round) {
    EVP_PKEY* key = nullptr;
    int reused = 0;
    ASSERT_EQ(dl_cert_build_rsa_key(file.c_str(), 512, &key, &reused), 0);
    EXPECT_EQ(reused, round == 2);
    moduli.insert(test::modulus_of(key));
    EXPECT_EQ(round == 1 ? dl_cert_write_key(file.c_str(), 0, key, -1) : 0, 0);
    EVP_PKEY_free(key);
  }
  EXPECT_EQ(moduli.size(), 2u);
}

}  // namespace
