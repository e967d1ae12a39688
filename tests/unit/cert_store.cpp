// The trusted-CA store: what is installed, listed and removed. OpenSSL's own directory look-up judges the
// layout.
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <map>
#include <set>
#include <span>

#include "core/owners.h"
#include "tests/support/cert_fixture.h"

namespace test {
namespace {

using namespace std::string_literals;
using cert_store = cert_test;

// Every name below the directory with its content, to see what changed.
std::map<std::string, std::string> snapshot(const std::string& root) {
  std::map<std::string, std::string> found;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    std::string& content = found[entry.path()] = "directory";
    if (entry.is_regular_file()) content = read_file(entry.path());
    if (entry.is_symlink()) content = "-> " + fs::read_symlink(entry.path()).string();
  }
  return found;
}

// What a listing returns, its code (0 in the short form) and its entries as "name path".
struct listing {
  int rc = 0, code = 0;
  std::set<std::string> entries = {};
};

listing list(bool long_form) {
  dl_trust_ca_list brief = {};
  dl_trust_ca_list_ex full = {};
  dl_result result = {};
  listing found = {.rc = long_form ? dl_get_trust_ca_info_ex(&full, &result) : dl_get_trust_ca_info(&brief)};
  found.code = result.code;
  for (const auto& at : std::span(brief.entries, brief.count)) found.entries.insert(at.cn + " "s + at.path);
  for (const auto& at : std::span(full.entries, full.count))
    found.entries.insert(at.subject + " "s + at.path);
  return found;
}

// What an application may have set for its own ends: children need not be waited for, new files are nobody's.
class inconvenient_process {
 public:
  inconvenient_process() : children_(signal(SIGCHLD, SIG_IGN)), mask_(umask(0777)) {}
  ~inconvenient_process() {
    signal(SIGCHLD, children_);
    umask(mask_);
  }

 private:
  sighandler_t children_;
  mode_t mask_;
};

bool owner_may(const std::string& path, fs::perms access) {
  return (fs::status(path).permissions() & access) == access;
}

TEST_F(cert_store, installed_once_found_by_openssl_and_removed_whole) {
  const std::string store = path("it's a *;# store/"), other = write("other", pem_of(make_identity("Other")));
  set_option(DL_OPT_TRUST_CA_DIR, store);
  {
    const inconvenient_process umask_and_sigchld;
    ASSERT_EQ(dl_install_ca(other.c_str()), 0);
  }
  EXPECT_EQ(log().find("command ended"), std::string::npos) << log();
  for (const std::string& folder : {store, store + "ca", store + "phoneca"}) {
    EXPECT_TRUE(owner_may(folder, fs::perms::owner_all)) << folder;
  }
  const auto before = snapshot(store);
  for (const auto& [file, content] : before) {
    EXPECT_TRUE(owner_may(file, fs::perms::owner_read | fs::perms::owner_write)) << file;
  }
  identity ca = make_identity("Root");
  for (int n = 0; !hash_name_of(ca).starts_with("00"); ++n) ca = make_identity(std::to_string(n), ca.key);
  const std::string input = write("ca.der", der_of(ca)), hash = hash_name_of(ca).substr(0, 8);
  EXPECT_EQ(dl_install_ca(input.c_str()), 0);
  EXPECT_EQ(read("ca.der"), pem_of(ca)) << "a DER file is left in PEM";
  auto after = before;
  after[store + hash] = pem_of(ca);
  after[store + hash + ".0"] = "-> " + store + hash;
  after[store + "ca/" + hash + ".0"] = "-> " + store + hash + ".0";
  EXPECT_EQ(snapshot(store), after);
  for (const std::string& directory : {store, store + "ca"}) {
    EXPECT_EQ(openssl("verify -no-CAfile -no-CAstore -CApath \"" + directory + "\" " + input),
              input + ": OK");
  }
  forget_log();
  EXPECT_EQ(dl_install_ca(input.c_str()), -2);
  EXPECT_EQ(logged(), std::vector{"3 the ca file file has existed in custom certs directory\n"s});
  EXPECT_EQ(snapshot(store), after);

  EXPECT_EQ(dl_del_ca((store + hash + ".0").c_str()), 0);
  EXPECT_TRUE(was_logged("6 hash:" + hash.substr(hash.find_first_not_of('0')) + "\n")) << log();
  EXPECT_EQ(snapshot(store), before);
}

TEST_F(cert_store, what_stands_in_the_way_stays) {
  const identity ca = make_identity("CA");
  const std::string input = write("ca.pem", pem_of(ca)), text = "no certificate";
  // clang-format off
  const struct { const char* file; std::string content; int rc; const char* logged; } rows[] = {
      {"store", text, -1, "3 Can't open custom trust certs directory\n"},
      {"store/phoneca", text, -1, "3 Can't open factory prefabrication directory\n"},
      {"store/ca", text, 0, "3 Can't create directory all ca certs directory\n"},
      {"store/phoneca/text.0", text, 0, "3 unable to load certificate ca_file\n"},
      {"store/phoneca/a.0.der", der_of(ca), -3, "3 the ca file has existed by factory prefabrication\n"},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.file);
    fs::remove_all(path("store"));
    write(row.file, row.content);
    EXPECT_EQ(dl_install_ca(input.c_str()), row.rc);
    EXPECT_TRUE(was_logged(row.logged)) << log();
    EXPECT_EQ(read(row.file), row.rc == -3 ? pem_of(ca) : row.content) << "DER is left in PEM";
    EXPECT_EQ(fs::exists(store() + hash_name_of(ca)), row.rc == 0);
  }
}

