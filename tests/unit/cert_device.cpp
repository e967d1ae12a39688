// The device certificate: what is installed, what is refused and with which code, and that a refusal changes
// nothing.
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "include/fetchrig_openssl.h"
#include "tests/support/cert_place.h"
#include "tests/support/pki.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* custom = "config/server/WebServer.pem";
constexpr const char* factory = "config/phonedev/WebServer.pem";

// A certificate and its key as PEM texts.
struct pem_pair {
  std::string certificate;
  std::string key;
  std::string both() const { return certificate + key; }
};

pem_pair new_pair(std::shared_ptr<EVP_PKEY> key = test::new_ec_key(), const EVP_MD* digest = EVP_sha256()) {
  const test::identity made = test::make_identity("Device", std::move(key), {.digest = digest});
  return {test::pem_of(made.certificate.get()), test::pem_of(made.key.get())};
}

class DeviceCert : public testing::Test {
 protected:
  // Option 2 is the custom device certificate, whose directories do not exist yet.
  DeviceCert() { set_device_file(custom); }

  void set_device_file(const std::string& name) {
    dl_set_option(DL_OPT_DEVICE_CERT_FILE, place_.path(name).c_str());
  }

  int install(const std::string& bytes) {
    const std::string file = place_.write("new.pem", bytes);
    place_.forget_log();
    const int rc = dl_install_ser_ca(file.c_str());
    EXPECT_EQ(place_.read("new.pem"), bytes);
    EXPECT_EQ(ERR_peek_error(), 0u);
    return rc;
  }

  int install_separate(const std::string& bytes) {
    const std::string file = place_.write("part", bytes);
    place_.forget_log();
    return dl_install_ser_ca_separate(file.c_str());
  }

  test::cert_place place_;
  pem_pair pair_ = new_pair();
};

