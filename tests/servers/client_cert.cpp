// The generated client certificate as a real server sees it: nginx demands one of the CA that issued it.
#include "include/fetchrig.h"
#include "tests/support/options.h"
#include "tests/support/pki.h"
#include "tests/support/servers.h"
#include "tests/support/test_ca.h"

namespace test {
namespace {

TEST(client_cert, IsAcceptedFromOption12AndAsDeviceCertificate) {
  const temp_dir place;
  const library library;
  // A client certificate with a key of its own, issued by an authority of this name.
  const auto issued_by = [&](const std::string& ca) {
    const identity root = make_identity(ca, new_rsa_key(2048), {.extensions = ca_extensions});
    const std::string root_cert = place.file(ca), root_key = place.file(ca + ".key");
    const std::string cert = place.file("client-of-" + ca), key = cert + ".key";
    write_file(root_cert, pem_of(root.certificate.get()));
    write_file(root_key, pem_of(root.key.get()));
    EXPECT_EQ(0, dl_generate_client_cert(root_cert.c_str(), root_key.c_str(), key.c_str(), cert.c_str(),
                                         "/O=Acme/CN=0011AB", 1024));
    return cert;
  };
  const std::string ours = issued_by("ours"), theirs = issued_by("theirs");
  const cert_files files = test_ca(place).issue("server");
  nginx_server server({.cert_file = files.cert,
                       .key_file = files.key,
                       .tls_protocols = "TLSv1 TLSv1.2 TLSv1.3",
                       .client_ca_file = place.file("ours")});
  REQUIRE_SERVER(server);
  server.put("file", "content");
  set_option(DL_OPT_VERIFY_PEER, 0u);
  set_option(DL_OPT_HTTPS_CA_DIR, place.make_dir("cas"));
  // The code that a download ends with: 0 when the file came.
  const auto download = [&] {
    const std::string url = server.https_url("/file"), got = place.file("got");
    const dl_request request = {url.c_str(), nullptr, nullptr, nullptr};
    char redirect[DL_REDIRECT_SIZE];
    dl_result result = {};
    const int rc = dl_download(&request, got.c_str(), redirect, &result);
    EXPECT_EQ(rc == 0 ? read_file(got) : "content", "content");
    return result.code;
  };
  set_option(DL_OPT_SSL_METHOD, 3u);
  set_option(DL_OPT_DEVICE_CERT_FILE, place.file("config/server/WebServer.pem"));  // fills option 12 too
  EXPECT_EQ(download(), 400) << "not installed yet";
  EXPECT_EQ(dl_install_ser_ca(ours.c_str()), 0);
  EXPECT_EQ(download(), 0);
  for (const uint32_t method : {0u, 3u}) {  // TLS 1.0, the best both sides offer
    set_option(DL_OPT_SSL_METHOD, method);
    set_option(DL_OPT_HTTPS_CERT_FILE, theirs);
    EXPECT_EQ(download(), 400) << "issued by another authority, method " << method;
    set_option(DL_OPT_HTTPS_CERT_FILE, ours);
    EXPECT_EQ(download(), 0) << method;
  }
}

}  // namespace
}  // namespace test
