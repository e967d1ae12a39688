// client.cpp: the verbs, the run around them, and the comparison with what was expected.
#include "tests/scenario/client.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

#include "include/fetchrig.h"
#include "include/fetchrig_openssl.h"
#include "tests/scenario/cert_client.h"

namespace scenario {
namespace {

using std::string;

std::vector<log_line> log_lines;

// "QXFR[42]: HTTP<3+error > text\n".
int take_line(const char* bytes, int32_t length) {
  const host hold;
  string line(bytes, static_cast<std::size_t>(length));
  if (line.ends_with('\n')) line.pop_back();
  const std::size_t at = line.find("]: ");
  const bool whole = at != string::npos && line.size() >= at + 18;
  log_lines.push_back(whole ? log_line{line[at + 8] - '0', trim(line.substr(at + 3, 4)), line.substr(at + 18)}
                            : log_line{0, "", line});
  return 0;
}

// What a verb works with.
struct call_record {
  const story& told;
  outcome& seen;
  string local, upload;
  dl_result result = {untouched_code, ""};
  char redirect[DL_REDIRECT_SIZE] = {};

  // The place, or null where the story says so.
  template <typename Place>
  Place* given(const char* name, Place* place) const {
    const char* nulls = told.argument("null");
    return nulls && string(nulls).find(name) != string::npos ? nullptr : place;
  }
  template <typename Session>
  void check_stored(const Session* stored) {
    if (seen.rc < 0 && seen.code != DL_ERR_PARAMETER && stored && !told.argument("null"))
      seen.broken.push_back("a failed call stores a session");
  }
  const char* word(std::size_t at) const { return told.words.at(at).c_str(); }
  const char* local_path() const {
    return told.argument("to") && !*told.argument("to") ? nullptr : local.c_str();
  }
  dl_request request() const {
    return {word(0), told.argument("user"), told.argument("password"), told.argument("proxy")};
  }
  dl_http_request http_request(int32_t method) const {
    return {method,
            word(0),
            told.argument("user"),
            told.argument("password"),
            told.argument("proxy"),
            told.argument("headers"),
            told.argument("body")};
  }
  void finish(int rc) {
    seen.rc = rc;
    seen.code = result.code;
    seen.message.assign(result.message, strnlen(result.message, sizeof result.message));
    seen.redirect = redirect;
  }
};

// "1,2,3".
std::vector<string> parts_of(string list) {
  std::replace(list.begin(), list.end(), ',', ' ');
  return words_of(list);
}

// Reads to the end by `read(buffer, size, result)`, each time as much as `size` says next, and goes on after so many
// failures as `tries` allows.
template <typename Read>
void read_all(call_record& call, Read read) {
  const auto sizes = parts_of(call.told.argument("size") ? call.told.argument("size") : "64");
  int tries = call.told.number("tries", 1);
  string buffer;
  const auto next = [&](dl_result* result) {
    return made([&] { return read(buffer.data(), static_cast<int32_t>(buffer.size()), result); });
  };
  for (std::size_t i = 0;; ++i) {
    buffer.assign(std::stoul(sizes[std::min(i, sizes.size() - 1)]), '\0');
    dl_result result = {};
    const int count = next(&result);
    if (count >= 0 || tries-- > 0) call.seen.read_code = result.code;
    if (count < 0 && result.code == 0) call.seen.read_code = -1;
    if (count == 0 && !plan.what && !net.struck && !buffer.empty() && next(&result) != 0)
      call.seen.broken.push_back("behind the end comes something else");
    if (count < 0 ? tries == 0 : count == 0 && !buffer.empty()) return;
    call.seen.reads.push_back(count);
    if (count > 0) call.seen.body.append(buffer, 0, static_cast<std::size_t>(count));
  }
}

void download(call_record& call) {
  const dl_request request = call.request();
  call.finish(made([&] {
    return dl_download(call.given("request", &request), call.local_path(),
                       call.given("redirect", call.redirect), call.given("result", &call.result));
  }));
}

void upload(call_record& call) {
  const dl_request request = call.request();
  const int mode = call.told.number("mode", DL_HTTP_PUT), limit = call.told.number("limit", 0);
  const char* headers = call.told.argument("headers") ? call.told.argument("headers") : "";
  call.finish(made([&] {
    return dl_upload(call.given("request", &request), call.given("file", call.upload.c_str()),
                     call.told.argument("remote"), call.given("redirect", call.redirect),
                     call.given("result", &call.result), call.given("headers", headers), mode,
                     static_cast<uint32_t>(limit));
  }));
}

void open_by_url(call_record& call) {
  const dl_request request = call.request();
  auto* handle = reinterpret_cast<dl_handle*>(&call);
  call.finish(made([&] {
    return dl_open(call.given("request", &request), call.given("handle", &handle),
                   call.given("redirect", call.redirect), call.given("result", &call.result));
  }));
  call.check_stored(handle);
  if (call.seen.rc < 0) return;
  read_all(call,
           [&](char* to, int32_t size, dl_result* result) { return dl_read(handle, to, size, result); });
  made([&] { return dl_close(handle), 0; });
}

// A handle of no protocol.
void use_handle(call_record& call) {
  dl_handle other = {4, nullptr};
  char buffer[8];
  const int size = call.told.number("size", sizeof buffer);
  call.finish(made([&] {
    if (call.told.words[0] == "close") return dl_close(call.given("handle", &other)), -1;
    return dl_read(call.given("handle", &other), call.given("buffer", buffer), size,
                   call.given("result", &call.result));
  }));
}

// "a:1,b:2".
std::vector<std::pair<string, string>> credentials_of(string list) {
  std::vector<std::pair<string, string>> pairs;
  for (const string& word : parts_of(std::move(list))) {
    const std::size_t colon = word.find(':');
    pairs.emplace_back(word.substr(0, colon), word.substr(colon + 1));
  }
  return pairs;
}

int open_http(call_record& call, dl_http_session** session, const dl_http_request& request) {
  if (const char* list = call.told.argument("list")) {
    const auto pairs = credentials_of(list);
    std::vector<dl_auth_info> infos;
    infos.reserve(1);
    for (const auto& [user, password] : pairs) infos.push_back({user.c_str(), password.c_str()});
    return made([&] {
      return dl_http_post_multi_auth(session, &request, infos.data(), static_cast<int32_t>(infos.size()),
                                     call.redirect, &call.result);
    });
  }
  const dl_http_request_ex extended = {call.given("request", &request),
                                       static_cast<uint32_t>(call.told.number("auth", 0))};
  return made([&] {
    return call.told.argument("auth")
               ? dl_http_open_ex(session, &extended, call.given("redirect", call.redirect), &call.result)
               : dl_http_open(session, call.given("request", &request), call.given("redirect", call.redirect),
                              &call.result);
  });
}

void read_session(call_record& call, dl_http_session* session) {
  read_all(call, [&](char* to, int32_t size, dl_result* result) {
    return dl_http_read(session, to, size, result);
  });
  call.seen.left = session->remaining;
  if (session->chunk && session->chunk->capacity > 65538)
    call.seen.broken.push_back("holds a whole large chunk");
}

template <int32_t method>
void open_and_read(call_record& call) {
  const dl_http_request request = call.http_request(method);
  auto* session = reinterpret_cast<dl_http_session*>(&call);
  call.finish(open_http(call, call.given("session", &session), request));
  call.check_stored(session);
  if (call.seen.rc < 0) return;
  call.seen.status = dl_http_get_status(session);
  for (const auto& [name, value] : call.told.expected.headers) {
    const char* line = dl_http_find_header_by_name(session, name.c_str());
    call.seen.headers.emplace_back(name, line ? line : "none");
  }
  read_session(call, session);
  call.seen.end = dl_http_body_end(session);
  made([&] { return dl_http_close(session), 0; });
}

void fetch(call_record& call) {
  const dl_http_request request = call.http_request(DL_METHOD_GET);
  const dl_http_request_ex extended = {&request, static_cast<uint32_t>(call.told.number("auth", 0))};
  call.finish(made([&] {
    return call.told.argument("auth")
               ? dl_http_recv_to_file_ex(&extended, call.local_path(), call.redirect, &call.result)
               : dl_http_recv_to_file(&request, call.local_path(), call.redirect, &call.result);
  }));
}

void send_form(call_record& call) {
  const dl_http_request request = call.http_request(call.told.number("method", DL_METHOD_PUT));
  auto* session = reinterpret_cast<dl_http_session*>(&call);
  call.finish(made([&] {
    return dl_http_post_file(call.given("session", &session), &request, call.upload.c_str(),
                             call.given("redirect", call.redirect), &call.result);
  }));
  if (call.seen.rc == 0 && session) call.seen.broken.push_back("a session is stored for a file");
  call.check_stored(session);
}

// A record that the caller made, with the stated fields alone.
void read_bare(call_record& call) {
  const string at = call.word(0);
  const std::size_t colon = at.rfind(':');
  const string host = call.told.hosts.contains(at.substr(0, colon))
                          ? call.told.hosts.at(at.substr(0, colon))[0]
                          : at.substr(0, colon);
  auto* session = static_cast<dl_http_session*>(calloc(1, sizeof(dl_http_session)));
  session->magic = DL_HTTP_MAGIC;
  session->sock = net.socket(AF_INET, SOCK_STREAM);
  net.connect(session->sock, {host, std::stoi(at.substr(colon + 1))});
  session->flags = static_cast<uint32_t>(call.told.number("flags", 0));
  session->remaining = static_cast<uint32_t>(std::stoul(call.told.argument("remaining")));
  read_session(call, session);
  net.settle();
  for (const auto* queue : {&net.links[0]->arrived, &net.links[0]->on_way})
    for (const packet& next : *queue) call.seen.rest += next.bytes.substr(next.taken);
  made([&] { return dl_http_close(session), 0; });
}

void ring(call_record& call) {
  char path[64] = {};
  const char* name = call.told.argument("name");
  call.result = {};
  call.finish(made([&] {
    return dl_distinctive_ringtone_download(call.word(0), name, &call.seen.ring, path, sizeof path);
  }));
}

// HOST PORT IPV6 SECONDS behind the verb.
void connect_alone(call_record& call) {
  const auto number = [&](std::size_t at) { return std::stoi(call.told.words.at(at)); };
  int32_t sock = made([&] { return dl_connect(call.word(0), number(1), number(2), number(3)); });
  call.result.code = std::min(sock, 0);
  if (sock < 0) dl_get_error_string(sock, call.result.message, sizeof call.result.message);
  call.finish(sock > 2 ? 0 : -1);
  if (sock >= 0) close(sock);
}

// HOST PORT NAME behind the verb.
struct target {
  const char* host;
  uint32_t port;
  const char* name;

