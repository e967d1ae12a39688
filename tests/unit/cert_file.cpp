// Certificate and key files: encodings, pass phrases, hashes, the rewriting of DER files and the shell
// commands.
#include "cert/cert_file.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "cert/passphrase.h"
#include "cert/shell.h"
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

  const identity ca_ = make_identity("CA");
  const std::string pem_ = pem_of(ca_), der_ = der_of(ca_), key_ = pem_of(ca_.key.get());
  const std::string pem_file_ = write("ca.pem", pem_), der_file_ = write("ca.der", der_);
};

TEST_F(cert_file, told_apart_by_content) {
  const auto format_of = [this](const std::string& content) {
    return cert_file_format(write("file", content).c_str());
  };
  EXPECT_EQ(format_of(""), encoding_der);
  EXPECT_EQ(format_of(std::string(5000, 'a') + "\nmore\n-----BEGIN X-----"), encoding_pem);
  EXPECT_EQ(format_of(std::string(1018, 'a') + "BEGIN"), encoding_pem) << "ends a part of a line";
  EXPECT_EQ(format_of(std::string(1019, 'a') + "BEGIN"), encoding_der) << "across two parts of a line";
  EXPECT_EQ(cert_file_format(path("absent").c_str()), encoding_none);
  EXPECT_EQ(cert_file_format(nullptr), encoding_none);
}

TEST_F(cert_file, der_is_replaced_by_pem_of_the_same_mode) {
  const std::string link = path("link");
  fs::create_symlink(der_file_, link);
  fs::permissions(der_file_, fs::perms(0640));
  fs::create_symlink(write("victim", "precious"), scratch);
  const auto hash = std::stoul(openssl("x509 -noout -subject_hash -in " + pem_file_), nullptr, 16);
  EXPECT_EQ(ca_file_hash(pem_file_.c_str()), hash);
  EXPECT_EQ(ca_file_hash(link.c_str()), hash);
  EXPECT_EQ(read("ca.der"), der_) << "a link is replaced, its target kept";
  EXPECT_EQ(ca_file_hash(der_file_.c_str()), hash);
  for (const std::string& file : {link, der_file_}) {
    EXPECT_EQ(read_file(file), pem_);
    EXPECT_EQ(fs::symlink_status(file).permissions(), fs::perms(0640));
  }
  EXPECT_EQ(read("victim"), "precious") << "a link under the scratch name is not followed";
  EXPECT_EQ(logged(), std::vector(2, "6 convert to PEM code\n"s));
  EXPECT_FALSE(fs::exists(scratch));
}

TEST_F(cert_file, der_that_cannot_be_replaced_stays) {
  fs::create_directory(scratch);
  EXPECT_EQ(ca_file_hash(der_file_.c_str()), 0u);
  EXPECT_TRUE(was_logged("3 open file err\n")) << log();
  fs::remove(scratch);

  {
    const full_disk disk;
    EXPECT_EQ(ca_file_hash(der_file_.c_str()), 0u);
  }
  EXPECT_TRUE(was_logged("3 write scratch file errno " + std::to_string(EFBIG))) << log();
  EXPECT_FALSE(fs::exists(scratch));

  const unique_fd open_file(open(der_file_.c_str(), O_RDONLY));
  const std::string elsewhere = "/proc/self/fd/" + std::to_string(open_file.get());  // another file system
  EXPECT_EQ(ca_file_hash(elsewhere.c_str()), 0u);
  EXPECT_TRUE(was_logged("3 rename errno " + std::to_string(EXDEV))) << log();
  fs::remove(scratch);
  EXPECT_EQ(read("ca.der"), der_);
}

// As with a /tmp in memory: the scratch file cannot be renamed across file systems.
TEST_F(cert_file, der_on_another_file_system_is_replaced) {
  struct stat here, there;
  std::string file = "/dev/shm/fetchrig-test.XXXXXX";
  const unique_fd made(mkostemp(file.data(), O_CLOEXEC));
  if (!made || stat("/tmp", &here) != 0 || fstat(made.get(), &there) != 0 || here.st_dev == there.st_dev)
    GTEST_SKIP() << "SKIPPED: no file system beside that of /tmp";
  write_file(file, der_);
  EXPECT_NE(ca_file_hash(file.c_str()), 0u) << log();
  EXPECT_EQ(read_file(file), pem_);
  EXPECT_EQ(fs::status(file).permissions(), fs::perms(0600));
  EXPECT_FALSE(fs::exists(scratch));
  fs::remove(file);
}

TEST_F(cert_file, processes_that_convert_at_once_get_their_own_certificates) {
  std::vector<pid_t> children;
  for (const std::string name : {"a", "b", "c"}) {
    children.push_back(fork());
    if (children.back() != 0) continue;
    const identity own = make_identity(name);
    bool fine = true;
    for (int round = 0; fine && round < 100; ++round) {
      fine = ca_file_hash(write(name, der_of(own)).c_str()) != 0 && read(name) == pem_of(own);
    }
    _exit(fine ? 0 : 1);
  }
  for (const pid_t child : children) {
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
  }
  const unique_fd folder(open("/tmp", O_RDONLY | O_DIRECTORY));
  ASSERT_EQ(flock(folder.get(), LOCK_EX), 0);
  EXPECT_NE(ca_file_hash(der_file_.c_str()), 0u) << "a lock that never ends stops nobody";
  EXPECT_EQ(read_file(der_file_), pem_);
}