TEST_F(cert_store, what_holds_no_certificate_is_not_installed_but_removed) {
  for (const std::string& file : {path("absent"), path("."), write("text", "no certificate")}) {
    EXPECT_EQ(dl_install_ca(file.c_str()), -1) << file;
    EXPECT_EQ(dl_del_ca(file.c_str()), 0) << file;
  }
  EXPECT_EQ(dl_install_ca(nullptr), -1);
  EXPECT_EQ(dl_del_ca(nullptr), 0);
  EXPECT_TRUE(snapshot(path("")).empty()) << "the text is gone, no store was made";
}

TEST_F(cert_store, paths_beyond_the_command_buffers_change_nothing) {
  const std::string ca = write(std::string(100, 'c'), pem_of(make_identity("Long")));
  const auto before = snapshot(path(""));
  EXPECT_EQ(dl_del_ca(ca.c_str()), 0);
  EXPECT_TRUE(was_logged("3 path of the ca file is too long\n"));
  for (const std::size_t length : {100u, 240u}) {
    forget_log();
    dl_set_option(DL_OPT_TRUST_CA_DIR, path(std::string(length, 'd') + "/").c_str());
    EXPECT_EQ(dl_install_ca(ca.c_str()), -1) << "what could not be removed again";
    EXPECT_TRUE(was_logged("3 path of the trust certs directory is too long\n"));
  }
  EXPECT_EQ(snapshot(path("")), before);
}

TEST_F(cert_store, copies_and_commands_that_fail_are_named_in_the_log) {
  const identity ca = make_identity("CA");
  const std::string file = write("ca.pem", pem_of(ca)), link = store() + hash_name_of(ca);
  const std::string installed = link.substr(0, link.size() - 2), programs = getenv("PATH");
  ASSERT_EQ(dl_install_ca(write("other.pem", pem_of(make_identity("Other"))).c_str()), 0)
      << "makes the folders";
  const auto before = snapshot(store());
  {
    const full_disk disk;
    EXPECT_EQ(dl_install_ca(file.c_str()), 0);
  }
  EXPECT_TRUE(was_logged("3 Can't copy the ca file to " + installed + "\n")) << log();
  EXPECT_EQ(snapshot(store()), before) << "no empty entry, no links";
  setenv("PATH", "/absent", 1);
  EXPECT_EQ(dl_install_ca(file.c_str()), 0);
  EXPECT_EQ(dl_del_ca(installed.c_str()), 0);
  setenv("PATH", programs.c_str(), 1);
  EXPECT_TRUE(was_logged("3 command ended with status 127: ln -s " + installed + " " + link + "\n")) << log();
  EXPECT_TRUE(was_logged("3 command ended with status 127: rm " + installed + "\n")) << log();
}