  explicit target(const call_record& call)
      : host(call.given("host", call.word(0))),
        port(static_cast<uint32_t>(std::stoul(call.told.words.at(1)))),
        name(call.given("name", call.told.words.size() > 2 ? call.word(2) : "")) {}
};

// Opens a session by `open(place, result)`, works with it and closes it.
template <typename Session, typename Open, typename Work, typename Close>
void with_session(call_record& call, Open open, Work work, Close close) {
  auto* session = reinterpret_cast<Session*>(&call);
  call.finish(
      made([&] { return open(call.given("session", &session), call.given("result", &call.result)); }));
  const bool has_place = call.given("session", &session) != nullptr;
  if (call.seen.rc < 0 && has_place && session) call.seen.broken.push_back("a failed call stores a session");
  if (call.seen.rc < 0) return;
  work(session);
  made([&] { return close(session), 0; });
}

// Sends the files that `sends` lists, "local" being the one of `file`; tells counts and codes as reads.
template <typename Send>
void send_each(call_record& call, Send send) {
  for (const string& name : parts_of(call.told.arguments.at("sends"))) {
    dl_result result = {};
    const string& path = name == "local" ? call.upload : name;
    const int count = made([&] { return send(name == "null" ? nullptr : path.c_str(), &result); });
    call.seen.reads.push_back(count < 0 ? result.code : count);
  }
}

void ftp_fetch(call_record& call) {
  const target at(call);
  call.finish(made([&] {
    return dl_ftp_recv_to_file(at.host, at.port, call.told.argument("user"), call.told.argument("password"),
                               at.name, call.local_path(), call.given("result", &call.result));
  }));
}

void ftp_read(call_record& call) {
  const target at(call);
  const auto open = [&](dl_ftp_session** place, dl_result* result) {
    return dl_ftp_open(place, at.host, at.port, call.told.argument("user"), call.told.argument("password"),
                       at.name, result);
  };
  const auto work = [&](dl_ftp_session* session) {
    if (const char* left = call.told.argument("left"))
      session->remaining = static_cast<uint32_t>(std::stoul(left));
    read_all(call, [&](char* to, int32_t size, dl_result* result) {
      return dl_ftp_read(session, to, size, result);
    });
    call.seen.left = session->remaining;
  };
  with_session<dl_ftp_session>(call, open, work, dl_ftp_close);
}

void ftp_send(call_record& call) {
  const target at(call);
  const char *user = call.told.argument("user"), *password = call.told.argument("password");
  const char* local = call.given("file", call.upload.c_str());
  const int mode = call.told.number("mode", DL_FTP_STORE);
  const auto limit = static_cast<uint32_t>(call.told.number("limit", DL_FTP_LIMIT_STOP));
  if (!call.told.argument("sends")) {
    call.finish(made([&] {
      return dl_ftp_send_file(at.host, at.port, user, password, at.name, local, mode, limit,
                              call.given("result", &call.result));
    }));
    return;
  }
  const auto open = [&](dl_ftp_session** place, dl_result* result) {
    return dl_ftp_send_open(place, at.host, at.port, user, password, local, at.name, mode, limit, result);
  };
  const auto work = [&](dl_ftp_session* session) {
    send_each(call, [&](const char* path, dl_result* result) { return dl_ftp_send(session, path, result); });
  };
  with_session<dl_ftp_session>(call, open, work, dl_ftp_close);
}

// What a caller may have written into the record.
void overwrite(const call_record& call, dl_tftp_session& session) {
  session.block = static_cast<uint16_t>(call.told.number("block", session.block));
  session.blksize = call.told.number("blksize", session.blksize);
  session.recv_size = call.told.number("recv", session.recv_size);
}

void tftp_fetch(call_record& call) {
  const target at(call);
  call.finish(made([&] {
    return dl_tftp_recv_to_file(at.host, at.port, at.name, call.local_path(),
                                call.given("result", &call.result));
  }));
}

void tftp_read(call_record& call) {
  const target at(call);
  const auto open = [&](dl_tftp_session** place, dl_result* result) {
    return dl_tftp_open(place, at.host, at.port, at.name, result);
  };
  const auto work = [&](dl_tftp_session* session) {
    overwrite(call, *session);
    read_all(call, [&](char* to, int32_t size, dl_result* result) {
      return dl_tftp_read(session, to, size, result);
    });
  };
  with_session<dl_tftp_session>(call, open, work, dl_tftp_close);
}

void tftp_send(call_record& call) {
  const target at(call);
  if (!call.told.argument("sends")) {
    call.finish(made([&] {
      return dl_tftp_send_file(at.host, at.port, at.name, call.given("file", call.upload.c_str()),
                               call.given("result", &call.result));
    }));
    return;
  }
  const auto open = [&](dl_tftp_session** place, dl_result* result) {
    return dl_tftp_send_open(place, at.host, at.port, at.name, result);
  };
  const auto work = [&](dl_tftp_session* session) {
    overwrite(call, *session);
    send_each(call, [&](const char* path, dl_result* result) { return dl_tftp_send(session, path, result); });
  };
  with_session<dl_tftp_session>(call, open, work, dl_tftp_close);
}

struct verb {
  const char* name;
  void (*play)(call_record&);
};
constexpr verb verbs[] = {{"download", download},
                          {"upload", upload},
                          {"open", open_by_url},
                          {"handle", use_handle},
                          {"get", open_and_read<DL_METHOD_GET>},
                          {"post", open_and_read<DL_METHOD_POST>},
                          {"put", open_and_read<DL_METHOD_PUT>},
                          {"delete", open_and_read<DL_METHOD_DELETE>},
                          {"fetch", fetch},
                          {"send", send_form},
                          {"read", read_bare},
                          {"ring", ring},
                          {"connect", connect_alone},
                          {"ftp-fetch", ftp_fetch},
                          {"ftp-read", ftp_read},
                          {"ftp-send", ftp_send},
                          {"tftp-fetch", tftp_fetch},
                          {"tftp-read", tftp_read},
                          {"tftp-send", tftp_send}};

// Options by their names; text or a number.
struct option {
  const char* name;
  uint32_t number;
  bool is_text;
};
constexpr option option_names[] = {{"USER_AGENT", DL_OPT_USER_AGENT, true},
                                   {"TRUST_CA_DIR", DL_OPT_TRUST_CA_DIR, true},
                                   {"DEVICE_CERT_FILE", DL_OPT_DEVICE_CERT_FILE, true},
                                   {"KEY_PASSPHRASE", DL_OPT_KEY_PASSPHRASE, true},
                                   {"KEY_SEED", DL_OPT_KEY_SEED, true},
                                   {"SSL_METHOD", DL_OPT_SSL_METHOD, false},
                                   {"VERIFY_PEER", DL_OPT_VERIFY_PEER, false},
                                   {"MAX_REDIRECTS", DL_OPT_MAX_REDIRECTS, false},
                                   {"MAX_FILE_SIZE", DL_OPT_MAX_FILE_SIZE, false},
                                   {"NET_TIMEOUT", DL_OPT_NET_TIMEOUT, false},
                                   {"IPV6", DL_OPT_IPV6, false},
                                   {"VERIFY_HOST", DL_OPT_VERIFY_HOST, false},
                                   {"HTTPS_CA_DIR", DL_OPT_HTTPS_CA_DIR, true},
                                   {"HTTPS_CERT_FILE", DL_OPT_HTTPS_CERT_FILE, true},
                                   {"AUTH_RETRY_LIMIT", DL_OPT_AUTH_RETRY_LIMIT, false}};

void set_number(uint32_t option, uint32_t value) {
  if (dl_set_option(option, &value) != 0) throw std::runtime_error("an option was refused");
}

void set_option(const string& name, const string& value) {
  if (name == "TLS_WAIT") return dl_set_tls_wait_limit(static_cast<uint32_t>(std::stoul(value)));
  if (name == "ANY_SSL_METHOD") {  // dl_set_option() takes no number above 3
    g_dl_cfg.ssl_method = static_cast<uint32_t>(std::stoul(value));
    return;
  }
  if (name == "RING_ENTRY") {  // slot, number, name
    const auto words = words_of(value);
    dl_ring_entry entry = {static_cast<uint8_t>(std::stoi(words.at(0))),
                           static_cast<uint8_t>(std::stoi(words.at(1))), ""};
    words.at(2).copy(entry.name, sizeof entry.name - 1);
    dl_set_option(DL_OPT_RING_ENTRY, &entry);
    return;
  }
  for (const option& one : option_names) {
    if (name != one.name) continue;
    if (!one.is_text) return set_number(one.number, static_cast<uint32_t>(std::stoul(value)));
    dl_set_option(one.number, value.c_str());
    return;
  }
  throw std::runtime_error("unknown option " + name);
}

std::vector<bool> open_descriptors() {
  std::vector<bool> open(128);
  for (std::size_t fd = 0; fd < open.size(); ++fd) open[fd] = syscall(SYS_fcntl, fd, F_GETFD) >= 0;
  return open;
}

void write_unless_there(const string& path, const string& content) {
  if (test::file_exists(path) && test::read_file(path) == content) return;
  test::write_file(path, content);
}

bool is_regular(const string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}
void remove_file(const string& path) {
  if (is_regular(path)) unlink(path.c_str());
}
std::optional<string> content_of(const string& path) {
  if (is_regular(path)) return test::read_file(path);
  return test::file_exists(path) ? std::optional<string>("special") : std::nullopt;
}

}  // namespace

std::vector<log_line> outcome::errors() const {
  std::vector<log_line> found;
  std::copy_if(lines.begin(), lines.end(), std::back_inserter(found),
               [](const log_line& one) { return one.level <= 3; });
  return found;
}

stage::stage() {
  if (chdir(place_.path().c_str()) != 0) throw std::runtime_error("chdir");
}

void stage::set_options(const story& told) {
  dl_config_init();
  dl_log_init(0, take_line);
  dl_set_log_module_level(DL_LOG_ANY, DL_LOG_DEBUG);
  dl_set_tls_wait_limit(5);
  dl_set_option(DL_OPT_HTTPS_CA_DIR, certificates_.trusted_dir().c_str());
  set_number(DL_OPT_SSL_METHOD, 3);
  set_number(DL_OPT_VERIFY_PEER, 1);
  set_number(DL_OPT_VERIFY_HOST, 1);
  if (is_certificate_call(told)) {
    dl_set_option(DL_OPT_TRUST_CA_DIR, (place_.path() + "/w/store/").c_str());
    dl_set_option(DL_OPT_DEVICE_CERT_FILE, (place_.path() + "/w/config/server/own.pem").c_str());
  }
  for (const auto& [name, value] : told.options) set_option(name, value);
}

outcome stage::play(const story& told, const run& with) {
  outcome seen;
  call_record call{told, seen, place_.file("got"), place_.file("local")};
  if (const char* to = told.argument("to")) call.local = *to ? to : told.argument("as");
  remove_file(call.local);
  if (const char* old = told.old_content()) test::write_file(call.local, old);
  for (const auto& [name, target] : told.link_files) {
    unlink(name.c_str());
    if (symlink(target.c_str(), name.c_str()) != 0) throw std::runtime_error("symlink");
  }
  for (const auto& [name, size] : told.sparse_files) {
    test::write_file(name, "");
    if (truncate(name.c_str(), size) != 0) throw std::runtime_error("truncate");
  }
  if (const char* from = told.argument("from")) call.upload = from;
  if (told.argument("file")) write_unless_there(call.upload, told.arguments.at("file"));

  conversation talk(told, certificates_);
  net.start(talk, with.network);
  net.hosts = told.hosts;
  net.num_busy_ports = told.num_busy_ports;
  set_options(told);
  log_lines.clear();
  const auto before = open_descriptors();
  const int64_t start_us = net.clock_us;
  plan = {.what = with.what, .lasting = with.lasting, .nth = with.nth};
  if (!told.fault.empty()) {
    const auto own = std::find_if(std::begin(faults), std::end(faults),
                                  [&](const fault& one) { return told.fault == one.name; });
    if (own == std::end(faults)) throw std::runtime_error("unknown fault " + told.fault);
    plan = {.what = own, .lasting = told.fault_lasts, .nth = told.fault_at};
  }
  const auto known = std::find_if(std::begin(verbs), std::end(verbs),
                                  [&](const verb& one) { return told.verb == one.name; });
  if (known == std::end(verbs) && !is_certificate_call(told))
    throw std::runtime_error("unknown verb " + told.verb);
  if (told.argument("state")) dl_exit();  // the library is not initialised
  if (is_certificate_call(told)) {
    play_certificate_call(told, place_.path() + "/w", seen);
  } else {
    known->play(call);
  }
  seen.last_status = dl_http_last_status();
  seen.counts.assign(std::begin(plan.counts), std::end(plan.counts));
  plan.what = nullptr;
  dl_cause_info cause = {};
  dl_last_cause(&cause);
  seen.cause = trim(std::to_string(cause.cause) + " " + std::to_string(cause.number) + " " + cause.text);

  net.settle();
  seen.struck = plan.happened || net.struck;
  seen.port = net.bound_port;
  seen.took_us = net.clock_us - start_us;
  seen.problems = talk.problems();
  seen.num_waits = net.num_waits;
  seen.links = net.links;
  if (net.num_open() > 0) seen.broken.push_back("a socket is left open");
  if (!net.failure.empty()) seen.broken.push_back(net.failure);
  if (open_descriptors() != before) seen.broken.push_back("a descriptor is left open");
  net.stop();
  dl_exit();
  seen.lines = log_lines;
  seen.file = content_of(call.local);
  remove_file(call.local);
  for (const log_line& line : seen.lines) {
    for (const string& secret : told.secrets) {
      if (line.text.find(secret) != string::npos)
        seen.broken.push_back("the log tells a secret: " + line.text);
    }
  }
  return seen;
}

std::vector<string> complaints(const story& told, const outcome& seen) {
  std::vector<string> found = seen.problems;
  const expectation& wanted = told.expected;
  const auto compare = [&](const string& what, const string& expected, const string& actual) {
    if (expected != actual) found.push_back(what + ": expected \"" + expected + "\", got \"" + actual + "\"");
  };
  const auto compare_number = [&](const string& what, const auto& expected, int64_t actual) {
    if (expected) compare(what, std::to_string(*expected), std::to_string(actual));
  };
  const auto compare_bytes = [&](const string& what, const string& expected, const string& actual) {
    const bool brief = std::max(expected.size(), actual.size()) < 100;
    if (expected != actual && brief) compare(what, expected, actual);
    if (expected != actual && !brief) compare(what, test::summary(expected), test::summary(actual));
  };
  char message[256] = "";
  if (wanted.code != 0 && !wanted.fails && !is_certificate_call(told))
    dl_get_error_string(wanted.code, message, sizeof message);
  compare("code", std::to_string(wanted.code), std::to_string(seen.code));
  const bool succeeds = wanted.code == 0 && !wanted.fails;
  const bool tells_rc = told.verb != "ring" && !is_certificate_call(told);
  if (tells_rc) compare("return value", succeeds ? "0" : "-1", std::to_string(seen.rc));
  compare("message", wanted.message.value_or(message), seen.message);
  if (wanted.file) {
    const string kept = *wanted.file == "kept" ? string("=") + told.old_content() : *wanted.file;
    const bool special = seen.file == "special";
    compare_bytes("file", kept, special ? "special" : seen.file ? "=" + *seen.file : "none");
  }
  if (wanted.body) compare_bytes("body", *wanted.body, seen.body);
  compare("read", std::to_string(wanted.read_code.value_or(0)), std::to_string(seen.read_code));
  if (wanted.redirect) compare("redirect", *wanted.redirect, seen.redirect);
  if (wanted.rest && told.verb == "read") compare_bytes("rest", *wanted.rest, seen.rest);
  compare_number("last status", wanted.last_status, seen.last_status);
  compare_number("status", wanted.status, seen.status);
  compare_number("end", wanted.end, seen.end);
  compare_number("ring", wanted.ring, seen.ring);
  compare_number("port", wanted.port, seen.port);
  if (wanted.cause) compare("cause", *wanted.cause, seen.cause);
  compare_number("left", wanted.left, seen.left);
  if (wanted.reads && *wanted.reads != seen.reads) found.push_back("the counts of the reads differ");
  if (is_certificate_call(told)) {
    const std::vector<string> more = unshown(told, seen);
    found.insert(found.end(), more.begin(), more.end());
  }
  for (std::size_t i = 0; i < std::min(wanted.headers.size(), seen.headers.size()); ++i)
    compare("header " + wanted.headers[i].first, wanted.headers[i].second, seen.headers[i].second);

  string expected_lines, actual_lines;
  for (const log_line& line : wanted.lines) {
    if (line.level <= 3) expected_lines += "\n" + line.module + " " + line.text;
    const bool among = line.level > 3 || wanted.any_lines;
    if (among && std::find(seen.lines.begin(), seen.lines.end(), line) == seen.lines.end())
      found.push_back("not logged: " + line.text);
  }
  if (wanted.any_lines) return found;
  for (const log_line& line : seen.errors()) actual_lines += "\n" + line.module + " " + line.text;
  compare("error lines", expected_lines, actual_lines);
  return found;
}

}  // namespace scenario
