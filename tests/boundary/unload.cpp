// A process that loads and unloads the shared library, as a plug-in host does.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>

#include "include/fetchrig_openssl.h"

namespace {

class loaded_library {
 public:
  loaded_library() : handle_(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
    EXPECT_NE(handle_, nullptr) << dlerror();
  }
  ~loaded_library() {
    dlclose(handle_);
    EXPECT_EQ(dlopen(path, RTLD_NOW | RTLD_NOLOAD), nullptr) << "it is gone";
  }
  template <typename Function>
  Function* call(const char* name, Function*) const {
    return reinterpret_cast<Function*>(dlsym(handle_, name));
  }

 private:
  static constexpr const char* path = FETCHRIG_BINARY_DIR "/libfetchrig.so";
  void* handle_;
};
#define CALL(library, name) library.call(#name, static_cast<decltype(&name)>(nullptr))

auto num_descriptors() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return std::distance(begin(entries), end(entries));
}

// Uses what leaves something in the process: the log's socket, a session, a TLS connection.
void use_once(bool end) {
  const loaded_library library;
  CALL(library, dl_config_init)();
  const uint32_t method = 3;
  CALL(library, dl_set_option)(DL_OPT_SSL_METHOD, &method);
  const dl_http_request get = {DL_METHOD_GET, "http://127.0.0.1:1/", nullptr, nullptr, nullptr, nullptr,
                               nullptr};
  char redirect[DL_REDIRECT_SIZE];
  dl_result result;
  dl_http_session* session = nullptr;
  EXPECT_EQ(CALL(library, dl_http_open)(&session, &get, redirect, &result), -1);
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  close(pair[1]);
  SSL* ssl = nullptr;
  SSL_CTX* ctx = nullptr;
  EXPECT_EQ(CALL(library, dl_do_SSL_connect)(pair[0], "", "/", 3, 0, 0, "h", &ssl, &ctx), DL_ERR_CONNECT);
  close(pair[0]);
  if (end) CALL(library, dl_exit)();
}

// The leak sanitizer watches the memory.
TEST(unload, leaves_nothing_behind) {
  use_once(true);
  const auto descriptors = num_descriptors();
  const int bio_index = BIO_get_new_index();
  for (const bool end : {true, false, false}) use_once(end);
  EXPECT_EQ(num_descriptors(), descriptors);
  EXPECT_EQ(BIO_get_new_index(), bio_index + 1) << "OpenSSL has only some hundred";
}

}  // namespace
