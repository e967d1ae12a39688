// The trusted-CA store as HTTPS uses it: a server is reached while its CA is installed, and only then.
#include "tests/support/options.h"
#include "tests/support/servers.h"
#include "tests/support/test_ca.h"

namespace test {
namespace {

TEST(cert_store_tls, ServerIsReachedWhileItsCaIsInstalled) {
  const temp_dir place;
  const library library;
  const test_ca ca(place), other(place, "other");
  const cert_files files = ca.issue("server");
  nginx_server server({.cert_file = files.cert, .key_file = files.key});
  REQUIRE_SERVER(server);
  server.put("file", "content");
  const std::string url = server.https_url("/file"), got = place.file("got"), store = place.file("store/");
  set_option(DL_OPT_TRUST_CA_DIR, store);
  set_option(DL_OPT_HTTPS_CA_DIR, store + "ca/");
  set_option(DL_OPT_SSL_METHOD, 3u);
  set_option(DL_OPT_VERIFY_PEER, 1u);
  const auto download = [&] {
    const dl_request request = {url.c_str(), nullptr, nullptr, nullptr};
    char redirect[DL_REDIRECT_SIZE];
    dl_result result = {};
    return dl_download(&request, got.c_str(), redirect, &result) == 0 ? 0 : result.code;
  };
  ASSERT_EQ(dl_install_ca(other.file().c_str()), 0);
  EXPECT_EQ(download(), DL_ERR_CONNECT);
  ASSERT_EQ(dl_install_ca(ca.file().c_str()), 0);
  EXPECT_EQ(download(), 0);
  EXPECT_EQ(read_file(got), "content");
  EXPECT_EQ(dl_del_ca((store + hash_name_of(ca.root())).c_str()), 0);
  EXPECT_EQ(download(), DL_ERR_CONNECT);
}

}  // namespace
}  // namespace test
