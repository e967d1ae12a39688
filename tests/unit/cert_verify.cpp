// Verification: every outcome of dl_cert_verify(), its callback, and its advance check.
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <stdio.h>
#include <string.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "cert/verify.h"
#include "include/fetchrig_openssl.h"
#include "tests/support/cert_place.h"
#include "tests/support/pki.h"

namespace fs = std::filesystem;

namespace {

constexpr uint32_t advance = 1;

const auto unknown_critical_extension = std::make_pair("1.2.3.4.5", "critical,DER:05:00");

std::string verify_text(int error) {
  return std::string("verify err:") + X509_verify_cert_error_string(error);
}

// The CA directory's name for the certificate.
std::string hash_name(X509* certificate) {
  char name[32];
  snprintf(name, sizeof name, "cas/%08lx.0", X509_subject_name_hash(certificate));
  return name;
}

class Verify : public testing::Test {
 protected:
  Verify() {
    root_ = test::make_identity("Root", test::new_ec_key(), {.extensions = test::ca_extensions});
    leaf_ = test::make_identity("Leaf", test::new_ec_key(), {.issuer = &root_});
    place_.write("root.pem", test::pem_of(root_.certificate.get()));
    fs::create_directory(place_.path("cas"));
  }

  // Verifies `file` against the names of a CA directory and a CA file, which may be null.
  int verify(const std::string& file, const char* ca_dir, const char* ca_file, uint32_t flags = 0) {
    place_.forget_log();
    memset(&result_, 0xEE, sizeof result_);
    const std::string dir = ca_dir ? place_.path(ca_dir) : "", cas = ca_file ? place_.path(ca_file) : "";
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int rc = dl_cert_verify(place_.path(file).c_str(), ca_dir ? dir.c_str() : nullptr,
                                  ca_file ? cas.c_str() : nullptr, flags, &result_);
    out_ = testing::internal::GetCapturedStdout();
    diagnostics_ = testing::internal::GetCapturedStderr();
    EXPECT_EQ(rc, result_.code == DL_VERIFY_OK ? 0 : -1);
    EXPECT_EQ(ERR_peek_error(), 0u) << "no error is left for the thread's next TLS call";
    return result_.code;
  }