mode_t mode_of(const std::string& path) {
  struct stat status = {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

TEST_F(DeviceCert, InstallCopiesTheFileAndMakesItsDirectories) {
  fs::create_directory(place_.path("config"));
  const std::string file = "a comment\n" + pair_.both();
  EXPECT_EQ(install(file), 0);
  EXPECT_EQ(place_.read(custom), file);
  EXPECT_EQ(mode_of(place_.path(custom)), 0600u) << "it holds a private key";

  const std::string other = new_pair().both();
  EXPECT_EQ(install(other), 0);
  EXPECT_EQ(place_.read(custom), other);

  fs::remove(place_.path(custom));
  fs::create_symlink(place_.path("elsewhere"), place_.path(custom));
  EXPECT_EQ(install(file), 0);
  EXPECT_EQ(mode_of(place_.path("elsewhere")), 0600u);
}

TEST_F(DeviceCert, BothDirectoriesAreMadeWhenMissing) {
  EXPECT_EQ(install(pair_.both()), 0);
  EXPECT_EQ(place_.read(custom), pair_.both());
}

TEST_F(DeviceCert, OddPathsStayOneWord) {
  for (const char* name :
       {"a b/server/x.pem", "$(touch owned)/server/x.pem", "q'u\"o/-server/x.pem", ";rm -rf x/server/x"}) {
    SCOPED_TRACE(name);
    set_device_file(name);
    EXPECT_EQ(install(pair_.both()), 0);
    EXPECT_EQ(place_.read(name), pair_.both());
    EXPECT_EQ(dl_del_ser_ca(), 0);
    EXPECT_EQ(place_.read(name), "(absent)");
  }
  EXPECT_FALSE(fs::exists("owned"));
}

struct refusal_case {
  const char* name;
  std::string file;
  uint32_t method;
  const char* passphrase;
  int code;
  const char* logged;  // null: nothing expected
};

TEST_F(DeviceCert, RefusalsAndTheirCodes) {
  const auto ec_key = test::new_ec_key();
  const std::string locked = new_pair(ec_key).certificate + test::pem_of(ec_key.get(), "open sesame");
  const pem_pair weak = new_pair(test::new_rsa_key(1024), EVP_md5());
  const std::string crl = test::crl_pem_of(test::make_identity("CA", ec_key));
  const std::string installed = new_pair().both();
  const std::string shipped = new_pair().both();
  place_.write(factory, shipped);
  const char* no_key = "Can't load private key from ser_ca_file";
  const char* no_ca = "Can't open ca file ser_ca_file\n";
  const char* mismatch = "Private key does not match the certificate public key\n";
  const refusal_case cases[] = {
      {"certificate alone", pair_.certificate, 0, "", -2, no_key},
      {"encrypted key without pass phrase", locked, 0, "", -2, no_key},
      {"encrypted key, wrong pass phrase", locked, 0, "sesame", -2, no_key},
      {"no certificate", crl + pair_.key, 0, "", -3, "Can't load public key from ser_ca_file\n"},
      {"key of another", pair_.certificate + new_pair().key, 0, "", -4, mismatch},
      {"key of another kind", pair_.certificate + weak.key, 0, "", -4, mismatch},
      {"key alone", pair_.key, 0, "", -5, no_ca},
      {"garbage", std::string("\x30\x82\0garbage", 10), 0, "", -5, no_ca},
      {"cut certificate", pair_.certificate.substr(0, 200), 0, "", -5, no_ca},
      {"empty", "", 0, "", -5, no_ca},
      {"SSL 2.0", pair_.both(), 1, "", -5, "SSL_CTX_new error\n"},
      {"SSL 3.0", pair_.both(), 2, "", -5, "SSL_CTX_new error\n"},
      {"method 7", pair_.both(), 7, "", -7, "Wrong method"},
      {"same as the custom one", installed, 0, "", -7, "cert file same to custom device cert file\n"},
      {"same as the factory one", shipped, 0, "", -8,
       "cert file same to factory prefabrication device cert flie\n"},
      {"encrypted key and its pass phrase", locked, 0, "open sesame", 0, nullptr},
      {"old signature", weak.both(), 3, "", 0, nullptr},
  };
  for (const refusal_case& row : cases) {
    SCOPED_TRACE(row.name);
    place_.write(custom, installed);
    dl_set_option(DL_OPT_KEY_PASSPHRASE, row.passphrase);
    g_dl_cfg.ssl_method = row.method;  // dl_set_option() takes no number above 3
    EXPECT_EQ(install(row.file), row.code);
    EXPECT_TRUE(!row.logged || place_.logged(row.logged)) << place_.log();
    EXPECT_EQ(place_.read(custom), row.code == 0 ? row.file : installed);
    EXPECT_EQ(place_.read(factory), shipped);
  }
}

TEST_F(DeviceCert, UnusablePaths) {
  for (const char* path : {"", "WebServer.pem", "/WebServer.pem", "server/WebServer.pem"}) {
    SCOPED_TRACE(path);
    dl_set_option(DL_OPT_DEVICE_CERT_FILE, path);
    EXPECT_EQ(install(pair_.both()), -7);
    EXPECT_TRUE(place_.logged("Wrong server ca path\n"));
  }
  g_dl_cfg.ssl_method = 7;
  EXPECT_EQ(install(pair_.both()), -7);
  EXPECT_TRUE(place_.logged("Wrong server ca path\n")) << "the path is checked before the method";
  g_dl_cfg.ssl_method = 0;

  set_device_file("a/b/server/WebServer.pem");
  EXPECT_EQ(install(pair_.both()), -6);
  EXPECT_TRUE(place_.logged("Can't open trust_path\n"));
  place_.write("config/server", "a file where the directory should be");
  set_device_file(custom);
  EXPECT_EQ(install(pair_.both()), -6);
  EXPECT_TRUE(place_.logged("Can't open serverdir\n"));
  EXPECT_EQ(place_.read("config/server"), "a file where the directory should be");
}

TEST_F(DeviceCert, SourcesThatAreNoFile) {
  fs::create_symlink("absent", place_.path("dangling"));
  for (const char* name : {"absent", "dangling", "."}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(dl_install_ser_ca(place_.path(name).c_str()), -5);
    EXPECT_EQ(dl_install_ser_ca_separate(place_.path(name).c_str()), -1);
  }
  EXPECT_EQ(dl_install_ser_ca(nullptr), -5);
  EXPECT_EQ(dl_install_ser_ca_separate(nullptr), -1);
  EXPECT_TRUE(place_.logged("Invaild paramter\n"));
  EXPECT_FALSE(fs::exists(place_.path("config")));
}

TEST_F(DeviceCert, InstallingTheInstalledFileUnderAnotherNameKeepsIt) {
  const std::string own = place_.write("config/server/own.pem", pair_.both());
  set_device_file("config/server/own.pem");
  EXPECT_EQ(dl_install_ser_ca(own.c_str()), 0);
  EXPECT_EQ(place_.read("config/server/own.pem"), pair_.both());
}

struct separate_case {
  const char* name;
  std::string part;
  std::string current;  // "" none
  std::string result;
};

TEST_F(DeviceCert, PartsAreCompletedFromTheCurrentFile) {
  const pem_pair old = new_pair();
  const auto certificate = test::certificate_in(pair_.certificate);
  const auto key = test::key_in(pair_.key);
  const separate_case cases[] = {
      {"certificate, complete file", pair_.certificate, old.both(), pair_.certificate + old.key},
      {"key, complete file", pair_.key, old.both(), old.certificate + pair_.key},
      {"both, complete file", pair_.both(), old.both(), pair_.both()},
      {"key before certificate", pair_.key + pair_.certificate, old.both(), pair_.both()},
      {"certificate, no file", pair_.certificate, "", pair_.certificate},
      {"key, no file", pair_.key, "", pair_.key},
      {"both, no file", pair_.both(), "", pair_.both()},
      {"certificate, file with a certificate", pair_.certificate, old.certificate, pair_.certificate},
      {"certificate, file with a key", pair_.certificate, old.key, pair_.certificate + old.key},
      {"key, file with a certificate", pair_.key, old.certificate, old.certificate + pair_.key},
      {"certificate, garbage", pair_.certificate, "garbage", pair_.certificate},
      {"certificate in DER", test::der_of(certificate.get()), old.both(), pair_.certificate + old.key},
      {"key in DER", test::der_of(key.get()), old.both(), old.certificate + pair_.key},
      {"encrypted key", test::pem_of(key.get(), "open sesame"), old.both(), old.certificate + pair_.key},
      {"key, file in DER", pair_.key, test::der_of(certificate.get()), pair_.both()},
  };
  dl_set_option(DL_OPT_KEY_PASSPHRASE, "open sesame");
  for (const separate_case& row : cases) {
    SCOPED_TRACE(row.name);
    fs::remove_all(place_.path("config"));
    fs::create_directory(place_.path("config"));
    if (!row.current.empty()) chmod(place_.write(custom, row.current).c_str(), 0640);
    EXPECT_EQ(install_separate(row.part), 0);
    EXPECT_EQ(place_.read(custom), row.result);
    EXPECT_EQ(place_.logged("Bio_new_file dev cert err\n"), row.current.empty());
    EXPECT_EQ(place_.logged("device certificate and private key do not belong together\n"),
              row.result.starts_with(pair_.certificate) ? row.result.ends_with(old.key)
                                                        : row.result == old.certificate + pair_.key);
    EXPECT_EQ(mode_of(place_.path(custom)), row.current.empty() ? 0600u : 0640u);
  }
}

TEST_F(DeviceCert, PartsThatHoldNothingChangeNothing) {
  place_.write(custom, pair_.both());
  dl_set_option(DL_OPT_KEY_PASSPHRASE, "wrong");
  const std::string whole = pair_.certificate;
  for (const std::string& part : {std::string(), std::string("garbage"), whole.substr(0, whole.size() / 2),
                                  test::pem_of(test::new_ec_key().get(), "right"), std::string(4 << 20, '0'),
                                  test::der_of(test::certificate_in(whole).get()).substr(0, 100)}) {
    EXPECT_EQ(install_separate(part), -1);
    EXPECT_TRUE(place_.logged("load dev cert err\n"));
    EXPECT_EQ(place_.read(custom), pair_.both());
  }
}

TEST_F(DeviceCert, PartsNeedAPathThroughAServerDirectory) {
  set_device_file("config/WebServer.pem");
  EXPECT_EQ(install_separate(pair_.certificate), -1);
  EXPECT_TRUE(place_.logged("server cert dir err"));

  set_device_file("missing/server/WebServer.pem");
  EXPECT_EQ(install_separate(pair_.certificate), -1);
  EXPECT_TRUE(place_.logged("Can't open serverdir\n"));

  set_device_file("server-certs/WebServer.pem");  // the directory made ends behind the first "server"
  EXPECT_EQ(install_separate(pair_.certificate), -1);
  EXPECT_TRUE(fs::is_directory(place_.path("server")));
  EXPECT_TRUE(place_.logged("Can't write " + place_.path("server-certs/WebServer.pem")));

  set_device_file("server");
  EXPECT_EQ(install_separate(pair_.certificate), -1) << "the file itself is a directory";
  EXPECT_TRUE(fs::is_empty(place_.path("server")));
}

TEST_F(DeviceCert, Deleting) {
  place_.write(custom, pair_.both());
  dl_ca_info info = {};
  EXPECT_EQ(dl_get_ser_ca_info(&info), 0);
  EXPECT_EQ(dl_del_ser_ca(), 0);
  EXPECT_EQ(place_.read(custom), "(absent)");
  EXPECT_EQ(dl_get_ser_ca_info(&info), -2);

  testing::internal::CaptureStderr();  // "rm" complains there
  EXPECT_EQ(dl_del_ser_ca(), 0);
  set_device_file("config/server");
  EXPECT_EQ(dl_del_ser_ca(), 0);
  dl_set_option(DL_OPT_DEVICE_CERT_FILE, "");
  EXPECT_EQ(dl_del_ser_ca(), 0);
  testing::internal::GetCapturedStderr();
  EXPECT_TRUE(fs::is_directory(place_.path("config/server")));
}

}  // namespace
