// cert_client.cpp: the verbs for certificates and the rules for their faults.
#include "tests/scenario/cert_client.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <span>

#include "include/fetchrig.h"
#include "include/fetchrig_openssl.h"
#include "tests/scenario/cert_table.h"
#include "tests/support/pki.h"

namespace scenario {
namespace {

using std::string;

constexpr std::size_t diagnostics_limit = 10000;

// A standard stream while it lives: a file in memory.
class captured {
 public:
  explicit captured(FILE* stream)
      : stream_(stream), saved_(dup(fileno(stream))), file_(memfd_create("captured", 0)) {
    fflush(stream_);
    dup2(file_, fileno(stream_));
  }
  // The stream holds the bytes as if another program had written them.
  void hold(const string& bytes, off_t at) const {
    if (pwrite(file_, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()) ||
        lseek(file_, at, SEEK_SET) != at)
      throw std::runtime_error("pwrite");
  }
  string text() const {
    fflush(stream_);
    string bytes(diagnostics_limit + 1, '\0');
    const ssize_t count = pread(file_, bytes.data(), bytes.size(), 0);
    bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    return bytes;
  }
  ~captured() {
    fflush(stream_);
    dup2(saved_, fileno(stream_));
    ::close(saved_);
    ::close(file_);
  }
  captured(const captured&) = delete;
  captured& operator=(const captured&) = delete;

