// The device certificate: what is installed, what is refused with which code, and that a refusal changes
// nothing.
#include <regex>

#include "include/fetchrig_openssl.h"
#include "tests/support/cert_fixture.h"

namespace test {
namespace {

constexpr const char* custom = "config/server/WebServer.pem";
constexpr auto whole = dl_install_ser_ca;
constexpr auto part = dl_install_ser_ca_separate;

// A certificate and its key as PEM texts.
struct pem_pair {
  std::shared_ptr<EVP_PKEY> made = new_ec_key();
  std::string cert = pem_of(make_identity("Device", made).certificate.get());
  std::string key = pem_of(made.get()), both = cert + key;
};

class device_cert : public cert_test {
 protected:
  device_cert() { dl_set_option(DL_OPT_KEY_PASSPHRASE, "open sesame"); }

  // Installs a file with the bytes `by` one of the two functions, to `path`; its code and whether `line` was
  // logged.
  void install(const std::string& bytes, int (*by)(const char*), const std::string& target, int code = 0,
               const char* line = nullptr) {
    const std::string file = write("new.pem", bytes);
    dl_set_option(DL_OPT_DEVICE_CERT_FILE, target.c_str());
    forget_log();
    EXPECT_EQ(by(file.c_str()), code);
    EXPECT_TRUE(!line || was_logged(line)) << log();
  }
  unsigned mode_of(const std::string& target) const {
    return static_cast<unsigned>(fs::status(target).permissions());
  }

