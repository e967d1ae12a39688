// The generated client certificate as a real server sees it: nginx demands one of the CA that issued it.
#include <gtest/gtest.h>

#include "include/fetchrig.h"
#include "tests/support/options.h"
#include "tests/support/pki.h"
#include "tests/support/servers.h"
#include "tests/support/test_ca.h"

namespace test {
namespace {

class client_cert : public testing::Test {
 protected:
  // The authorities of the clients. MD5 signatures need RSA keys.
  client_cert() {
    for (const char* name : {"ours", "theirs"}) {
      const identity ca = make_identity(name, new_rsa_key(2048), {.extensions = ca_extensions});
      write_file(place_.file(std::string(name) + ".pem"), pem_of(ca.certificate.get()));
      write_file(place_.file(std::string(name) + ".key"), pem_of(ca.key.get()));
    }
    const cert_files files = test_ca(place_).issue("server");
    server_ = std::make_unique<nginx_server>(nginx_settings{.cert_file = files.cert,
                                                            .key_file = files.key,
                                                            .tls_protocols = "TLSv1 TLSv1.2 TLSv1.3",
                                                            .client_ca_file = place_.file("ours.pem")});
    if (server_->started()) server_->put("file", "content");
    set_option(DL_OPT_VERIFY_PEER, 0u);
    set_option(DL_OPT_NET_TIMEOUT, 20u);
    set_option(DL_OPT_HTTPS_CA_DIR, place_.make_dir("cas"));
    set_option(DL_OPT_KEY_SEED, "factory seed");
  }

  // A client certificate issued by the named authority, in a file of that name.
  std::string generate(const std::string& ca, int bits = 2048) {
    const std::string file = place_.file("client-of-" + ca);
    EXPECT_EQ(
        dl_generate_client_cert(place_.file(ca + ".pem").c_str(), place_.file(ca + ".key").c_str(),
                                place_.file("device.key").c_str(), file.c_str(), "/O=Acme/CN=0011AB", bits),
        0);
    return file;
  }

  // The status that a download ends with: 0 when the file came.
  int download() {
    const std::string url = server_->https_url("/file");
    dl_http_request request = {};
    request.url = url.c_str();
    char redirect[DL_REDIRECT_SIZE];
    dl_result result = {};
    const std::string got = place_.file("got");
    const int rc = dl_http_recv_to_file(&request, got.c_str(), redirect, &result);
    EXPECT_EQ(rc == 0 ? read_file(got) : "content", "content");
    return result.code;
  }

  temp_dir place_;
  library library_;
  std::unique_ptr<nginx_server> server_;
};

TEST_F(client_cert, IsAcceptedFromTheFileOfOption12) {
  REQUIRE_SERVER(*server_);
  for (const uint32_t method : {0u, 3u}) {  // TLS 1.0, the best both sides offer
    SCOPED_TRACE(method);
    set_option(DL_OPT_SSL_METHOD, method);
    set_option(DL_OPT_HTTPS_CERT_FILE, place_.file("absent"));
    EXPECT_EQ(download(), 400) << "no certificate sent";
    set_option(DL_OPT_HTTPS_CERT_FILE, generate("theirs"));
    EXPECT_EQ(download(), 400) << "issued by another authority";
    set_option(DL_OPT_HTTPS_CERT_FILE, generate("ours"));
    EXPECT_EQ(download(), 0);
  }
}

TEST_F(client_cert, ShortKeysAreAcceptedToo) {
  REQUIRE_SERVER(*server_);
  set_option(DL_OPT_SSL_METHOD, 3u);
  set_option(DL_OPT_HTTPS_CERT_FILE, generate("ours", 1024));
  EXPECT_EQ(download(), 0);
}

TEST_F(client_cert, IsOfferedAsInstalledDeviceCertificate) {
  REQUIRE_SERVER(*server_);
  set_option(DL_OPT_SSL_METHOD, 3u);
  set_option(DL_OPT_DEVICE_CERT_FILE, place_.file("config/server/WebServer.pem"));  // fills option 12 too
  EXPECT_EQ(download(), 400) << "not installed yet";
  EXPECT_EQ(dl_install_ser_ca(generate("ours").c_str()), 0);
  EXPECT_EQ(download(), 0);
  EXPECT_EQ(dl_del_ser_ca(), 0);
  EXPECT_EQ(download(), 400);
}

}  // namespace
}  // namespace test
