// faults.cpp: fails the n-th allocation, send, receive, write or close of a transfer, n = 1, 2, 3 ... until
// nothing fails any more. After each: a code that names the fault, no partial file, no open descriptor, and,
// under the address sanitizer, no leak. The calls are replaced for this whole program and misbehave only on a
// thread that has asked for it.
#include <dlfcn.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <new>

#include "include/fetchrig_openssl.h"
#include "tests/support/http_fixture.h"
#include "tests/support/test_ca.h"
#include "tests/support/wave.h"

namespace {

enum class target { none, memory, send, receive, write, close };

constexpr int short_count = -1;  // instead of an errno: one byte is moved

struct fault_plan {
  target what = target::none;
  int error = 0;
  bool lasting = false;  // all further calls fail as well
  long calls_left = 0;
  bool happened = false;
};
thread_local constinit fault_plan plan;

bool strikes(target what) {
  if (plan.what != what) return false;
  --plan.calls_left;
  if (plan.calls_left > 0 || (plan.calls_left < 0 && !plan.lasting)) return false;
  plan.happened = true;
  if (what == target::memory) errno = ENOMEM;
  return true;
}

// The call, or -1 with errno, or the call with `count` cut to one byte.
template <typename Call>
ssize_t faulty(target what, std::size_t count, Call call) {
  if (!strikes(what)) return call(count);
  if (plan.error == short_count) return call(std::min<std::size_t>(count, 1));
  errno = plan.error;
  return -1;
}

template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

#define REPLACED __attribute__((visibility("default")))

extern "C" {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define REAL(name) __interceptor_##name
#else
#define REAL(name) __libc_##name
#endif
void* REAL(malloc)(size_t);
void* REAL(calloc)(size_t, size_t);
void* REAL(realloc)(void*, size_t);

REPLACED void* malloc(size_t size) noexcept {
  return strikes(target::memory) ? nullptr : REAL(malloc)(size);
}
REPLACED void* calloc(size_t count, size_t size) noexcept {
  return strikes(target::memory) ? nullptr : REAL(calloc)(count, size);
}
REPLACED void* realloc(void* old, size_t size) noexcept {
  return strikes(target::memory) ? nullptr : REAL(realloc)(old, size);
}

REPLACED ssize_t send(int sock, const void* from, size_t count, int flags) {
  static const auto real = next<decltype(send)>("send");
  return faulty(target::send, count, [&](size_t size) { return real(sock, from, size, flags); });
}
REPLACED ssize_t recv(int sock, void* to, size_t count, int flags) {
  static const auto real = next<decltype(recv)>("recv");
  return faulty(target::receive, count, [&](size_t size) { return real(sock, to, size, flags); });
}
REPLACED ssize_t write(int fd, const void* from, size_t count) {
  static const auto real = next<decltype(write)>("write");
  return faulty(target::write, count, [&](size_t size) { return real(fd, from, size); });
}
REPLACED int close(int fd) {
  static const auto real = next<decltype(close)>("close");
  const int rc = real(fd);
  if (!strikes(target::close)) return rc;
  errno = plan.error;
  return -1;
}
}

void* operator new(size_t size) {
  if (void* memory = malloc(size ? size : 1)) return memory;
  throw std::bad_alloc();
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return malloc(size ? size : 1);
}
// Not inlined, so that the compiler does not see memory of `new` go to free().
__attribute__((noinline)) void operator delete(void* memory) noexcept {
  free(memory);
}
__attribute__((noinline)) void operator delete(void* memory, size_t) noexcept {
  free(memory);
}

namespace {

using namespace test;

// One transfer: what the peer plays and what the library is asked to do.
struct transfer {
  const char* name;
  std::vector<connection_script> scripts;
  bool tls = false;
  std::function<int(const char* url, dl_result* result)> run;
  bool leaves_file = false;
  bool dispatched = false;  // a failure of the dispatcher itself leaves the result clear
};

class faults : public leak_free {
 protected:
  faults() {
    write_file(upload_, make_bytes(3000));
    set_option(DL_OPT_HTTPS_CA_DIR, ca_.hashed_dir());
    set_option(DL_OPT_SSL_METHOD, 3);
    set_option(DL_OPT_VERIFY_PEER, 1);
  }

