// certificates.cpp: files of certificates and keys as users and servers bring them, alone and in the stores.
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <span>

#include "cert/cert_file.h"
#include "cert/keygen.h"
#include "fuzz/fuzz.h"
#include "include/fetchrig.h"
#include "tests/support/temp_dir.h"

using namespace fetchrig;
namespace fs = std::filesystem;

namespace {

// Terminated, and printable.
std::string_view text_in(std::span<const char, 64> field) {
  const std::string_view text(field.data(), strnlen(field.data(), field.size()));
  FUZZ_CHECK(text.size() < field.size());
  FUZZ_CHECK(std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; }));
  return text;
}

void check_date(std::span<const char, 64> field) {
  const std::string_view text = text_in(field);
  FUZZ_CHECK(text.empty() || (text.size() >= 17 && text.find(':') != text.npos));
}

void check(const dl_ca_info& info) {
  text_in(info.cn);
  text_in(info.org);
  check_date(info.not_after);
}

void check(const dl_ca_info_ex& info) {
  for (const auto* field : {&info.sig_alg, &info.key_alg, &info.issuer, &info.subject}) text_in(*field);
  check_date(info.not_before);
  check_date(info.not_after);
  FUZZ_CHECK(!text_in(info.serial).empty() && info.key_bits >= 0);
}

}  // namespace

// What one call finds in a file the other finds as well, and nothing else verifies.
FUZZ_TARGET(certificate_file) {
  test::write_file("given.pem", input);
  dl_ca_info info = {};
  dl_ca_info_ex details = {};
  dl_result result = {};
  const bool shown = dl_get_ca_info("given.pem", &info) == 0;
  FUZZ_CHECK(shown == (dl_get_ca_info_ex("given.pem", &details, 1, &result) == 0));
  if (shown) check(info), check(details);
  for (const uint32_t flags : {0u, 1u}) {
    const int rc = dl_cert_verify("given.pem", "", "given.pem", flags, &result);
    FUZZ_CHECK(rc == 0 ? result.code == 0 && shown : result.code != 0);
  }
}

// A CA that is installed is found and cannot be installed again; removed, it leaves nothing.
FUZZ_TARGET(ca_store) {
  const std::string store = fs::current_path().string() + "/store/";
  fs::create_directories(store);
  dl_set_option(DL_OPT_TRUST_CA_DIR, store.c_str());
  test::write_file("given.pem", input);
  dl_trust_ca_list list = {};
  if (dl_install_ca("given.pem") == 0) {
    FUZZ_CHECK(dl_get_trust_ca_info(&list) == 0 && list.count == 1);
    check(list.entries[0]);
    FUZZ_CHECK(dl_install_ca("given.pem") == -2);
  }
  dl_del_ca("given.pem");
  FUZZ_CHECK(!fs::exists("given.pem"));
  for (const auto& entry : fs::recursive_directory_iterator(store))
    FUZZ_CHECK(fs::is_directory(entry.symlink_status()));
}

// The phone's own certificate: refused, or there with its key; in parts too.
FUZZ_TARGET(device_certificate) {
  dl_set_option(DL_OPT_DEVICE_CERT_FILE, "config/server/own.pem");
  test::write_file("given.pem", input);
  dl_ca_info info = {};
  if (dl_install_ser_ca("given.pem") == 0) {
    FUZZ_CHECK(dl_get_ser_ca_info(&info) == 0);
    check(info);
  }
  FUZZ_CHECK(dl_install_ser_ca_separate("given.pem") != 0 || fs::exists("config/server/own.pem"));
  fs::remove_all("config");
}

// A key that opens with the pass phrase is written in PEM and read again.
FUZZ_TARGET(key) {
  test::write_file("given.key", input);
  const unique_pkey found = cert_source("given.key").key();
  if (!found || EVP_PKEY_get_base_id(found.get()) != EVP_PKEY_RSA) return;
  FUZZ_CHECK(write_key("written.key", found.get()) == 0);
  const unique_pkey again = cert_source("written.key").key();
  FUZZ_CHECK(again && EVP_PKEY_eq(again.get(), found.get()) == 1);
}
