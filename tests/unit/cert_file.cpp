// Certificate and key files: encodings, pass phrases, hashes, the rewriting of DER files and the shell
// commands.
#include "cert/cert_file.h"

#include <openssl/err.h>
#include <sys/stat.h>
#include <unistd.h>
#include <filesystem>

#include "cert/passphrase.h"
#include "cert/shell.h"
#include "core/openssl_owners.h"
#include "include/fetchrig_openssl.h"
#include "tests/support/cert_fixture.h"

namespace fetchrig::test {
namespace {

namespace fs = std::filesystem;

// The functions under the calls leave OpenSSL's reasons to their callers.
class cert_file : public cert_test {
 protected:
  ~cert_file() override { ERR_clear_error(); }
};

constexpr const char* scratch = "/tmp/ca_tmp.crt";

uint32_t judged_hash(const std::string& path) {
  return static_cast<uint32_t>(std::stoul(x509_value(path, "subject_hash"), nullptr, 16));
}

TEST_F(cert_file, ToldApartByContent) {
  struct {
    const char* name;
    std::size_t filler;
    const char* content;
    int encoding;
  } const cases[] = {
      {"empty", 0, "", encoding_der},
      {"pem", 0, "-----BEGIN CERTIFICATE-----\n", encoding_pem},
      {"text before", 5000, "\nmore\n-----BEGIN X-----", encoding_pem},
      {"within the first part of a line", 1018, "BEGIN", encoding_pem},
      {"across two parts of a line", 1020, "BEGIN", encoding_der},
      {"within the second part", 1023, "BEGIN", encoding_pem},
      {"other case", 0, "-----begin certificate-----\n", encoding_der},
  };
  for (const auto& row : cases) {
    const std::string file = write("file", std::string(row.filler, 'a') + row.content);
    EXPECT_EQ(cert_file_format(file.c_str()), row.encoding) << row.name;
  }
  EXPECT_EQ(cert_file_format(path("missing").c_str()), encoding_none);
  EXPECT_EQ(cert_file_format(nullptr), encoding_none);
}

TEST_F(cert_file, HashIsTheJudgesAndDerBecomesPem) {
  const std::string pem = make_cert("ca.pem", "/O=Acme/CN=Root 1");
  const std::string der = to_der(pem, "ca.der");
  const uint32_t expected = judged_hash(pem);
  fs::permissions(der, fs::perms(0640));

  EXPECT_EQ(ca_file_hash(pem.c_str()), expected);
  EXPECT_EQ(cert_file_format(der.c_str()), encoding_der);
  EXPECT_EQ(ca_file_hash(der.c_str()), expected);
  EXPECT_EQ(read_file(der), read_file(pem));
  EXPECT_EQ(fs::status(der).permissions(), fs::perms(0640));
  EXPECT_TRUE(was_logged("6 convert to PEM code\n"));
  EXPECT_FALSE(fs::exists(scratch));
}

TEST_F(cert_file, LinkToDerIsReplacedByAFile) {
  const std::string der = to_der(make_cert("ca.pem", "/CN=Linked"), "ca.der");
  const std::string before = read_file(der);
  fs::create_symlink(der, path("link"));
  EXPECT_EQ(ca_file_hash(path("link").c_str()), judged_hash(path("ca.pem")));
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(path("link"))));
  EXPECT_EQ(cert_file_format(path("link").c_str()), encoding_pem);
  EXPECT_EQ(read_file(der), before);
}

TEST_F(cert_file, FilesWithoutACertificateHaveNoHash) {
  const std::string pem = read_file(make_cert("ca.pem", "/CN=Cut"));
  const std::string der = read_file(to_der(path("ca.pem"), "ca.der"));
  struct {
    const char* name;
    std::string file;
    const char* line;
  } const cases[] = {
      {"directory", path(""), "5 path is directory, ret\n"},
      {"missing", path("missing"), "3 Bio_new_file error ca_file\n"},
      {"empty", write("empty", ""), "3 unable to load certificate ca_file\n"},
      {"cut pem", write("cut.pem", pem.substr(0, pem.size() - 40)), "3 unable to load certificate ca_file\n"},
      {"cut der", write("cut.der", der.substr(0, der.size() - 1)), "3 unable to load certificate ca_file\n"},
      {"key only", path("ca.pem.key"), "3 unable to load certificate ca_file\n"},
      {"claims 4 GiB", write("claim", "\x30\x84\xff\xff\xff\xff\x30"),
       "3 unable to load certificate ca_file\n"},
      {"two MiB of a byte", write("big", std::string(2 << 20, '\x30')),
       "3 unable to load certificate ca_file\n"},
  };
  for (const auto& row : cases) {
    const std::string before = fs::is_regular_file(row.file) ? read_file(row.file) : "";
    logged();
    EXPECT_EQ(ca_file_hash(row.file.c_str()), 0u) << row.name;
    EXPECT_EQ(logged(), std::vector<std::string>{row.line}) << row.name;
    EXPECT_EQ(fs::is_regular_file(row.file) ? read_file(row.file) : "", before) << row.name;
  }
  EXPECT_EQ(ca_file_hash(nullptr), 0u);
}

TEST_F(cert_file, ScratchFileIsNeverOpenedThroughALink) {
  const std::string der = to_der(make_cert("ca.pem", "/CN=Scratch"), "ca.der");
  const std::string victim = write("victim", "precious");
  fs::create_symlink(victim, scratch);
  EXPECT_NE(ca_file_hash(der.c_str()), 0u);
  EXPECT_EQ(read_file(victim), "precious");
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(der)));
}