  int read_by_hand(const char* url, dl_result* result) {
    const dl_request request = {url, nullptr, nullptr, nullptr};
    dl_handle* handle = nullptr;
    if (dl_open(&request, &handle, redirect_, result) < 0) return -1;
    char buffer[700];
    int count = 0;
    std::size_t total = 0;
    while ((count = dl_read(handle, buffer, sizeof buffer, result)) > 0)
      total += static_cast<std::size_t>(count);
    dl_close(handle);
    return count < 0 ? -1 : total == content_.size() ? 0 : 1;
  }

  connection_script answered(const std::string& bytes, std::size_t uploaded = 0) const {
    return {expect_until("\r\n\r\n"), expect_length(uploaded), test::send(bytes)};
  }
  transfer download_of(const char* name, std::vector<connection_script> scripts, bool tls = false) {
    const auto run = [this](const char* url, dl_result* result) {
      const dl_http_request get = {DL_METHOD_GET, url, "phone", "s3cret", nullptr, nullptr, nullptr};
      return dl_http_recv_to_file(&get, local_.c_str(), redirect_, result);
    };
    return {.name = name, .scripts = scripts, .tls = tls, .run = run, .leaves_file = true};
  }
  transfer upload_of(const char* name, int32_t method) {
    const auto run = [this, method](const char* url, dl_result* result) {
      const dl_http_request put = {method, url, "phone", "s3cret", nullptr, "boundary=XyZ\r\n", nullptr};
      dl_http_session* session = nullptr;
      return dl_http_post_file(&session, &put, upload_.c_str(), redirect_, result);
    };
    return {.name = name,
            .scripts = {answered(unauthorized("Basic"), 3000), answered(response("201 Created"), 3000)},
            .run = run};
  }

  // One run with `with` as the plan; sets `happened`, and judges everything but the code.
  int run_once(const transfer& job, const fault_plan& with, dl_result& result, bool& happened) {
    const auto before = open_descriptors();
    int rc = 1;
    {
      const tls_settings tls{.cert_file = files_.cert, .key_file = files_.key};
      tcp_peer server(job.scripts, {.tls = job.tls ? std::optional(tls) : std::nullopt, .repeat_last = true});
      const std::string url = server.url(job.tls ? "https" : "http", "/a");
      ::plan = with;
      rc = job.run(url.c_str(), &result);
      happened = ::plan.happened;
      ::plan = {};
      server.problems();
    }
    EXPECT_TRUE(before == open_descriptors()) << "a descriptor was left open";
    EXPECT_EQ(job.leaves_file && rc == 0, file_exists(local_)) << result.code;
    if (job.leaves_file && rc == 0) {
      EXPECT_TRUE(content_ == read_file(local_));
      unlink(local_.c_str());
    }
    return rc;
  }

  // Every n; `codes` are those that name the fault, 0 among them when the transfer may succeed in spite of
  // it.
  void fail_each(const transfer& job, fault_plan with, const std::vector<int32_t>& codes) {
    SCOPED_TRACE(::testing::Message() << job.name << " " << static_cast<int>(with.what));
    for (long nth = 1;; ++nth) {
      SCOPED_TRACE(nth);
      ASSERT_LT(nth, 1000);
      with.calls_left = nth;
      dl_result result = {};
      bool happened = false;
      const int rc = run_once(job, with, result, happened);
      EXPECT_TRUE(result.code == 0 ? rc == 0 || job.dispatched : rc == -1);
      if (!happened) {
        EXPECT_EQ(0, rc) << result.message;
        EXPECT_GT(nth, 1) << "nothing was there to fail";
        return;
      }
      EXPECT_NE(codes.end(), std::find(codes.begin(), codes.end(), result.code)) << result.code;
      if (HasFailure()) return;
    }
  }

