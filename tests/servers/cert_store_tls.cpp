// The trusted-CA store as HTTPS uses it: a server is reached while its CA is installed, and only then.
#include <gtest/gtest.h>

#include "include/fetchrig.h"
#include "tests/support/options.h"
#include "tests/support/servers.h"
#include "tests/support/test_ca.h"

namespace test {
namespace {

int download(const nginx_server& server, const temp_dir& place, dl_result& result) {
  const std::string url = server.https_url("/file");
  dl_http_request request{};
  request.url = url.c_str();
  char redirect[DL_REDIRECT_SIZE];
  return dl_http_recv_to_file(&request, place.file("got").c_str(), redirect, &result);
}

TEST(cert_store_tls, ServerIsReachedWhileItsCaIsInstalled) {
  const temp_dir place;
  const library library;
  const test_ca ca(place);
  const test_ca other(place, "other");
  const cert_files files = ca.issue("server");
  nginx_server server({.cert_file = files.cert, .key_file = files.key});
  REQUIRE_SERVER(server);
  server.put("file", "content");
  const std::string store = place.file("store/");
  set_option(DL_OPT_TRUST_CA_DIR, store);
  set_option(DL_OPT_HTTPS_CA_DIR, store + "ca/");
  set_option(DL_OPT_SSL_METHOD, 3u);
  set_option(DL_OPT_VERIFY_PEER, 1u);
  dl_result result;

  ASSERT_EQ(dl_install_ca(other.file().c_str()), 0);
  EXPECT_EQ(download(server, place, result), -1);
  EXPECT_EQ(result.code, DL_ERR_CONNECT);

  ASSERT_EQ(dl_install_ca(ca.file().c_str()), 0);
  EXPECT_EQ(download(server, place, result), 0) << result.message;
  EXPECT_EQ(read_file(place.file("got")), "content");

  dl_trust_ca_list list;
  ASSERT_EQ(dl_get_trust_ca_info(&list), 0);
  ASSERT_EQ(list.count, 2u);
  for (uint32_t i = 0; i < list.count; ++i) EXPECT_EQ(dl_del_ca(list.entries[i].path), 0);
  EXPECT_EQ(download(server, place, result), -1);
  EXPECT_EQ(result.code, DL_ERR_CONNECT);
}

}  // namespace
}  // namespace test