TEST_F(cert_file, ScratchFileThatCannotBeMadeLeavesTheDerFile) {
  const std::string der = to_der(make_cert("ca.pem", "/CN=Blocked"), "ca.der");
  const std::string before = read_file(der);
  fs::create_directory(scratch);
  EXPECT_EQ(ca_file_hash(der.c_str()), 0u);
  fs::remove(scratch);
  EXPECT_TRUE(was_logged("3 open file err\n"));
  EXPECT_EQ(read_file(der), before);
}

TEST_F(cert_file, FailedRenameLeavesTheDerFile) {
  struct stat there, here;
  if (::stat("/dev/shm", &there) != 0 || ::stat("/tmp", &here) != 0 || there.st_dev == here.st_dev) {
    GTEST_SKIP() << "no second file system";
  }
  std::string other = "/dev/shm/fetchrig-cert-XXXXXX";
  ASSERT_TRUE(mkdtemp(other.data()));
  const std::string der = other + "/ca.der";
  fs::copy_file(to_der(make_cert("ca.pem", "/CN=Far"), "ca.der"), der);
  EXPECT_EQ(ca_file_hash(der.c_str()), 0u);
  EXPECT_TRUE(was_logged("3 rename errno " + std::to_string(EXDEV)));
  EXPECT_EQ(cert_file_format(der.c_str()), encoding_der);
  EXPECT_TRUE(fs::remove(scratch));
  fs::remove_all(other);
}

TEST_F(cert_file, KeysOpenWithTheConfiguredPassPhrase) {
  make_cert("ca.pem", "/CN=Key");
  const std::string plain = path("ca.pem.key");
  openssl("pkcs8 -topk8 -in " + plain + " -passout pass:opensesame -out " + path("locked"));
  openssl("pkey -in " + plain + " -outform DER -out " + path("der"));
  struct {
    const char* file;
    const char* phrase;
    bool opens;
  } const cases[] = {{"ca.pem.key", "", true}, {"der", "", true},          {"locked", "opensesame", true},
                     {"locked", "", false},    {"locked", "other", false}, {"ca.pem", "", false}};
  for (const auto& row : cases) {
    dl_set_option(DL_OPT_KEY_PASSPHRASE, row.phrase);
    const std::string file = path(row.file);
    const unique_bio bio(BIO_new_file(file.c_str(), "r"));
    const unique_pkey key(load_key_bio(cert_file_format(file.c_str()), bio.get()));
    EXPECT_EQ(key != nullptr, row.opens) << row.file << " with '" << row.phrase << "'";
  }
  const unique_bio bio(BIO_new_file(plain.c_str(), "r"));
  EXPECT_EQ(load_key_bio(encoding_none, bio.get()), nullptr);
  EXPECT_EQ(load_cert_bio(encoding_none, bio.get()), nullptr);
}

TEST_F(cert_file, PassPhraseIsCutToTheBuffer) {
  char given[] = "user data";
  char buffer[9] = "########";
  EXPECT_EQ(password_cb(buffer, 4, 0, given), 4);
  EXPECT_STREQ(buffer, "user####");
  dl_set_option(DL_OPT_KEY_PASSPHRASE, "secret");
  EXPECT_EQ(password_cb(buffer, 4, 0, nullptr), 3);
  EXPECT_STREQ(buffer, "sec");
  EXPECT_EQ(std::string(buffer + 4), "####");
  EXPECT_TRUE(was_logged("6 num is 4, pwd length:3\n"));
  EXPECT_EQ(password_cb(buffer, 8, 0, nullptr), 6);
  EXPECT_STREQ(buffer, "secret");
  EXPECT_EQ(password_cb(buffer, 0, 0, given), 0);
  EXPECT_LT(no_password_cb(buffer, 8, 0, nullptr), 0);
}

TEST(shell, OrdinaryPathsStandAsTheyAre) {
  EXPECT_EQ(shell_command(512, "ln -s", {"/phone/ca/00ab12cd", "/phone/ca/ca/00ab12cd.0"}),
            "ln -s /phone/ca/00ab12cd /phone/ca/ca/00ab12cd.0");
  EXPECT_EQ(shell_command(8, "rm", {"/a/b"}), "rm /a/b");
  EXPECT_EQ(shell_command(7, "rm", {"/a/b"}), std::nullopt);
  EXPECT_EQ(run_shell(std::nullopt), -1);
}

// The shell itself is the judge: "set --" shows the words it makes of a command.
TEST_F(cert_file, AnyPathStaysOneWord) {
  std::string every_byte;
  for (int c = 1; c < 256; ++c) every_byte += static_cast<char>(c);
  const std::string paths[] = {"",    "a b",   "it's",   "$(touch hit)", "`touch hit`", ";touch hit",
                               "*",   "~",     "a\nb\n", "\\",           "\"\"'",       "&& touch hit",
                               "-rf", "$HOME", "#",      every_byte};
  fs::current_path(path(""));
  for (const std::string& one : paths) {
    const auto command = shell_command(1 << 12, "printf '%s|' ", {one, "last"});
    ASSERT_TRUE(command);
    ASSERT_EQ(run_shell(*command + " > words"), 0);
    EXPECT_EQ(read_file("words"), (one.starts_with('-') ? "./" : "") + one + "|last|");
  }
  EXPECT_FALSE(fs::exists("hit"));
  fs::current_path("/");
}

}  // namespace
}  // namespace fetchrig::test
