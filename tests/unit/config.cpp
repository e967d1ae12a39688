// config.cpp: options, defaults, start-up and tear-down.
#include "core/config.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "include/fetchrig_openssl.h"
#include "log/syslog_socket.h"
#include "tests/support/descriptors.h"
#include "tests/support/temp_dir.h"

namespace {

using namespace fetchrig;
using texts = std::vector<std::string>;

// Every test starts without initialisation and leaves none behind.
class config : public testing::Test {
 protected:
  config() { syslog_path = "/nonexistent/log"; }
  ~config() override {
    dl_exit();
    qxfr_log_exit();
  }
};

int32_t set(uint32_t option, const std::string& text) {
  return dl_set_option(option, text.c_str());
}
texts stored_texts() {
  const tls_options tls = https_options();
  return {trust_ca_dir().data(), device_cert_file().data(), tls.ca_dir.data(), tls.cert_file.data()};
}
std::vector<int64_t> stored_numbers() {
  const tls_options tls = https_options();
  return {max_redirects(), max_file_size(), auth_retry_limit(),    tls.method,
          tls.verify_peer, tls.verify_host, net_timeout_seconds(), ipv6_enabled()};
}
TEST_F(config, extras_are_off_until_they_are_set) {
  struct {
    uint32_t extra, most, refused;
  } const rows[] = {{2, 1, 2}, {3, 1, 2}, {4, 1, 2},          {5, 1, 2},      {6, 1, 2},      {7, 1, 2},
                    {8, 1, 2}, {9, 1, 2}, {10, 32767, 32768}, {11, 65464, 7}, {11, 8, 65465}, {12, 64, 65}};
  EXPECT_EQ(dl_set_extra(0, 0) + dl_set_extra(13, 0) + dl_set_extras(2) + dl_set_size_limit(UINT64_MAX), -4);
  for (const auto& row : rows) {
    EXPECT_EQ(dl_get_extra(row.extra), 0U);
    EXPECT_EQ(dl_set_extra(row.extra, row.most), FETCHRIG_EXTRAS ? 0 : -1) << "or left out of the build";
    if (!FETCHRIG_EXTRAS) continue;
    EXPECT_EQ(dl_set_extra(row.extra, row.refused), -1);
    EXPECT_EQ(dl_get_extra(row.extra), row.most) << row.extra;
    EXPECT_EQ(dl_set_extras(DL_EXTRAS_NONE), 0);
  }
  if (!FETCHRIG_EXTRAS) return;
  EXPECT_EQ(dl_set_extra(DL_EXTRA_TLS_WAIT_LIMIT, 9), 0);
  EXPECT_EQ(dl_set_extras(DL_EXTRAS_RECOMMENDED), 0);
  for (const uint32_t off : {6U, 8U, 11U}) EXPECT_EQ(dl_get_extra(off), 0U);
  for (const uint32_t on : {1U, 2U, 3U, 4U, 5U, 7U, 9U, 10U, 12U}) EXPECT_NE(dl_get_extra(on), 0U) << on;
  dl_exit();
  dl_config_init();
  EXPECT_EQ(dl_get_extra(DL_EXTRA_REDIRECTS), 0U);
  EXPECT_EQ(dl_get_extra(DL_EXTRA_TLS_WAIT_LIMIT), 9U) << "as its own call has it";
  dl_set_tls_wait_limit(0);
}

const std::vector<int64_t> default_numbers = {5, 2097152, 2, 0, 0, 0, 1, 0};

TEST_F(config, the_first_option_initialises_and_the_end_clears_all) {
  char text[8] = "#######";
  EXPECT_EQ(dl_get_option(DL_OPT_TEMP_DIR, text, sizeof text), -1) << "not initialised";
  EXPECT_EQ(dl_set_option(DL_OPT_SSL_METHOD, nullptr), -1);
  EXPECT_STREQ(dl_get_version(), "5.3.0.4");
  EXPECT_FALSE(config_initialised()) << "a null value is refused before anything happens";
  for (int round = 0; round < 2; ++round) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(set(DL_OPT_CALLER_TAG, "secret"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "logs to the system log alone";
    for (uint32_t module = 0; module < 7; ++module) EXPECT_EQ(qxfr_log_get(module), DL_LOG_WARNING);
    EXPECT_STREQ(user_agent().data(), "Korvane");
    EXPECT_EQ(stored_texts(), texts(4));
    EXPECT_EQ(stored_numbers(), default_numbers);
    EXPECT_EQ(set(DL_OPT_KEY_PASSPHRASE, "secret"), 0);
    dl_config_init();
    EXPECT_STREQ(key_passphrase().data(), "secret") << "initialising again changes nothing";
    dl_exit();
    EXPECT_FALSE(config_initialised());
    const auto* bytes = reinterpret_cast<const char*>(&g_dl_cfg);
    EXPECT_EQ(std::string(bytes, sizeof g_dl_cfg).find("secret"), std::string::npos);
    dl_exit();
  }
}

// Whether TLS 1.3 alone is offered to a peer, which has nothing to say and so ends the handshake.
bool offers_only_tls13(const std::string& ca_dir) {
  dl_config_init();
  const test::socket_pair ends;
  shutdown(ends.far.get(), SHUT_WR);
  SSL* ssl = nullptr;
  SSL_CTX* ctx = nullptr;
  dl_do_SSL_connect(ends.near.get(), "", ca_dir.c_str(), 3, 0, 0, "host", &ssl, &ctx);
  char hello[1024] = {};
  const ssize_t length = recv(ends.far.get(), hello, sizeof hello, 0);
  const std::string only_tls13("\0\x2b\0\x03\x02\x03\x04", 7);
  return std::string(hello, hello + std::max<ssize_t>(length, 0)).find(only_tls13) != std::string::npos;
}

// OpenSSL reads its configuration when it is first used: in a process where nobody has. An emulator starts no program
// anew; there it is one where only this file's tests ran.
// Before OpenSSL has started: GoogleTest runs what is so called before all others.
using config_DeathTest = config;
TEST_F(config_DeathTest, start_up_leaves_the_systems_tls_policy_in_force) {
#if !defined(FETCHRIG_EMULATED)
  GTEST_FLAG_SET(death_test_style, "threadsafe");
#endif
  const test::temp_dir place;
  test::write_file(
      place.file("openssl.cnf"),
      "openssl_conf = a\n[a]\nssl_conf = b\n[b]\nsystem_default = c\n[c]\nMinProtocol = TLSv1.3\n");
  setenv("OPENSSL_CONF", place.file("openssl.cnf").c_str(), 1);
  EXPECT_EXIT(_exit(offers_only_tls13(place.path()) ? 0 : 1), testing::ExitedWithCode(0), "");
  unsetenv("OPENSSL_CONF");
}

TEST_F(config, numbers_keep_their_ranges_and_unknown_options_are_refused) {
  // clang-format off
  const struct { uint32_t option; size_t reader; std::vector<uint32_t> good, bad; } rows[] = {
      {DL_OPT_MAX_REDIRECTS, 0, {5, 0}, {6}},            {DL_OPT_MAX_FILE_SIZE, 1, {UINT32_MAX, 0}, {}},
      {DL_OPT_AUTH_RETRY_LIMIT, 2, {1, 65535}, {0}},     {DL_OPT_SSL_METHOD, 3, {0, 3}, {4}},
      {DL_OPT_VERIFY_PEER, 4, {0, 1}, {2}},              {DL_OPT_VERIFY_HOST, 5, {0, 1}, {2, UINT32_MAX}},
      {DL_OPT_NET_TIMEOUT, 6, {1, 60}, {0, 61, 65537}},  {DL_OPT_IPV6, 7, {0, 1}, {2, 65536}},
      {17, 0, {}, {1}}, {24, 0, {}, {1}}, {UINT32_MAX, 0, {}, {1}},
  };
  // clang-format on
  auto expected = default_numbers;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.option);
    for (const uint32_t value : row.good) {
      EXPECT_EQ(dl_set_option(row.option, &value), 0);
      expected[row.reader] = value;
      EXPECT_EQ(stored_numbers(), expected);
    }
    for (const uint32_t value : row.bad) EXPECT_EQ(dl_set_option(row.option, &value), -1) << value;
    EXPECT_EQ(stored_numbers(), expected);
  }
}