TEST_F(cert_store, listings_tell_ten_at_most) {
  EXPECT_EQ(list(false).rc, -2) << "no directory";
  EXPECT_EQ(list(true).rc, -1);
  EXPECT_EQ(list(true).code, 2);
  fs::create_directory(store());
  for (std::size_t count = 0; count <= 11; ++count) {
    for (const bool long_form : {false, true}) {
      forget_log();
      const listing found = list(long_form);
      EXPECT_EQ(found.rc + found.code, 0);
      EXPECT_EQ(found.entries.size(), std::min<std::size_t>(count, 10));
      EXPECT_EQ(was_logged("3 number of ca file is no less than 10!\n"), count == 11);
    }
    ASSERT_EQ(dl_install_ca(write("ca", pem_of(make_identity(std::to_string(count)))).c_str()), 0);
  }
  dl_trust_ca_list_ex unused;
  dl_result result = {};
  forget_log();
  EXPECT_EQ(dl_get_trust_ca_info(nullptr), -1);
  EXPECT_EQ(dl_get_trust_ca_info_ex(&unused, nullptr), -1);
  EXPECT_EQ(dl_get_trust_ca_info_ex(nullptr, &result), -1);
  EXPECT_EQ(result.code, 1);
  EXPECT_EQ(logged(), std::vector(3, "3 Invalid Parameter\n"s));
}

// The record's own path is cut, so that of a long name could be taken for another file's.
TEST_F(cert_store, listing_removes_by_their_whole_names_what_holds_no_certificate) {
  const std::string root = path(std::string(60, 'd') + "/"), cut = root.substr(0, 63);
  set_option(DL_OPT_TRUST_CA_DIR, root);
  fs::create_directories(root + "directory.0");
  write_file(root + "good.0", pem_of(make_identity("Good")));
  for (const std::string& unrelated : {cut, path("outside"), root + "no hash name"})
    write_file(unrelated, "text");
  const auto kept = snapshot(path(""));
  for (const bool long_form : {false, true}) {
    fs::create_symlink("absent", root + "dangling.0");
    fs::create_symlink("loop.0", root + "loop.0");
    fs::create_symlink("../outside", root + "linked.0");
    write_file(root + "empty.0", "");
    write_file(root + "broken.0.pem", "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n");
    const listing found = list(long_form);
    EXPECT_EQ(found.rc, 0);
    EXPECT_EQ(found.entries, std::set{"Good " + cut});
    EXPECT_TRUE(was_logged("5 removed " + root + "linked.0, ")) << log();
    EXPECT_EQ(snapshot(path("")), kept);
  }
}

TEST_F(cert_store, listing_keeps_what_could_not_be_read_for_lack_of_descriptors) {
  ASSERT_EQ(dl_install_ca(write("ca.pem", pem_of(make_identity("Kept"))).c_str()), 0);
  const auto before = snapshot(store());
  rlimit limit;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const auto lowest_free = static_cast<rlim_t>(fetchrig::unique_fd(dup(0)).get());
  for (rlim_t spare = 0; spare < 2; ++spare) {  // for the directory, then the file
    const rlimit few{lowest_free + spare, limit.rlim_max};
    for (const bool long_form : {false, true}) {
      ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
      const listing found = list(long_form);
      setrlimit(RLIMIT_NOFILE, &limit);
      EXPECT_EQ(found.rc == 0, spare > 0);
      EXPECT_TRUE(found.entries.empty()) << spare;
    }
  }
  EXPECT_EQ(snapshot(store()), before);
}

}  // namespace
}  // namespace test
