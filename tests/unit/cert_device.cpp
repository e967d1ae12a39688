// The device certificate: what is installed, what is refused with which code, and that a refusal changes
// nothing.
#include <gtest/gtest.h>
#include <openssl/err.h>

#include "include/fetchrig_openssl.h"
#include "tests/support/cert_place.h"
#include "tests/support/pki.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* custom = "config/server/WebServer.pem";
constexpr fs::perms owner_only{0600};
constexpr auto whole = dl_install_ser_ca;
constexpr auto part = dl_install_ser_ca_separate;

// A certificate and its key as PEM texts.
struct pem_pair {
  std::string cert, key, both = cert + key;
};

pem_pair new_pair(std::shared_ptr<EVP_PKEY> key = test::new_ec_key(), const EVP_MD* digest = EVP_sha256()) {
  const test::identity made = test::make_identity("Device", std::move(key), {.digest = digest});
  return {test::pem_of(made.certificate.get()), test::pem_of(made.key.get())};
}

class DeviceCert : public testing::Test {
 protected:
  DeviceCert() { dl_set_option(DL_OPT_KEY_PASSPHRASE, "open sesame"); }
  ~DeviceCert() override { EXPECT_EQ(ERR_peek_error(), 0u); }

  // Installs a file with the bytes `by` one of the two functions, to `path`.
  int install(const std::string& bytes, int (*by)(const char*), const std::string& path) {
    const std::string file = place_.write("new.pem", bytes);
    dl_set_option(DL_OPT_DEVICE_CERT_FILE, path.c_str());
    place_.forget_log();
    return by(file.c_str());
  }
  fs::perms mode_of(const std::string& path) const { return fs::status(path).permissions(); }

  test::cert_place place_;
  const std::string custom_ = place_.path(custom);
  const pem_pair pair_ = new_pair(), old_ = new_pair();
};

TEST_F(DeviceCert, IsCopiedIntoNewDirectoriesForItsOwnerAloneAndDeleted) {
  for (const char* name : {custom, "$(touch owned)/server/x.pem", "q'u\";ls/-server/x.pem"}) {
    SCOPED_TRACE(name);
    for (const std::string& content : {"a comment\n" + old_.both, pair_.both}) {
      EXPECT_EQ(install(content, whole, place_.path(name)), 0);
      EXPECT_EQ(place_.read(name), content);
      EXPECT_EQ(mode_of(place_.path(name)), owner_only);
    }
    EXPECT_EQ(dl_del_ser_ca(), 0);
    EXPECT_EQ(place_.read(name), "(absent)");
  }
  EXPECT_FALSE(fs::exists("owned"));

  testing::internal::CaptureStderr();
  EXPECT_EQ(dl_del_ser_ca(), 0) << "what cannot be deleted is no failure";
  EXPECT_NE(testing::internal::GetCapturedStderr(), "") << "but \"rm\" complains";

  const std::string own = place_.write("config/server/own.pem", pair_.both);
  dl_set_option(DL_OPT_DEVICE_CERT_FILE, own.c_str());
  EXPECT_EQ(dl_install_ser_ca(own.c_str()), 0);
  EXPECT_EQ(place_.read("config/server/own.pem"), pair_.both) << "a file copied to itself";
}

TEST_F(DeviceCert, RefusalsAndTheirCodes) {
  const auto key = test::new_ec_key();
  const std::string cert = new_pair(key).cert, crl = test::crl_pem_of(test::make_identity("CA", key));
  const pem_pair weak = new_pair(test::new_rsa_key(1024), EVP_md5());
  const std::string factory = place_.write("config/phonedev/WebServer.pem", new_pair().both);
  // clang-format off
  const struct { const char* name; std::string file; uint32_t method; int code; const char* logged; } rows[] = {
      {"encrypted key", cert + test::pem_of(key.get(), "open sesame"), 0, 0, ""},
      {"old signature, short key", weak.both, 3, 0, ""},
      {"certificate alone", cert, 0, -2, "Can't load private key from ser_ca_file"},
      {"wrong pass phrase", cert + test::pem_of(key.get(), "else"), 0, -2, "Can't load private key from ser_ca_file"},
      {"no certificate", crl + pair_.key, 0, -3, "Can't load public key from ser_ca_file\n"},
      {"key of another", cert + pair_.key, 0, -4, "Private key does not match the certificate public key\n"},
      {"key of another kind", cert + weak.key, 0, -4, "Private key does not match the certificate public key\n"},
      {"key alone", pair_.key, 0, -5, "Can't open ca file ser_ca_file\n"},
      {"cut certificate", cert.substr(0, 200), 0, -5, "Can't open ca file ser_ca_file\n"},
      {"empty", "", 0, -5, "Can't open ca file ser_ca_file\n"},
      {"SSL 2.0", pair_.both, 1, -5, "SSL_CTX_new error\n"},
      {"SSL 3.0", pair_.both, 2, -5, "SSL_CTX_new error\n"},
      {"method 7", pair_.both, 7, -7, "Wrong method"},
      {"as installed", old_.both, 0, -7, "cert file same to custom device cert file\n"},
      {"as shipped", test::read_file(factory), 0, -8, "cert file same to factory prefabrication device cert flie\n"},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    place_.write(custom, old_.both);
    g_dl_cfg.ssl_method = row.method;  // dl_set_option() takes no number above 3
    EXPECT_EQ(install(row.file, whole, custom_), row.code);
    EXPECT_TRUE(row.code == 0 || place_.logged(row.logged)) << place_.log();
    EXPECT_EQ(place_.read(custom), row.code == 0 ? row.file : old_.both);
  }
}