 private:
  FILE* stream_;
  int saved_;
  int file_;
};

// Makes a call that has no result but the number it returns.
template <typename Call>
void make_plain(call_record& call, Call one) {
  call.make(one);
  call.seen.code = call.seen.rc;
}

void verify(call_record& call) {
  const auto flags = static_cast<uint32_t>(call.told.number("flags", 0));
  call.make([&] {
    return dl_cert_verify(call.word(0), call.text("dir"), call.text("ca"), flags, call.result_place());
  });
  int32_t numbers[DL_MAX_VERIFY_PROBLEMS] = {};
  const int count = dl_cert_verify_problems(numbers, DL_MAX_VERIFY_PROBLEMS);
  string& problems = call.seen.fields["problems"];
  for (int i = 0; i < count; ++i) problems += (i > 0 ? " " : "") + std::to_string(numbers[i]);
}

void tell(call_record& call, const dl_ca_info& info) {
  const facts told = {{"cn", info.cn},
                      {"org", info.org},
                      {"until", info.not_after},
                      {"hash", std::to_string(info.hash)},
                      {"path", info.path}};
  call.seen.fields.insert(told.begin(), told.end());
}

void info(call_record& call) {
  dl_ca_info record = {};
  make_plain(call, [&] { return dl_get_ca_info(call.word(0), call.given("record", &record)); });
  tell(call, record);
}

void own(call_record& call) {
  dl_ca_info record;
  memset(&record, 'x', sizeof record);
  make_plain(call, [&] { return dl_get_ser_ca_info(call.given("record", &record)); });
  if (!call.text("null")) tell(call, record);
}

void details(call_record& call) {
  dl_ca_info_ex record = {};
  const auto flags = static_cast<uint32_t>(call.told.number("flags", 0));
  call.make([&] {
    return dl_get_ca_info_ex(call.word(0), call.given("record", &record), flags, call.result_place());
  });
  call.seen.fields = {{"version", std::to_string(record.version)},
                      {"serial", record.serial},
                      {"signature", record.sig_alg},
                      {"key", string(record.key_alg) + " " + std::to_string(record.key_bits)},
                      {"private", string(record.priv_alg) + " " + std::to_string(record.priv_bits)},
                      {"issuer", record.issuer},
                      {"subject", record.subject},
                      {"hash", std::to_string(record.hash)},
                      {"from", record.not_before},
                      {"until", record.not_after},
                      {"extensions", std::to_string(record.ext_count)}};
}

template <typename List, typename Name>
void tell_entries(call_record& call, const List& found, Name name) {
  std::set<string> entries;
  for (const auto& at : std::span(found.entries, found.count))
    entries.insert(string(at.*name) + " " + at.path);
  for (const string& one : entries) call.seen.fields["entries"] += one + "; ";
  call.seen.fields["count"] = std::to_string(entries.size());
}

void list(call_record& call) {
  dl_trust_ca_list found = {};
  make_plain(call, [&] { return dl_get_trust_ca_info(call.given("record", &found)); });
  tell_entries(call, found, &dl_ca_info::cn);
}

void list_details(call_record& call) {
  dl_trust_ca_list_ex found = {};
  call.make([&] { return dl_get_trust_ca_info_ex(call.given("record", &found), call.result_place()); });
  if (call.seen.rc == 0 && call.seen.code == 1) call.seen.code = 0;  // the last entry went
  if (call.seen.rc == 0 && call.seen.code == 0) call.seen.message.clear();
  tell_entries(call, found, &dl_ca_info_ex::subject);
}

template <int (*function)(const char*)>
void by_path(call_record& call) {
  make_plain(call, [&] { return function(call.word(0)); });
}

void drop(call_record& call) {
  make_plain(call, [] { return dl_del_ser_ca(); });
}

// generate CA CA-KEY KEY CERTIFICATE SUBJECT
void generate(call_record& call) {
  const int bits = call.told.number("bits", 512);
  make_plain(call, [&] {
    return dl_generate_client_cert(call.word(0), call.word(1), call.word(2), call.word(3), call.word(4),
                                   bits);
  });
}

// The key of a file, or a new one.
void key(call_record& call) {
  EVP_PKEY* found = nullptr;
  int reused = 0;
  make_plain(call, [&] { return dl_cert_build_rsa_key(call.word(0), 512, &found, &reused); });
  call.seen.fields["reused"] = std::to_string(reused);
  EVP_PKEY_free(found);
}

struct cert_verb {
  const char* name;
  void (*play)(call_record&);
  int lowest, highest;  // of its codes
  bool writes = false;  // files, with a failure that may be told by the log and the cause alone
};
constexpr cert_verb verbs[] = {{"verify", verify, DL_VERIFY_OK, DL_VERIFY_OTHER},
                               {"info", info, -2, 0},
                               {"details", details, 0, 1},
                               {"own", own, -3, 0},
                               {"list", list, -2, 0},
                               {"list-details", list_details, 0, 2},
                               {"install", by_path<dl_install_ca>, -3, 0, true},
                               {"remove", by_path<dl_del_ca>, 0, 0, true},
                               {"device", by_path<dl_install_ser_ca>, -8, 0, true},
                               {"part", by_path<dl_install_ser_ca_separate>, -1, 0, true},
                               {"drop", drop, 0, 0, true},
                               {"generate", generate, -1, 0, true},
                               {"key", key, -1, 0}};

const cert_verb* verb_of(const story& told) {
  const auto known = std::find_if(std::begin(verbs), std::end(verbs),
                                  [&](const cert_verb& one) { return told.verb == one.name; });
  return known == std::end(verbs) ? nullptr : known;
}

// What OpenSSL shows of a certificate, and whether the key behind it is its own.
string text_of(const string& content) {
  const std::unique_ptr<BIO, decltype(&BIO_free_all)> from(
      BIO_new_mem_buf(content.data(), static_cast<int>(content.size())), BIO_free_all),
      to(BIO_new(BIO_s_mem()), BIO_free_all);
  const std::shared_ptr<X509> certificate(PEM_read_bio_X509(from.get(), nullptr, nullptr, nullptr),
                                          X509_free);
  const std::shared_ptr<EVP_PKEY> key(PEM_read_bio_PrivateKey(from.get(), nullptr, nullptr, nullptr),
                                      EVP_PKEY_free);
  if (certificate) X509_print_ex(to.get(), certificate.get(), XN_FLAG_ONELINE, 0);
  if (certificate && key && X509_check_private_key(certificate.get(), key.get()) == 1)
    BIO_puts(to.get(), "with its key\n");
  if (certificate) BIO_puts(to.get(), verified_by(certificate.get()).c_str());
  ERR_clear_error();
  char* bytes = nullptr;
  const long length = BIO_get_mem_data(to.get(), &bytes);
  return {bytes, static_cast<std::size_t>(length)};
}

// Whether OpenSSL by itself finds a certificate in the story's file, and of one that is verified the CA's signature.
bool openssl_accepts(const story& told) {
  const auto certificate = test::certificate_in(test::read_file(told.words.at(0)));
  return certificate &&
         (told.verb != "verify" || X509_verify(certificate.get(), identity_of("root").key.get()) == 1);
}

// Whether what is new holds the given file's bytes or leads somewhere.
bool only_copies(const story& told, const outcome& seen) {
  const auto given = seen.before.find(told.words.at(0));
  return std::all_of(seen.after.begin(), seen.after.end(), [&](const auto& at) {
    const auto& [path, now] = at;
    const auto old = seen.before.find(path);
    const bool same = old != seen.before.end() && old->second == now;
    return same || now.kind != entry::file ||
           (given != seen.before.end() && now.content == given->second.content);
  });
}

// Each entry is listed without a fault, too, or would be if the list held more.
bool is_part_of(const string& entries, const string& of, const story& told) {
  constexpr long most = 10;
  const bool full = std::count(of.begin(), of.end(), ';') == most;
  for (std::size_t at = 0, end = 0; (end = entries.find("; ", at)) != string::npos; at = end + 2) {
    const string one = entries.substr(at, end - at);
    const bool is_there = std::any_of(told.files.begin(), told.files.end(),
                                      [&](const auto& file) { return one.ends_with("/" + file.first); });
    if (of.find(one) == string::npos && !(full && is_there)) return false;
  }
  return true;
}

}  // namespace

bool is_certificate_call(const story& told) {
  return verb_of(told) != nullptr;
}

void play_certificate_call(call_record& call, const string& directory) {
  const story& told = call.told;
  outcome& seen = call.seen;
  seen.before = look(directory);
  const string path = getenv("PATH");
  if (call.text("programs")) setenv("PATH", call.text("programs"), 1);
  setenv("SSL_CERT_FILE", call.text("systems") ? call.text("systems") : "absent", 1);
  if (chdir(directory.c_str()) != 0) throw std::runtime_error("chdir");
  {
    const captured in(stdin), out(stdout), diagnostics(stderr);
    if (call.text("stdin")) in.hold(told.arguments.at("stdin"), 0);
    if (const char* printed = call.text("printed")) out.hold(printed, static_cast<off_t>(strlen(printed)));
    // An application may not wait for children and let nobody have its new files.
    const bool awkward = call.text("awkward") != nullptr;
    const sighandler_t children = signal(SIGCHLD, awkward ? SIG_IGN : SIG_DFL);
    const mode_t mask = umask(awkward ? 0777 : 022);
    verb_of(told)->play(call);
    signal(SIGCHLD, children);
    umask(mask);
    seen.fields["out"] = out.text();
    const string reasons = diagnostics.text();
    seen.fields["diagnostics"] = reasons.substr(0, reasons.find('\n'));
    if (reasons.size() > diagnostics_limit) seen.broken.push_back("endless diagnostics");
  }
  if (ERR_peek_error() != 0) seen.broken.push_back("an error is left in OpenSSL's queue");
  if (!told.damaged.empty() && !plan.what && !verb_of(told)->writes &&
      (seen.code == 0) != openssl_accepts(told))
    seen.broken.push_back("OpenSSL says otherwise");
  ERR_clear_error();
  if (chdir("..") != 0) throw std::runtime_error("chdir");
  unsetenv("SSL_CERT_FILE");
  setenv("PATH", path.c_str(), 1);
  seen.after = look(directory);
}

std::vector<string> broken_certificate_rules(const story& told, const outcome& whole, const outcome& seen) {
  std::vector<string> broken = seen.broken;
  const auto rule = [&](bool holds, const string& what) {
    if (!holds) broken.push_back(what);
  };
  const cert_verb& verb = *verb_of(told);
  const bool ok = seen.code == 0 && seen.rc == 0, whole_ok = whole.code == 0 && whole.rc == 0;
  const string reason = whole.errors().empty() ? "" : whole.errors().back().text;
  // What cannot be read just now cannot be found to be there already.
  const bool was_there =
      reason.starts_with("cert file same to") || reason.find("has existed") != string::npos;
  tree before = seen.before, after = seen.after;
  for (const log_line& line : seen.errors())
    if (line.text.starts_with("rename errno")) after.erase("ca_tmp.crt");  // what could not be moved stays
  const string no_key = "prikey err,create new";                           // its file goes first
  const auto is_told = [&](const outcome& of) {
    const auto errors = of.errors();
    return !errors.empty() && errors.front().text == no_key;
  };
  if (is_told(whole) && is_told(seen)) {
    const string key_name = told.words.at(told.verb == "generate" ? 2 : 0);
    const auto old = before.find(key_name), now = after.find(key_name);
    if (old != before.end() && !(now != after.end() && now->second == old->second)) before.erase(old);
  }
  if (ok && was_there)
    rule(only_copies(told, seen), "another file than the given one is installed");
  else
    for (const string& one : damages(before, whole.after, after)) broken.push_back(one);
  rule(whole_ok || !ok || was_there, "accepts what is refused without a fault");
  const string cause = seen.told.at("cause");
  const bool told_of = cause != whole.told.at("cause") || (cause != "0 0" && seen.errors() != whole.errors());
  rule(!ok || was_there || !verb.writes || told_of || after == whole.after, "a failure is not told");
  rule(seen.code >= verb.lowest && seen.code <= verb.highest, "a code that is none");
  const string printed = told.argument("printed") ? told.argument("printed") : "";
  for (const auto& [name, value] : seen.fields) {
    const auto without = whole.fields.find(name);
    const string all = without == whole.fields.end() ? "" : without->second;
    const bool missing =
        value.empty() || (name == "out" && printed == value) || value == "0" || value.ends_with(" 0");
    const bool as_whole = name == "entries" ? is_part_of(value, all, told) : name == "count" || value == all;
    const bool of_failure = !ok && (name == "diagnostics" || name == "problems");
    const bool of_commands = verb.writes && name == "diagnostics";
    rule(as_whole || missing || of_failure || of_commands, "another " + name + ": " + value);
  }
  return broken;
}

std::vector<string> broken_damage_rules(const story& told, const outcome& seen) {
  std::vector<string> broken = seen.broken;
  const cert_verb& verb = *verb_of(told);
  const bool accepts = seen.code == 0;
  if (seen.code < verb.lowest || seen.code > verb.highest) broken.push_back("a code that is none");
  if (accepts && !only_copies(told, seen)) broken.push_back("another file than the given one is installed");
  if (!accepts && !differences(seen.before, {}, seen.after).empty())
    broken.push_back("a refusal changes files");
  return broken;
}

std::vector<string> unshown(const story& told, const outcome& seen) {
  std::vector<string> found = differences(seen.before, told.expected.files, seen.after);
  for (const auto& [path, text] : told.expected.shown) {
    const auto at = seen.after.find(path);
    const string shown = at == seen.after.end() ? "" : text_of(at->second.content);
    if (shown.find(text) == string::npos)
      found.push_back(path + " does not show " + text + ":\n" + shown.substr(0, 500));
  }
  for (const auto& [name, value] : told.expected.fields) {
    const auto at = seen.fields.find(name);
    const string actual = at == seen.fields.end() ? "none" : at->second;
    if (actual != value) found.push_back(name + ": expected \"" + value + "\", got \"" + actual + "\"");
  }
  return found;
}

}  // namespace scenario
