// The trusted-CA store: what is installed, listed and removed. OpenSSL's own directory look-up judges the
// layout.
#include <fcntl.h>
#include <sys/resource.h>

#include <map>
#include <set>
#include <span>

#include "core/owners.h"
#include "tests/support/cert_fixture.h"

namespace test {
namespace {

using namespace std::string_literals;

std::string new_ca(const std::string& name) {
  return pem_of(make_identity(name, new_ec_key()).certificate.get());
}

// A CA whose hash begins with two zeros: the file names must keep them.
std::shared_ptr<X509> ca_with_leading_zeros() {
  const auto key = new_ec_key();
  for (int n = 0;; ++n) {
    const auto ca = make_identity("Root " + std::to_string(n), key).certificate;
    if (hash_name_of(ca.get()).starts_with("00")) return ca;
  }
}

// Every name below the directory with its content, to see what changed.
std::map<std::string, std::string> snapshot(const std::string& root) {
  std::map<std::string, std::string> found;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    std::string& content = found[entry.path()];
    if (entry.is_symlink()) {
      content = "-> " + fs::read_symlink(entry.path()).string();
    } else {
      content = entry.is_directory() ? "directory" : read_file(entry.path());
    }
  }
  return found;
}

// A listing: its result, its code (0 in the short form) and its entries as "name path".
struct listing {
  int rc = 0, code = 0;
  std::set<std::string> entries = {};
};

listing list_short() {
  dl_trust_ca_list list;
  listing found = {.rc = dl_get_trust_ca_info(&list)};
  for (const auto& entry : std::span(list.entries, list.count))
    found.entries.insert(entry.cn + " "s + entry.path);
  return found;
}

listing list_long() {
  dl_trust_ca_list_ex list;
  dl_result result;
  listing found = {.rc = dl_get_trust_ca_info_ex(&list, &result), .code = result.code};
  for (const auto& entry : std::span(list.entries, list.count)) {
    found.entries.insert(entry.subject + " "s + entry.path);
  }
  return found;
}

using cert_store = cert_test;

TEST_F(cert_store, InstalledOnceFoundByOpensslAndRemovedWhole) {
  ASSERT_EQ(dl_install_ca(write("other.pem", new_ca("Other")).c_str()), 0);
  const auto before = snapshot(store());
  const auto ca = ca_with_leading_zeros();
  const std::string pem = pem_of(ca.get()), input = write("ca.der", der_of(ca.get()));
  EXPECT_EQ(dl_install_ca(input.c_str()), 0);
  EXPECT_EQ(read("ca.der"), pem) << "a DER file is left in PEM";
  const std::string link = store() + hash_name_of(ca.get()), file = link.substr(0, link.size() - 2);
  auto installed = before;
  installed[file] = pem;
  installed[link] = "-> " + file;
  installed[store() + "ca/" + hash_name_of(ca.get())] = "-> " + link;
  EXPECT_EQ(snapshot(store()), installed);
  for (const std::string& directory : {store(), store() + "ca"}) {
    EXPECT_EQ(openssl("verify -no-CAfile -no-CAstore -CApath " + directory + " " + input), input + ": OK");
  }
  forget_log();
  EXPECT_EQ(dl_install_ca(input.c_str()), -2);
  EXPECT_EQ(logged(), std::vector{"3 the ca file file has existed in custom certs directory\n"s});
  EXPECT_EQ(snapshot(store()), installed);

  EXPECT_EQ(dl_del_ca(link.c_str()), 0);
  const std::string hash = fs::path(file).filename();
  EXPECT_TRUE(was_logged("6 hash:" + hash.substr(hash.find_first_not_of('0')) + "\n")) << log();
  EXPECT_EQ(snapshot(store()), before);
}

TEST_F(cert_store, WhatStandsInTheWayStays) {
  const auto ca = make_identity("CA", new_ec_key()).certificate;
  const std::string pem = pem_of(ca.get()), input = write("ca.pem", pem), text = "no certificate";
  // clang-format off
  const struct { const char* file; std::string content; int rc; const char* logged; } rows[] = {
      {"store", text, -1, "3 Can't open custom trust certs directory\n"},
      {"store/phoneca", text, -1, "3 Can't open factory prefabrication directory\n"},
      {"store/ca", text, 0, "3 Can't create directory all ca certs directory\n"},
      {"store/phoneca/text.0", text, 0, "3 unable to load certificate ca_file\n"},
      {"store/phoneca/a.0.der", der_of(ca.get()), -3, "3 the ca file has existed by factory prefabrication\n"},
      {"store/phoneca/a.pem", pem, 0, ""},  // no name of a hashed directory
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.file);
    fs::remove_all(path("store"));
    write(row.file, row.content);
    forget_log();
    EXPECT_EQ(dl_install_ca(input.c_str()), row.rc);
    EXPECT_TRUE(was_logged(row.logged) || !*row.logged) << log();
    EXPECT_EQ(read(row.file), row.rc == -3 ? pem : row.content) << "DER is left in PEM";
    EXPECT_EQ(fs::exists(store() + hash_name_of(ca.get())), row.rc == 0);
  }
}

