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

const dl_http_request get = {DL_METHOD_GET, "http://127.0.0.1:1/", nullptr, nullptr, nullptr, nullptr,
                             nullptr};
// What the calls fill.
dl_result result;
char redirect[DL_REDIRECT_SIZE];

// Each way in which calls keep cancellation off.
TEST(cancel, a_cancelled_thread_ends_after_the_call) {
  dl_config_init();
  static dl_http_session* session;
  const std::pair<const char*, void (*)()> rows[] = {
      {"log", [] { qxfr_log(DL_LOG_ANY, DL_LOG_ERROR, "m\n"); }},
      {"print", [] { curl_mprintf("%s", ""); }},
      {"guarded", [] { dl_copy_file("/dev/null", "/dev/null"); }},
      {"HTTP open", [] { dl_http_open(&session, &get, redirect, &result); }},
  };
  for (const auto& [name, call] : rows) EXPECT_TRUE(returns({call})) << name;
  dl_exit();
}

TEST(cancel, a_thread_that_ends_in_the_log_callback_does_not_take_the_process_with_it) {
  dl_config_init();
  const auto call = [] { dl_http_recv_to_file(&get, "/dev/null", redirect, &result); };
  EXPECT_TRUE(returns({call, attempt::cancel_in_callback}));
  EXPECT_FALSE(returns({call, attempt::cancel_in_callback, PTHREAD_CANCEL_ASYNCHRONOUS})) << "as it returns";
  EXPECT_FALSE(returns({call, attempt::exit_in_callback})) << "against the contract";
  dl_exit();
}

}  // namespace