  temp_dir place_;
  library library_;
  test_ca ca_{place_};
  cert_files files_ = ca_.issue("server");
  const std::string content_ = make_bytes(3000);
  const std::string local_ = place_.file("got");
  const std::string upload_ = place_.file("local");
  char redirect_[DL_REDIRECT_SIZE] = {};
  const std::string chunks_ = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3e8\r\n" +
                              content_.substr(0, 1000) + "\r\n7d0\r\n" + content_.substr(1000) +
                              "\r\n0\r\n\r\n";
  const transfer chunked_ = download_of(
      "redirected, challenged, chunked download",
      {answered(redirect_to("http://127.0.0.1:@PORT@/b")),
       answered(unauthorized("Digest realm=\"v\", nonce=\"n\", qop=\"auth\"")), answered(chunks_)});
  const transfer sized_ = download_of("download", {answered(response("200 OK", content_))});
  const transfer tls_ = download_of("download over TLS", {answered(response("200 OK", content_))}, true);
  const transfer put_ = upload_of("PUT", DL_METHOD_PUT);
  const transfer post_ = upload_of("POST", DL_METHOD_POST);
  const transfer read_loop_ = {
      .name = "open, read, close",
      .scripts = {answered(chunks_)},
      .run = [this](const char* url, dl_result* result) { return read_by_hand(url, result); },
      .dispatched = true};
  // Whatever fails there is a ring: the file, else the one that the ring name tells.
  const transfer ring_ = {.name = "ring",
                          .scripts = {answered(response("200 OK", make_wave(600)))},
                          .run = [](const char* url, dl_result*) {
                            char alert[64], path[64] = {};
                            int32_t number = 0;
                            snprintf(alert, sizeof alert, "http://localhost%s", strrchr(url, ':'));
                            const int rc = dl_distinctive_ringtone_download(alert, "ringtone-6", &number,
                                                                            path, sizeof path);
                            if (path[0]) unlink(path);
                            return rc == 1 && number == (path[0] ? -1 : 6) ? 0 : 1;
                          }};
};

// A look-up without memory reads "Wrong host", a composition "Send Error", a reconnection "Connect Failed",
// an answer that cannot be built "Auth Error".
TEST_F(faults, memory) {
  const std::vector<int32_t> codes = {DL_ERR_MEMORY,  DL_ERR_HOST, DL_ERR_SEND,
                                      DL_ERR_CONNECT, DL_ERR_AUTH, 0};
  for (const bool lasting : {false, true}) {
    SCOPED_TRACE(lasting);
    for (const transfer* job : {&chunked_, &sized_, &read_loop_, &ring_, &put_, &post_})
      fail_each(*job, {.what = target::memory, .error = ENOMEM, .lasting = lasting}, codes);
  }
}

// What cannot be read for lack of memory is no store entry without a certificate and no key file without key.
TEST_F(faults, memory_removes_no_file) {
  const temp_dir store;
  set_option(DL_OPT_TRUST_CA_DIR, store.path() + "/");
  write_file(store.file("a.0"), read_file(files_.cert));
  for (long n = 2; n <= 1600; ++n) {
    dl_trust_ca_list list;
    EVP_PKEY* key = nullptr;
    int reused = 0;
    const long nth = n / 2;
    const fault_plan no_memory = {.what = target::memory, .lasting = n % 2 == 1, .calls_left = nth};
    ::plan = no_memory;
    dl_get_trust_ca_info(&list);
    ::plan = no_memory;
    dl_cert_build_rsa_key(files_.key.c_str(), 512, &key, &reused);
    ::plan = {};
    EVP_PKEY_free(key);
    ASSERT_TRUE(file_exists(store.file("a.0")) && file_exists(files_.key)) << nth;
  }
}

TEST_F(faults, calls_that_fail) {
  const std::vector<int32_t> closed = {0, DL_ERR_READ};
  for (const transfer* job : {&chunked_, &sized_, &put_}) {
    fail_each(*job, {.what = target::send, .error = EPIPE}, {DL_ERR_SEND});
    fail_each(*job, {.what = target::receive, .error = ECONNRESET}, {DL_ERR_READ, -1});
    fail_each(*job, {.what = target::close, .error = EIO}, closed);
    if (job->leaves_file) fail_each(*job, {.what = target::write, .error = ENOSPC}, {DL_ERR_READ});
  }
  const std::vector<int32_t> broken = {DL_ERR_CONNECT, DL_ERR_SEND, DL_ERR_READ, -1, 0};
  fail_each(tls_, {.what = target::send, .error = EPIPE}, broken);
  fail_each(tls_, {.what = target::receive, .error = ECONNRESET}, broken);
  fail_each(tls_, {.what = target::close, .error = EIO}, closed);
}

TEST_F(faults, interrupted_and_short_calls_change_nothing) {
  for (const int error : {EINTR, short_count}) {
    SCOPED_TRACE(error);
    for (const transfer* job : {&chunked_, &post_, &tls_}) {
      fail_each(*job, {.what = target::send, .error = error}, {0});
      fail_each(*job, {.what = target::receive, .error = error}, {0});
    }
    fail_each(sized_, {.what = target::write, .error = error}, {0});
  }
}

}  // namespace
