// The shared library calls its own functions even when the program has others by these names.
#include "include/fetchrig_openssl.h"
#include "tests/support/options.h"
#include "tests/support/pki.h"
#include "tests/support/temp_dir.h"

namespace {

int taken_over = 0;

}  // namespace

// What an application may well have. Each would let everything through or leave the library's work undone.
int cb(int, X509_STORE_CTX*) {
  return ++taken_over;
}
int password_cb(char*, int, int, void*) {
  return ++taken_over * 0;
}
void str2lower(char*, int, char) {
  ++taken_over;
}
int make_REQ(X509_REQ*, EVP_PKEY*, const char*, int, int) {
  return ++taken_over * 0;
}

namespace test {
namespace {

TEST(own_calls, are_not_taken_over_by_functions_of_the_program) {
  const identity root = make_identity("Root", new_rsa_key(1024), {.extensions = ca_extensions});
  const identity old = make_identity("Old", new_ec_key(), {.valid_until_s = -60});
  const library initialised;
  const temp_dir place;
  const std::string ca = place.file("ca"), ca_key = place.file("ca.key"), expired = place.file("expired");
  write_file(ca, pem_of(root));
  write_file(ca_key, pem_of(root.key.get()));
  write_file(expired, pem_of(old) + pem_of(old.key.get(), "secret"));
  const int rc = dl_generate_client_cert(ca.c_str(), ca_key.c_str(), place.file("key").c_str(),
                                         place.file("cert").c_str(), "/CN=phone", 512);
  EXPECT_EQ(rc, 0);
  dl_result result = {};
  EXPECT_EQ(dl_cert_verify(expired.c_str(), nullptr, ca.c_str(), 0, &result), -1);
  EXPECT_EQ(result.code, DL_VERIFY_EXPIRED);
  dl_ca_info_ex info = {};
  set_option(DL_OPT_KEY_PASSPHRASE, "secret");
  EXPECT_EQ(dl_get_ca_info_ex(expired.c_str(), &info, 1, &result), 0);
  EXPECT_EQ(info.priv_bits, 256) << "the key opens with option 16";
  char lines[] = "etag: 1\0";
  dl_http_session session = {};
  session.headers = lines;
  EXPECT_STREQ(dl_http_find_header_by_name(&session, "ETag"), lines);
  EXPECT_EQ(taken_over, 0);
}

}  // namespace
}  // namespace test
