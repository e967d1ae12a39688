// Certificates where no scenario reaches: the key generator's bytes and its manners towards other threads and a process
// that ends, OpenSSL's callbacks, revocation lists, names in other string types.
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/rand.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <set>
#include <thread>

#include "cert/seeded_rand.h"
#include "cert/verify.h"
#include "core/ca_directory.h"
#include "core/openssl_owners.h"
#include "include/fetchrig_openssl.h"
#include "tests/support/log_capture.h"
#include "tests/support/options.h"
#include "tests/support/pki.h"
#include "tests/support/temp_dir.h"

namespace test {
namespace {

using namespace fetchrig;

// The digests are those of a generator written in another language over glibc's rand().
TEST(seeded_rand, bytes_are_always_the_same) {
  const struct {
    const char *common_name, *seed;
    uint32_t counter;
    const char* digest;
  } rows[] = {
      {"0011AB", "", 14873, "beb0bda07f7c830cc4cadaf0f3bfc60a"},
      {"16 bytes of the name count", "16 bytes of the seed count", 14873, "11a5c77667629cc02af74c7877400fa7"},
      {"the counter wraps without a carry", "seed", 0xFFFFFFFF, "b7b2f4785ca181ff222d869d2fbb7f40"},
  };
  for (const auto& row : rows) {
    keygen_rand_state = initial_keygen_state(row.common_name, row.seed);
    keygen_rand_state.counter_low = row.counter;
    std::string all;
    for (const int count : {20, 1, 7, 8, 9, 0, -1, 128, 255}) {
      unsigned char drawn[256] = {};
      EXPECT_EQ(seeded_rand_bytes(drawn, count), 1);
      all.append(drawn, drawn + std::max(count, 0));
      EXPECT_EQ(drawn[std::max(count, 0)], 0);
    }
    EXPECT_EQ(md5_hex(all), row.digest) << row.common_name;
  }
  srand(0x4E7B2A93);
  for (int i = 0; i < 16; ++i) static_cast<void>(rand());
  const int seventeenth = rand();
  keygen_rand_state = {};
  unsigned char byte = 0;
  seeded_rand_bytes(&byte, 1);
  EXPECT_EQ(rand(), seventeenth) << "libc's generator is left behind its first sixteen values";
}

class keygen : public ::testing::Test {
 protected:
  keygen() {
    set_option(DL_OPT_KEY_SEED, "seed");
    write_file(ca_, pem_of(root_));
    write_file(ca_key_, pem_of(root_.key.get()));
  }
  // The key file that comes with a new certificate; empty when none does.
  std::string generated(int bits) const {
    const std::string key = place_.file(std::to_string(bits)), cert = key + ".pem";
    std::filesystem::remove(key);
    const int rc =
        dl_generate_client_cert(ca_.c_str(), ca_key_.c_str(), key.c_str(), cert.c_str(), "/CN=0011AB", bits);
    return rc == 0 ? read_file(key) : "";
  }