TEST_F(cert_store, WhatHoldsNoCertificateIsNotInstalledButRemoved) {
  for (const std::string& file : {path("absent"), path("."), write("text", "no certificate")}) {
    EXPECT_EQ(dl_install_ca(file.c_str()), -1) << file;
    EXPECT_EQ(dl_del_ca(file.c_str()), 0) << file;
  }
  EXPECT_EQ(dl_install_ca(nullptr), -1);
  EXPECT_EQ(dl_del_ca(nullptr), 0);
  EXPECT_TRUE(snapshot(path(".")).empty()) << "the text is gone, no store was made";
}

TEST_F(cert_store, OddPathsRunNothingAndRemoveNothingElse) {
  const auto ca = make_identity("Odd", new_ec_key()).certificate;
  write("stays", "stays");
  const auto before = snapshot(path(""));
  fs::current_path(path(""));
  for (const std::string odd : {"it's $(touch hit) *", "\"`touch hit`;touch hit\n&|~", "-rf"}) {
    SCOPED_TRACE(odd);
    write(odd, pem_of(ca.get()));
    dl_set_option(DL_OPT_TRUST_CA_DIR, path(odd + ".d/").c_str());
    ASSERT_EQ(dl_install_ca(odd.c_str()), 0);
    EXPECT_EQ(read(odd + ".d/ca/" + hash_name_of(ca.get())), pem_of(ca.get()));
    EXPECT_EQ(dl_del_ca(odd.c_str()), 0);
    EXPECT_EQ(snapshot(odd + ".d").size(), 2u) << "its directories of factory and of all CAs";
    fs::remove_all(odd + ".d");
  }
  fs::current_path("/");
  EXPECT_EQ(snapshot(path("")), before);
}

TEST_F(cert_store, PathsBeyondTheCommandBuffersChangeNothing) {
  const std::string ca = write("ca.pem", new_ca("Long"));
  dl_set_option(DL_OPT_TRUST_CA_DIR, path(std::string(100, 'd') + "/").c_str());
  EXPECT_EQ(dl_install_ca(ca.c_str()), 0);
  const auto before = snapshot(path(""));
  EXPECT_EQ(dl_del_ca(ca.c_str()), 0);
  EXPECT_TRUE(was_logged("3 path of the ca file is too long\n"));
  dl_set_option(DL_OPT_TRUST_CA_DIR, path(std::string(240, 'd') + "/").c_str());
  EXPECT_EQ(dl_install_ca(ca.c_str()), -1);
  EXPECT_TRUE(was_logged("3 path of the trust certs directory is too long\n"));
  EXPECT_EQ(snapshot(path("")), before);
}

