// Threads that are cancelled inside a call, and a log callback that ends its thread.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>

#include "include/fetchrig_openssl.h"

namespace {

// How the callback tries to end the thread that logs.
enum class attempt { none, act_on_cancellation, cancel_itself, exit_thread };
thread_local attempt within_callback = attempt::none;

int try_to_end(const char*, int32_t) {
  if (within_callback == attempt::cancel_itself) pthread_cancel(pthread_self());
  if (within_callback == attempt::exit_thread) pthread_exit(nullptr);
  pthread_testcancel();
  return 0;
}

class cancelled : public testing::Test {
 protected:
  cancelled() {
    dl_config_init();
    dl_log_init(0, try_to_end);
    dl_set_log_level(0);
  }
  ~cancelled() override {
    dl_exit();
    qxfr_log_exit();
  }

  struct job {
    std::function<void()> call;
    attempt in_callback;
    int type;
    bool returned = false;
  };
  // Runs the call in a thread of its own. Returns whether it returned.
  static bool returns(job work) {
    pthread_t thread;
    void* ended = nullptr;
    const auto body = [](void* given) -> void* {
      auto& mine = *static_cast<job*>(given);
      pthread_setcanceltype(mine.type, nullptr);
      within_callback = mine.in_callback;
      if (mine.in_callback == attempt::act_on_cancellation) pthread_cancel(pthread_self());
      mine.call();
      mine.returned = true;
      for (;;) pthread_testcancel();
    };
    EXPECT_EQ(pthread_create(&thread, nullptr, body, &work), 0);
    EXPECT_EQ(pthread_join(thread, &ended), 0);
    EXPECT_EQ(ended, work.in_callback == attempt::exit_thread ? nullptr : PTHREAD_CANCELED);
    return work.returned;
  }

