// Certificate and key files: encodings, pass phrases, hashes, the rewriting of DER files and the shell
// commands.
#include "cert/cert_file.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <signal.h>
#include <sys/resource.h>

#include "cert/passphrase.h"
#include "cert/shell.h"
#include "core/openssl_owners.h"
#include "core/owners.h"
#include "include/fetchrig_openssl.h"
#include "tests/support/cert_fixture.h"

namespace test {
namespace {

using namespace fetchrig;
using namespace std::string_literals;

constexpr const char* scratch = "/tmp/ca_tmp.crt";

class cert_file : public cert_test {
 protected:
  // The functions under the calls leave OpenSSL's reasons to their callers.
  ~cert_file() override { ERR_clear_error(); }

  const identity ca_ = make_identity("CA", new_ec_key());
  const std::string pem_ = pem_of(ca_.certificate.get()), der_ = der_of(ca_.certificate.get());
};

TEST_F(cert_file, ToldApartByContent) {
  const struct {
    const char* name;
    std::string content;
    int encoding;
  } rows[] = {{"empty", "", encoding_der},
              {"first line", "-----BEGIN CERTIFICATE-----\n", encoding_pem},
              {"text before", std::string(5000, 'a') + "\nmore\n-----BEGIN X-----", encoding_pem},
              {"ends the first part of a line", std::string(1018, 'a') + "BEGIN", encoding_pem},
              {"across two parts of a line", std::string(1020, 'a') + "BEGIN", encoding_der}};
  for (const auto& row : rows) {
    EXPECT_EQ(cert_file_format(write("file", row.content).c_str()), row.encoding) << row.name;
  }
  EXPECT_EQ(cert_file_format(path("absent").c_str()), encoding_none);
  EXPECT_EQ(cert_file_format(nullptr), encoding_none);
}

TEST_F(cert_file, DerIsReplacedByPemOfTheSameMode) {
  const std::string der = write("ca.der", der_), pem = write("ca.pem", pem_), link = path("link");
  fs::permissions(der, fs::perms(0640));
  fs::create_symlink(der, link);
  fs::create_symlink(write("victim", "precious"), scratch);
  const auto hash =
      static_cast<uint32_t>(std::stoul(openssl("x509 -noout -subject_hash -in " + pem), nullptr, 16));
  EXPECT_EQ(ca_file_hash(pem.c_str()), hash);
  EXPECT_TRUE(logged().empty());
  EXPECT_EQ(ca_file_hash(link.c_str()), hash);
  EXPECT_EQ(read("ca.der"), der_) << "a link is replaced, its target kept";
  EXPECT_EQ(ca_file_hash(der.c_str()), hash);
  for (const std::string& file : {link, der}) {
    EXPECT_EQ(read_file(file), pem_);
    EXPECT_EQ(fs::symlink_status(file).permissions(), fs::perms(0640));
  }
  EXPECT_EQ(read("victim"), "precious") << "a link under the scratch name is not followed";
  EXPECT_EQ(logged(), std::vector<std::string>(2, "6 convert to PEM code\n"));
  EXPECT_FALSE(fs::exists(scratch));
}

TEST_F(cert_file, DerThatCannotBeReplacedStays) {
  const std::string der = write("ca.der", der_);
  fs::create_directory(scratch);
  EXPECT_EQ(ca_file_hash(der.c_str()), 0u);
  EXPECT_TRUE(was_logged("3 open file err\n")) << log();
  fs::remove(scratch);

  rlimit limit;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
  const rlimit small{10, limit.rlim_max};
  const auto before = signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  EXPECT_EQ(ca_file_hash(der.c_str()), 0u);
  setrlimit(RLIMIT_FSIZE, &limit);
  signal(SIGXFSZ, before);
  EXPECT_TRUE(was_logged("3 write scratch file errno " + std::to_string(EFBIG))) << log();
  EXPECT_FALSE(fs::exists(scratch));

  const unique_fd open_file(open(der.c_str(), O_RDONLY));
  const std::string elsewhere = "/proc/self/fd/" + std::to_string(open_file.get());  // another file system
  EXPECT_EQ(ca_file_hash(elsewhere.c_str()), 0u);
  EXPECT_TRUE(was_logged("3 rename errno " + std::to_string(EXDEV))) << log();
  fs::remove(scratch);
  EXPECT_EQ(read("ca.der"), der_);
}

TEST_F(cert_file, FilesWithoutACertificateHaveNoHash) {
  static constexpr const char* unreadable = "3 unable to load certificate ca_file\n";
  const struct {
    const char* name;
    std::string content;
    std::string logged = unreadable;
  } rows[] = {{".", "", "5 path is directory, ret\n"},
              {"absent", "", "3 Bio_new_file error ca_file\n"},
              {"empty", ""},
              {"cut PEM", pem_.substr(0, pem_.size() - 40)},
              {"cut DER", der_.substr(0, der_.size() - 1)},
              {"key alone", pem_of(ca_.key.get())},
              {"claims 4 GiB", "\x30\x84\xff\xff\xff\xff\x30"},
              {"two MiB of a byte", std::string(2 << 20, '\x30')}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const bool is_file = row.logged == unreadable;
    if (is_file) write(row.name, row.content);
    forget_log();
    EXPECT_EQ(ca_file_hash(path(row.name).c_str()), 0u);
    EXPECT_EQ(logged(), std::vector{row.logged});
    EXPECT_TRUE(!is_file || read(row.name) == row.content);
  }
  EXPECT_EQ(ca_file_hash(nullptr), 0u);
}

TEST_F(cert_file, KeysOpenWithTheConfiguredPassPhrase) {
  const std::string locked = pem_of(ca_.key.get(), "opensesame");
  const struct {
    std::string content;
    const char* phrase;
    bool opens;
  } rows[] = {{pem_of(ca_.key.get()), "", true}, {der_of(ca_.key.get()), "", true},
              {locked, "opensesame", true},      {locked, "", false},
              {locked, "other", false},          {pem_, "", false}};
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    dl_set_option(DL_OPT_KEY_PASSPHRASE, row.phrase);
    const std::string file = write("key", row.content);
    const unique_bio bio(BIO_new_file(file.c_str(), "r"));
    EXPECT_EQ(unique_pkey(load_key_bio(cert_file_format(file.c_str()), bio.get())) != nullptr, row.opens);
    EXPECT_EQ(load_key_bio(encoding_none, bio.get()), nullptr);
    EXPECT_EQ(load_cert_bio(encoding_none, bio.get()), nullptr);
  }
}

TEST_F(cert_file, PassPhraseIsCutToTheBuffer) {
  char given[] = "user data", buffer[9] = "########";
  dl_set_option(DL_OPT_KEY_PASSPHRASE, "secret");
  const struct {
    int size;
    char* user_data;
    int length;
    std::string buffer;
  } rows[] = {{0, given, 0, "########"},
              {4, given, 4, "user####"},  // OpenSSL counts, without a terminator
              {4, nullptr, 3, "sec\0####"s},
              {8, nullptr, 6, "secret\0#"s}};
  for (const auto& row : rows) {
    EXPECT_EQ(password_cb(buffer, row.size, 0, row.user_data), row.length);
    EXPECT_EQ(std::string(buffer, 8), row.buffer);
  }
  EXPECT_TRUE(was_logged("6 num is 4, pwd length:3\n")) << log();
  EXPECT_LT(no_password_cb(buffer, 8, 0, nullptr), 0);
}

// The shell itself is the judge: "printf" shows the words it makes of a command.
TEST_F(cert_file, AnyPathStaysOneWordOfTheCommand) {
  EXPECT_EQ(shell_command(8, "rm", {"/a/b"}), "rm /a/b") << "an ordinary path stands as it is";
  EXPECT_EQ(shell_command(7, "rm", {"/a/b"}), std::nullopt);
  EXPECT_EQ(run_shell(std::nullopt), -1);
  EXPECT_TRUE(was_logged("3 command is too long, not run\n")) << log();
  std::string every_byte;
  for (int c = 1; c < 256; ++c) every_byte += static_cast<char>(c);
  fs::current_path(path(""));
  for (const std::string& one :
       {""s, "a b"s, "it's"s, "$(touch hit)"s, "*"s, "~"s, "a\nb\n"s, "-rf"s, "#"s, every_byte}) {
    const auto command = shell_command(1 << 12, "printf '%s|' ", {one, "last"});
    ASSERT_TRUE(command);
    ASSERT_EQ(run_shell(*command + " > words"), 0);
    EXPECT_EQ(read("words"), (one.starts_with('-') ? "./" : "") + one + "|last|");
  }
  EXPECT_FALSE(fs::exists("hit"));
  fs::current_path("/");
}

}  // namespace
}  // namespace test