TEST_F(cert_store, BothListingsTellTenAtMost) {
  EXPECT_EQ(list_short().rc, -2) << "no directory";
  EXPECT_EQ(list_long().rc, -1);
  EXPECT_EQ(list_long().code, 2);
  fs::create_directory(store());
  std::set<std::string> installed;
  const std::string too_many = "3 number of ca file is no less than 10!\n";
  for (std::size_t count = 0; count <= 11; ++count) {
    const listing found = list_short();
    forget_log();
    const listing found_long = list_long();
    EXPECT_EQ(was_logged(too_many), count == 11);
    EXPECT_EQ(found.rc, 0);
    EXPECT_EQ(found_long.code, 0);
    EXPECT_EQ(found.entries, found_long.entries);
    EXPECT_EQ(found.entries.size(), std::min<std::size_t>(count, 10));
    EXPECT_TRUE(count == 11 || found.entries == installed);
    const std::string name = "CA " + std::to_string(count);
    const auto ca = make_identity(name, new_ec_key()).certificate;
    installed.insert(name + " " + store() + hash_name_of(ca.get()));
    ASSERT_EQ(dl_install_ca(write("ca", pem_of(ca.get())).c_str()), 0);
  }
  dl_trust_ca_list_ex list;
  dl_result result{};
  forget_log();
  EXPECT_EQ(dl_get_trust_ca_info(nullptr), -1);
  EXPECT_EQ(dl_get_trust_ca_info_ex(&list, nullptr), -1);
  EXPECT_EQ(dl_get_trust_ca_info_ex(nullptr, &result), -1);
  EXPECT_EQ(result.code, 1);
  EXPECT_EQ(logged(), std::vector(3, "3 Invalid Parameter\n"s));
}

// The record's own path is cut, so that of a long name could be taken for another file's.
TEST_F(cert_store, ListingRemovesByTheirWholeNamesWhatHoldsNoCertificate) {
  const std::string name = std::string(60, 'd') + "/";
  dl_set_option(DL_OPT_TRUST_CA_DIR, path(name).c_str());
  for (const auto list : {list_short, list_long}) {
    write(name + "good.0", new_ca("Good"));
    write(name + "no hash name", "text");
    fs::create_directory(path(name + "directory.0"));
    const std::string cut = path(name).substr(0, 63);
    write_file(cut, "unrelated");
    write("outside", "text");
    const auto kept = snapshot(path(""));
    fs::create_symlink("absent", path(name + "dangling.0"));
    fs::create_symlink("loop.0", path(name + "loop.0"));
    fs::create_symlink("../outside", path(name + "linked.0"));
    write(name + "empty.0", "");
    write(name + "broken.0.pem", "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n");
    const listing found = list();
    EXPECT_EQ(found.rc, 0);
    EXPECT_EQ(found.entries, std::set{"Good " + cut});
    EXPECT_EQ(snapshot(path("")), kept);
    fs::remove_all(path(name));
  }
}

TEST_F(cert_store, ListingKeepsWhatCouldNotBeReadForLackOfDescriptors) {
  ASSERT_EQ(dl_install_ca(write("ca.pem", new_ca("Kept")).c_str()), 0);
  const auto before = snapshot(store());
  rlimit limit;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit few{64, limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
  std::vector<fetchrig::unique_fd> held;
  for (int fd; (fd = open("/dev/null", O_RDONLY)) >= 0;) held.emplace_back(fd);
  for (int spare = 0; spare < 3; ++spare) {  // for the directory, then the file, then its second reading
    if (spare > 0) held.pop_back();
    for (const auto list : {list_short, list_long}) {
      const listing found = list();
      EXPECT_EQ(found.rc == 0, spare > 0);
      EXPECT_TRUE(found.entries.empty()) << spare;
    }
  }
  held.clear();
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_EQ(snapshot(store()), before);
  EXPECT_EQ(list_long().entries.size(), 1u);
}

}  // namespace
}  // namespace test
