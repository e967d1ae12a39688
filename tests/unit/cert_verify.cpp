// Verification: every outcome of dl_cert_verify(), its callback, and its advance check.
#include "cert/verify.h"

#include <string.h>

#include <set>

#include "include/fetchrig_openssl.h"
#include "tests/support/cert_fixture.h"

namespace test {
namespace {

constexpr uint32_t advance = 1;

std::string pem(const identity& of) {
  return pem_of(of.certificate.get());
}

class cert_verify : public cert_test {
 protected:
  cert_verify() {
    write("root.pem", pem(root_));
    write("leaf.pem", pem(leaf_));
    write("cas/" + hash_name_of(root_.certificate.get()), pem(root_));
  }

  identity issued(const identity* by, identity_options options, const char* name = "Leaf") const {
    options.issuer = by;
    return make_identity(name, new_ec_key(), options);
  }
  // Verifies `file` against the names of a CA directory and a CA file; null stands for the system's, "" for
  // itself.
  int verify(const std::string& file, const char* ca_dir, const char* ca_file, uint32_t flags = 0) {
    const auto full = [this](const char* name) { return name && *name ? path(name) : ""; };
    forget_log();
    memset(&result_, 0xEE, sizeof result_);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int rc = dl_cert_verify(path(file).c_str(), ca_dir ? full(ca_dir).c_str() : nullptr,
                                  ca_file ? full(ca_file).c_str() : nullptr, flags, &result_);
    out_ = testing::internal::GetCapturedStdout();
    diagnostics_ = testing::internal::GetCapturedStderr();
    EXPECT_EQ(rc, result_.code == DL_VERIFY_OK ? 0 : -1);
    return result_.code;
  }