TEST_F(config, texts_are_cut_to_their_fields_and_some_are_read_back) {
  const std::string text(600, 'x');
  char got[512] = {};
  set(DL_OPT_USER_AGENT, text);
  EXPECT_EQ(user_agent().data(), text.substr(0, 511));
  set(DL_OPT_CALLER_TAG, text);
  EXPECT_EQ(dl_get_option(DL_OPT_CALLER_TAG, got, sizeof got), 0);
  EXPECT_EQ(got, text.substr(0, 20));
  EXPECT_EQ(dl_get_option(DL_OPT_TEMP_DIR, got, 4), 0);
  EXPECT_EQ(std::string(got, 5), "/tmpx") << "a text as long as the buffer is not terminated";
  EXPECT_EQ(dl_get_option(DL_OPT_TEMP_DIR, got, 5), 0);
  EXPECT_STREQ(got, "/tmp");
  EXPECT_EQ(dl_get_option(DL_OPT_TEMP_DIR, nullptr, 8), -1);
  set(DL_OPT_KEY_PASSPHRASE, text);
  set(DL_OPT_KEY_PASSPHRASE, "new");
  EXPECT_EQ(std::string(key_passphrase().data() + 3, 509), std::string(509, '\0')) << "the old one's tail";
  for (const uint32_t option :
       {DL_OPT_USER_AGENT, DL_OPT_HTTPS_CA_DIR, DL_OPT_KEY_PASSPHRASE, DL_OPT_KEY_SEED})
    EXPECT_EQ(dl_get_option(option, got, sizeof got), -1) << option;
}