  test::cert_place place_;
  test::identity root_;
  test::identity leaf_;
  dl_result result_ = {};
  std::string out_;
  std::string diagnostics_;
};

struct verdict_case {
  const char* name;
  std::string file;  // to verify
  std::string cas;   // the CA file
  int error;         // of OpenSSL
  dl_cert_verify_code code;
};

TEST_F(Verify, VerdictsOfOpenssl) {
  const auto pem = [](const test::identity& who) { return test::pem_of(who.certificate.get()); };
  const auto issued = [](const test::identity& issuer, test::identity_options options) {
    options.issuer = &issuer;
    return test::make_identity("Leaf", test::new_ec_key(), options);
  };
  const auto alone = [](const char* name, test::identity_options options) {
    return test::make_identity(name, test::new_ec_key(), options);
  };
  const auto impostor = alone("Root", {.extensions = test::ca_extensions});
  const auto stranger = alone("Stranger", {.extensions = test::ca_extensions});
  const auto middle = test::make_identity("Middle", test::new_ec_key(),
                                          {.issuer = &root_, .extensions = test::ca_extensions});
  const auto no_ca = alone("No CA", {.extensions = {{"basicConstraints", "CA:FALSE"}}});
  const auto short_root =
      alone("Short", {.extensions = {{"basicConstraints", "critical,CA:TRUE,pathlen:0"}}});
  const auto under_short = test::make_identity("Under", test::new_ec_key(),
                                               {.issuer = &short_root, .extensions = test::ca_extensions});
  const auto expired_ca =
      alone("Old", {.extensions = test::ca_extensions, .valid_from_s = -9000, .valid_until_s = -60});
  const auto rsa_root =
      test::make_identity("Rsa", test::new_rsa_key(1024), {.extensions = test::ca_extensions});
  const std::string roots = pem(root_);
  const verdict_case cases[] = {
      {"signed by the CA", pem(leaf_), roots, X509_V_OK, DL_VERIFY_OK},
      {"the CA itself", roots, roots, X509_V_OK, DL_VERIFY_OK},
      {"in DER", test::der_of(leaf_.certificate.get()), roots, X509_V_OK, DL_VERIFY_OK},
      {"text around the PEM block", "Subject: x\n" + pem(leaf_) + "\nmore", roots, X509_V_OK, DL_VERIFY_OK},
      {"one of several CAs", pem(leaf_), pem(stranger) + roots, X509_V_OK, DL_VERIFY_OK},
      {"two levels", pem(issued(middle, {})), pem(middle) + roots, X509_V_OK, DL_VERIFY_OK},
      {"self-signed and unknown", pem(stranger), roots, X509_V_OK, DL_VERIFY_OK},
      {"MD5 signature", pem(issued(rsa_root, {.digest = EVP_md5()})), pem(rsa_root), X509_V_OK, DL_VERIFY_OK},
      {"issuer is no CA", pem(issued(no_ca, {})), pem(no_ca), X509_V_OK, DL_VERIFY_OK},
      {"path too long", pem(issued(under_short, {})), pem(under_short) + pem(short_root), X509_V_OK,
       DL_VERIFY_OK},
      {"unknown critical extension", pem(issued(root_, {.extensions = {unknown_critical_extension}})), roots,
       X509_V_OK, DL_VERIFY_OK},
      {"signed by another of that name", pem(issued(impostor, {})), roots, X509_V_ERR_CERT_SIGNATURE_FAILURE,
       DL_VERIFY_SIGNATURE},
      {"not yet valid", pem(issued(root_, {.valid_from_s = 3600})), roots, X509_V_ERR_CERT_NOT_YET_VALID,
       DL_VERIFY_NOT_YET_VALID},
      {"expired", pem(issued(root_, {.valid_until_s = -60})), roots, X509_V_ERR_CERT_HAS_EXPIRED,
       DL_VERIFY_EXPIRED},
      {"the CA has expired", pem(issued(expired_ca, {})), pem(expired_ca), X509_V_ERR_CERT_HAS_EXPIRED,
       DL_VERIFY_EXPIRED},
      {"expired and self-signed", pem(expired_ca), roots, X509_V_ERR_CERT_HAS_EXPIRED, DL_VERIFY_EXPIRED},
      {"unknown issuer", pem(issued(stranger, {})), roots, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY,
       DL_VERIFY_UNKNOWN_ISSUER},
      {"chain in the file is not used", pem(issued(middle, {})) + pem(middle), roots,
       X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, DL_VERIFY_UNKNOWN_ISSUER},
      {"issuer's issuer unknown", pem(issued(middle, {})), pem(middle), X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT,
       DL_VERIFY_OTHER},
  };
  for (const verdict_case& row : cases) {
    SCOPED_TRACE(row.name);
    place_.write("cert", row.file);
    place_.write("roots", row.cas);
    EXPECT_EQ(verify("cert", "cas", "roots"), row.code);
    EXPECT_EQ(std::string(result_.message), row.error == X509_V_OK ? "" : verify_text(row.error));
    EXPECT_EQ(out_, place_.path("cert") + ": ");
    EXPECT_EQ(place_.logged("OK\n"), row.code == DL_VERIFY_OK);
  }
}

TEST_F(Verify, HashedDirectoryIsSearched) {
  place_.write("cert", test::pem_of(leaf_.certificate.get()));
  const auto stranger =
      test::make_identity("Stranger", test::new_ec_key(), {.extensions = test::ca_extensions});
  place_.write("stranger.pem", test::pem_of(stranger.certificate.get()));
  EXPECT_EQ(verify("cert", "cas", "stranger.pem"), DL_VERIFY_UNKNOWN_ISSUER);
  place_.write(hash_name(root_.certificate.get()), test::pem_of(root_.certificate.get()));
  EXPECT_EQ(verify("cert", "cas", "stranger.pem"), DL_VERIFY_OK);
  EXPECT_EQ(verify("cert", "absent", "stranger.pem"), DL_VERIFY_UNKNOWN_ISSUER)
      << "a missing directory is an empty one";
}

TEST_F(Verify, WithoutPlacesTheSystemsAreSearched) {
  place_.write("cert", test::pem_of(leaf_.certificate.get()));
  EXPECT_EQ(verify("cert", nullptr, nullptr), DL_VERIFY_UNKNOWN_ISSUER);
  setenv("SSL_CERT_FILE", place_.path("root.pem").c_str(), 1);
  EXPECT_EQ(verify("cert", nullptr, nullptr), DL_VERIFY_OK);
  EXPECT_EQ(verify("cert", "cas", nullptr), DL_VERIFY_OK);
  setenv("SSL_CERT_FILE", place_.path("absent").c_str(), 1);
  EXPECT_EQ(verify("cert", nullptr, nullptr), DL_VERIFY_UNKNOWN_ISSUER);
  unsetenv("SSL_CERT_FILE");
}

TEST_F(Verify, PlacesThatCannotBeLoaded) {
  place_.write("cert", test::pem_of(leaf_.certificate.get()));
  place_.write("garbage", "garbage");
  for (const char* cas : {"absent", "garbage", "cas"}) {
    EXPECT_EQ(verify("cert", "cas", cas), DL_VERIFY_SETUP);
    EXPECT_STREQ(result_.message, "");
    EXPECT_TRUE(diagnostics_.starts_with("Error loading file " + place_.path(cas) + "\n")) << diagnostics_;
    EXPECT_EQ(out_, "");
  }
  testing::internal::CaptureStderr();
  EXPECT_EQ(dl_cert_verify(place_.path("cert").c_str(), "", place_.path("root.pem").c_str(), 0, &result_),
            -1);
  EXPECT_TRUE(testing::internal::GetCapturedStderr().starts_with("Error loading directory \n"));
  EXPECT_EQ(result_.code, DL_VERIFY_SETUP);
}

TEST_F(Verify, FilesWithoutACertificate) {
  place_.write("empty", "");
  place_.write("garbage", "no certificate at all\n");
  place_.write("key", test::pem_of(leaf_.key.get()));
  place_.write("huge", std::string(8 << 20, '0'));
  fs::create_symlink("absent", place_.path("dangling"));
  fs::create_symlink("loop", place_.path("loop"));
  for (const char* file : {"empty", "garbage", "key", "huge", "cas", "absent", "dangling", "loop"}) {
    SCOPED_TRACE(file);
    EXPECT_EQ(verify(file, "cas", "root.pem"), DL_VERIFY_OTHER);
    EXPECT_STREQ(result_.message, "verify err:");
    EXPECT_EQ(out_, "");
    std::error_code unknown;
    EXPECT_EQ(place_.logged("Bio_new_file error ca_file\n"), !fs::exists(place_.path(file), unknown));
  }
}

TEST_F(Verify, CutAndDamagedFilesNeverVerify) {
  for (const std::string& whole :
       {test::pem_of(leaf_.certificate.get()), test::der_of(leaf_.certificate.get())}) {
    for (std::size_t length = 0; length + 2 < whole.size(); length += 7) {
      place_.write("cert", whole.substr(0, length));
      EXPECT_EQ(verify("cert", "cas", "root.pem"), DL_VERIFY_OTHER) << length;
    }
  }
  const std::string der = test::der_of(leaf_.certificate.get());
  for (std::size_t at = 0; at < der.size(); at += 3) {
    std::string damaged = der;
    damaged[at] = static_cast<char>(damaged[at] ^ 0x01);
    place_.write("cert", damaged);
    EXPECT_NE(verify("cert", "cas", "root.pem"), DL_VERIFY_OK) << at;
  }
}

TEST_F(Verify, NullArguments) {
  memset(&result_, 0, sizeof result_);
  EXPECT_EQ(dl_cert_verify(nullptr, nullptr, nullptr, 0, &result_), -1);
  EXPECT_EQ(result_.code, DL_VERIFY_PARAMETER);
  EXPECT_STREQ(result_.message, "");
  EXPECT_TRUE(place_.logged("Invalid Parameter\n"));
  place_.forget_log();
  EXPECT_EQ(dl_cert_verify(place_.path("cert").c_str(), nullptr, nullptr, 0, nullptr), -1);
  EXPECT_TRUE(place_.logged("Invalid Parameter\n"));
}

struct advance_case {
  const char* name;
  std::string file;
  uint32_t method;
  const char* passphrase;
  dl_cert_verify_code code;
  const char* message;
  const char* logged;
};

TEST_F(Verify, AdvanceCheck) {
  const std::string cert = test::pem_of(leaf_.certificate.get());
  const std::string key = test::pem_of(leaf_.key.get());
  const std::string locked = test::pem_of(leaf_.key.get(), "open sesame");
  const std::string rsa_key = test::pem_of(test::new_rsa_key(1024).get());
  const std::string ec_key = test::pem_of(test::new_ec_key().get());
  const auto weak = test::make_identity("Weak", test::new_rsa_key(1024), {.digest = EVP_md5()});
  const std::string weak_pair = test::pem_of(weak.certificate.get()) + test::pem_of(weak.key.get());
  const char* no_ca = "Can't open ca file ser_ca_file\n";
  const char* no_key = "Can't load private key from ser_ca_file";
  const char* mismatch = "Private key does not match the certificate public key\n";
  const advance_case cases[] = {
      {"certificate and key", cert + key, 0, "", DL_VERIFY_OK, "", nullptr},
      {"key first", key + cert, 0, "", DL_VERIFY_OK, "", nullptr},
      {"any version", cert + key, 3, "", DL_VERIFY_OK, "", nullptr},
      {"old signature", weak_pair, 3, "", DL_VERIFY_OK, "", nullptr},
      {"SSL 2.0", cert + key, 1, "", DL_VERIFY_SETUP, "", "SSL_CTX_new error\n"},
      {"SSL 3.0", cert + key, 2, "", DL_VERIFY_SETUP, "", "SSL_CTX_new error\n"},
      {"method 4", cert + key, 4, "", DL_VERIFY_METHOD, "", "Wrong method"},
      {"method beyond 31 bits", cert + key, 0x80000003u, "", DL_VERIFY_METHOD, "", "Wrong method"},
      {"encrypted key", cert + locked, 0, "open sesame", DL_VERIFY_OK, "", nullptr},
      {"wrong pass phrase", cert + locked, 0, "sesame", DL_VERIFY_NO_KEY, "Can't load private key", no_key},
      {"no pass phrase", cert + locked, 0, "", DL_VERIFY_NO_KEY, "Can't load private key", no_key},
      {"no key", cert, 0, "", DL_VERIFY_NO_KEY, "Can't load private key", no_key},
      {"half a key", cert + key.substr(0, key.size() / 2), 0, "", DL_VERIFY_SETUP, "", no_ca},
      {"another key", cert + ec_key, 0, "", DL_VERIFY_KEY_MISMATCH, "Private key does not match", mismatch},
      {"key of another kind", cert + rsa_key, 0, "", DL_VERIFY_KEY_MISMATCH, "Private key does not match",
       mismatch},
      {"no certificate", test::crl_pem_of(root_) + key, 0, "", DL_VERIFY_NO_CERTIFICATE,
       "Can't load public key\n", "Can't load public key from ser_ca_file\n"},
      {"key alone", key, 0, "", DL_VERIFY_SETUP, "", no_ca},
      {"in DER", test::der_of(leaf_.certificate.get()), 0, "", DL_VERIFY_SETUP, "", no_ca},
      {"garbage", "garbage", 0, "", DL_VERIFY_SETUP, "", no_ca},
      {"empty", "", 0, "", DL_VERIFY_SETUP, "", no_ca},
  };
  for (const advance_case& row : cases) {
    SCOPED_TRACE(row.name);
    place_.write("pair", row.file);
    dl_set_option(DL_OPT_KEY_PASSPHRASE, row.passphrase);
    g_dl_cfg.ssl_method = row.method;  // dl_set_option() takes no number above 3
    EXPECT_EQ(verify("pair", "cas", "root.pem", advance), row.code);
    EXPECT_STREQ(result_.message, row.message);
    EXPECT_TRUE(place_.logged("verify advance\n"));
    EXPECT_TRUE(!row.logged || place_.logged(row.logged)) << place_.log();
    EXPECT_EQ(out_.empty(), row.code != DL_VERIFY_OK) << "a failed check ends the call";
  }
}

TEST_F(Verify, AdvanceCheckIsFollowedByTheVerification) {
  const auto expired =
      test::make_identity("Leaf", test::new_ec_key(), {.issuer = &root_, .valid_until_s = -60});
  place_.write("pair", test::pem_of(expired.certificate.get()) + test::pem_of(expired.key.get()));
  EXPECT_EQ(verify("pair", "cas", "root.pem", advance), DL_VERIFY_EXPIRED);
  g_dl_cfg.ssl_method = 4;
  EXPECT_EQ(verify("pair", "cas", "root.pem", 0xFFFFFFFEu), DL_VERIFY_EXPIRED)
      << "bit 0 alone asks for the check";
}

TEST_F(Verify, CallbackPassesItsListAlone) {
  const std::set<int> passing = {X509_V_ERR_CRL_NOT_YET_VALID,           X509_V_ERR_CRL_HAS_EXPIRED,
                                 X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT, X509_V_ERR_INVALID_CA,
                                 X509_V_ERR_PATH_LENGTH_EXCEEDED,        X509_V_ERR_INVALID_PURPOSE,
                                 X509_V_ERR_UNHANDLED_CRITICAL_EXTENSION};
  const std::shared_ptr<X509_STORE_CTX> context(X509_STORE_CTX_new(), X509_STORE_CTX_free);
  const std::shared_ptr<X509_STORE> store(X509_STORE_new(), X509_STORE_free);
  ASSERT_EQ(X509_STORE_CTX_init(context.get(), store.get(), leaf_.certificate.get(), nullptr), 1);
  X509_STORE_CTX_set_current_cert(context.get(), leaf_.certificate.get());
  X509_STORE_CTX_set_error_depth(context.get(), 2);
  for (int error = 0; error <= 110; ++error) {
    X509_STORE_CTX_set_error(context.get(), error);
    EXPECT_EQ(cb(0, context.get()), passing.count(error)) << error;
    EXPECT_EQ(cb(7, context.get()), 7);
  }
  X509_STORE_CTX_set_error(context.get(), X509_V_ERR_CERT_HAS_EXPIRED);
  place_.forget_log();
  cb(0, context.get());
  EXPECT_TRUE(place_.logged("/O=Test/CN=Leaf\n"));
  EXPECT_TRUE(place_.logged("verify cb error 10 at 2 depth lookup:certificate has expired\n"));
  X509_STORE_CTX_set_current_cert(context.get(), nullptr);
  place_.forget_log();
  cb(0, context.get());
  EXPECT_TRUE(place_.logged("\n")) << "no certificate, an empty subject";
}

TEST_F(Verify, CodesOfErrors) {
  using fetchrig::verify_code;
  EXPECT_EQ(verify_code(X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE), DL_VERIFY_UNKNOWN_ISSUER);
  EXPECT_EQ(verify_code(X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN), DL_VERIFY_OTHER);
  EXPECT_EQ(verify_code(X509_V_OK), DL_VERIFY_OTHER) << "no error is not yet a positive verdict";
  EXPECT_EQ(verify_code(-1), DL_VERIFY_OTHER);
}

}  // namespace
