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
