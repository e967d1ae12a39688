// Verification: every outcome of dl_cert_verify(), its callback, and its advance check.
#include "cert/verify.h"

#include <openssl/err.h>
#include <string.h>
#include <sys/stat.h>

#include <set>

#include "core/ca_directory.h"
#include "core/openssl_owners.h"
#include "include/fetchrig_openssl.h"
#include "tests/support/cert_fixture.h"

namespace test {
namespace {

constexpr uint32_t advance = 1;
const identity_options authority = {.extensions = ca_extensions};

identity issued(const identity* by, identity_options options, const char* name = "Leaf") {
  options.issuer = by;
  return make_identity(name, new_ec_key(), options);
}

class cert_verify : public cert_test {
 protected:
  // Verifies `file` against the names of a CA directory and a CA file; null stands for the system's.
  int verify(const std::string& file, const char* ca_dir, const char* ca_file, uint32_t flags = 0) {
    const std::string dir = ca_dir && *ca_dir ? path(ca_dir) : "", cas = ca_file ? path(ca_file) : "";
    forget_log();
    memset(&result_, 0xEE, sizeof result_);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int rc = dl_cert_verify(path(file).c_str(), ca_dir ? dir.c_str() : nullptr,
                                  ca_file ? cas.c_str() : nullptr, flags, &result_);
    out_ = testing::internal::GetCapturedStdout();
    diagnostics_ = testing::internal::GetCapturedStderr();
    EXPECT_EQ(rc, result_.code == DL_VERIFY_OK ? 0 : -1);
    return result_.code;
  }