  const std::string custom_ = path(custom);
  const pem_pair pair_, old_;
  const std::string cert_der_ = der_of(certificate_in(pair_.cert).get());
  const std::string locked_key_ = pem_of(pair_.made.get(), "open sesame");
  const std::string foreign_key_ = pem_of(pair_.made.get(), "another pass phrase");
};

TEST_F(device_cert, is_copied_into_new_directories_for_its_owner_alone_and_deleted) {
  for (const char* name : {custom, "$(touch owned)/server/x.pem", "q'u\";ls/-server/x.pem"}) {
    SCOPED_TRACE(name);
    for (const std::string& content : {"a comment\n" + old_.both, pair_.cert + locked_key_}) {
      install(content, whole, path(name));
      EXPECT_EQ(read(name), content);
      EXPECT_EQ(mode_of(path(name)), 0600u);
    }
    EXPECT_EQ(dl_del_ser_ca(), 0);
    EXPECT_EQ(read(name), "(absent)");
  }
  EXPECT_FALSE(fs::exists("owned"));
  const std::string own = write("config/server/own.pem", pair_.both);
  dl_set_option(DL_OPT_DEVICE_CERT_FILE, own.c_str());
  EXPECT_EQ(dl_install_ser_ca(own.c_str()), 0);
  EXPECT_EQ(read("config/server/own.pem"), pair_.both) << "a file copied to itself";
}

TEST_F(device_cert, refusals_leave_the_installed_one) {
  const std::string crl = crl_pem_of(make_identity("CA", pair_.made));
  const std::string factory = write("config/phonedev/WebServer.pem", pem_pair().both);
  // clang-format off
  const struct { const char* name; std::string file; uint32_t method; int code; const char* logged; } rows[] = {
      {"certificate alone", pair_.cert, 0, -2, "Can't load private key from ser_ca_file"},
      {"wrong pass phrase", pair_.cert + foreign_key_, 0, -2, "Can't load private key from ser_ca_file"},
      {"no certificate", crl + pair_.key, 0, -3, "Can't load public key from ser_ca_file\n"},
      {"key of another", pair_.cert + old_.key, 0, -4, "Private key does not match the certificate public key\n"},
      {"cut certificate", pair_.cert.substr(0, 200), 0, -5, "Can't open ca file ser_ca_file\n"},
      {"empty", "", 0, -5, "Can't open ca file ser_ca_file\n"},
      {"SSL 2.0", pair_.both, 1, -5, "SSL_CTX_new error\n"},
      {"SSL 3.0", pair_.both, 2, -5, "SSL_CTX_new error\n"},
      {"method 7", pair_.both, 7, -7, "Wrong method"},
      {"as installed", old_.both, 0, -7, "cert file same to custom device cert file\n"},
      {"as shipped", read_file(factory), 3, -8, "cert file same to factory prefabrication device cert flie\n"},
  };
  // clang-format on
  write(custom, old_.both);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    g_dl_cfg.ssl_method = row.method;  // dl_set_option() takes no number above 3
    install(row.file, whole, custom_, row.code, row.logged);
    EXPECT_EQ(read(custom), old_.both);
  }
}

TEST_F(device_cert, full_disk_keeps_the_installed_one) {
  write(custom, old_.both);
  const std::string target = write("config/server/link's target.pem", old_.cert),
                    link = path("config/server/x.pem");
  fs::create_symlink("link's target.pem", link);
  const std::string file = write("new.pem", pair_.both);
  for (const std::string& device : {custom_, link}) {
    dl_set_option(DL_OPT_DEVICE_CERT_FILE, device.c_str());
    const std::string before = read_file(device);
    const full_disk disk;
    EXPECT_EQ(whole(file.c_str()), 0);
    EXPECT_EQ(part(file.c_str()), -1);
    EXPECT_TRUE(was_logged("3 Can't write " + device)) << log();
    forget_log();
    EXPECT_EQ(read_file(device), before);
  }
  EXPECT_EQ(std::distance(fs::directory_iterator(path("config/server")), {}), 3) << "and nothing beside it";
}

TEST_F(device_cert, links_devices_and_modes_stay_as_the_administrator_set_them) {
  const std::string target = write("elsewhere/own.pem", old_.both), link = path("config/server/x.pem");
  fs::create_directories(path("config/server"));
  fs::create_symlink("../../elsewhere/own.pem", link);
  fs::create_symlink("/dev/null", path("config/server/null"));
  for (const auto& by : {whole, part}) {
    for (const unsigned mode : {0600u, 0640u, 0644u, 0666u}) {
      fs::permissions(target, fs::perms(mode));
      install(by == whole ? pair_.both : pair_.key, by, link);
      EXPECT_EQ(read_file(target), pair_.both);
      EXPECT_EQ(mode_of(target), mode == 0640 ? mode : 0600) << "what all could read, the owner alone can";
    }
    install(pair_.both, by, path("config/server/null"));
    EXPECT_TRUE(fs::is_character_file("/dev/null"));
    fs::remove(target);
    install(pair_.both, by, link);
    EXPECT_EQ(read_file(target), pair_.both) << "a link to nothing yet";
  }
  EXPECT_TRUE(fs::is_symlink(link));
  fs::permissions(path("config/server"), fs::perms(01777));
  if (lchown(link.c_str(), 65534, 65534) != 0) return;  // for root: a stranger's link in a folder for all
  install(old_.both, part, link, -1, "Can't write ");
  EXPECT_EQ(read_file(target), pair_.both);
}

TEST_F(device_cert, unusable_paths_and_sources) {
  write("config/server", "a file where the directory should be");
  install(pair_.both, whole, "", -7, "Wrong server ca path\n");
  install(pair_.both, whole, "/WebServer.pem", -7, "Wrong server ca path\n");
  install(pair_.both, whole, path("a/b/server/WebServer.pem"), -6, "Can't open trust_path\n");
  install(pair_.both, whole, custom_, -6, "Can't open serverdir\n");
  install(pair_.both, part, custom_, -1, "Can't open serverdir\n");
  install(pair_.both, part, path("config/WebServer.pem"), -1, "server cert dir err");
  install(pair_.both, part, path("server-certs/x.pem"), -1, "Can't write ");
  EXPECT_TRUE(fs::is_empty(path("server"))) << "all up to the first \"server\" is made";
  EXPECT_EQ(whole(path("absent").c_str()), -5);
  EXPECT_EQ(part(path("absent").c_str()), -1);
  EXPECT_EQ(whole(nullptr), -5);
  EXPECT_EQ(part(nullptr), -1);
  EXPECT_TRUE(was_logged("Invaild paramter\n"));
}

TEST_F(device_cert, parts_are_completed_from_the_current_file) {
  const std::string new_cert = pair_.cert + old_.key, new_key = old_.cert + pair_.key;
  // clang-format off
  const struct { const char* name; std::string part, current, result; bool belong; } rows[] = {
      {"certificate, no file", pair_.cert, "", pair_.cert, true},
      {"both, complete file", pair_.key + pair_.cert, old_.both, pair_.both, true},
      {"certificate, file with a key", pair_.cert, old_.key, new_cert, false},
      {"certificate, garbage", pair_.cert, "garbage", pair_.cert, true},
      {"certificate in DER", cert_der_, old_.both, new_cert, false},
      {"key in DER", der_of(pair_.made.get()), old_.both, new_key, false},
      {"encrypted key", locked_key_, old_.both, new_key, false},
      {"key, file in DER", pair_.key, cert_der_, pair_.both, true},
  };
  // clang-format on
  fs::create_directory(path("config"));
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const bool is_new = row.current.empty();
    if (!is_new) fs::permissions(write(custom, row.current), fs::perms{0640});
    install(row.part, part, custom_);
    EXPECT_EQ(read(custom), row.result);
    EXPECT_EQ(was_logged("Bio_new_file dev cert err\n"), is_new);
    EXPECT_EQ(was_logged("device certificate and private key do not belong together\n"), !row.belong);
    EXPECT_EQ(mode_of(custom_), is_new ? 0600u : 0640u);
  }
  const std::string locked_der = path("locked.der");
  openssl("pkcs8 -topk8 -outform DER -passout pass:x -in " + write("key", old_.key) + " -out " + locked_der);
  const std::string giant = old_.both + std::string(16 << 20, ' '),
                    damaged = old_.cert + old_.key.substr(0, 90);
  const std::string cut_key = der_of(pair_.made.get()).substr(0, 90);
  for (const std::string& present : {old_.cert + foreign_key_, read_file(locked_der),
                                     read_file(locked_der).substr(0, 90), cut_key, giant, damaged}) {
    SCOPED_TRACE(present.substr(0, 30));
    write(custom, present);
    install(pair_.cert, part, custom_, -1);
    EXPECT_EQ(read(custom) == present, true) << "a key that cannot be opened now is not lost";
    EXPECT_TRUE(was_logged("the private key of the present") || was_logged("Bio_new_file dev cert err\n"))
        << log();
  }
  const std::string trusted = std::regex_replace(old_.cert, std::regex("CERT"), "TRUSTED CERT");
  write(custom, trusted + old_.key);
  install(pair_.key, part, custom_, -1, "the present device certificate can't be read\n");
  EXPECT_EQ(read(custom), trusted + old_.key);
  write(custom, cert_der_.substr(0, 100));
  install(pair_.key, part, custom_, -1, "the present device certificate can't be read\n");
  EXPECT_EQ(read(custom), cert_der_.substr(0, 100));
  write(custom, pair_.both);
  for (const std::string& nothing : {pair_.cert.substr(0, 300), cert_der_.substr(0, 100), foreign_key_}) {
    install(nothing, part, custom_, -1, "load dev cert err\n");
    EXPECT_EQ(read(custom), pair_.both);
  }
  install(old_.cert + foreign_key_, part, custom_, -1, "the private key of the given file can't be opened\n");
  install(trusted + old_.key, part, custom_, -1, "the certificate of the given file can't be read\n");
  EXPECT_EQ(read(custom), pair_.both) << "no part of one pair stands beside a part of the other";
}

}  // namespace
}  // namespace test
