// A process that loads and unloads the shared library, as a plug-in host does.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <openssl/bio.h>

#include "include/fetchrig_openssl.h"
#include "tests/support/descriptors.h"

namespace {

constexpr const char* path = FETCHRIG_BINARY_DIR "/libfetchrig.so";
#define CALL(library, name) reinterpret_cast<decltype(&name)>(dlsym(library, #name))

// Uses what leaves something in the process: the log's socket, a session, a TLS connection.
void use_once(bool end) {
  void* const library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  CALL(library, dl_config_init)();
  const dl_http_request get = {DL_METHOD_GET, "http://127.0.0.1:1/", nullptr, nullptr, nullptr, nullptr,
                               nullptr};
  char redirect[DL_REDIRECT_SIZE];
  dl_result result;
  dl_http_session* session = nullptr;
  EXPECT_EQ(CALL(library, dl_http_open)(&session, &get, redirect, &result), -1);
  test::socket_pair ends;
  ends.far.reset();
  SSL* ssl = nullptr;
  SSL_CTX* ctx = nullptr;
  EXPECT_EQ(CALL(library, dl_do_SSL_connect)(ends.near.get(), "", "/", 3, 0, 0, "h", &ssl, &ctx),
            DL_ERR_CONNECT);
  if (end) CALL(library, dl_exit)();
  dlclose(library);
  EXPECT_EQ(dlopen(path, RTLD_NOW | RTLD_NOLOAD), nullptr) << "it is gone";
}

// The leak sanitizer watches the memory.
TEST(unload, leaves_nothing_behind) {
  use_once(true);
  const auto descriptors = test::open_descriptors(true);
  const int bio_index = BIO_get_new_index();
  for (const bool end : {true, false}) use_once(end);
  EXPECT_EQ(test::open_descriptors(true), descriptors);
  EXPECT_EQ(BIO_get_new_index(), bio_index + 1) << "OpenSSL has only some hundred";
}

}  // namespace