  const identity root_ = make_identity("Root", new_ec_key(), {.extensions = ca_extensions});
  const identity leaf_ = issued(&root_, {});
  dl_result result_ = {};
  std::string out_, diagnostics_;
};

TEST_F(cert_verify, VerdictsOfOpenssl) {
  const identity_options authority = {.extensions = ca_extensions};
  const identity impostor = issued(nullptr, authority, "Root"),
                 stranger = issued(nullptr, authority, "Stranger");
  const identity middle = issued(&root_, authority, "Middle");
  const std::string under_middle = pem(issued(&middle, {})), roots = pem(root_),
                    no_issuer = "unable to get local issuer certificate";
  const identity no_ca = issued(nullptr, {.extensions = {{"basicConstraints", "CA:FALSE"}}}, "No CA");
  const identity rsa_root = make_identity("RSA", new_rsa_key(1024), authority);
  const std::string expired = pem(issued(nullptr, {.valid_until_s = -60}));
  const std::string forged = pem(issued(&impostor, {})), early = pem(issued(&root_, {.valid_from_s = 3600}));
  // clang-format off
  const struct { const char* name; std::string file, cas; int code; std::string message; } rows[] = {
      {"the CA itself", roots, roots, DL_VERIFY_OK, ""},
      {"in DER", der_of(leaf_.certificate.get()), roots, DL_VERIFY_OK, ""},
      {"two levels", under_middle, pem(middle) + roots, DL_VERIFY_OK, ""},
      {"self-signed and unknown", pem(stranger), roots, DL_VERIFY_OK, ""},
      {"MD5 signature", pem(issued(&rsa_root, {.digest = EVP_md5()})), pem(rsa_root), DL_VERIFY_OK, ""},
      {"issuer is no CA", pem(issued(&no_ca, {})), pem(no_ca), DL_VERIFY_OK, ""},
      {"by another of that name", forged, roots, DL_VERIFY_SIGNATURE, "certificate signature failure"},
      {"not yet valid", early, roots, DL_VERIFY_NOT_YET_VALID, "certificate is not yet valid"},
      {"expired and self-signed", expired, roots, DL_VERIFY_EXPIRED, "certificate has expired"},
      {"chain in the file is not used", under_middle + pem(middle), roots, DL_VERIFY_UNKNOWN_ISSUER, no_issuer},
      {"issuer's issuer unknown", under_middle, pem(middle), DL_VERIFY_OTHER, "unable to get issuer certificate"},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    write("cert", row.file);
    write("roots", row.cas);
    EXPECT_EQ(verify("cert", "none", "roots"), row.code) << "a missing directory is an empty one";
    EXPECT_EQ(std::string(result_.message), row.code == DL_VERIFY_OK ? "" : "verify err:" + row.message);
    EXPECT_EQ(out_, path("cert") + ": ");
    EXPECT_EQ(was_logged("6 OK\n"), row.code == DL_VERIFY_OK);
  }
}

TEST_F(cert_verify, PlacesOfTheAuthorities) {
  write("other.pem", pem(issued(nullptr, {.extensions = ca_extensions}, "Other")));
  write("garbage", "garbage");
  // clang-format off
  const struct { const char *ca_dir, *ca_file, *systems; int code; std::string diagnostics; } rows[] = {
      {"cas", "other.pem", "absent", DL_VERIFY_OK, ""},
      {"none", "other.pem", "root.pem", DL_VERIFY_UNKNOWN_ISSUER, ""},
      {nullptr, nullptr, "root.pem", DL_VERIFY_OK, ""},
      {nullptr, nullptr, "absent", DL_VERIFY_UNKNOWN_ISSUER, ""},
      {"cas", "absent", "root.pem", DL_VERIFY_SETUP, "Error loading file " + path("absent") + "\n"},
      {"cas", "garbage", "root.pem", DL_VERIFY_SETUP, "Error loading file " + path("garbage") + "\n"},
      {"", "root.pem", "root.pem", DL_VERIFY_SETUP, "Error loading directory \n"},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    setenv("SSL_CERT_FILE", path(row.systems).c_str(), 1);
    EXPECT_EQ(verify("leaf.pem", row.ca_dir, row.ca_file), row.code);
    EXPECT_TRUE(diagnostics_.starts_with(row.diagnostics)) << diagnostics_;
    EXPECT_TRUE(row.code != DL_VERIFY_SETUP || out_ + result_.message == "");
  }
  unsetenv("SSL_CERT_FILE");
}

TEST_F(cert_verify, FilesWithoutACertificate) {
  write("empty", "");
  write("key", pem_of(leaf_.key.get()));
  write("huge", std::string(8 << 20, '0'));
  fs::create_symlink("loop", path("loop"));
  for (const std::string file : {"empty", "key", "huge", "cas", "absent", "loop"}) {
    SCOPED_TRACE(file);
    EXPECT_EQ(verify(file, "cas", "root.pem"), DL_VERIFY_OTHER);
    EXPECT_EQ(out_ + result_.message, "verify err:");
    EXPECT_NE(diagnostics_.empty(), file != "empty") << "an empty file alone has no reason in OpenSSL";
    EXPECT_EQ(was_logged("3 Bio_new_file error ca_file\n"), file == "absent" || file == "loop");
  }
  const std::string der = der_of(leaf_.certificate.get());
  for (std::size_t at = 0; at < der.size(); at += 5) {
    write("cut", der.substr(0, at));
    EXPECT_EQ(verify("cut", "cas", "root.pem"), DL_VERIFY_OTHER) << at;
    std::string damaged = der;
    damaged[at] = static_cast<char>(damaged[at] ^ 1);
    write("damaged", damaged);
    EXPECT_NE(verify("damaged", "cas", "root.pem"), DL_VERIFY_OK) << at;
  }
  EXPECT_EQ(dl_cert_verify(nullptr, nullptr, nullptr, 0, &result_), -1);
  EXPECT_EQ(result_.code, DL_VERIFY_PARAMETER);
  EXPECT_STREQ(result_.message, "");
  EXPECT_TRUE(was_logged("3 Invalid Parameter\n"));
  EXPECT_EQ(dl_cert_verify(path("leaf.pem").c_str(), nullptr, nullptr, 0, nullptr), -1);
}

TEST_F(cert_verify, AdvanceCheck) {
  const std::string cert = pem(leaf_), key = pem_of(leaf_.key.get()),
                    locked = pem_of(leaf_.key.get(), "open sesame");
  const std::string expired = pem(issued(nullptr, {.valid_until_s = -60}));
  const std::string no_ca = "Can't open ca file ser_ca_file\n", mismatch = "Private key does not match";
  const std::string other_key = pem_of(new_ec_key().get()), no_cert = crl_pem_of(root_) + key;
  // clang-format off
  const struct { const char* name; std::string file; uint32_t method; int code; std::string told, logged; } rows[] = {
      {"key first", key + cert, 0, DL_VERIFY_OK, "", "OK\n"},
      {"encrypted key, any version", cert + locked, 3, DL_VERIFY_OK, "", "OK\n"},
      {"SSL 2.0", cert + key, 1, DL_VERIFY_SETUP, "", "SSL_CTX_new error\n"},
      {"SSL 3.0", cert + key, 2, DL_VERIFY_SETUP, "", "SSL_CTX_new error\n"},
      {"method 4", cert + key, 4, DL_VERIFY_METHOD, "", "Wrong method"},
      {"method beyond 31 bits", cert + key, 0x80000003u, DL_VERIFY_METHOD, "", "Wrong method"},
      {"no key", cert, 0, DL_VERIFY_NO_KEY, "Can't load private key", "Can't load private key from ser_ca_file"},
      {"another key", cert + other_key, 0, DL_VERIFY_KEY_MISMATCH, mismatch, mismatch + " the certificate"},
      {"no certificate", no_cert, 0, DL_VERIFY_NO_CERTIFICATE, "Can't load public key\n", "Can't load public key from"},
      {"key alone", key, 0, DL_VERIFY_SETUP, "", no_ca},
      {"in DER", der_of(leaf_.certificate.get()), 0, DL_VERIFY_SETUP, "", no_ca},
  };
  // clang-format on
  dl_set_option(DL_OPT_KEY_PASSPHRASE, "open sesame");
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    write("pair", row.file);
    g_dl_cfg.ssl_method = row.method;  // dl_set_option() takes no number above 3
    EXPECT_EQ(verify("pair", "cas", "root.pem", advance), row.code);
    EXPECT_EQ(result_.message, row.told);
    EXPECT_TRUE(was_logged("6 verify advance\n") && was_logged(row.logged)) << log();
    EXPECT_EQ(out_.empty(), row.code != DL_VERIFY_OK) << "a failed check ends the call";
  }
  write("pair", expired + key);
  EXPECT_EQ(verify("pair", "cas", "root.pem", ~advance), DL_VERIFY_EXPIRED)
      << "bit 0 alone asks for the check";
}

TEST_F(cert_verify, CallbackPassesItsListAlone) {
  const std::set<int> passing = {X509_V_ERR_CRL_NOT_YET_VALID,           X509_V_ERR_CRL_HAS_EXPIRED,
                                 X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT, X509_V_ERR_INVALID_CA,
                                 X509_V_ERR_PATH_LENGTH_EXCEEDED,        X509_V_ERR_INVALID_PURPOSE,
                                 X509_V_ERR_UNHANDLED_CRITICAL_EXTENSION};
  const std::shared_ptr<X509_STORE_CTX> context(X509_STORE_CTX_new(), X509_STORE_CTX_free);
  const std::shared_ptr<X509_STORE> store(X509_STORE_new(), X509_STORE_free);
  ASSERT_EQ(X509_STORE_CTX_init(context.get(), store.get(), leaf_.certificate.get(), nullptr), 1);
  X509_STORE_CTX_set_error_depth(context.get(), 2);
  for (int error = 0; error <= 110; ++error) {
    X509_STORE_CTX_set_error(context.get(), error);
    EXPECT_EQ(cb(0, context.get()), passing.count(error)) << error;
    EXPECT_EQ(cb(7, context.get()), 7);
  }
  X509_STORE_CTX_set_error(context.get(), X509_V_ERR_CERT_HAS_EXPIRED);
  for (X509* const certificate : {leaf_.certificate.get(), static_cast<X509*>(nullptr)}) {
    X509_STORE_CTX_set_current_cert(context.get(), certificate);
    forget_log();
    cb(0, context.get());
    EXPECT_EQ(logged(),
              (std::vector<std::string>{certificate ? "5 /O=Test/CN=Leaf\n" : "5 \n",
                                        "5 verify cb error 10 at 2 depth lookup:certificate has expired\n"}));
  }
  using fetchrig::verify_code;
  EXPECT_EQ(verify_code(X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE), DL_VERIFY_UNKNOWN_ISSUER);
  EXPECT_EQ(verify_code(X509_V_OK), DL_VERIFY_OTHER) << "no error is not yet a positive verdict";
}

}  // namespace
}  // namespace test
