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

struct cert_call {
  const story& told;
  outcome& seen;

  // The argument, or null where the story says so.
  template <typename Place>
  Place* given(const char* name, Place* place) const {
    const char* nulls = told.argument("null");
    return nulls && string(nulls).find(name) != string::npos ? nullptr : place;
  }
  const char* word(std::size_t at) const { return at < told.words.size() ? told.words[at].c_str() : nullptr; }
  string& field(const char* name) { return seen.fields[name]; }
  void returned(int rc) { seen.rc = seen.code = rc; }
  void returned(int rc, const dl_result& result) {
    seen.rc = rc;
    seen.code = result.code;
    seen.message = result.message;
  }
};

void verify(cert_call& call) {
  dl_result result = {untouched_code, ""};
  const auto flags = static_cast<uint32_t>(call.told.number("flags", 0));
  const int rc = made([&] {
    return dl_cert_verify(call.word(0), call.told.argument("dir"), call.told.argument("ca"), flags,
                          call.given("result", &result));
  });
  call.returned(rc, result);
  int32_t numbers[DL_MAX_VERIFY_PROBLEMS] = {};
  const int count = dl_cert_verify_problems(numbers, DL_MAX_VERIFY_PROBLEMS);
  for (int i = 0; i < count; ++i) call.field("problems") += (i > 0 ? " " : "") + std::to_string(numbers[i]);
}

void tell(cert_call& call, const dl_ca_info& info) {
  call.field("cn") = info.cn;
  call.field("org") = info.org;
  call.field("until") = info.not_after;
  call.field("hash") = std::to_string(info.hash);
  call.field("path") = info.path;
}

void info(cert_call& call) {
  dl_ca_info record = {};
  call.returned(made([&] { return dl_get_ca_info(call.word(0), call.given("record", &record)); }));
  tell(call, record);
}

void own(cert_call& call) {
  dl_ca_info record;
  memset(&record, 'x', sizeof record);
  call.returned(made([&] { return dl_get_ser_ca_info(call.given("record", &record)); }));
  if (!call.told.argument("null")) tell(call, record);
}

void details(cert_call& call) {
  dl_ca_info_ex record = {};
  dl_result result = {untouched_code, ""};
  const auto flags = static_cast<uint32_t>(call.told.number("flags", 0));
  const int rc = made([&] {
    return dl_get_ca_info_ex(call.word(0), call.given("record", &record), flags,
                             call.given("result", &result));
  });
  call.returned(rc, result);
  call.field("version") = std::to_string(record.version);
  call.field("serial") = record.serial;
  call.field("signature") = record.sig_alg;
  call.field("key") = string(record.key_alg) + " " + std::to_string(record.key_bits);
  call.field("private") = string(record.priv_alg) + " " + std::to_string(record.priv_bits);
  call.field("issuer") = record.issuer;
  call.field("subject") = record.subject;
  call.field("hash") = std::to_string(record.hash);
  call.field("from") = record.not_before;
  call.field("until") = record.not_after;
  call.field("extensions") = std::to_string(record.ext_count);
}

void tell_entries(cert_call& call, const std::set<string>& entries) {
  for (const string& one : entries) call.field("entries") += one + "; ";
  call.field("count") = std::to_string(entries.size());
}

void list(cert_call& call) {
  dl_trust_ca_list found = {};
  std::set<string> entries;
  call.returned(made([&] { return dl_get_trust_ca_info(call.given("record", &found)); }));
  for (const dl_ca_info& at : std::span(found.entries, found.count))
    entries.insert(string(at.cn) + " " + at.path);
  tell_entries(call, entries);
}

void list_details(cert_call& call) {
  dl_trust_ca_list_ex found = {};
  dl_result result = {untouched_code, ""};
  std::set<string> entries;
  const int rc = made(
      [&] { return dl_get_trust_ca_info_ex(call.given("record", &found), call.given("result", &result)); });
  call.returned(rc, result);
  if (rc == 0 && (result.code == 0 || result.code == 1)) call.seen.code = 0;  // 1: the last entry went
  for (const dl_ca_info_ex& at : std::span(found.entries, found.count))
    entries.insert(string(at.subject) + " " + at.path);
  tell_entries(call, entries);
}

template <int (*function)(const char*)>
void by_path(cert_call& call) {
  call.returned(made([&] { return function(call.word(0)); }));
}

void drop(cert_call& call) {
  call.returned(made([] { return dl_del_ser_ca(); }));
}

// generate CA CA-KEY KEY CERTIFICATE SUBJECT
void generate(cert_call& call) {
  const int bits = call.told.number("bits", 512);
  call.returned(made([&] {
    return dl_generate_client_cert(call.word(0), call.word(1), call.word(2), call.word(3), call.word(4),
                                   bits);
  }));
}

