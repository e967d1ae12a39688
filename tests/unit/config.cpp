// config.cpp: options, defaults, start-up and tear-down.
#include "core/config.h"

#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>

#include <string>
#include <thread>

#include "log/syslog_socket.h"

namespace {

using namespace fetchrig;

std::string stored(uint32_t option) {
  char text[512] = {};
  EXPECT_EQ(dl_get_option(option, text, sizeof text), 0);
  return text;
}

// Every test starts without initialisation and leaves none behind.
class config : public testing::Test {
 protected:
  void SetUp() override { syslog_path = "/nonexistent/log"; }
  void TearDown() override {
    dl_exit();
    qxfr_log_exit();
  }
};

TEST_F(config, defaults) {
  dl_config_init();
  EXPECT_STREQ(user_agent().data(), "Korvane");
  EXPECT_EQ(net_timeout_seconds(), 1);
  EXPECT_EQ(max_file_size(), 2097152U);
  EXPECT_EQ(max_redirects(), 5U);
  EXPECT_EQ(auth_retry_limit(), 2U);
  EXPECT_EQ(ipv6_enabled(), 0);
  const tls_options tls = https_options();
  EXPECT_EQ(std::string(tls.cert_file.data()) + tls.ca_dir.data() + key_passphrase().data(), "");
  EXPECT_EQ(tls.method + tls.verify_peer + tls.verify_host, 0);
  EXPECT_EQ(stored(DL_OPT_TEMP_DIR), "/tmp");
  for (uint32_t module = 0; module < 7; ++module) EXPECT_EQ(qxfr_log_get(module), DL_LOG_WARNING);
  testing::internal::CaptureStdout();
  qxfr_log(DL_LOG_CMN, DL_LOG_ERROR, "x\n");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_STREQ(dl_get_version(), "5.3.0.4");
}

TEST_F(config, number_options_keep_their_ranges_and_unknown_ones_are_refused) {
  // clang-format off
  const struct { uint32_t option; uint32_t value; int32_t result; uint32_t read_back; } rows[] = {
      {DL_OPT_SSL_METHOD, 3, 0, 3}, {DL_OPT_SSL_METHOD, 4, -1, 3}, {DL_OPT_VERIFY_PEER, 1, 0, 1},
      {DL_OPT_VERIFY_PEER, 2, -1, 1}, {DL_OPT_MAX_REDIRECTS, 0, 0, 0}, {DL_OPT_MAX_REDIRECTS, 6, -1, 0},
      {DL_OPT_MAX_FILE_SIZE, UINT32_MAX, 0, UINT32_MAX}, {DL_OPT_MAX_FILE_SIZE, 0, 0, 0},
      {DL_OPT_NET_TIMEOUT, 60, 0, 60}, {DL_OPT_NET_TIMEOUT, 61, -1, 60},
      {DL_OPT_NET_TIMEOUT, 65537, -1, 60}, {DL_OPT_NET_TIMEOUT, 1, 0, 1}, {DL_OPT_NET_TIMEOUT, 0, -1, 1},
      {DL_OPT_IPV6, 1, 0, 1}, {DL_OPT_IPV6, 65536, -1, 1}, {DL_OPT_VERIFY_HOST, 1, 0, 1},
      {DL_OPT_VERIFY_HOST, UINT32_MAX, -1, 1}, {DL_OPT_AUTH_RETRY_LIMIT, 7, 0, 7},
      {DL_OPT_AUTH_RETRY_LIMIT, 0, -1, 7}, {DL_OPT_AUTH_RETRY_LIMIT, 65536, 0, 0},
  };
  const auto read_back = [](uint32_t option) -> uint32_t {
    switch (option) {
      case DL_OPT_SSL_METHOD: return static_cast<uint32_t>(https_options().method);
      case DL_OPT_VERIFY_PEER: return static_cast<uint32_t>(https_options().verify_peer);
      case DL_OPT_VERIFY_HOST: return static_cast<uint32_t>(https_options().verify_host);
      case DL_OPT_MAX_REDIRECTS: return max_redirects();
      case DL_OPT_MAX_FILE_SIZE: return max_file_size();
      case DL_OPT_NET_TIMEOUT: return static_cast<uint32_t>(net_timeout_seconds());
      case DL_OPT_IPV6: return static_cast<uint32_t>(ipv6_enabled());
      default: return auth_retry_limit();
    }
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.option) + " " + std::to_string(row.value));
    EXPECT_EQ(dl_set_option(row.option, &row.value), row.result);
    EXPECT_EQ(read_back(row.option), row.read_back);
  }
  for (const uint32_t option : {17U, 24U, UINT32_MAX}) EXPECT_EQ(dl_set_option(option, "1\0\0"), -1);
}

TEST_F(config, texts_are_cut_to_their_fields) {
  const std::string text(600, 'x');
  EXPECT_EQ(dl_set_option(DL_OPT_USER_AGENT, text.c_str()), 0);
  EXPECT_EQ(user_agent().data(), text.substr(0, 511));
  EXPECT_EQ(dl_set_option(DL_OPT_CALLER_TAG, text.c_str()), 0);
  EXPECT_EQ(stored(DL_OPT_CALLER_TAG), text.substr(0, 20));
  EXPECT_EQ(dl_set_option(DL_OPT_USER_AGENT, ""), 0);
  EXPECT_STREQ(user_agent().data(), "");
}

