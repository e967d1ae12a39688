// faults.cpp: fails the n-th allocation, send, receive, write or close of a transfer, n = 1, 2, 3 ... until
// nothing fails any more. After each: a code that names the fault, no partial file, no open descriptor, and,
// under the address sanitizer, no leak. The calls are replaced for this whole program and misbehave only on a
// thread that has asked for it.
#include <dlfcn.h>
#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>

#include "include/fetchrig_openssl.h"
#include "tests/support/fed_socket.h"
#include "tests/support/http_fixture.h"
#include "tests/support/libc_memory.h"
#include "tests/support/pki.h"
#include "tests/support/wave.h"

namespace {

enum class target { none, memory, send, receive, write, close };
constexpr int short_count = -1;  // instead of an errno: one byte is moved

struct fault_plan {
  target what = target::none;
  int error = ENOMEM;
  bool lasting = false;  // all further calls fail as well
  long calls_left = 0;
  bool happened = false;
};
thread_local constinit fault_plan plan;
// Memory that this thread gives back with the secret still in it is counted.
thread_local constinit const char* secret = nullptr;
thread_local constinit int num_leaked = 0;

bool strikes(target what) {
  if (plan.what != what) return false;
  --plan.calls_left;
  if (plan.calls_left > 0 || (plan.calls_left < 0 && !plan.lasting)) return false;
  plan.happened = true;
  if (plan.error > 0) errno = plan.error;
  return true;
}

// The call, or -1 with errno, or the call with `count` cut to one byte.
template <typename Call>
ssize_t faulty(target what, std::size_t count, Call call) {
  const bool struck = strikes(what);
  if (struck && plan.error != short_count) return -1;
  return call(struck ? std::min<std::size_t>(count, 1) : count);
}

template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {
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
  return strikes(target::close) ? -1 : rc;
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
__attribute__((noinline)) void operator delete(void* memory, size_t size) noexcept {
  num_leaked += secret && memory && memmem(memory, size, secret, strlen(secret));
  free(memory);
}

namespace {

using namespace test;

class faults;

// What the peer plays and what the library is asked to do.
struct transfer {
  const char* name;
  std::vector<connection_script> scripts;
  int (faults::*run)(const char* url, dl_result* result);
  bool tls = false;
};

class faults : public leak_free {
 public:
  faults() {
    write_file(upload_, content_);
    // The C library's resolver stays locked for ever when its very first allocation fails.
    freeaddrinfo(host_lookup("localhost"));
    set_option(DL_OPT_HTTPS_CA_DIR, ca_.hashed_dir());
    set_option(DL_OPT_SSL_METHOD, 3);
    set_option(DL_OPT_VERIFY_PEER, 1);
  }

  static addrinfo* host_lookup(const char* host) {
    addrinfo* found = nullptr;
    EXPECT_EQ(getaddrinfo(host, nullptr, nullptr, &found), 0);
    return found;
  }
  static connection_script answered(const std::string& bytes, std::size_t uploaded = 0) {
    return {expect_until("\r\n\r\n"), expect_length(uploaded), test::send(bytes)};
  }
  int download(const char* url, dl_result* result) {
    const dl_http_request get = {DL_METHOD_GET, url, "phone", "s3cret", nullptr, nullptr, nullptr};
    return dl_http_recv_to_file(&get, local_.c_str(), redirect_, result);
  }
  int upload(int32_t method, const char* url, dl_result* result) {
    const dl_http_request put = {method, url, "phone", "s3cret", nullptr, "boundary=XyZ\r\n", nullptr};
    dl_http_session* session = nullptr;
    return dl_http_post_file(&session, &put, upload_.c_str(), redirect_, result);
  }
  int put(const char* url, dl_result* result) { return upload(DL_METHOD_PUT, url, result); }
  int post(const char* url, dl_result* result) { return upload(DL_METHOD_POST, url, result); }
  int read_by_hand(const char* url, dl_result* result) {
    const dl_request request = {url, nullptr, nullptr, nullptr};
    dl_handle* handle = nullptr;
    if (dl_open(&request, &handle, redirect_, result) < 0) return -1;
    char buffer[700];
    int count = 0, total = 0;
    while ((count = dl_read(handle, buffer, sizeof buffer, result)) > 0) total += count;
    dl_close(handle);
    return count < 0 ? -1 : total != 3000;
  }
  // Whatever fails there is a ring: the file, else the one that the ring name tells.
  int ring(const char* url, dl_result*) {
    char alert[64], path[64] = {};
    int32_t number = 0;
    snprintf(alert, sizeof alert, "http://localhost%s", strrchr(url, ':'));
    const int rc = dl_distinctive_ringtone_download(alert, "ringtone-6", &number, path, sizeof path);
    if (path[0]) unlink(path);
    return rc == 1 && number == (path[0] ? -1 : 6) ? 0 : 1;
  }

  // One run with `with` as the plan; judges everything but the code. Returns whether anything was made to
  // fail.
  bool run_once(const transfer& job, const fault_plan& with, dl_result& result) {
    const descriptor_check check;
    const tls_settings tls{.cert_file = files_.cert, .key_file = files_.key};
    tcp_peer server(job.scripts, {.tls = job.tls ? std::optional(tls) : std::nullopt, .repeat_last = true});
    const std::string url = server.url(job.tls ? "https" : "http", "/a");
    ::plan = with;
    const int rc = (this->*job.run)(url.c_str(), &result);
    const bool happened = std::exchange(::plan, {}).happened;
    server.problems();
    // A failure of the dispatcher itself leaves the result clear.
    EXPECT_TRUE(rc == (result.code == 0 ? 0 : -1) || (rc == -1 && job.run == &faults::read_by_hand)) << rc;
    EXPECT_EQ(job.run == &faults::download && rc == 0, file_exists(local_)) << result.code;
    EXPECT_TRUE(!file_exists(local_) || content_ == read_file(local_));
    unlink(local_.c_str());
    EXPECT_TRUE(happened || rc == 0) << result.message;
    return happened;
  }

  // Every n; `codes` are those that name the fault, 0 among them when the transfer may succeed in spite of
  // it.
  void fail_each(const transfer& job, fault_plan with, const std::vector<int32_t>& codes) {
    SCOPED_TRACE(::testing::Message() << job.name << " " << static_cast<int>(with.what) << " " << with.error);
    for (long nth = 1; !HasFailure(); ++nth) {
      SCOPED_TRACE(nth);
      ASSERT_LT(nth, 1000);
      with.calls_left = nth;
      dl_result result = {};
      if (!run_once(job, with, result)) {
        EXPECT_GT(nth, 1) << "nothing was there to fail";
        return;
      }
      EXPECT_NE(codes.end(), std::find(codes.begin(), codes.end(), result.code)) << result.code;
    }
  }

  temp_dir place_;
  library library_;
  test_ca ca_{place_};
  cert_files files_ = ca_.issue("server");
  const std::string content_ = make_bytes(3000);
  const std::string local_ = place_.file("got"), upload_ = place_.file("local");
  char redirect_[DL_REDIRECT_SIZE] = {};
  const connection_script sized_answer_ = answered(response("200 OK", content_));
  const connection_script chunked_answer_ =
      answered("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3e8\r\n" + content_.substr(0, 1000) +
               "\r\n7d0\r\n" + content_.substr(1000) + "\r\n0\r\n\r\n");
  const std::string digest_ = unauthorized("Digest realm=\"v\", nonce=\"n\", qop=\"auth\"");
  const transfer chunked_{
      "redirected, challenged, chunked download",
      {answered(redirect_to("http://127.0.0.1:@PORT@/b")), answered(digest_), chunked_answer_},
      &faults::download};
  const transfer sized_{"download", {sized_answer_}, &faults::download};
  const transfer tls_{"download over TLS", {sized_answer_}, &faults::download, true};
  const transfer reading_{"open, read, close", {chunked_answer_}, &faults::read_by_hand};
  const std::vector<connection_script> taken_ = {answered(unauthorized("Basic"), 3000),
                                                 answered(response("201 Created"), 3000)};
  const transfer put_{"PUT", taken_, &faults::put}, post_{"POST", taken_, &faults::post};
  const transfer ring_{"ring", {answered(response("200 OK", make_wave(600)))}, &faults::ring};
};

// A look-up without memory reads "Wrong host", a composition "Send Error", a reconnection "Connect Failed",
// an answer that cannot be built "Auth Error".
TEST_F(faults, memory) {
  const std::vector<int32_t> codes = {DL_ERR_MEMORY,  DL_ERR_HOST, DL_ERR_SEND,
                                      DL_ERR_CONNECT, DL_ERR_AUTH, 0};
  for (const bool lasting : {false, true}) {
    for (const transfer* job : {&chunked_, &sized_, &reading_, &ring_, &put_, &post_})
      fail_each(*job, {.what = target::memory, .lasting = lasting}, codes);
  }
}

// Symptom: the head of a request that grew left its password behind in freed memory.
TEST_F(faults, no_memory_is_given_back_with_a_password_in_it) {
  for (const char* text : {"cGhvbmU6czNjcmV0", "s3cret"}) {
    tcp_peer server(taken_);
    dl_result result = {};
    secret = text;
    EXPECT_EQ(0, put(server.url("http", "/a").c_str(), &result));
    secret = nullptr;
  }
  EXPECT_EQ(0, std::exchange(num_leaked, 0));
}

// A session that no open call made, and a URL whose login or host cannot be copied.
TEST_F(faults, memory_for_a_record_of_the_callers_own_and_for_the_parts_of_a_url) {
  for (long nth = 1; nth <= 3; ++nth) {
    const fed_socket peer("5\r\nhello\r\n0\r\n\r\n");
    auto* own = static_cast<dl_http_session*>(calloc(1, sizeof(dl_http_session)));
    own->magic = DL_HTTP_MAGIC;
    own->sock = peer.duplicate();
    own->flags = DL_HTTP_FLAG_CHUNKED;
    char text[5];
    dl_result result = {};
    ::plan = {.what = target::memory, .lasting = true, .calls_left = nth};
    EXPECT_EQ(dl_http_read(own, text, sizeof text, &result), nth < 3 ? -1 : 5) << "record, bytes";
    dl_http_close(own);
    ::plan = {};
    EXPECT_EQ(result.code, nth < 3 ? DL_ERR_MEMORY : 0);
  }
  static int num_told = 0;
  dl_log_init(0, [](const char* line, int32_t length) {
    return num_told +=
           std::string_view(line, static_cast<size_t>(length)).ends_with("_Port Info Parsing Fail!\n");
  });
  const std::string part(40, 'p'), url = "ftp://" + part + ":" + part + "@" + part + "/";
  const dl_request request = {url.c_str(), nullptr, nullptr, nullptr};
  for (long nth = 2; nth <= 4; ++nth) {  // the first is the handle
    dl_handle* handle = nullptr;
    dl_result result = {};
    ::plan = {.what = target::memory, .lasting = true, .calls_left = nth};
    EXPECT_EQ(dl_open(&request, &handle, redirect_, &result), -1);
    ::plan = {};
    EXPECT_EQ(num_told, nth - 1);
  }
}

TEST_F(faults, calls_that_fail) {
  const std::vector<int32_t> broken = {DL_ERR_CONNECT, DL_ERR_SEND, DL_ERR_READ, -1, 0};
  for (const transfer* job : {&chunked_, &sized_, &put_, &tls_}) {
    fail_each(*job, {.what = target::send, .error = EPIPE}, job->tls ? broken : std::vector{-4});
    fail_each(*job, {.what = target::receive, .error = ECONNRESET}, job->tls ? broken : std::vector{-8, -1});
    fail_each(*job, {.what = target::close, .error = EIO}, {0, DL_ERR_READ});
    if (job->run == &faults::download)
      fail_each(*job, {.what = target::write, .error = ENOSPC}, {DL_ERR_READ});
  }
}

TEST_F(faults, interrupted_and_short_calls_change_nothing) {
  for (const int error : {EINTR, short_count}) {
    for (const transfer* job : {&chunked_, &post_, &tls_}) {
      fail_each(*job, {.what = target::send, .error = error}, {0});
      fail_each(*job, {.what = target::receive, .error = error}, {0});
    }
    fail_each(sized_, {.what = target::write, .error = error}, {0});
  }
}

}  // namespace
