// Client certificates: what is issued, which files are written, and what each failure leaves alone.
#include <fcntl.h>
#include <sys/stat.h>

#include "core/owners.h"
#include "include/fetchrig_openssl.h"
#include "tests/support/cert_fixture.h"

namespace test {
namespace {

class client_cert : public cert_test {
 protected:
  client_cert() { dl_set_option(DL_OPT_KEY_SEED, "factory seed"); }

  int generate(const char* subject, int bits = 512) {
    forget_log();
    return dl_generate_client_cert(path(ca_cert_).c_str(), path(ca_key_).c_str(), key_.c_str(), cert_.c_str(),
                                   subject, bits);
  }
  std::shared_ptr<X509> issued() const { return certificate_in(read("client.pem")); }
  fs::perms mode_of(const std::string& file) const { return fs::symlink_status(file).permissions(); }

  const identity root_ = make_identity("Root", new_rsa_key(2048), {.extensions = ca_extensions});
  const std::string ca_file_ = write("ca.pem", pem_of(root_.certificate.get()));
  const std::string ca_key_file_ = write("ca.key", pem_of(root_.key.get()));
  std::string ca_cert_ = "ca.pem", ca_key_ = "ca.key";
  std::string key_ = path("key.pem"), cert_ = path("client.pem");
};

TEST_F(client_cert, the_openssl_tool_agrees) {
  fs::create_symlink(write("precious", "precious"), cert_);
  ASSERT_EQ(generate("/O=Acme/CN=0011AB", 2048), 0);
  const std::string text = openssl("x509 -noout -text -in " + cert_);
  for (const char* line :
       {"Version: 3 (0x2)", "(0x303031314142)", "Signature Algorithm: md5WithRSAEncryption",
        "Issuer: O = Test, CN = Root", "Not Before: Mar  1 00:00:00 2014 GMT",
        "Not After : Feb 24 00:00:00 2034 GMT", "Subject: O = Acme, CN = 0011AB", "Public-Key: (2048 bit)"}) {
    EXPECT_NE(text.find(line), text.npos) << line << "\n" << text;
  }
  EXPECT_EQ(text.find("extensions"), text.npos) << text;
  EXPECT_EQ(openssl("verify -CAfile " + ca_file_ + " " + cert_), cert_ + ": OK");
  const std::string key = read("key.pem");
  EXPECT_EQ(X509_check_private_key(issued().get(), key_in(key).get()), 1);
  EXPECT_EQ(read("client.pem"), pem_of(issued().get()) + key);
  EXPECT_EQ(mode_of(key_), fs::perms{0600});
  EXPECT_EQ(mode_of(cert_), fs::perms{0600});
  EXPECT_EQ(read("precious"), "precious") << "a link is replaced, not followed";
}

TEST_F(client_cert, serial_number_is_the_raw_common_name) {
  ca_cert_ = "ca.der";
  write(ca_cert_, der_of(root_.certificate.get()));
  const std::pair<const char*, std::string> rows[] = {
      {"/O=Acme/CN=ab\\/cd", "ab\\"},
      {"/CN=x/O=Acme", "x"},
      {"/O=Acme", "\x01"},
      {"/CN=/O=x", std::string(1, 0)},
      {"/CN=\xe9", "\xe9"},
      {"/CN=more than 20 bytes here", "more than 20 bytes here"}};
  for (const auto& [subject, content] : rows) {
    ASSERT_EQ(generate(subject), 0) << subject;
    const auto certificate = issued();
    ASSERT_NE(certificate, nullptr) << subject << " must parse again";
    const ASN1_INTEGER* serial = X509_get0_serialNumber(certificate.get());
    EXPECT_EQ(std::string(serial->data, serial->data + serial->length), content);
  }
}

TEST_F(client_cert, key_follows_from_common_name_and_seed_unless_the_file_holds_one) {
  ASSERT_EQ(generate("/CN=other"), 0);
  const std::string other = read("key.pem");
  fs::remove(key_);
  ASSERT_EQ(generate("/O=x/CN=a"), 0);
  const std::string made = read("key.pem");
  EXPECT_NE(made, other);
  const std::string reusable = "a comment\n" + other + "and more\n";
  for (const std::string& content : {reusable, std::string(), other.substr(0, other.size() / 2),
                                     pem_of(root_.key.get(), "secret"), std::string(1 << 20, '-')}) {
    SCOPED_TRACE(content.substr(0, 40));
    const bool reused = content == reusable;
    fs::permissions(write("key.pem", content), fs::perms{0640});
    EXPECT_EQ(generate("/CN=a"), 0);
    EXPECT_EQ(was_logged("prikey err,create new\n"), !reused);
    EXPECT_EQ(read("key.pem"), reused ? content : made);
    EXPECT_EQ(mode_of(key_), fs::perms{reused ? 0640u : 0600u});
  }
}

TEST_F(client_cert, what_is_no_plain_file_stays) {
  key_ = cert_ = "/dev/null";
  EXPECT_EQ(generate("/CN=a"), 0);
  EXPECT_TRUE(fs::is_character_file("/dev/null"));

  const fetchrig::unique_fd out(open(path("out").c_str(), O_RDWR | O_CREAT, 0600));
  ASSERT_EQ(::write(out.get(), "before\n", 7), 7);
  key_ = cert_ = path("stdout");  // a link to a descriptor, as /dev/stdout is one
  fs::create_symlink("/proc/thread-self/fd/" + std::to_string(out.get()), key_);
  EXPECT_EQ(generate("/CN=a"), 0);
  EXPECT_TRUE(fs::is_symlink(key_));
  EXPECT_TRUE(read("out").starts_with("before\n-----BEGIN CERT")) << read("out");
  cert_ = "/dev/null";

  key_ = path("pipe");
  ASSERT_EQ(mkfifo(key_.c_str(), 0600), 0);
  EXPECT_EQ(generate("/CN=a"), 0);
  EXPECT_TRUE(was_logged("Can't write " + key_)) << "nobody reads the pipe";
  EXPECT_TRUE(fs::is_fifo(key_));

  key_ = path("key.pem");
  cert_ = path("empty directory");
  fs::create_directory(cert_);
  EXPECT_EQ(generate("/CN=a"), 0);
  EXPECT_TRUE(was_logged("Can't write " + cert_));
  EXPECT_NE(key_in(read("key.pem")), nullptr) << "the key is written all the same";
  std::swap(key_, cert_);
  EXPECT_EQ(generate("/CN=a"), -1);
  EXPECT_TRUE(fs::is_directory(key_));
}

TEST_F(client_cert, failures_leave_the_files_alone) {
  const std::shared_ptr<EVP_PKEY> ed(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"), EVP_PKEY_free);
  write("ed.pem", pem_of(make_identity("Ed", ed, {.digest = nullptr}).certificate.get()));
  write("ed.key", pem_of(ed.get()));
  write("locked.key", pem_of(root_.key.get(), "secret"));
  dl_set_option(DL_OPT_KEY_PASSPHRASE, "secret");  // is for the device's keys, not for this one
  // clang-format off
  const struct { const char *ca_cert, *ca_key, *subject; int bits; const char* logged; } rows[] = {
      {"absent", "ca.key", "/CN=a", 512, "Bio_new_file error root ca\n"},
      {"ca.key", "ca.key", "/CN=a", 512, "unable to load certificate filename\n"},
      {"ca.pem", "absent", "/CN=a", 512, "Bio_new_file error filename\n"},
      {"ca.pem", "ed.key", "/CN=a", 512, "CA certificate and CA private key do not match\n"},
      {"ca.pem", "locked.key", "/CN=a", 512, "CA certificate and CA private key do not match\n"},
      {"ed.pem", "ed.key", "/CN=a", 512, "Can't sign the client certificate\n"},
      {"ca.pem", "ca.key", "/CN=", 512, nullptr},
      {"ca.pem", "ca.key", nullptr, 512, "Invalid Parameter\n"},
      {"ca.pem", "ca.key", "/CN=a", -1, "dl_cert_build_rsa_key() fail\n"},
      {"ca.pem", "ca.key", "/CN=a", 16385, "dl_cert_build_rsa_key() fail\n"},
  };
  // clang-format on
  write("client.pem", "what was there");
  {
    const full_disk disk;
    EXPECT_EQ(generate("/CN=a"), 0);
  }
  EXPECT_TRUE(was_logged("3 Can't write " + cert_)) << log();
  EXPECT_EQ(read("key.pem") + read("client.pem"), "(absent)what was there");
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << "row " << &row - rows);
    ca_cert_ = row.ca_cert;
    ca_key_ = row.ca_key;
    EXPECT_EQ(generate(row.subject, row.bits), -1);
    EXPECT_EQ(read("key.pem") + read("client.pem"), "(absent)what was there");
    EXPECT_TRUE(!row.logged || was_logged(row.logged)) << log();
  }
}

}  // namespace
}  // namespace test