// The key of a file, or a new one.
void key(cert_call& call) {
  EVP_PKEY* found = nullptr;
  int reused = 0;
  call.returned(made([&] { return dl_cert_build_rsa_key(call.word(0), 512, &found, &reused); }));
  call.field("reused") = std::to_string(reused);
  EVP_PKEY_free(found);
}

struct cert_verb {
  const char* name;
  void (*play)(cert_call&);
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

// What an application may have set for its own ends: children need not be waited for, new files are nobody's.
class awkward_process {
 public:
  explicit awkward_process(bool wanted)
      : children_(signal(SIGCHLD, wanted ? SIG_IGN : SIG_DFL)), mask_(umask(wanted ? 0777 : 022)) {}
  ~awkward_process() {
    signal(SIGCHLD, children_);
    umask(mask_);
  }

 private:
  sighandler_t children_;
  mode_t mask_;
};

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

using unique_store = std::unique_ptr<X509_STORE, decltype(&X509_STORE_free)>;
using unique_context = std::unique_ptr<X509_STORE_CTX, decltype(&X509_STORE_CTX_free)>;

// Whether OpenSSL verifies the certificate by its own look-ups.
bool openssl_verifies(const story& told, X509* certificate) {
  const unique_store store(X509_STORE_new(), X509_STORE_free);
  X509_STORE_set_verify_cb(store.get(), cb);
  const char *file = told.argument("ca"), *directory = told.argument("dir");
  X509_LOOKUP* files = X509_STORE_add_lookup(store.get(), X509_LOOKUP_file());
  X509_LOOKUP* hashed = X509_STORE_add_lookup(store.get(), X509_LOOKUP_hash_dir());
  X509_LOOKUP_load_file(files, file, file ? X509_FILETYPE_PEM : X509_FILETYPE_DEFAULT);
  X509_LOOKUP_add_dir(hashed, directory, directory ? X509_FILETYPE_PEM : X509_FILETYPE_DEFAULT);
  const unique_context context(X509_STORE_CTX_new(), X509_STORE_CTX_free);
  return X509_STORE_CTX_init(context.get(), store.get(), certificate, nullptr) == 1 &&
         X509_verify_cert(context.get()) == 1;
}

// Whether OpenSSL by itself says of the story's file what the call said, where that depends on the file alone. Its own
// readers would wait for a pipe.
bool openssl_agrees(const story& told, const outcome& seen) {
  const bool odd = std::any_of(told.files.begin(), told.files.end(), [](const auto& file) {
    return file.second.kind == entry::pipe || file.second.kind == entry::link || file.second.zeros > 0;
  });
  const bool verifies = told.verb == "verify";
  const bool describes = told.verb == "info" || told.verb == "details";
  const bool installs = told.verb == "install" && !told.damaged.empty();
  const bool set_up = verifies && (seen.code == DL_VERIFY_SETUP || told.argument("flags"));
  if (odd || set_up || told.argument("null") || !(verifies || describes || installs)) return true;
  const bool is_there = test::file_exists(told.words.at(0));
  const auto certificate = test::certificate_in(is_there ? test::read_file(told.words.at(0)) : "");
  const bool accepts = certificate && (!verifies || openssl_verifies(told, certificate.get()));
  return accepts == (seen.code == 0);
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

void play_certificate_call(const story& told, const string& directory, outcome& seen) {
  seen.before = look(directory);
  const char* programs = told.argument("programs");
  const string path = getenv("PATH");
  if (programs) setenv("PATH", programs, 1);
  setenv("SSL_CERT_FILE", told.argument("systems") ? told.argument("systems") : "absent", 1);
  if (chdir(directory.c_str()) != 0) throw std::runtime_error("chdir");
  cert_call call{told, seen};
  {
    const awkward_process around(told.argument("awkward") != nullptr);
    const captured in(stdin), out(stdout), diagnostics(stderr);
    if (told.argument("stdin")) in.hold(told.arguments.at("stdin"), 0);
    if (const char* printed = told.argument("printed"))
      out.hold(printed, static_cast<off_t>(strlen(printed)));
    verb_of(told)->play(call);
    call.field("out") = out.text();
    const string reasons = diagnostics.text();
    call.field("diagnostics") = reasons.substr(0, reasons.find('\n'));
    if (reasons.size() > diagnostics_limit) seen.broken.push_back("endless diagnostics");
  }
  if (ERR_peek_error() != 0) seen.broken.push_back("an error is left in OpenSSL's queue");
  if (!plan.what && !openssl_agrees(told, seen)) seen.broken.emplace_back("OpenSSL says otherwise");
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
  if (is_told(whole) && is_told(seen)) before.erase(told.words.at(told.verb == "generate" ? 2 : 0));
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
