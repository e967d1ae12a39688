// Threads that are cancelled inside a call, and a log callback that ends its thread.
#include <gtest/gtest.h>
#include <pthread.h>

#include <functional>

#include "include/fetchrig_openssl.h"

namespace {

// What becomes of the thread: cancelled before the call, or by the log callback, or ended there.
enum class attempt { cancel_before, cancel_in_callback, exit_in_callback };
thread_local attempt how = attempt::cancel_before;

int try_to_end(const char*, int32_t) {
  if (how == attempt::cancel_in_callback) pthread_cancel(pthread_self());
  if (how == attempt::exit_in_callback) pthread_exit(nullptr);
  pthread_testcancel();
  return 0;
}

struct job {
  std::function<void()> call;
  attempt way = attempt::cancel_before;
  int type = PTHREAD_CANCEL_DEFERRED;
  bool returned = false;
};

void* run(void* given) {
  auto& mine = *static_cast<job*>(given);
  pthread_setcanceltype(mine.type, nullptr);
  how = mine.way;
  if (how == attempt::cancel_before) pthread_cancel(pthread_self());
  mine.call();
  mine.returned = true;
  for (;;) pthread_testcancel();
}

// Whether the call returned to its thread, which has ended.
bool returns(job work) {
  dl_log_init(0, try_to_end);
  dl_set_log_level(0);
  pthread_t thread;
  void* ended = nullptr;
  EXPECT_EQ(pthread_create(&thread, nullptr, run, &work), 0);
  EXPECT_EQ(pthread_join(thread, &ended), 0);
  EXPECT_EQ(ended, work.way == attempt::exit_in_callback ? nullptr : PTHREAD_CANCELED);
  qxfr_log_exit();
  return work.returned;
}

constexpr const char *none = "/nonexistent/file", *empty = "/dev/null", *host = "127.0.0.1";
const dl_http_request get = {DL_METHOD_GET, "http://127.0.0.1:1/", nullptr, nullptr, nullptr, nullptr,
                             nullptr};
const dl_request ftp = {"ftp://127.0.0.1:1/f", nullptr, nullptr, nullptr};
// What the calls fill; none succeeds in opening anything.
dl_result result;
char redirect[DL_REDIRECT_SIZE], text[64];

TEST(cancel, a_cancelled_thread_ends_after_the_call) {
  dl_config_init();
  static dl_http_session* session;
  static dl_handle* handle;
  static dl_ca_info info;
  static dl_ca_info_ex info_ex;
  static dl_trust_ca_list list;
  static EVP_PKEY* key;
  static int32_t number;
  // clang-format off
  const std::pair<const char*, void (*)()> rows[] = {
      {"log", [] { qxfr_log(DL_LOG_ANY, DL_LOG_ERROR, "m\n"); }}, {"print", [] { curl_mprintf("%s", ""); }},
      {"initialise", [] { dl_config_init(); }}, {"URL", [] { dl_url_parse("x", nullptr, nullptr, nullptr); }},
      {"copy", [] { dl_copy_file(empty, empty); }}, {"digest", [] { dl_get_file_md5(empty, text); }},
      {"wait", [] { dl_select(0, 2, 0); }}, {"connect", [] { dl_connect(host, 1, 0, 1); }},
      {"look-up", [] { freeaddrinfo(dl_look_up_host("localhost", 0, SOCK_STREAM)); }},
      {"open", [] { dl_open(&ftp, &handle, redirect, &result); }},
      {"download", [] { dl_download(&ftp, none, redirect, &result); }},
      {"upload", [] { dl_upload(&ftp, empty, "n", redirect, &result, nullptr, 0, 0); }},
      {"HTTP open", [] { dl_http_open(&session, &get, redirect, &result); }},
      {"HTTP file", [] { dl_http_recv_to_file(&get, none, redirect, &result); }},
      {"TFTP put", [] { dl_tftp_send_file("::1", 1, "n", none, &result); }},
      {"client certificate", [] { dl_generate_client_cert(none, none, none, none, "/CN=a", 512); }},
      {"key", [] { dl_cert_build_rsa_key(none, 512, &key, &number); }},
      {"key file", [] { dl_cert_write_key(none, 0, key, 0); }},
      {"verify", [] { dl_cert_verify(none, none, nullptr, 0, &result); }},
      {"info", [] { dl_get_ca_info(none, &info); }}, {"long info", [] { dl_get_ca_info_ex(none, &info_ex, 0, &result); }},
      {"list", [] { dl_get_trust_ca_info(&list); }}, {"install", [] { dl_install_ca(none); }},
      {"device", [] { dl_install_ser_ca(none); }}, {"part", [] { dl_install_ser_ca_separate(none); }},
      {"ring", [] { dl_distinctive_ringtone_download("http://127.0.0.1:1/r", nullptr, &number, text, sizeof text); }},
  };
  // clang-format on
  for (const auto& [name, call] : rows) EXPECT_TRUE(returns({call})) << name;
  EVP_PKEY_free(key);
  dl_exit();
}

TEST(cancel, a_thread_that_ends_in_the_log_callback_does_not_take_the_process_with_it) {
  dl_config_init();
  const auto call = [] { dl_http_recv_to_file(&get, empty, redirect, &result); };
  EXPECT_TRUE(returns({call, attempt::cancel_in_callback}));
  EXPECT_FALSE(returns({call, attempt::cancel_in_callback, PTHREAD_CANCEL_ASYNCHRONOUS})) << "as it returns";
  EXPECT_FALSE(returns({call, attempt::exit_in_callback})) << "against the contract";
  dl_exit();
}

}  // namespace
