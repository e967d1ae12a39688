// The trusted-CA store: what is installed, listed and removed. OpenSSL's own directory look-up judges the
// layout.
#include <fcntl.h>
#include <openssl/x509.h>
#include <sys/resource.h>
#include <unistd.h>
#include <filesystem>

#include <set>

#include "core/openssl_owners.h"
#include "core/owners.h"
#include "include/fetchrig.h"
#include "tests/support/cert_fixture.h"

namespace fetchrig::test {
namespace {

namespace fs = std::filesystem;

class cert_store : public cert_test {
 protected:
  // The name of the store's file for the certificate.
  std::string file_of(const std::string& pem) const { return store() + x509_value(pem, "subject_hash"); }
  std::string all_link_of(const std::string& pem) const {
    return store() + "ca/" + x509_value(pem, "subject_hash") + ".0";
  }
};

// Every name below the directory, with what it is and holds, to see that nothing changed.
std::set<std::string> snapshot(const std::string& root) {
  std::set<std::string> found;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    std::string line = entry.path().string();
    if (entry.is_symlink())
      line += " -> " + fs::read_symlink(entry.path()).string();
    else if (entry.is_regular_file())
      line += ": " + read_file(entry.path());
    found.insert(line);
  }
  return found;
}

// Whether the openssl tool finds the certificate's issuer in the directory.
void expect_verifies(const std::string& directory, const std::string& certificate) {
  EXPECT_EQ(openssl("verify -no-CAfile -no-CAstore -CApath '" + directory + "' '" + certificate + "'"),
            certificate + ": OK");
}

TEST_F(cert_store, InstalledOnceFoundByOpensslAndRemovedWhole) {
  const std::string ca = make_cert("ca.pem", "/O=Acme/CN=Root");
  ASSERT_EQ(dl_install_ca(ca.c_str()), 0);
  EXPECT_EQ(read_file(file_of(ca)), read_file(ca));
  EXPECT_EQ(fs::read_symlink(file_of(ca) + ".0"), file_of(ca));
  EXPECT_EQ(fs::read_symlink(all_link_of(ca)), file_of(ca) + ".0");
  EXPECT_TRUE(fs::is_empty(store() + "phoneca"));
  expect_verifies(store(), ca);
  expect_verifies(store() + "ca", ca);

  const auto before = snapshot(store());
  logged();
  EXPECT_EQ(dl_install_ca(ca.c_str()), -2);
  EXPECT_EQ(logged(), std::vector<std::string>{"3 the ca file file has existed in custom certs directory\n"});
  EXPECT_EQ(snapshot(store()), before);

  const std::string other = make_cert("other.pem", "/CN=Other");
  ASSERT_EQ(dl_install_ca(other.c_str()), 0);
  EXPECT_EQ(dl_del_ca((file_of(ca) + ".0").c_str()), 0);
  const std::string hash = x509_value(ca, "subject_hash");
  EXPECT_TRUE(was_logged("6 hash:" + hash.substr(hash.find_first_not_of('0')) + "\n"));
  EXPECT_FALSE(fs::exists(file_of(ca)));
  EXPECT_FALSE(fs::is_symlink(file_of(ca) + ".0"));
  EXPECT_FALSE(fs::is_symlink(all_link_of(ca)));
  expect_verifies(store() + "ca", other);
}

TEST_F(cert_store, DerInputIsPemInTheStoreAndAfterwards) {
  const std::string pem = make_cert("ca.pem", "/CN=Was DER");
  const std::string der = to_der(pem, "ca.der");
  ASSERT_EQ(dl_install_ca(der.c_str()), 0);
  EXPECT_EQ(read_file(der), read_file(pem));
  EXPECT_EQ(read_file(file_of(pem)), read_file(pem));
}

TEST_F(cert_store, HashKeepsItsLeadingZeros) {
  std::string subject;
  unsigned long hash = ~0ul;
  for (int n = 0; hash > 0x00ffffff; ++n) {
    subject = "Root " + std::to_string(n);
    const unique_x509_name name(X509_NAME_new());
    X509_NAME_add_entry_by_txt(name.get(), "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(subject.c_str()), -1, -1, 0);
    hash = X509_NAME_hash_ex(name.get(), nullptr, nullptr, nullptr);
  }
  const std::string ca = make_cert("ca.pem", "/CN=" + subject);
  ASSERT_EQ(dl_install_ca(ca.c_str()), 0);
  ASSERT_TRUE(file_of(ca).starts_with(store() + "00"));
  expect_verifies(store() + "ca", ca);
  EXPECT_EQ(dl_del_ca((file_of(ca) + ".0").c_str()), 0);
  EXPECT_TRUE(fs::is_empty(store() + "ca"));
}

TEST_F(cert_store, FactoryCaIsNotInstalledAgain) {
  const std::string ca = make_cert("ca.pem", "/CN=Factory");
  fs::create_directories(store() + "phoneca");
  to_der(ca, "store/phoneca/shipped.0.der");
  write("store/phoneca/notes.0.txt", "not a certificate");
  EXPECT_EQ(dl_install_ca(ca.c_str()), -3);
  EXPECT_TRUE(was_logged("3 the ca file has existed by factory prefabrication\n"));
  EXPECT_EQ(read_file(store() + "phoneca/shipped.0.der"), read_file(ca));  // met as DER, left as PEM
  EXPECT_EQ(read_file(store() + "phoneca/notes.0.txt"), "not a certificate");
  EXPECT_TRUE(fs::is_empty(store() + "ca"));
  EXPECT_FALSE(fs::exists(file_of(ca)));
}

TEST_F(cert_store, DirectoriesThatCannotBeMade) {
  const std::string ca = make_cert("ca.pem", "/CN=No room");
  struct {
    const char* name;
    const char* blocked;
    int rc;
    const char* line;
  } const cases[] = {
      {"custom", "store", -1, "3 Can't open custom trust certs directory\n"},
      {"factory", "store/phoneca", -1, "3 Can't open factory prefabrication directory\n"},
      {"all", "store/ca", 0, "3 Can't create directory all ca certs directory\n"},
  };
  for (const auto& row : cases) {
    fs::remove_all(path("store"));
    if (row.blocked != std::string("store")) fs::create_directory(path("store"));
    write(row.blocked, "in the way");
    EXPECT_EQ(dl_install_ca(ca.c_str()), row.rc) << row.name;
    EXPECT_TRUE(was_logged(row.line)) << row.name;
    EXPECT_EQ(read_file(path(row.blocked)), "in the way") << row.name;
  }
  EXPECT_TRUE(
      fs::exists(file_of(ca)));  // the last case installs, though without its link in the all-CA directory
}

TEST_F(cert_store, WhatIsNoCertificateIsNotInstalled) {
  make_cert("ca.pem", "/CN=X");
  for (const std::string& file :
       {path("missing"), path(""), path("ca.pem.key"), write("random", "\x30\x82\x01")}) {
    EXPECT_EQ(dl_install_ca(file.c_str()), -1) << file;
  }
  EXPECT_EQ(dl_install_ca(nullptr), -1);
  EXPECT_FALSE(fs::exists(store()));
}

TEST_F(cert_store, RemovingWhatIsNoCertificateRemovesOnlyThat) {
  const std::string ca = make_cert("ca.pem", "/CN=Stays");
  ASSERT_EQ(dl_install_ca(ca.c_str()), 0);
  const auto before = snapshot(store());
  EXPECT_EQ(dl_del_ca(write("notes", "text").c_str()), 0);
  EXPECT_FALSE(fs::exists(path("notes")));
  fs::create_directory(path("empty"));
  EXPECT_EQ(dl_del_ca(path("empty").c_str()), 0);
  EXPECT_TRUE(fs::exists(path("empty")));
  EXPECT_EQ(dl_del_ca(nullptr), 0);
  EXPECT_EQ(snapshot(store()), before);
}

TEST_F(cert_store, OddPathsRunNothingAndChangeNothingElse) {
  const std::string ca = make_cert("ca.pem", "/CN=Odd");
  fs::current_path(path(""));
  for (const std::string odd : {"sp ace", "it's", "\"", "$(touch hit)", "`touch hit`", ";touch hit;", "*",
                                "a\nb", "b\\", "&touch hit", "|touch hit", "caf\xc3\xa9", "-rf", "--", "~"}) {
    const std::string root = path("odd/" + odd + "/");
    fs::create_directories(root + "files");
    const std::string input = root + "files/" + odd;
    const std::string decoy = write("odd/" + odd + "/files/decoy", "stays");
    fs::copy_file(ca, input);
    dl_set_option(DL_OPT_TRUST_CA_DIR, (root + odd + "/").c_str());
    ASSERT_EQ(dl_install_ca(input.c_str()), 0) << odd;
    const std::string link = root + odd + "/" + x509_value(ca, "subject_hash") + ".0";
    EXPECT_EQ(read_file(link), read_file(ca)) << odd;
    EXPECT_EQ(read_file(root + odd + "/ca/" + x509_value(ca, "subject_hash") + ".0"), read_file(ca)) << odd;
    EXPECT_EQ(dl_del_ca(link.c_str()), 0);
    EXPECT_FALSE(fs::exists(link)) << odd;
    EXPECT_FALSE(fs::is_symlink(root + odd + "/ca/" + x509_value(ca, "subject_hash") + ".0")) << odd;
    EXPECT_EQ(dl_del_ca(input.c_str()), 0);
    EXPECT_FALSE(fs::exists(input)) << odd;
    EXPECT_EQ(read_file(decoy), "stays") << odd;
  }
  write("-rf", "text");
  EXPECT_EQ(dl_del_ca("-rf"), 0);
  EXPECT_FALSE(fs::exists("-rf"));
  EXPECT_TRUE(fs::exists("odd"));
  EXPECT_FALSE(fs::exists("hit"));
  fs::current_path("/");
}

TEST_F(cert_store, PathsBeyondTheCommandBuffersChangeNothing) {
  const std::string ca = make_cert("ca.pem", "/CN=Long");
  const std::string too_long_to_remove = path(std::string(100, 'd') + "/");
  dl_set_option(DL_OPT_TRUST_CA_DIR, too_long_to_remove.c_str());
  ASSERT_EQ(dl_install_ca(ca.c_str()), 0);
  const auto before = snapshot(path(""));
  EXPECT_EQ(dl_del_ca(ca.c_str()), 0);
  EXPECT_EQ(snapshot(path("")), before);

  dl_set_option(DL_OPT_TRUST_CA_DIR, path(std::string(240, 'd') + "/").c_str());
  EXPECT_EQ(dl_install_ca(ca.c_str()), -1);
  EXPECT_EQ(snapshot(path("")), before);
}

TEST_F(cert_store, ListsWhatIsInstalled) {
  dl_trust_ca_list list;
  EXPECT_EQ(dl_get_trust_ca_info(&list), -2);
  fs::create_directory(store());
  EXPECT_EQ(dl_get_trust_ca_info(&list), 0);
  EXPECT_EQ(list.count, 0u);

  const std::string ca = make_cert("ca.pem", "/O=Acme/CN=Listed");
  ASSERT_EQ(dl_install_ca(ca.c_str()), 0);
  ASSERT_EQ(dl_get_trust_ca_info(&list), 0);
  ASSERT_EQ(list.count, 1u);
  EXPECT_STREQ(list.entries[0].cn, "Listed");
  EXPECT_EQ(std::string(list.entries[0].path), (file_of(ca) + ".0").substr(0, 63));

  dl_trust_ca_list_ex long_list;
  dl_result result;
  ASSERT_EQ(dl_get_trust_ca_info_ex(&long_list, &result), 0);
  ASSERT_EQ(long_list.count, 1u);
  EXPECT_STREQ(long_list.entries[0].subject, "Listed");
  EXPECT_EQ(long_list.entries[0].hash, list.entries[0].hash);
  EXPECT_EQ(result.code, 0);
}

TEST_F(cert_store, ElevenCertificatesListTen) {
  for (int n = 0; n < 11; ++n) {
    const std::string number = std::to_string(n);
    ASSERT_EQ(dl_install_ca(make_cert("ca" + number, "/CN=Number " + number).c_str()), 0);
  }
  const std::string line = "3 number of ca file is no less than 10!\n";
  dl_trust_ca_list list;
  logged();
  EXPECT_EQ(dl_get_trust_ca_info(&list), 0);
  EXPECT_EQ(list.count, 10u);
  EXPECT_EQ(logged(), std::vector<std::string>{line});
  std::set<std::string> names;
  for (const auto& entry : list.entries) names.insert(entry.cn);
  EXPECT_EQ(names.size(), 10u);

  dl_trust_ca_list_ex long_list;
  dl_result result;
  EXPECT_EQ(dl_get_trust_ca_info_ex(&long_list, &result), 0);
  EXPECT_EQ(long_list.count, 10u);
  EXPECT_EQ(logged(), std::vector<std::string>{line});
}

// Both listings, as numbers: the result, the code (0 in the short form) and the count.
struct listing {
  int rc;
  int code;
  uint32_t count;
};

listing list_short() {
  dl_trust_ca_list list;
  const int rc = dl_get_trust_ca_info(&list);
  return {rc, 0, list.count};
}

listing list_long() {
  dl_trust_ca_list_ex list;
  dl_result result;
  const int rc = dl_get_trust_ca_info_ex(&list, &result);
  return {rc, result.code, list.count};
}

TEST_F(cert_store, ListingRemovesEntriesThatHoldNoCertificate) {
  const std::string ca = make_cert("ca.pem", "/CN=Good");
  for (const auto list : {list_short, list_long}) {
    fs::remove_all(store());
    ASSERT_EQ(dl_install_ca(ca.c_str()), 0);
    const std::string text = write("outside.txt", "outside the store");
    fs::create_symlink(path("gone"), path("store/dangling.0"));
    fs::create_symlink(path("store/loop.0"), path("store/loop.0"));
    fs::create_symlink(text, path("store/text.0"));
    write("store/empty.0", "");
    write("store/broken.0.pem", "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n");
    write("store/kept.txt", "no hash name");
    fs::create_directory(path("store/folder.0"));
    const listing found = list();
    EXPECT_EQ(found.rc, 0);
    EXPECT_EQ(found.count, 1u);
    for (const char* name : {"dangling.0", "loop.0", "text.0", "empty.0", "broken.0.pem"}) {
      EXPECT_FALSE(fs::exists(fs::symlink_status(store() + name))) << name;
    }
    EXPECT_TRUE(fs::exists(store() + "kept.txt"));
    EXPECT_TRUE(fs::is_directory(store() + "folder.0"));
    EXPECT_EQ(read_file(text), "outside the store");
  }
}

TEST_F(cert_store, ListingKeepsWhatCouldNotBeReadForLackOfDescriptors) {
  const std::string ca = make_cert("ca.pem", "/CN=Kept");
  ASSERT_EQ(dl_install_ca(ca.c_str()), 0);
  const auto before = snapshot(store());
  rlimit limit;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit few{64, limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
  std::vector<unique_fd> held;
  for (unique_fd fd(open("/dev/null", O_RDONLY)); fd; fd.reset(open("/dev/null", O_RDONLY))) {
    held.push_back(std::move(fd));
  }
  for (int spare = 0; spare < 3; ++spare) {  // for the directory, then the file, then its second reading
    if (spare > 0) held.pop_back();
    for (const auto list : {list_short, list_long}) {
      const listing found = list();
      EXPECT_EQ(found.rc == 0, spare > 0);
      EXPECT_EQ(found.count, 0u) << spare;
    }
  }
  held.clear();
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_EQ(snapshot(store()), before);
  EXPECT_EQ(list_long().count, 1u);
}

TEST_F(cert_store, LongPathIsListedAndRemovedByItsWholeName) {
  const std::string deep = path(std::string(60, 'd') + "/");
  fs::create_directory(deep);
  const std::string ca = make_cert("ca.pem", "/CN=Deep");
  fs::copy_file(ca, deep + "good.0");
  fs::create_symlink("gone", deep + "dangling.0");
  // The cut path of a long entry must not be taken for a file of its own.
  const std::string cut = (deep + "good.0").substr(0, 63);
  write(fs::path(cut).filename().string(), "unrelated");
  dl_set_option(DL_OPT_TRUST_CA_DIR, deep.c_str());
  EXPECT_EQ(list_short().count, 1u);
  EXPECT_FALSE(fs::is_symlink(deep + "dangling.0"));
  EXPECT_EQ(read_file(cut), "unrelated");
}

TEST_F(cert_store, ListingsRefuseNull) {
  dl_trust_ca_list_ex list;
  dl_result result{};
  EXPECT_EQ(dl_get_trust_ca_info(nullptr), -1);
  EXPECT_EQ(dl_get_trust_ca_info_ex(&list, nullptr), -1);
  EXPECT_EQ(dl_get_trust_ca_info_ex(nullptr, &result), -1);
  EXPECT_EQ(result.code, 1);
  EXPECT_EQ(logged(), std::vector<std::string>(3, "3 Invalid Parameter\n"));
  EXPECT_EQ(list_long().code, 2);
}

}  // namespace
}  // namespace fetchrig::test