TEST_F(config, store_paths_seed_the_https_paths_while_those_are_empty) {
  // clang-format off
  const struct { uint32_t option; const char* value; texts expected; } rows[] = {
      // the two stores' paths, then those of HTTPS
      {DL_OPT_TRUST_CA_DIR, "/1/",      {"/1/", "", "/1/", ""}}, {DL_OPT_TRUST_CA_DIR, "/2/", {"/2/", "", "/1/", ""}},
      {DL_OPT_HTTPS_CERT_FILE, "/own",  {"/2/", "", "/1/", "/own"}},
      {DL_OPT_DEVICE_CERT_FILE, "/dev", {"/2/", "/dev", "/1/", "/own"}},
      {DL_OPT_HTTPS_CERT_FILE, "",      {"/2/", "/dev", "/1/", ""}},
      {DL_OPT_DEVICE_CERT_FILE, "/new", {"/2/", "/new", "/1/", "/new"}},
      {DL_OPT_HTTPS_CA_DIR, "/3/",      {"/2/", "/new", "/3/", "/new"}},
  };
  // clang-format on
  for (const auto& row : rows) {
    EXPECT_EQ(set(row.option, row.value), 0);
    EXPECT_EQ(stored_texts(), row.expected);
  }
}

TEST_F(config, ring_entries_have_a_slot_and_a_name_of_any_length) {
  dl_ring_entry entry = {9, 1, ""};
  memset(entry.name, 'n', sizeof entry.name);  // without its terminator
  EXPECT_EQ(dl_set_option(DL_OPT_RING_ENTRY, &entry), 0);
  EXPECT_EQ(ring_number_of(std::string(sizeof entry.name, 'N').c_str()), 1);
  EXPECT_EQ(ring_number_of(std::string(sizeof entry.name - 1, 'N').c_str()), -1);
  entry.slot = 10;
  EXPECT_EQ(dl_set_option(DL_OPT_RING_ENTRY, &entry), -1);
}

TEST_F(config, a_child_forked_while_a_thread_holds_a_lock_does_not_hang) {
  const auto use_locks = [] {
    set(DL_OPT_USER_AGENT, std::string(500, 'a'));
    dl_http_session own = {};
    own.magic = DL_HTTP_MAGIC;
    own.sock = -1;
    dl_result result;
    return dl_http_read(&own, result.message, 0, &result);
  };
  use_locks();
  const std::jthread user([&use_locks](const std::stop_token& stop) {
    while (!stop.stop_requested()) use_locks();
  });
  for (int round = 0; round < 100 && !HasFailure(); ++round) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(20);
      _exit(use_locks());
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0) << round;
  }
}

}  // namespace
