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