  const temp_dir place_;
  const library library_;
  const identity root_ = make_identity("root", new_rsa_key(1024));
  const std::string ca_ = place_.file("ca"), ca_key_ = place_.file("ca.key");
};

// The key that OpenSSL makes of the generator's bytes.
std::string expected_key(unsigned bits) {
  constexpr RAND_METHOD method = {nullptr, seeded_rand_bytes, nullptr, nullptr, seeded_rand_bytes, nullptr};
  keygen_rand_state = initial_keygen_state("0011AB", "seed");
  const RAND_METHOD* before = RAND_get_rand_method();
  RAND_set_rand_method(&method);
  const std::string key = pem_of(new_rsa_key(bits).get());
  RAND_set_rand_method(before);
  return key;
}

// A method of the application's own, which serves all but the seeded draws.
thread_local bool is_application = false;
std::atomic<int> num_served = 0;
int serve(unsigned char* buffer, int count) {
  num_served += is_application;
  return RAND_OpenSSL()->bytes(buffer, count);
}
int ready() {
  return 1;
}

TEST_F(keygen, key_follows_from_name_and_seed_whatever_other_threads_do) {
  const std::string short_key = expected_key(512), long_key = expected_key(2048);
  constexpr RAND_METHOD own = {nullptr, serve, nullptr, nullptr, serve, ready};
  const RAND_METHOD* before = RAND_get_rand_method();
  RAND_set_rand_method(&own);
  std::atomic<bool> stopping = false;
  std::atomic<int> num_drawn = 0;
  std::thread drawing([&] {
    is_application = true;
    unsigned char bytes[8] = {};
    for (unsigned seed = 0; !stopping; srand(seed++), ++num_drawn) {
      EXPECT_EQ(RAND_bytes(bytes, sizeof bytes), 1);
      EXPECT_EQ(RAND_status(), 1);
      RAND_seed(bytes, sizeof bytes);
      RAND_add(bytes, sizeof bytes, 1);
    }
  });
  while (num_drawn == 0) std::this_thread::yield();
  std::thread generating([&] { EXPECT_EQ(generated(2048), long_key); });
  for (int i = 0; i < 30; ++i) EXPECT_EQ(generated(512), short_key);
  generating.join();
  stopping = true;
  drawing.join();
  EXPECT_EQ(num_served, num_drawn) << "no draw of the generator's, every one of the application's";
  EXPECT_EQ(RAND_get_rand_method(), &own);
  EXPECT_FALSE(keygen_rand_state.seeded) << "the state is wiped";
  RAND_set_rand_method(before);
}

TEST_F(keygen, fails_after_the_application_has_cleaned_up_openssl) {
  const pid_t child = fork();
  if (child == 0) {
    const bool before = !generated(512).empty();
    OPENSSL_cleanup();
    _exit(before && generated(512).empty() ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(dl_cert_write_key(nullptr, 0, root_.key.get(), -1), -1);
  const std::string written = place_.file("written");
  EXPECT_EQ(dl_cert_write_key(written.c_str(), 0, root_.key.get(), -1), 0);
  EXPECT_EQ(read_file(written), pem_of(root_.key.get()));
}

TEST(certificate_callbacks, pass_phrase_is_cut_to_the_buffer) {
  const library initialised;
  const log_capture log;
  char given[] = "user data", buffer[] = "########";
  set_option(DL_OPT_KEY_PASSPHRASE, "secret");
  EXPECT_EQ(password_cb(buffer, 0, 0, given), 0);
  EXPECT_EQ(password_cb(buffer, 4, 0, given), 4);
  EXPECT_STREQ(buffer, "user####") << "OpenSSL counts, without a terminator";
  EXPECT_EQ(password_cb(buffer, 4, 0, nullptr), 3);
  EXPECT_EQ(std::string(buffer, 8), std::string("sec\0####", 8));
  EXPECT_EQ(log.messages(6).back(), "num is 4, pwd length:3");
  EXPECT_EQ(password_cb(buffer, 8, 0, nullptr), 6);
}

TEST(certificate_callbacks, verification_passes_its_list_alone) {
  const std::set<int> passing = {X509_V_ERR_CRL_NOT_YET_VALID,           X509_V_ERR_CRL_HAS_EXPIRED,
                                 X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT, X509_V_ERR_INVALID_CA,
                                 X509_V_ERR_PATH_LENGTH_EXCEEDED,        X509_V_ERR_INVALID_PURPOSE,
                                 X509_V_ERR_UNHANDLED_CRITICAL_EXTENSION};
  const unique_x509_store_ctx context(X509_STORE_CTX_new());
  for (int error = 0; error <= 110; ++error) {
    X509_STORE_CTX_set_error(context.get(), error);
    EXPECT_EQ(cb(0, context.get()), passing.count(error)) << error;
    EXPECT_EQ(cb(7, context.get()), 7);
  }
  EXPECT_EQ(verify_code(X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE), DL_VERIFY_UNKNOWN_ISSUER);
  EXPECT_EQ(verify_code(X509_V_OK), DL_VERIFY_OTHER) << "no error is not yet a positive verdict";
}

// No call asks for them, but an application may of a context that it was handed. OpenSSL's own look-up is the judge.
TEST(ca_directory, revocation_lists_are_found_as_openssl_finds_them) {
  const temp_dir place;
  const identity root = make_identity("root", new_ec_key(), {.extensions = ca_extensions});
  const identity leaf = make_identity("leaf", new_ec_key(), {.issuer = &root});
  const std::string name = place.file(hash_name_of(root)), list = name.substr(0, name.size() - 1) + "r0";
  write_file(name, pem_of(root));
  for (const std::string& content : {crl_pem_of(root), pem_of(root), std::string()}) {
    write_file(list, content);
    int errors[2];
    for (const bool ours : {false, true}) {
      const unique_x509_store store(X509_STORE_new());
      X509_LOOKUP* lookup =
          ours ? add_ca_lookup(store.get()) : X509_STORE_add_lookup(store.get(), X509_LOOKUP_hash_dir());
      ASSERT_TRUE(ours ? add_ca_directories(lookup, place.path().c_str())
                       : X509_LOOKUP_add_dir(lookup, place.path().c_str(), X509_FILETYPE_PEM) == 1);
      X509_STORE_set_flags(store.get(), X509_V_FLAG_CRL_CHECK);
      const unique_x509_store_ctx context(X509_STORE_CTX_new());
      X509_STORE_CTX_init(context.get(), store.get(), leaf.certificate.get(), nullptr);
      X509_verify_cert(context.get());
      errors[ours] = X509_STORE_CTX_get_error(context.get());
    }
    EXPECT_EQ(errors[1], errors[0]) << content;
    EXPECT_EQ(errors[1] == X509_V_OK, content.find("CRL") != content.npos);
  }
  ERR_clear_error();
}

TEST(subject, string_types_and_no_text) {
  const auto subject = [](const char* text, int type) {
    char line[64] = "none";
    if (const unique_x509_name name{do_subject(text, type)}) X509_NAME_oneline(name.get(), line, sizeof line);
    return std::string(line);
  };
  EXPECT_EQ(subject("/CN=\xc3\xa9", MBSTRING_UTF8), "/CN=\\xC3\\xA9");
  EXPECT_EQ(subject("/CN=\xc3", MBSTRING_UTF8) + subject(nullptr, MBSTRING_ASC), "nonenone");
  const unique_x509_req request(X509_REQ_new());
  X509_REQ_set_version(request.get(), 2);
  EXPECT_EQ(make_REQ(request.get(), new_ec_key().get(), "/CN=x", 0, MBSTRING_ASC), 0);
  EXPECT_EQ(X509_REQ_get_version(request.get()), 0) << "the version of all requests";
  EXPECT_EQ(build_subject(request.get(), "/CN=y", MBSTRING_ASC), 1);
  EXPECT_EQ(build_subject(request.get(), nullptr, MBSTRING_ASC), 0);
  char line[64] = "";
  EXPECT_STREQ(X509_NAME_oneline(X509_REQ_get_subject_name(request.get()), line, sizeof line), "/CN=y");
  ERR_clear_error();
}

}  // namespace
}  // namespace test