TEST_F(config, store_paths_seed_the_https_paths_while_those_are_empty) {
  dl_set_option(DL_OPT_TRUST_CA_DIR, "/first/");
  dl_set_option(DL_OPT_TRUST_CA_DIR, "/second/");
  EXPECT_STREQ(trust_ca_dir().data(), "/second/");
  EXPECT_STREQ(https_options().ca_dir.data(), "/first/");
  dl_set_option(DL_OPT_HTTPS_CA_DIR, "/own/");
  EXPECT_STREQ(https_options().ca_dir.data(), "/own/");
  EXPECT_STREQ(trust_ca_dir().data(), "/second/");

  dl_set_option(DL_OPT_HTTPS_CERT_FILE, "/own.pem");
  dl_set_option(DL_OPT_DEVICE_CERT_FILE, "/device.pem");
  EXPECT_STREQ(https_options().cert_file.data(), "/own.pem");
  dl_set_option(DL_OPT_HTTPS_CERT_FILE, "");
  dl_set_option(DL_OPT_DEVICE_CERT_FILE, "/again.pem");
  EXPECT_STREQ(https_options().cert_file.data(), "/again.pem") << "emptied, so seeded again";
}

TEST_F(config, ring_entries_replace_the_slot_they_name) {
  dl_ring_entry entry = {3, 7, "Bellcore-dr1"};
  EXPECT_EQ(dl_set_option(DL_OPT_RING_ENTRY, &entry), 0);
  EXPECT_EQ(ring_number_of("bellcore-DR1"), 7);
  EXPECT_EQ(ring_number_of("bellcore-dr"), -1);
  entry = {3, 9, "Other"};
  EXPECT_EQ(dl_set_option(DL_OPT_RING_ENTRY, &entry), 0);
  EXPECT_EQ(ring_number_of("Bellcore-dr1"), -1);
  EXPECT_EQ(ring_number_of("OTHER"), 9);
  entry = {9, 2, "other"};
  EXPECT_EQ(dl_set_option(DL_OPT_RING_ENTRY, &entry), 0);
  EXPECT_EQ(ring_number_of("other"), 9) << "the first slot wins";
  entry = {10, 1, "tenth"};
  EXPECT_EQ(dl_set_option(DL_OPT_RING_ENTRY, &entry), -1);
  EXPECT_EQ(ring_number_of("tenth"), -1);

  memset(entry.name, 'n', sizeof entry.name);  // without its terminator
  entry.slot = 0;
  EXPECT_EQ(dl_set_option(DL_OPT_RING_ENTRY, &entry), 0);
  EXPECT_EQ(ring_number_of(std::string(126, 'N').c_str()), 1);
}

TEST_F(config, reading_options_back) {
  char text[8];
  EXPECT_EQ(dl_get_option(DL_OPT_TEMP_DIR, text, sizeof text), -1) << "not initialised";
  dl_config_init();
  for (const uint32_t option : {DL_OPT_USER_AGENT, DL_OPT_DEVICE_CERT_FILE, DL_OPT_HTTPS_CA_DIR,
                                DL_OPT_KEY_PASSPHRASE, DL_OPT_KEY_SEED}) {
    EXPECT_EQ(dl_get_option(option, text, sizeof text), -1) << option;
  }
  EXPECT_EQ(dl_get_option(DL_OPT_TEMP_DIR, nullptr, 8), -1);
  memset(text, '#', sizeof text);
  EXPECT_EQ(dl_get_option(DL_OPT_TEMP_DIR, text, 4), 0);
  EXPECT_EQ(std::string(text, 5), "/tmp#") << "a text as long as the buffer is not terminated";
  EXPECT_EQ(dl_get_option(DL_OPT_TEMP_DIR, text, 5), 0);
  EXPECT_STREQ(text, "/tmp");
}

TEST_F(config, the_first_option_initialises) {
  const uint32_t nine = 9;
  EXPECT_EQ(dl_set_option(DL_OPT_SSL_METHOD, nullptr), -1);
  EXPECT_FALSE(config_initialised()) << "a null value is refused before anything happens";
  EXPECT_EQ(dl_set_option(DL_OPT_NET_TIMEOUT, &nine), 0);
  EXPECT_TRUE(config_initialised());
  EXPECT_EQ(net_timeout_seconds(), 9);
  EXPECT_STREQ(user_agent().data(), "Korvane");
  dl_config_init();
  EXPECT_EQ(net_timeout_seconds(), 9) << "initialising again changes nothing";
}

TEST_F(config, the_end_clears_every_option) {
  dl_set_option(DL_OPT_KEY_PASSPHRASE, "secret");
  dl_exit();
  EXPECT_FALSE(config_initialised());
  const auto* bytes = reinterpret_cast<const char*>(&g_dl_cfg);
  EXPECT_EQ(std::string(bytes, sizeof g_dl_cfg).find("secret"), std::string::npos);
  dl_exit();
  dl_config_init();
  EXPECT_STREQ(key_passphrase().data(), "");
  EXPECT_EQ(stored(DL_OPT_TEMP_DIR), "/tmp");
}

// The thread sanitizer watches; the texts are long enough to be seen half written.
TEST_F(config, options_are_read_whole_while_they_are_set) {
  const std::string first(500, 'a');
  const std::string second(500, 'b');
  dl_set_option(DL_OPT_USER_AGENT, first.c_str());
  const auto repeat = [](const auto& act) {
    return std::thread([act] {
      for (int round = 0; round < 2000; ++round) act(round);
    });
  };
  const auto set = [&](int round) { dl_set_option(DL_OPT_USER_AGENT, (round % 2 ? first : second).c_str()); };
  const auto get = [&](int) {
    const std::string seen = user_agent().data();
    if (seen != first && seen != second) ADD_FAILURE() << seen;
  };
  std::thread threads[] = {repeat(set), repeat(get), repeat(set), repeat(get)};
  for (auto& thread : threads) thread.join();
}

}  // namespace