  const identity root_ = issued(nullptr, authority, "Root"), leaf_ = issued(&root_, {});
  const std::string cert_ = pem_of(leaf_), der_ = der_of(leaf_), key_ = pem_of(leaf_.key.get());
  const std::string leaf_file_ = write("leaf.pem", cert_), root_file_ = write("root.pem", pem_of(root_));
  const std::string hashed_ = write("cas/" + hash_name_of(root_), pem_of(root_));
  dl_result result_ = {};
  std::string out_, diagnostics_;
};

TEST_F(cert_verify, verdicts_of_openssl) {
  const identity impostor = issued(nullptr, authority, "Root"), middle = issued(&root_, authority, "Middle");
  const identity no_ca = issued(nullptr, {.extensions = {{"basicConstraints", "CA:FALSE"}}}, "No CA");
  const identity md5 =
      make_identity("MD5", new_rsa_key(1024), {.extensions = ca_extensions, .digest = EVP_md5()});
  const std::string roots = pem_of(root_), below_middle = pem_of(issued(&middle, {}));
  const std::string forged = pem_of(issued(&impostor, {})),
                    early = pem_of(issued(&root_, {.valid_from_s = 3600}));
  const std::string expired = pem_of(issued(nullptr, {.valid_until_s = -60}));
  // clang-format off
  const struct { const char* name; std::string file, cas; int code; const char* message; } rows[] = {
      {"the CA itself", roots, roots, DL_VERIFY_OK, ""},
      {"in DER", der_, roots, DL_VERIFY_OK, ""},
      {"two levels", below_middle, pem_of(middle) + roots, DL_VERIFY_OK, ""},
      {"self-signed and unknown", pem_of(md5), roots, DL_VERIFY_OK, ""},
      {"MD5 signature", pem_of(issued(&md5, {.digest = EVP_md5()})), pem_of(md5), DL_VERIFY_OK, ""},
      {"issuer is no CA", pem_of(issued(&no_ca, {})), pem_of(no_ca), DL_VERIFY_OK, ""},
      {"by another CA of that name", forged, roots, DL_VERIFY_SIGNATURE, "verify err:certificate signature failure"},
      {"not yet valid", early, roots, DL_VERIFY_NOT_YET_VALID, "verify err:certificate is not yet valid"},
      {"expired and self-signed", expired, roots, DL_VERIFY_EXPIRED, "verify err:certificate has expired"},
      {"chain in the file is not used", below_middle + pem_of(middle), roots, DL_VERIFY_UNKNOWN_ISSUER,
       "verify err:unable to get local issuer certificate"},
      {"issuer's issuer unknown", below_middle, pem_of(middle), DL_VERIFY_OTHER,
       "verify err:unable to get issuer certificate"},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    write("cert", row.file);
    write("roots", row.cas);
    EXPECT_EQ(verify("cert", "none", "roots"), row.code) << "a missing directory is an empty one";
    EXPECT_STREQ(result_.message, row.message);
    EXPECT_EQ(out_, path("cert") + ": ");
    EXPECT_EQ(was_logged("6 OK\n"), row.code == DL_VERIFY_OK);
  }
}

TEST_F(cert_verify, places_of_the_authorities) {
  write("other.pem", pem_of(issued(nullptr, authority, "Other")));
  // clang-format off
  const struct { const char *ca_dir, *ca_file, *systems; int code; std::string diagnostics; } rows[] = {
      {"cas", "other.pem", "absent", DL_VERIFY_OK, ""},
      {"none", "other.pem", "root.pem", DL_VERIFY_UNKNOWN_ISSUER, ""},
      {nullptr, nullptr, "root.pem", DL_VERIFY_OK, ""},
      {nullptr, nullptr, "absent", DL_VERIFY_UNKNOWN_ISSUER, ""},
      {"cas", "absent", "root.pem", DL_VERIFY_SETUP, "Error loading file " + path("absent") + "\n"},
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

// OpenSSL's own look-up, given the pipe, never comes back.
TEST_F(cert_verify, pipes_and_junk_in_a_ca_directory_neither_hang_nor_hide_the_authorities) {
  const std::string hash = hash_name_of(root_).substr(0, 9);
  write("junk", pem_of(root_));
  fs::resize_file(path("junk"), 300 << 20);
  ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
  for (const std::string kind : {"pipe", "junk", "store", "/dev/zero"}) {
    SCOPED_TRACE(kind);
    const std::string alone = "only " + fs::path(kind).filename().string();
    write(alone + "/readme", "");
    for (const std::string& name : {"cas/" + hash + "1", alone + "/" + hash + "0"}) {
      fs::remove(path(name));
      fs::create_symlink(kind[0] == '/' ? kind : path(kind), path(name));
    }
    EXPECT_EQ(verify("leaf.pem", "cas", "leaf.pem"), DL_VERIFY_OK) << "behind the CA";
    EXPECT_EQ(verify("leaf.pem", (alone + ":" + path("cas")).c_str(), "leaf.pem"), DL_VERIFY_OK);
    EXPECT_EQ(verify("leaf.pem", alone.c_str(), "leaf.pem"), DL_VERIFY_UNKNOWN_ISSUER);
    setenv("SSL_CERT_FILE", path(alone + "/" + hash + "0").c_str(), 1);
    EXPECT_EQ(verify("leaf.pem", "none", nullptr), DL_VERIFY_UNKNOWN_ISSUER);
    unsetenv("SSL_CERT_FILE");
  }
}

// OpenSSL's own look-up is the judge.
TEST_F(cert_verify, ca_directories_are_read_as_openssl_reads_them) {
  const identity old = issued(nullptr, {.extensions = ca_extensions, .valid_until_s = -60}, "Root");
  const std::string root = pem_of(root_), crl = crl_pem_of(root_), no_base64 = root.substr(0, 60) + "?";
  const std::string trusted = openssl("x509 -trustout -addtrust serverAuth -in " + root_file_) + "\n";
  using files = std::vector<std::pair<std::string, std::string>>;  // what follows the hash, and the content
  // clang-format off
  const struct { const char* what; files content; unsigned long flags; int error; } rows[] = {
      {"an old CA of that name first", {{"0", pem_of(old)}, {"1", root}}, 0, X509_V_OK},
      {"a gap", {{"0", pem_of(old)}, {"2", root}}, 0, X509_V_ERR_CERT_HAS_EXPIRED},
      {"two in a file", {{"0", pem_of(old) + "words\n" + root}}, 0, X509_V_OK},
      {"broken behind the CA", {{"0", root + no_base64}}, 0, X509_V_OK},
      {"broken before the CA", {{"0", no_base64 + root}}, 0, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY},
      {"broken file before", {{"0", "junk"}, {"1", root}}, 0, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY},
      {"DER", {{"0", der_of(root_)}}, 0, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY},
      {"with trust settings", {{"0", trusted}}, 0, X509_V_ERR_CERT_REJECTED},
      {"no revocation list", {{"0", root}, {"r1", crl}}, X509_V_FLAG_CRL_CHECK, X509_V_ERR_UNABLE_TO_GET_CRL},
      {"revocation list", {{"0", root}, {"r0", crl}}, X509_V_FLAG_CRL_CHECK, X509_V_OK},
      {"junk as revocation list", {{"0", root}, {"r0", root}}, X509_V_FLAG_CRL_CHECK, X509_V_ERR_UNABLE_TO_GET_CRL},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const std::string place = "row " + std::to_string(&row - rows) + "/";
    for (const auto& [end, content] : row.content)
      write(place + hash_name_of(root_).substr(0, 9) + end, content);
    for (const bool ours : {true, false}) {
      const fetchrig::unique_x509_store store(X509_STORE_new());
      X509_LOOKUP* const lookup = ours ? fetchrig::add_ca_lookup(store.get())
                                       : X509_STORE_add_lookup(store.get(), X509_LOOKUP_hash_dir());
      const std::string list = ":" + path("none") + "::" + path(place) + ":" + path(place);
      ASSERT_TRUE(ours ? fetchrig::add_ca_directories(lookup, list.c_str())
                       : X509_LOOKUP_add_dir(lookup, list.c_str(), X509_FILETYPE_PEM) == 1);
      X509_STORE_set_flags(store.get(), row.flags);
      for (int again = 0; again < 2; ++again) {
        const fetchrig::unique_x509_store_ctx context(X509_STORE_CTX_new());
        X509_STORE_CTX_init(context.get(), store.get(), leaf_.certificate.get(), nullptr);
        X509_verify_cert(context.get());
        EXPECT_EQ(X509_STORE_CTX_get_error(context.get()), row.error) << ours;
      }
    }
    ERR_clear_error();
  }
}

TEST_F(cert_verify, files_without_a_certificate) {
  write("key", key_);
  for (const std::string file : {"key", "cas", "absent"}) {
    EXPECT_EQ(verify(file, "cas", "root.pem"), DL_VERIFY_OTHER) << file;
    EXPECT_EQ(out_ + result_.message, "verify err:");
    EXPECT_NE(diagnostics_, "") << "OpenSSL's reason";
    EXPECT_EQ(was_logged("3 Bio_new_file error ca_file\n"), file != "key");
  }
  for (std::size_t at = 0; at < der_.size(); at += 5) {
    std::string damaged = der_;
    damaged[at] = static_cast<char>(damaged[at] ^ 1);
    write("damaged", damaged);
    EXPECT_NE(verify("damaged", "cas", "root.pem"), DL_VERIFY_OK) << at;
  }
  EXPECT_EQ(dl_cert_verify(nullptr, nullptr, nullptr, 0, &result_), -1);
  EXPECT_EQ(result_.code, DL_VERIFY_PARAMETER);
  EXPECT_TRUE(was_logged("3 Invalid Parameter\n"));
  EXPECT_EQ(dl_cert_verify(leaf_file_.c_str(), nullptr, nullptr, 0, nullptr), -1);
}

TEST_F(cert_verify, advance_check) {
  const std::string locked = pem_of(leaf_.key.get(), "open sesame"), foreign = pem_of(new_ec_key().get());
  const std::string expired = pem_of(issued(nullptr, {.valid_until_s = -60})), crl = crl_pem_of(root_);
  const char *no_key = "Can't load private key", *no_cert = "Can't load public key\n";
  const char* mismatch = "Private key does not match";
  // clang-format off
  const struct { const char* name; std::string file; uint32_t method; int code; const char *text, *logged; } rows[] = {
      {"key first", key_ + cert_, 0, DL_VERIFY_OK, "", "OK\n"},
      {"encrypted key, any version", cert_ + locked, 3, DL_VERIFY_OK, "", "OK\n"},
      {"SSL 2.0", cert_ + key_, 1, DL_VERIFY_SETUP, "", "SSL_CTX_new error\n"},
      {"method 4", cert_ + key_, 4, DL_VERIFY_METHOD, "", "Wrong method"},
      {"method beyond 31 bits", cert_ + key_, 0x80000003u, DL_VERIFY_METHOD, "", "Wrong method"},
      {"no key", cert_, 0, DL_VERIFY_NO_KEY, no_key, "Can't load private key from ser_ca_file"},
      {"another key", cert_ + foreign, 0, DL_VERIFY_KEY_MISMATCH, mismatch, mismatch},
      {"no certificate", crl + key_, 0, DL_VERIFY_NO_CERTIFICATE, no_cert, "Can't load public key from ser_ca_file\n"},
      {"in DER", der_, 0, DL_VERIFY_SETUP, "", "Can't open ca file ser_ca_file\n"},
  };
  // clang-format on
  dl_set_option(DL_OPT_KEY_PASSPHRASE, "open sesame");
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    write("pair", row.file);
    g_dl_cfg.ssl_method = row.method;  // dl_set_option() takes no number above 3
    EXPECT_EQ(verify("pair", "cas", "root.pem", advance), row.code);
    EXPECT_STREQ(result_.message, row.text);
    EXPECT_TRUE(was_logged("6 verify advance\n") && was_logged(row.logged)) << log();
    EXPECT_EQ(out_.empty(), row.code != DL_VERIFY_OK) << "a failed check ends the call";
  }
  write("pair", expired);
  EXPECT_EQ(verify("pair", "cas", "root.pem", ~advance), DL_VERIFY_EXPIRED) << "bit 0 alone asks for it";
}

TEST_F(cert_verify, callback_passes_its_list_alone) {
  const std::set<int> passing = {X509_V_ERR_CRL_NOT_YET_VALID,           X509_V_ERR_CRL_HAS_EXPIRED,
                                 X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT, X509_V_ERR_INVALID_CA,
                                 X509_V_ERR_PATH_LENGTH_EXCEEDED,        X509_V_ERR_INVALID_PURPOSE,
                                 X509_V_ERR_UNHANDLED_CRITICAL_EXTENSION};
  const std::shared_ptr<X509_STORE_CTX> context(X509_STORE_CTX_new(), X509_STORE_CTX_free);
  for (int error = 0; error <= 110; ++error) {
    X509_STORE_CTX_set_error(context.get(), error);
    EXPECT_EQ(cb(0, context.get()), passing.count(error)) << error;
    EXPECT_EQ(cb(7, context.get()), 7);
  }
  EXPECT_TRUE(was_logged("5 \n")) << "no certificate, an empty subject";
  X509_STORE_CTX_set_error(context.get(), X509_V_ERR_CERT_HAS_EXPIRED);
  X509_STORE_CTX_set_error_depth(context.get(), 2);
  X509_STORE_CTX_set_current_cert(context.get(), leaf_.certificate.get());
  forget_log();
  cb(0, context.get());
  const char* lookup = "5 verify cb error 10 at 2 depth lookup:certificate has expired\n";
  EXPECT_EQ(logged(), (std::vector<std::string>{"5 /O=Test/CN=Leaf\n", lookup}));
  EXPECT_EQ(fetchrig::verify_code(X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE), DL_VERIFY_UNKNOWN_ISSUER);
  EXPECT_EQ(fetchrig::verify_code(X509_V_OK), DL_VERIFY_OTHER) << "no error is not yet a positive verdict";
}

}  // namespace
}  // namespace test