  const dl_http_request put = {DL_METHOD_PUT, "http://127.0.0.1:1/", nullptr, nullptr, nullptr, nullptr,
                               nullptr};
  const dl_http_request get = {DL_METHOD_GET, "http://127.0.0.1:1/", nullptr, nullptr, nullptr, nullptr,
                               nullptr};
  const dl_request ftp = {"ftp://127.0.0.1:1/f", nullptr, nullptr, nullptr};
  dl_http_session* http_session = nullptr;
  dl_ftp_session* ftp_session = nullptr;
  dl_tftp_session* tftp_session = nullptr;
  dl_handle* handle = nullptr;
  dl_ca_info info = {};
  dl_ca_info_ex info_ex = {};
  dl_trust_ca_list list = {};
  dl_trust_ca_list_ex list_ex = {};
  dl_result result = {};
  EVP_PKEY* key = nullptr;
  SSL* ssl = nullptr;
  SSL_CTX* ctx = nullptr;
  int32_t number = 0;
  char redirect[DL_REDIRECT_SIZE] = {}, text[64] = {};
};

TEST_F(cancelled, a_cancelled_thread_ends_after_the_call) {
  const char* const none = "/nonexistent/file";
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  close(pair[1]);
  // clang-format off
  const std::pair<const char*, std::function<void()>> rows[] = {
      {"log", [] { qxfr_log(DL_LOG_ANY, DL_LOG_ERROR, "m\n"); }}, {"log level", [] { dl_set_log_level(0); }},
      {"init", [] { dl_config_init(); }},
      {"open", [&] { dl_open(&ftp, &handle, redirect, &result); }},
      {"read", [&] { dl_read(nullptr, text, 1, &result); }}, {"close", [] { dl_close(nullptr); }},
      {"download", [&] { dl_download(&ftp, none, redirect, &result); }},
      {"upload", [&] { dl_upload(&ftp, "/dev/null", "n", redirect, &result, nullptr, 0, 0); }},
      {"size", [&] { dl_get_file_size(nullptr); }}, {"copy", [&] { dl_copy_file("/dev/null", "/dev/null"); }},
      {"digest", [&] { dl_get_file_md5("/dev/null", text); }}, {"URL", [] { dl_url_parse("x", nullptr, nullptr, nullptr); }},
      {"wait", [&] { dl_select(pair[0], 1, 0); }}, {"connect", [] { dl_connect("127.0.0.1", 1, 0, 1); }},
      {"look-up", [] { if (auto* found = dl_look_up_host("localhost", 0, SOCK_STREAM)) freeaddrinfo(found); }},
      {"TLS", [&] { dl_do_SSL_connect(pair[0], "", "/", 3, 0, 0, "h", &ssl, &ctx); }},
      {"HTTP open", [&] { dl_http_open(&http_session, &get, redirect, &result); }},
      {"HTTP file", [&] { dl_http_recv_to_file(&get, none, redirect, &result); }},
      {"HTTP put", [&] { dl_http_post_file(&http_session, &put, "/dev/null", redirect, &result); }},
      {"HTTP read", [&] { dl_http_read(nullptr, text, 1, &result); }},
      {"FTP open", [&] { dl_ftp_open(&ftp_session, "127.0.0.1", 1, nullptr, nullptr, "f", &result); }},
      {"FTP put", [&] { dl_ftp_send_file("127.0.0.1", 1, nullptr, nullptr, "n", "/dev/null", 0, 0, &result); }},
      {"FTP read", [&] { dl_ftp_read(nullptr, text, 1, &result); }}, {"FTP close", [] { dl_ftp_close(nullptr); }},
      {"TFTP open", [&] { dl_tftp_open(&tftp_session, "::1", 1, "f", &result); }},
      {"TFTP put", [&] { dl_tftp_send_file("::1", 1, "n", none, &result); }}, {"TFTP close", [] { dl_tftp_close(nullptr); }},
      {"client certificate", [&] { dl_generate_client_cert(none, none, none, none, "/CN=a", 512); }},
      {"key", [&] { dl_cert_build_rsa_key(none, 512, &key, &number); }}, {"key file", [&] { dl_cert_write_key(none, 0, key, 0); }},
      {"verify", [&] { dl_cert_verify(none, none, nullptr, 0, &result); }}, {"info", [&] { dl_get_ca_info(none, &info); }},
      {"long info", [&] { dl_get_ca_info_ex(none, &info_ex, 0, &result); }}, {"list", [&] { dl_get_trust_ca_info(&list); }},
      {"long list", [&] { dl_get_trust_ca_info_ex(&list_ex, &result); }}, {"device", [&] { dl_get_ser_ca_info(&info); }},
      {"install", [&] { dl_install_ca(none); }}, {"remove", [&] { dl_del_ca(none); }},
      {"install device", [&] { dl_install_ser_ca(none); }}, {"install part", [&] { dl_install_ser_ca_separate(none); }},
      {"remove device", [] { dl_del_ser_ca(); }}, {"print", [] { curl_mprintf("%s", ""); }},
      {"ring", [&] { dl_distinctive_ringtone_download("http://127.0.0.1:1/r", nullptr, &number, text, sizeof text); }},
  };
  // clang-format on
  for (const auto& [name, call] : rows) {
    EXPECT_TRUE(returns({call, attempt::act_on_cancellation, PTHREAD_CANCEL_DEFERRED})) << name;
  }
  EVP_PKEY_free(key);
  close(pair[0]);
}

TEST_F(cancelled, a_thread_that_ends_in_the_log_callback_does_not_take_the_process_with_it) {
  const auto call = [&] { dl_http_recv_to_file(&get, "/dev/null", redirect, &result); };
  EXPECT_TRUE(returns({call, attempt::cancel_itself, PTHREAD_CANCEL_DEFERRED}));
  EXPECT_FALSE(returns({call, attempt::cancel_itself, PTHREAD_CANCEL_ASYNCHRONOUS})) << "as it returns";
  EXPECT_FALSE(returns({call, attempt::exit_thread, PTHREAD_CANCEL_DEFERRED})) << "against the contract";
}

}  // namespace
