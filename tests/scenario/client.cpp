// client.cpp: the verbs, the run around them, and the comparison with what was expected.
#include "tests/scenario/client.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <stdexcept>

#include "core/cause.h"
#include "http/http_status.h"
#include "include/fetchrig.h"
#include "include/fetchrig_openssl.h"
#include "tests/scenario/cert_client.h"
#include "tests/support/log_capture.h"

namespace scenario {
namespace {

namespace fs = std::filesystem;
using std::string;

std::vector<log_line> log_lines;
constexpr int stale_status = 299;
const char* late_limit;  // what another thread sets as MAX_FILE_SIZE while the call connects; null for none

void set_number(uint32_t option, uint32_t value) {
  if (dl_set_option(option, &value) != 0) throw std::runtime_error("an option was refused");
}

int take_line(const char* bytes, int32_t length) {
  const host hold;
  const test::log_message line = test::parsed_line({bytes, static_cast<std::size_t>(length)});
  if (late_limit && line.text.starts_with("Connecting"))
    set_number(DL_OPT_MAX_FILE_SIZE, static_cast<uint32_t>(std::stoul(late_limit)));
  log_lines.push_back({line.level, trim(line.module), line.text});
  return 0;
}

// "1,2,3".
std::vector<string> parts_of(string list) {
  std::replace(list.begin(), list.end(), ',', ' ');
  return words_of(list);
}

// Opens a session by `open(place)`, works with it and closes it.
template <typename Session, typename Open, typename Work, typename Close>
void with_session(call_record& call, Open open, Work work, Close close) {
  auto* session = reinterpret_cast<Session*>(&call);
  Session** const place = call.given("session", &session);
  call.make([&] { return open(place); });
  const bool is_told = call.seen.code != DL_ERR_PARAMETER || !std::is_same_v<Session, dl_http_session>;
  if (call.seen.rc < 0 && place && session && is_told && call.result_place() && call.redirect_place())
    call.seen.broken.push_back("a failed call stores a session");
  if (call.seen.rc < 0) return;
  work(session);
  made([&] { return close(session), 0; });
}

// Reads to the end, each time as much as `size` says next, and goes on after so many failures as `tries` allows.
template <typename Session, typename Read>
void read_all(call_record& call, Session* session, Read read) {
  const auto sizes = parts_of(call.text("size") ? call.text("size") : "64");
  int tries = call.told.number("tries", 1);
  string buffer;
  const auto next = [&](dl_result* result) {
    return made([&] { return read(session, buffer.data(), static_cast<int32_t>(buffer.size()), result); });
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
    call.seen.told["reads"] += (i > 0 ? " " : "") + std::to_string(count);
    if (count > 0) call.seen.body.append(buffer, 0, static_cast<std::size_t>(count));
  }
}

// Sends the files that `sends` lists, "local" being the one of `file`; tells counts and codes as reads.
template <typename Session, typename Send>
void send_each(call_record& call, Session* session, Send send) {
  for (const string& name : parts_of(call.told.arguments.at("sends"))) {
    dl_result result = {};
    const char* path = name == "null" ? nullptr : name == "local" ? call.upload.c_str() : name.c_str();
    const int count = made([&] { return send(session, path, &result); });
    string& told = call.seen.told["reads"];
    told += (told.empty() ? "" : " ") + std::to_string(count < 0 ? result.code : count);
  }
}

void download(call_record& call) {
  const dl_request request = call.request();
  call.make([&] {
    return dl_download(call.given("request", &request), call.local_path(), call.redirect_place(),
                       call.result_place());
  });
}

void upload(call_record& call) {
  const dl_request request = call.request();
  const int mode = call.told.number("mode", DL_HTTP_PUT), limit = call.told.number("limit", 0);
  const char* headers = call.text("headers") ? call.text("headers") : "";
  call.make([&] {
    return dl_upload(call.given("request", &request), call.upload_path(), call.text("remote"),
                     call.redirect_place(), call.result_place(), call.given("headers", headers), mode,
                     static_cast<uint32_t>(limit));
  });
}

void open_by_url(call_record& call) {
  const dl_request request = call.request();
  with_session<dl_handle>(
      call,
      [&](dl_handle** place) {
        return dl_open(call.given("request", &request), place, call.redirect_place(), call.result_place());
      },
      [&](dl_handle* handle) { read_all(call, handle, dl_read); }, dl_close);
}

// A handle of no protocol.
void use_handle(call_record& call) {
  dl_handle other = {4, nullptr};
  char buffer[8];
  const int size = call.told.number("size", sizeof buffer);
  call.make([&] {
    if (call.told.words[0] == "close") return dl_close(call.given("handle", &other)), -1;
    return dl_read(call.given("handle", &other), call.given("buffer", buffer), size, call.result_place());
  });
}

void read_http(call_record& call, dl_http_session* session) {
  read_all(call, session, dl_http_read);
  call.seen.told["left"] = std::to_string(session->remaining);
  if (session->chunk &&
      session->chunk->capacity > 65538u + static_cast<uint32_t>(call.told.number("size", 64)))
    call.seen.broken.push_back("holds a whole large chunk");
}

template <int32_t method>
void open_and_read(call_record& call) {
  const dl_http_request plain = call.http_request(call.told.number("method", method)),
                        *request = call.given("request", &plain);
  const dl_http_request_ex extended = {request, static_cast<uint32_t>(call.told.number("auth", 0))};
  std::vector<string> credentials = parts_of(call.text("list") ? call.text("list") : "");  // "a:1,b:2"
  std::vector<dl_auth_info> list;
  list.reserve(1);
  for (string& one : credentials) {
    const std::size_t colon = one.find(':');
    one[colon] = '\0';
    list.push_back({one.c_str(), one.c_str() + colon + 1});
  }
  const auto open = [&](dl_http_session** place) {
    if (call.text("list"))
      return dl_http_post_multi_auth(place, &plain, list.data(), static_cast<int32_t>(list.size()),
                                     call.redirect, &call.result);
    if (call.text("auth")) return dl_http_open_ex(place, &extended, call.redirect_place(), &call.result);
    return dl_http_open(place, request, call.redirect_place(), &call.result);
  };
  const auto work = [&](dl_http_session* session) {
    call.seen.told["status"] = std::to_string(dl_http_get_status(session));
    for (const auto& [word, value] : call.told.expected.told) {
      if (!word.starts_with("header ")) continue;
      const char* line = dl_http_find_header_by_name(session, word.c_str() + strlen("header "));
      call.seen.told[word] = line ? line : "none";
    }
    read_http(call, session);
    call.seen.told["end"] = std::to_string(dl_http_body_end(session));
  };
  with_session<dl_http_session>(call, open, work, dl_http_close);
}

void fetch(call_record& call) {
  const dl_http_request request = call.http_request(DL_METHOD_GET);
  const dl_http_request_ex extended = {&request, static_cast<uint32_t>(call.told.number("auth", 0))};
  call.make([&] {
    return call.text("auth")
               ? dl_http_recv_to_file_ex(&extended, call.local_path(), call.redirect, &call.result)
               : dl_http_recv_to_file(&request, call.local_path(), call.redirect, &call.result);
  });
}

void send_form(call_record& call) {
  const dl_http_request request = call.http_request(call.told.number("method", DL_METHOD_PUT));
  const auto open = [&](dl_http_session** place) {
    return dl_http_post_file(place, &request, call.upload.c_str(), call.redirect_place(), &call.result);
  };
  const auto work = [&](const dl_http_session* stored) {
    if (stored) call.seen.broken.push_back("a session is stored for a file");
  };
  with_session<dl_http_session>(call, open, work, dl_http_close);
}

// A record that the caller made, with the stated fields alone.
void read_bare(call_record& call) {
  const string at = call.word(0), host = at.substr(0, at.rfind(':'));
  const auto known = call.told.hosts.find(host);
  auto* session = static_cast<dl_http_session*>(calloc(1, sizeof(dl_http_session)));
  session->magic = DL_HTTP_MAGIC;
  session->sock = net.socket(AF_INET, SOCK_STREAM);
  net.connect(session->sock, {known == call.told.hosts.end() ? host : known->second[0],
                              std::stoi(at.substr(host.size() + 1))});
  session->flags = static_cast<uint32_t>(call.told.number("flags", 0));
  session->remaining = static_cast<uint32_t>(std::stoul(call.text("remaining")));
  read_http(call, session);
  net.settle();
  string& rest = call.seen.told["rest"];
  for (const auto* queue : {&net.links[0]->arrived, &net.links[0]->on_way})
    for (const packet& next : *queue) rest += next.bytes.substr(next.taken);
  made([&] { return dl_http_close(session), 0; });
}

void ring(call_record& call) {
  char path[64] = {};
  int32_t number = 0;
  const auto size = static_cast<uint32_t>(call.told.number("size", sizeof path));
  call.result = {};
  call.make([&] {
    return dl_distinctive_ringtone_download(call.given("alert", call.word(0)), call.text("name"),
                                            call.given("number", &number), call.given("path", path), size);
  });
  call.seen.told["ring"] = std::to_string(number);
  call.seen.told["reads"] = std::to_string(call.seen.rc);
  call.seen.told["redirect"] = path;
}

// HOST PORT IPV6 SECONDS behind the verb.
void connect_alone(call_record& call) {
  const auto number = [&](std::size_t at) { return std::stoi(call.told.words.at(at)); };
  int32_t sock = -1;
  call.make([&] {
    sock = dl_connect(call.word(0), number(1), number(2), number(3));
    call.result.code = std::min(sock, 0);
    if (sock < 0) dl_get_error_string(sock, call.result.message, sizeof call.result.message);
    return sock > 2 ? 0 : -1;
  });
  if (sock >= 0) close(sock);
}

// HOST PORT NAME behind the verb.
struct target {
  const char *host, *name, *user, *password;
  uint32_t port;

