// The key generator against an independently written one, and how it keeps to its own thread.
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <openssl/ssl.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "cert/keygen.h"
#include "cert/seeded_rand.h"
#include "include/fetchrig_openssl.h"
#include "tests/support/cert_place.h"
#include "tests/support/pki.h"

using namespace fetchrig;

namespace {

std::string md5(const std::string& text) {
  std::string digest(16, '\0');
  EVP_Digest(text.data(), text.size(), reinterpret_cast<unsigned char*>(digest.data()), nullptr, EVP_md5(),
             nullptr);
  return digest;
}

// The generator once more, over strings: the judge of ours.
class reference_generator {
 public:
  reference_generator(const std::string& common_name, const std::string& key_seed)
      : pool_(padded(common_name)), salt_(padded(key_seed)) {
    srand(0x4E7B2A93u);
    for (char& byte : pool_) byte = static_cast<char>(byte + rand());
  }

  std::string draw(std::size_t count) {
    if (count == 0) return {};
    std::string counter;
    for (const uint32_t word : {low_, uint32_t{5}}) {
      for (int shift = 0; shift < 32; shift += 8) counter += static_cast<char>(word >> shift);
    }
    ++low_;
    std::string last = md5(salt_ + pool_ + counter);
    std::string out = last.substr(8);
    while (out.size() < count) out += (last = md5(pool_ + counter)).substr(8);
    pool_ = md5(last + pool_);
    first_blocks.insert(out.substr(0, 8));
    return out.substr(0, count);
  }

  std::set<std::string> first_blocks;  // of every draw

 private:
  static std::string padded(const std::string& text) { return (text + std::string(16, '\0')).substr(0, 16); }