TEST_F(cert_file, files_without_a_certificate_have_no_hash) {
  const std::string no_certificate = "3 unable to load certificate ca_file\n";
  EXPECT_EQ(ca_file_hash(nullptr), 0u);
  EXPECT_EQ(ca_file_hash(path("absent").c_str()), 0u);
  EXPECT_EQ(logged(), std::vector(2, "3 Bio_new_file error ca_file\n"s));
  EXPECT_EQ(ca_file_hash(path(".").c_str()), 0u);
  EXPECT_TRUE(was_logged("5 path is directory, ret\n"));
  for (const std::string& content : {""s, key_, pem_.substr(0, 200), der_.substr(0, der_.size() - 1),
                                     "\x30\x84\xff\xff\xff\xff\x30"s, std::string(2 << 20, '\x30')}) {
    SCOPED_TRACE(summary(content));
    forget_log();
    EXPECT_EQ(ca_file_hash(write("file", content).c_str()), 0u);
    EXPECT_EQ(logged(), std::vector{no_certificate});
    EXPECT_EQ(read("file"), content);
  }
}

// Each of them has no end, or one that is far away.
TEST_F(cert_file, devices_pipes_and_giants_are_refused_unread) {
  const std::string pipe = path("pipe"), giant = write("giant", pem_), entry = store() + "entry.0";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  fs::resize_file(giant, 16 << 20);
  EXPECT_NE(ca_file_hash(giant.c_str()), 0u) << "16 MiB are the limit";
  fs::resize_file(giant, std::uintmax_t{300} << 20);
  fs::create_directory(store());
  dl_set_option(DL_OPT_DEVICE_CERT_FILE, path("server/own.pem").c_str());
  for (const std::string& name : {pipe, giant, "/dev/zero"s}) {
    SCOPED_TRACE(name);
    const char *file = name.c_str(), *good = pem_file_.c_str();
    dl_ca_info info = {};
    dl_trust_ca_list list;
    dl_result result = {};
    EVP_PKEY* key = nullptr;
    int reused = 0;
    EXPECT_EQ(dl_get_ca_info(file, &info), -2);
    EXPECT_EQ(dl_install_ca(file), -1);
    EXPECT_EQ(dl_install_ser_ca(file), -5);
    EXPECT_EQ(dl_install_ser_ca_separate(file), -1);
    EXPECT_TRUE(dl_cert_verify(file, nullptr, good, 0, &result) && result.code == DL_VERIFY_OTHER);
    EXPECT_TRUE(dl_cert_verify(good, nullptr, file, 0, &result) && result.code == DL_VERIFY_SETUP);
    EXPECT_EQ(dl_cert_build_rsa_key(file, 512, &key, &reused), name == giant ? -1 : 0);
    EVP_PKEY_free(key);
    fs::create_symlink(file, entry);
    EXPECT_TRUE(dl_get_trust_ca_info(&list) == 0 && list.count == 0);
    EXPECT_TRUE(fs::remove(entry)) << "a listing keeps what it has not read";
  }
  EXPECT_EQ(fs::file_size(giant), 300u << 20) << "no key file to be replaced";
}

TEST_F(cert_file, pass_phrase_is_cut_to_the_buffer) {
  char given[] = "user data", buffer[] = "########";
  dl_set_option(DL_OPT_KEY_PASSPHRASE, "secret");
  EXPECT_EQ(password_cb(buffer, 0, 0, given), 0);
  EXPECT_EQ(password_cb(buffer, 4, 0, given), 4);
  EXPECT_STREQ(buffer, "user####") << "OpenSSL counts, without a terminator";
  EXPECT_EQ(password_cb(buffer, 4, 0, nullptr), 3);
  EXPECT_EQ(std::string(buffer, 8), "sec\0####"s);
  EXPECT_TRUE(was_logged("6 num is 4, pwd length:3\n"));
  EXPECT_EQ(password_cb(buffer, 8, 0, nullptr), 6);
  EXPECT_LT(no_password_cb(buffer, 8, 0, nullptr), 0);
}

// The shell itself is the judge: "printf" shows the words it makes of a command.
TEST_F(cert_file, any_path_stays_one_word_of_the_command) {
  EXPECT_EQ(shell_command(8, "rm", {"/a/b"}), "rm /a/b") << "an ordinary path stands as it is";
  EXPECT_EQ(shell_command(7, "rm", {"/a/b"}), std::nullopt);
  EXPECT_EQ(run_shell(std::nullopt), -1);
  EXPECT_TRUE(was_logged("3 command is too long, not run\n"));
  std::string every_byte;
  for (int c = 1; c < 256; ++c) every_byte += static_cast<char>(c);
  for (const std::string& one : {""s, "it's"s, "$(exit)"s, "*"s, "~"s, "a\nb\n"s, "-rf"s, "#"s, every_byte}) {
    const auto command = shell_command(1 << 12, "printf '%s|' ", {one, "last"});
    ASSERT_EQ(run_shell(command.value() + " >" + path("words")), 0);
    EXPECT_EQ(read("words"), (one.starts_with('-') ? "./" : "") + one + "|last|");
  }
}

// A question that nobody sees would hang: "rm" asks on a terminal.
TEST_F(cert_file, commands_read_nothing_of_the_standard_input) {
  const unique_fd input(dup(STDIN_FILENO)), answers(open(write("answers", "y\n").c_str(), O_RDONLY));
  dup2(answers.get(), STDIN_FILENO);
  EXPECT_EQ(run_shell("read answer"), 1) << "the end of its input";
  dup2(input.get(), STDIN_FILENO);
  EXPECT_EQ(run_shell("exit 3"), -1) << "no status";
  EXPECT_EQ(run_shell("(exit 3)"), 3);
  EXPECT_TRUE(was_logged("3 command ended with status 3: (exit 3)\n")) << log();
}

}  // namespace
}  // namespace test