  explicit target(const call_record& call)
      : host(call.given("host", call.word(0))),
        name(call.given("name", call.told.words.size() > 2 ? call.word(2) : "")),
        user(call.text("user")),
        password(call.text("password")),
        port(static_cast<uint32_t>(std::stoul(call.told.words.at(1)))) {}
};

void ftp_fetch(call_record& call) {
  const target at(call);
  call.make([&] {
    return dl_ftp_recv_to_file(at.host, at.port, at.user, at.password, at.name, call.local_path(),
                               call.result_place());
  });
}

void ftp_read(call_record& call) {
  const target at(call);
  const auto open = [&](dl_ftp_session** place) {
    return dl_ftp_open(place, at.host, at.port, at.user, at.password, at.name, call.result_place());
  };
  const auto work = [&](dl_ftp_session* session) {
    if (const char* left = call.text("left")) session->remaining = static_cast<uint32_t>(std::stoul(left));
    read_all(call, session, dl_ftp_read);
    call.seen.told["left"] = std::to_string(session->remaining);
  };
  with_session<dl_ftp_session>(call, open, work, dl_ftp_close);
}

void ftp_send(call_record& call) {
  const target at(call);
  const int mode = call.told.number("mode", DL_FTP_STORE);
  const auto limit = static_cast<uint32_t>(call.told.number("limit", DL_FTP_LIMIT_STOP));
  const auto open = [&](dl_ftp_session** place) {
    return dl_ftp_send_open(place, at.host, at.port, at.user, at.password, call.upload_path(), at.name, mode,
                            limit, call.result_place());
  };
  const auto work = [&](dl_ftp_session* session) { send_each(call, session, dl_ftp_send); };
  if (call.text("sends")) return with_session<dl_ftp_session>(call, open, work, dl_ftp_close);
  call.make([&] {
    return dl_ftp_send_file(at.host, at.port, at.user, at.password, at.name, call.upload_path(), mode, limit,
                            call.result_place());
  });
}

// What a caller may have written into the record.
void overwrite(const call_record& call, dl_tftp_session& session) {
  session.block = static_cast<uint16_t>(call.told.number("block", session.block));
  session.blksize = call.told.number("blksize", session.blksize);
  session.recv_size = call.told.number("recv", session.recv_size);
}

void tftp_fetch(call_record& call) {
  const target at(call);
  call.make([&] {
    return dl_tftp_recv_to_file(at.host, at.port, at.name, call.local_path(), call.result_place());
  });
}

void tftp_read(call_record& call) {
  const target at(call);
  const auto open = [&](dl_tftp_session** place) {
    return dl_tftp_open(place, at.host, at.port, at.name, call.result_place());
  };
  const auto work = [&](dl_tftp_session* session) {
    overwrite(call, *session);
    uint64_t size = 0;
    if (dl_tftp_get_size(session, &size) == 0) call.seen.told["left"] = std::to_string(size);
    read_all(call, session, dl_tftp_read);
  };
  with_session<dl_tftp_session>(call, open, work, dl_tftp_close);
}

void tftp_send(call_record& call) {
  const target at(call);
  const auto open = [&](dl_tftp_session** place) {
    return dl_tftp_send_open(place, at.host, at.port, at.name, call.result_place());
  };
  const auto work = [&](dl_tftp_session* session) {
    overwrite(call, *session);
    send_each(call, session, dl_tftp_send);
  };
  if (call.text("sends")) return with_session<dl_tftp_session>(call, open, work, dl_tftp_close);
  call.make(
      [&] { return dl_tftp_send_file(at.host, at.port, at.name, call.upload_path(), call.result_place()); });
}

const std::map<string, void (*)(call_record&)> verbs = {
    {"download", download},
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
    {"tftp-send", tftp_send},
};

void set_option(const string& name, const string& value) {
#define NAMED(option) \
  { #option, DL_OPT_##option }
  static const std::map<string, uint32_t> texts = {
      NAMED(USER_AGENT), NAMED(TRUST_CA_DIR), NAMED(DEVICE_CERT_FILE), NAMED(KEY_PASSPHRASE),
      NAMED(KEY_SEED),   NAMED(HTTPS_CA_DIR), NAMED(HTTPS_CERT_FILE)};
  static const std::map<string, uint32_t> numbers = {
      NAMED(SSL_METHOD),  NAMED(VERIFY_PEER), NAMED(MAX_REDIRECTS), NAMED(MAX_FILE_SIZE),
      NAMED(NET_TIMEOUT), NAMED(IPV6),        NAMED(VERIFY_HOST),   NAMED(AUTH_RETRY_LIMIT)};
#define EXTRA(extra) \
  { "EXTRA_" #extra, DL_EXTRA_##extra }
  static const std::map<string, uint32_t> extras = {
      EXTRA(REDIRECTS),   EXTRA(PROXY),           EXTRA(DIGEST),          EXTRA(WHOLE_BODIES),
      EXTRA(RESUME),      EXTRA(FTP_FALLBACKS),   EXTRA(FTP_TLS),         EXTRA(TFTP_PORTS),
      EXTRA(TFTP_WINDOW), EXTRA(TFTP_BLOCK_SIZE), EXTRA(KEPT_CONNECTIONS)};
  if (texts.contains(name)) {
    dl_set_option(texts.at(name), value.c_str());
  } else if (name == "RING_ENTRY") {  // slot, number, name
    const auto words = words_of(value);
    dl_ring_entry entry = {static_cast<uint8_t>(std::stoi(words.at(0))),
                           static_cast<uint8_t>(std::stoi(words.at(1))), ""};
    words.at(2).copy(entry.name, sizeof entry.name - 1);
    dl_set_option(DL_OPT_RING_ENTRY, &entry);
  } else if (name == "TLS_WAIT") {
    dl_set_tls_wait_limit(static_cast<uint32_t>(std::stoul(value)));
  } else if (name == "ANY_SSL_METHOD") {  // dl_set_option() takes no number above 3
    g_dl_cfg.ssl_method = static_cast<uint32_t>(std::stoul(value));
  } else if (name == "SIZE_LIMIT") {
    if (dl_set_size_limit(std::stoull(value)) != 0) throw std::runtime_error("a limit was refused");
  } else if (extras.contains(name)) {
    if (dl_set_extra(extras.at(name), static_cast<uint32_t>(std::stoul(value))) != 0)
      throw std::runtime_error("an extra was refused");
  } else {
    set_number(numbers.at(name), static_cast<uint32_t>(std::stoul(value)));
  }
}

std::vector<bool> open_descriptors() {
  std::vector<bool> open(128);
  for (std::size_t fd = 0; fd < open.size(); ++fd) open[fd] = syscall(SYS_fcntl, fd, F_GETFD) >= 0;
  return open;
}

std::optional<string> content_of(const string& path) {
  if (!fs::exists(path)) return std::nullopt;
  return fs::is_regular_file(path) ? test::read_file(path) : "special";
}

fault_plan plan_of(const story& told, const run& with) {
  if (told.fault.empty()) return {.what = with.what, .nth = with.nth, .times = with.times};
  const auto own = std::find_if(std::begin(faults), std::end(faults),
                                [&](const fault& one) { return told.fault[0] == one.name; });
  if (own == std::end(faults)) throw std::runtime_error("unknown fault " + told.fault[0]);
  return {.what = own,
          .nth = std::stol(told.fault.at(1)),
          .times = told.fault.size() > 2 ? std::stol(told.fault[2]) : 1};
}

string cause_now() {
  dl_cause_info cause = {};
  dl_last_cause(&cause);
  return trim(std::to_string(cause.cause) + " " + std::to_string(cause.number) + " " + cause.text);
}

// What of the lines was not to come, or did not; of calls on certificates warnings too.
std::vector<string> complaints_of_lines(const story& told, const outcome& seen) {
  const expectation& wanted = told.expected;
  const int exact = is_certificate_call(told) ? DL_LOG_WARNING : DL_LOG_ERROR;
  std::vector<string> found;
  string expected, actual;
  for (const log_line& line : wanted.lines) {
    if (line.level <= exact) expected += "\n" + line.module + " " + line.text;
    const bool among = line.level > exact || wanted.any_lines;
    if (among && std::find(seen.lines.begin(), seen.lines.end(), line) == seen.lines.end())
      found.push_back("not logged: " + line.text);
  }
  for (const log_line& line : seen.lines)
    if (line.level <= exact) actual += "\n" + line.module + " " + line.text;
  if (!wanted.any_lines && expected != actual)
    found.push_back("error lines: expected" + expected + "\ngot" + actual);
  return found;
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
  if (const char* from = told.argument("from")) call.upload = from;
  if (fs::is_regular_file(call.local)) fs::remove(call.local);
  const auto given = [&](const char* name) { return told.arguments.contains(name); };
  if (given("old")) test::write_file(call.local, told.arguments.at("old"));
  if (given("file") && content_of(call.upload) != told.arguments.at("file"))
    test::write_file(call.upload, told.arguments.at("file"));
  if (!told.files.empty() || is_certificate_call(told)) plant(place_.path() + "/w", told.files);

  conversation talk(told, certificates_);
  net.start(talk, with.network);
  net.hosts = told.hosts;
  set_options(told);
  log_lines.clear();
  late_limit = told.argument("late");
  const auto before = open_descriptors();
  auto names = test::names_in(place_.path());
  const int64_t start_us = net.clock_us;
  plan = plan_of(told, with);
  if (!told.secrets.empty()) plan.secret = told.secrets.back().c_str();
  if (told.argument("state")) dl_exit();  // the library is not initialised
  fetchrig::clear_cause();
  fetchrig::set_last_status(stale_status);
  if (told.verb != "read" && told.verb != "ring") fetchrig::note_cause(DL_CAUSE_NONE, -1, "stale");
  if (is_certificate_call(told)) {
    play_certificate_call(call, place_.path() + "/w");
  } else if (const auto known = verbs.find(told.verb); known != verbs.end()) {
    known->second(call);
  } else {
    throw std::runtime_error("unknown verb " + told.verb);
  }
  seen.counts.assign(std::begin(plan.counts), std::end(plan.counts));
  // OpenSSL gives back as it is what it had no memory to encrypt.
  const bool had_no_memory = plan.happened && plan.what && plan.what->which == call::memory;
  const bool is_openssl = had_no_memory && std::any_of(told.connections.begin(), told.connections.end(),
                                                       [](const auto& one) { return one.has("tls"); });
  plan.what = nullptr;
  if (plan.secret_freed && !is_openssl) seen.broken.push_back("memory is given back with a password in it");

  net.settle();
  seen.struck = plan.happened || net.struck;
  seen.took_us = net.clock_us - start_us;
  seen.problems = talk.problems();
  seen.num_waits = net.num_waits;
  seen.links = net.links;
  if (dl_get_extra(DL_EXTRA_KEPT_CONNECTIONS) > 0) {  // either closes what is kept
    if (told.is_variant) dl_exit();
    dl_set_extra(DL_EXTRA_KEPT_CONNECTIONS, 0);
  }
  if (net.num_open() > 0) seen.broken.push_back("a socket is left open");
  if (!net.failure.empty()) seen.broken.push_back(net.failure);
  if (open_descriptors() != before) seen.broken.push_back("a descriptor is left open");
  seen.file = content_of(call.local);
  seen.told["file"] = !seen.file ? "none" : fs::is_regular_file(call.local) ? "=" + *seen.file : "special";
  if (seen.file && *seen.file != "special") {
    const auto mode = static_cast<unsigned>(fs::status(call.local).permissions());
    for (const int shift : {6, 3, 0}) seen.told["mode"] += std::to_string(mode >> shift & 7);
  }
  seen.told["part"] = content_of(call.local + ".part").value_or("none");
  for (const char* end : {".part", ".part.info"}) {
    fs::remove(call.local + end);
    std::erase(names, fs::path(call.local + end).filename());
  }
  seen.told["body"] = seen.body;
  seen.told["read"] = std::to_string(seen.read_code);
  seen.told["last"] = std::to_string(dl_http_last_status());
  seen.told["port"] = std::to_string(net.bound_port);
  seen.told["cause"] = cause_now();
  if (seen.told["cause"] == "0 -1 stale" && seen.code != untouched_code && seen.code != DL_ERR_PARAMETER)
    seen.broken.push_back("tells the cause of an earlier call");
  static const std::set<string> of_http = {"get", "post", "put", "delete", "fetch", "send"};
  if (seen.told["last"] == std::to_string(stale_status) && of_http.contains(told.verb))
    seen.broken.push_back("tells the status of an earlier call");
  net.stop();
  dl_exit();
  seen.lines = log_lines;
  if (fs::is_regular_file(call.local)) fs::remove(call.local);
  std::erase(names, fs::path(call.local).filename());
  if (test::names_in(place_.path()) != names && !is_certificate_call(told))
    seen.broken.push_back("another file is left");
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
    const bool brief = std::max(expected.size(), actual.size()) < 100;
    const auto shown = [&](const string& text) { return brief ? "\"" + text + "\"" : test::summary(text); };
    if (expected != actual)
      found.push_back(what + ": expected " + shown(expected) + ", got " + shown(actual));
  };
  char message[256] = "";
  const bool is_transfer = !is_certificate_call(told);
  if (wanted.code != 0 && !wanted.fails && is_transfer)
    dl_get_error_string(wanted.code, message, sizeof message);
  compare("code", std::to_string(wanted.code), std::to_string(seen.code));
  compare("message", wanted.message.value_or(message), seen.message);
  const bool succeeds = wanted.code == 0 && !wanted.fails;
  if (is_transfer && told.verb != "ring")
    compare("return value", succeeds ? "0" : "-1", std::to_string(seen.rc));
  facts asked = wanted.told;
  asked.emplace("read", "0");
  if (!is_transfer || (succeeds && wanted.lines.empty() && !wanted.any_lines)) asked.emplace("cause", "0 0");
  for (const auto& [word, expected] : asked) {
    const auto actual = seen.told.find(word);
    if (word == "rest" && told.verb != "read") continue;  // nobody can see it
    if (word == "cause" && expected == "any") continue;
    compare(word, expected, actual == seen.told.end() ? "" : actual->second);
  }
  std::vector<string> more = complaints_of_lines(told, seen);
  if (!is_transfer) {
    for (const string& one : unshown(told, seen)) more.push_back(one);
  }
  found.insert(found.end(), more.begin(), more.end());
  return found;
}

}  // namespace scenario