  std::string pool_;
  std::string salt_;
  uint32_t low_ = 14873;
};

reference_generator* current_reference = nullptr;

int reference_bytes(unsigned char* buffer, int count) {
  const std::string bytes = current_reference->draw(static_cast<std::size_t>(count));
  memcpy(buffer, bytes.data(), bytes.size());
  return 1;
}

int always_ready() {
  return 1;
}

constexpr RAND_METHOD reference_method = {nullptr, reference_bytes, nullptr,
                                          nullptr, reference_bytes, always_ready};

// The modulus that OpenSSL makes of the reference generator's bytes.
std::string reference_modulus(reference_generator& generator, unsigned bits) {
  const RAND_METHOD* before = RAND_get_rand_method();
  current_reference = &generator;
  RAND_set_rand_method(&reference_method);
  const std::shared_ptr<EVP_PKEY> key = test::new_rsa_key(bits);
  RAND_set_rand_method(before);
  return test::modulus_of(key.get());
}

std::string seeded_modulus(const test::cert_place& place, const std::string& common_name,
                           const std::string& key_seed, int bits) {
  const keygen_state start = initial_keygen_state(common_name, key_seed);
  device_key result;
  EXPECT_EQ(build_rsa_key(result, place.path("absent.pem").c_str(), bits, &start), 0);
  return result.key ? test::modulus_of(result.key.get()) : "none";
}

TEST(SeededRand, DrawsEqualTheReference) {
  for (const auto& [name, seed] : std::vector<std::pair<std::string, std::string>>{
           {"0011AB", "factory seed"},
           {"", ""},
           {"a common name of many characters", "a seed of many characters"}}) {
    SCOPED_TRACE(name);
    keygen_rand_state = initial_keygen_state(name, seed);
    reference_generator reference(name, seed);
    for (const int count : {20, 1, 7, 8, 9, 16, 17, 0, 128, 255, 8}) {
      std::vector<unsigned char> drawn(static_cast<std::size_t>(count) + 1, 0xEE);
      EXPECT_EQ(seeded_rand_bytes(drawn.data(), count), 1);
      EXPECT_EQ(drawn.back(), 0xEE) << "nothing is written behind the buffer";
      EXPECT_EQ(std::string(drawn.begin(), drawn.end() - 1), reference.draw(static_cast<std::size_t>(count)))
          << count;
    }
  }
}

TEST(SeededRand, CounterWrapsWithoutCarry) {
  keygen_rand_state = initial_keygen_state("a", "b");
  keygen_rand_state.counter_low = 0xFFFFFFFF;
  unsigned char byte = 0;
  seeded_rand_bytes(&byte, 1);
  EXPECT_EQ(keygen_rand_state.counter_low, 0u);
  EXPECT_EQ(keygen_rand_state.counter_high, 5u);
}

TEST(SeededRand, NoBytesChangeNothing) {
  keygen_rand_state = initial_keygen_state("a", "b");
  unsigned char byte = 0xEE;
  for (const int count : {0, -1, -2147483647 - 1}) EXPECT_EQ(seeded_rand_bytes(&byte, count), 1);
  EXPECT_EQ(byte, 0xEE);
  EXPECT_FALSE(keygen_rand_state.seeded);
  EXPECT_EQ(keygen_rand_state.counter_low, 14873u);
}

TEST(SeededRand, LibcGeneratorIsLeftBehindItsSeed) {
  keygen_rand_state = initial_keygen_state("a", "b");
  unsigned char byte = 0;
  seeded_rand_bytes(&byte, 1);
  const int next = rand();
  srand(0x4E7B2A93u);
  for (int i = 0; i < 16; ++i) rand();
  EXPECT_EQ(next, rand());
}

TEST(SeededRand, ReseedingLibcInAnotherThreadChangesNothing) {
  keygen_rand_state = initial_keygen_state("a", "b");
  unsigned char expected[8];
  seeded_rand_bytes(expected, sizeof expected);
  std::atomic<bool> running = false, stopping = false;
  std::thread other([&] {
    for (unsigned seed = 0; !stopping; running = true) srand(seed++);
  });
  while (!running) std::this_thread::yield();
  int differing = 0;
  for (int i = 0; i < 20000; ++i) {
    keygen_rand_state = initial_keygen_state("a", "b");
    unsigned char drawn[8];
    seeded_rand_bytes(drawn, sizeof drawn);
    differing += memcmp(drawn, expected, sizeof drawn) != 0;
  }
  stopping = true;
  other.join();
  EXPECT_EQ(differing, 0);
}

TEST(Keygen, ModulusEqualsTheReference) {
  const test::cert_place place;
  for (const int bits : {512, 1024, 2048}) {
    reference_generator reference("0011AB", "factory seed");
    EXPECT_EQ(seeded_modulus(place, "0011AB", "factory seed", bits),
              reference_modulus(reference, static_cast<unsigned>(bits)))
        << bits;
  }
}

TEST(Keygen, SixteenBytesOfNameAndSeedDecide) {
  const test::cert_place place;
  const std::string key = seeded_modulus(place, "0123456789abcdef", "fedcba9876543210", 512);
  EXPECT_EQ(seeded_modulus(place, "0123456789abcdef", "fedcba9876543210", 512), key);
  EXPECT_EQ(seeded_modulus(place, "0123456789abcdefX", "fedcba9876543210Y", 512), key);
  EXPECT_NE(seeded_modulus(place, "0123456789abcdeX", "fedcba9876543210", 512), key);
  EXPECT_NE(seeded_modulus(place, "0123456789abcdef", "fedcba987654321Y", 512), key);
  EXPECT_NE(seeded_modulus(place, "0123456789abcde", "fedcba9876543210", 512), key);
}

TEST(Keygen, WithoutASeedKeysAreRandom) {
  const test::cert_place place;
  EVP_PKEY* keys[2] = {};
  for (EVP_PKEY*& key : keys) {
    int reused = 0;
    ASSERT_EQ(dl_cert_build_rsa_key(place.path("absent.pem").c_str(), 512, &key, &reused), 0);
    EXPECT_EQ(reused, 0);
  }
  EXPECT_NE(test::modulus_of(keys[0]), test::modulus_of(keys[1]));
  for (EVP_PKEY* key : keys) EVP_PKEY_free(key);
}

// The bytes that a method installed by the application hands out.
std::atomic<int> application_draws = 0;
int application_bytes(unsigned char* buffer, int count) {
  ++application_draws;
  return RAND_OpenSSL()->bytes(buffer, count);
}
constexpr RAND_METHOD application_method = {nullptr, application_bytes, nullptr,
                                            nullptr, application_bytes, always_ready};

// One TLS handshake within the process; returns the random bytes of both hellos, or nothing when it failed.
std::vector<std::string> handshake(SSL_CTX* server_context, SSL_CTX* client_context) {
  const std::unique_ptr<SSL, decltype(&SSL_free)> server(SSL_new(server_context), SSL_free);
  const std::unique_ptr<SSL, decltype(&SSL_free)> client(SSL_new(client_context), SSL_free);
  BIO* server_end = nullptr;
  BIO* client_end = nullptr;
  if (!server || !client || BIO_new_bio_pair(&server_end, 0, &client_end, 0) != 1) return {};
  SSL_set_bio(server.get(), server_end, server_end);
  SSL_set_bio(client.get(), client_end, client_end);
  SSL_set_accept_state(server.get());
  SSL_set_connect_state(client.get());
  bool done = false;
  for (int turn = 0; turn < 20 && !done; ++turn) {
    const int client_rc = SSL_do_handshake(client.get());
    done = SSL_do_handshake(server.get()) == 1 && client_rc == 1;
  }
  if (!done) return {};
  unsigned char randoms[2][32];
  SSL_get_client_random(client.get(), randoms[0], 32);
  SSL_get_server_random(server.get(), randoms[1], 32);
  return {std::string(reinterpret_cast<char*>(randoms[0]), 8),
          std::string(reinterpret_cast<char*>(randoms[1]), 8)};
}

// Draws and hand-shakes in a thread of its own for as long as it lives.
class busy_thread {
 public:
  busy_thread() : thread_([this] { work(); }) {
    while (!started_) std::this_thread::yield();
  }
  ~busy_thread() { stop(); }
  void stop() {
    stopping_ = true;
    if (thread_.joinable()) thread_.join();
  }