TEST_F(DeviceCert, UnusablePathsAndSources) {
  place_.write("config/server", "a file where the directory should be");
  // clang-format off
  const struct { std::string path; int (*by)(const char*); int code; const char* logged; } rows[] = {
      {"", whole, -7, "Wrong server ca path\n"},
      {"/WebServer.pem", whole, -7, "Wrong server ca path\n"},
      {place_.path("a/b/server/WebServer.pem"), whole, -6, "Can't open trust_path\n"},
      {custom_, whole, -6, "Can't open serverdir\n"},
      {custom_, part, -1, "Can't open serverdir\n"},
      {place_.path("config/WebServer.pem"), part, -1, "server cert dir err"},
      {place_.path("server-certs/x.pem"), part, -1, "Can't write "},  // makes all up to the first "server"
      {place_.path("server"), part, -1, "Can't write "},              // the directory just made
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.path);
    EXPECT_EQ(install(pair_.both, row.by, row.path), row.code);
    EXPECT_TRUE(place_.logged(row.logged)) << place_.log();
  }
  EXPECT_TRUE(fs::is_empty(place_.path("server")));
  for (const std::string& source : {place_.path("absent"), place_.path(".")}) {
    EXPECT_EQ(whole(source.c_str()), -5) << source;
    EXPECT_EQ(part(source.c_str()), -1) << source;
  }
  EXPECT_EQ(whole(nullptr), -5);
  EXPECT_EQ(part(nullptr), -1);
  EXPECT_TRUE(place_.logged("Invaild paramter\n"));
}

TEST_F(DeviceCert, PartsAreCompletedFromTheCurrentFile) {
  const auto key = test::key_in(pair_.key);
  const std::string der = test::der_of(test::certificate_in(pair_.cert).get());
  const std::string new_cert = pair_.cert + old_.key, new_key = old_.cert + pair_.key;
  // clang-format off
  const struct { const char* name; std::string part, current, result; bool belong; } rows[] = {
      {"both, complete file", pair_.key + pair_.cert, old_.both, pair_.both, true},
      {"certificate, no file", pair_.cert, "", pair_.cert, true},
      {"key, no file", pair_.key, "", pair_.key, true},
      {"certificate, file with a certificate", pair_.cert, old_.cert, pair_.cert, true},
      {"certificate, file with a key", pair_.cert, old_.key, new_cert, false},
      {"certificate, garbage", pair_.cert, "garbage", pair_.cert, true},
      {"certificate in DER", der, old_.both, new_cert, false},
      {"key in DER", test::der_of(key.get()), old_.both, new_key, false},
      {"encrypted key", test::pem_of(key.get(), "open sesame"), old_.both, new_key, false},
      {"key, file in DER", pair_.key, der, pair_.both, true},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    fs::remove_all(place_.path("config/server"));
    const bool is_new = row.current.empty();
    if (!is_new) fs::permissions(place_.write(custom, row.current), fs::perms{0640});
    EXPECT_EQ(install(row.part, part, custom_), 0);
    EXPECT_EQ(place_.read(custom), row.result);
    EXPECT_EQ(place_.logged("Bio_new_file dev cert err\n"), is_new);
    EXPECT_EQ(place_.logged("device certificate and private key do not belong together\n"), !row.belong);
    EXPECT_EQ(mode_of(custom_), is_new ? owner_only : fs::perms{0640});
  }
  for (const std::string& nothing : {pair_.cert.substr(0, 300), der.substr(0, 100), std::string(4 << 20, '0'),
                                     test::pem_of(key.get(), "else")}) {
    EXPECT_EQ(install(nothing, part, custom_), -1);
    EXPECT_TRUE(place_.logged("load dev cert err\n"));
    EXPECT_EQ(place_.read(custom), pair_.both);
  }
}

}  // namespace