  // To be read after stop().
  std::multiset<std::string> seen;
  int failures = 0;
  int handshakes = 0;

 private:
  void work() {
    const test::identity server = test::make_identity("server", test::new_ec_key());
    const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> server_context(SSL_CTX_new(TLS_server_method()),
                                                                           SSL_CTX_free);
    const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> client_context(SSL_CTX_new(TLS_client_method()),
                                                                           SSL_CTX_free);
    SSL_CTX_use_certificate(server_context.get(), server.certificate.get());
    SSL_CTX_use_PrivateKey(server_context.get(), server.key.get());
    while (!stopping_) {
      unsigned char bytes[8];
      for (int i = 0; i < 50; ++i) {
        if ((i % 2 ? RAND_bytes : RAND_priv_bytes)(bytes, sizeof bytes) != 1) ++failures;
        seen.insert(std::string(reinterpret_cast<char*>(bytes), sizeof bytes));
      }
      srand(static_cast<unsigned>(rand()));
      const std::vector<std::string> hellos = handshake(server_context.get(), client_context.get());
      if (hellos.empty()) ++failures;
      seen.insert(hellos.begin(), hellos.end());
      ++handshakes;
      started_ = true;
    }
  }

  std::atomic<bool> stopping_ = false;
  std::atomic<bool> started_ = false;
  std::thread thread_;
};

TEST(Keygen, OtherThreadsKeepTheirRandomness) {
  const test::cert_place place;
  reference_generator reference("0011AB", "seed");
  const std::string expected = reference_modulus(reference, 2048);
  const RAND_METHOD* before = RAND_get_rand_method();

  busy_thread busy;
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(seeded_modulus(place, "0011AB", "seed", 2048), expected)
        << "a draw of another thread would change the key";
  }
  busy.stop();
  EXPECT_EQ(RAND_get_rand_method(), before);
  EXPECT_EQ(busy.failures, 0);
  EXPECT_GT(busy.handshakes, 1);
  EXPECT_EQ(std::set<std::string>(busy.seen.begin(), busy.seen.end()).size(), busy.seen.size())
      << "all bytes differ";
  for (const std::string& block : reference.first_blocks) EXPECT_EQ(busy.seen.count(block), 0u);
}

TEST(Keygen, GenerationsOfTwoThreadsDoNotMix) {
  const test::cert_place place;
  const std::string first = seeded_modulus(place, "first", "seed", 1024);
  const std::string second = seeded_modulus(place, "second", "seed", 1024);
  const RAND_METHOD* before = RAND_get_rand_method();
  std::thread other([&] {
    for (int i = 0; i < 5; ++i) EXPECT_EQ(seeded_modulus(place, "first", "seed", 1024), first);
  });
  for (int i = 0; i < 5; ++i) EXPECT_EQ(seeded_modulus(place, "second", "seed", 1024), second);
  other.join();
  EXPECT_EQ(RAND_get_rand_method(), before);
}

TEST(Keygen, AMethodOfTheApplicationIsServedAndPutBack) {
  const RAND_METHOD* before = RAND_get_rand_method();
  RAND_set_rand_method(&application_method);
  {
    application_draws = 0;
    const seeded_rand_scope scope(initial_keygen_state("a", "b"));
    ASSERT_TRUE(scope.installed());
    unsigned char bytes[8];
    EXPECT_EQ(RAND_bytes(bytes, sizeof bytes), 1);
    EXPECT_EQ(application_draws, 0) << "this thread draws from the generator";
    std::thread([] {
      unsigned char others[8];
      EXPECT_EQ(RAND_bytes(others, sizeof others), 1);
      EXPECT_EQ(RAND_status(), 1);
    }).join();
    EXPECT_EQ(application_draws, 1);
  }
  EXPECT_EQ(RAND_get_rand_method(), &application_method);
  EXPECT_FALSE(keygen_rand_state.seeded) << "the state is wiped";
  RAND_set_rand_method(before);
}

TEST(Keygen, MethodIsPutBackWhenGenerationFails) {
  const test::cert_place place;
  const RAND_METHOD* before = RAND_get_rand_method();
  const keygen_state start = initial_keygen_state("a", "b");
  for (const int bits : {-1, 0, 100, 16385, 2147483647}) {
    device_key result;
    EXPECT_EQ(build_rsa_key(result, place.path("absent.pem").c_str(), bits, &start), -1) << bits;
    EXPECT_EQ(result.key, nullptr);
    EXPECT_EQ(RAND_get_rand_method(), before);
  }
}

}  // namespace
