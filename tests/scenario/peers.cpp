// peers.cpp: one cursor over the steps of all connections.
#include "tests/scenario/peers.h"

#include <openssl/err.h>

#include <algorithm>

#include "tests/scenario/cert_table.h"

namespace scenario {
namespace {

std::string shown(std::string_view bytes) {
  std::string text;
  for (const char byte : bytes.substr(0, 200)) {
    char code[8];
    snprintf(code, sizeof code, "\\x%02x", static_cast<unsigned char>(byte));
    text += byte == '\n'               ? "\\n"
            : byte == '\r'             ? "\\r"
            : byte < ' ' || byte > '~' ? code
                                       : std::string(1, byte);
  }
  return "\"" + text + "\"" + (bytes.size() > 200 ? " and more" : "");
}

}  // namespace

certificates::certificates(const test::temp_dir& place) : trusted_dir_(place.make_dir("trusted")) {
  forget_certificates();
  for (const char* line :
       {"cert authority ca", "cert server by=authority names=DNS:a.test,DNS:b.test,IP:10.0.0.3",
        "cert stranger ca", "cert foreign by=stranger names=DNS:a.test",
        "cert elsewhere by=authority subject=/CN=other.test"})
    define_certificate(line);
  const test::identity& authority = identity_of("authority");
  test::write_file(trusted_dir() + test::hash_name_of(authority), test::pem_of(authority));
}

SSL_CTX* certificates::context(const std::string& name) {
  auto found = contexts_.find(name);
  if (found == contexts_.end()) {
    found = contexts_.emplace(name, owned_context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free)).first;
    SSL_CTX* const context = found->second.get();
    const test::identity& server = identity_of(name);
    SSL_CTX_use_certificate(context, server.certificate.get());
    SSL_CTX_use_PrivateKey(context, server.key.get());
    X509_STORE_add_cert(SSL_CTX_get_cert_store(context), identity_of("authority").certificate.get());
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_mode(context, SSL_MODE_NO_AUTO_CHAIN);
    SSL_CTX_set_security_level(context, 0);
  }
  return found->second.get();
}

// One connection: the way to the client and what was received on it.
struct conversation::party {
  std::shared_ptr<link> way;
  std::string inbox;
  std::unique_ptr<SSL, decltype(&SSL_free)> tls{nullptr, SSL_free};
  bool secured = false;  // the handshake is over
  endpoint from;         // where datagrams come from
};

conversation::conversation(const story& told, certificates& known) : told_(told), known_(known) {
  for (const connection& one : told.connections) {
    parties_.push_back(std::make_unique<party>());
    parties_.back()->from = one.at;
    if (one.has("tls")) known.context(one.certificate());  // made in nobody's call
  }
}
conversation::~conversation() = default;

std::shared_ptr<link> conversation::accept(const endpoint& server, bool datagrams) {
  for (std::size_t i = 0; i < parties_.size(); ++i) {
    party& by = *parties_[i];
    const connection& plan = told_.connections[i];
    if (by.way || plan.at != server || plan.has("udp") != datagrams) continue;
    by.way = std::make_shared<link>();
    by.way->mute = plan.has("mute");
    by.way->interrupted = plan.has("interrupted");
    if (plan.has("tls") && !plan.has("later")) start_tls(by, plan);
    return by.way;
  }
  return nullptr;
}

void conversation::start_tls(party& by, const connection& plan) {
  by.tls.reset(SSL_new(known_.context(plan.certificate())));
  SSL_set_bio(by.tls.get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
  SSL_set_accept_state(by.tls.get());
  const int version = plan.has("version") ? TLS1_VERSION + plan.with.at("version").back() - '0' : 0;
  SSL_set_min_proto_version(by.tls.get(), version);
  SSL_set_max_proto_version(by.tls.get(), version);
  if (plan.has("demands"))
    SSL_set_verify(by.tls.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
}

// Client and server share a thread, and with it OpenSSL's queue of errors.
void conversation::pump_tls(party& by) {
  ERR_set_mark();
  SSL* const tls = by.tls.get();
  for (; !by.way->received.empty(); by.way->received.pop_front()) {
    const std::string& bytes = by.way->received.front().bytes;
    BIO_write(SSL_get_rbio(tls), bytes.data(), static_cast<int>(bytes.size()));
  }
  int rc = 1;
  if (!by.secured && (rc = SSL_do_handshake(tls)) == 1) by.secured = true;
  char buffer[4096];
  while (by.secured && (rc = SSL_read(tls, buffer, sizeof buffer)) > 0)
    by.inbox.append(buffer, static_cast<std::size_t>(rc));
  const bool broken = rc <= 0 && SSL_get_error(tls, rc) == SSL_ERROR_SSL;
  std::string out(static_cast<std::size_t>(BIO_ctrl_pending(SSL_get_wbio(tls))), '\0');
  if (!out.empty()) BIO_read(SSL_get_wbio(tls), out.data(), static_cast<int>(out.size()));
  if (!out.empty() && !by.way->dead) by.way->on_way.push_back({std::move(out)});
  if (broken) by.way->dead = by.way->ended = true;
  ERR_pop_to_mark();
}

void conversation::play() {
  for (const auto& by : parties_) {
    if (!by->way) continue;
    if (by->tls && !by->way->dead) {
      pump_tls(*by);
    } else if (!by->way->datagrams) {
      for (; !by->way->received.empty(); by->way->received.pop_front())
        by->inbox += by->way->received.front().bytes;
    }
  }
  while (next_ < told_.steps.size() &&
         advance(told_.steps[next_], *parties_[told_.steps[next_].connection])) {
    ++next_;
    matched_ = 0;
  }
}

bool conversation::pause(const step& now, const party& by) {
  if (wakes_us_ == 0) wakes_us_ = net.clock_us + std::stol(now.bytes) * 1000000;
  const bool nobody = !by.way || by.way->client_closed;
  if (net.clock_us < wakes_us_ && !nobody) return false;
  wakes_us_ = 0;
  return true;
}

// False while it has to wait.
bool conversation::advance(const step& now, party& by) {
  if (now.what == "after") return pause(now, by);
  if (!by.way) return false;
  if (by.way->dead || now.what == "connect") return true;
  const bool closed = by.way->client_closed;
  if (by.tls && !by.secured) return closed;
  if (now.what == "<<" || now.what == "<~") {
    if (by.way->datagrams ? take_datagram(now, by) : take(now, by)) return true;
    if (closed) problem(now, "closed in front of " + shown(std::string_view(now.bytes).substr(matched_)));
    return closed;
  }
  if (now.what == "closed" || now.what == "aborted") {
    if (closed && now.what == "aborted" && !by.way->client_aborted) problem(now, "closed in good order");
    return closed;
  }
  if (now.what == ">>") put(by, now.bytes);
  if (now.what == "secure") start_tls(by, told_.connections[now.connection]);
  if (now.what == "signal") net.interrupts = true;
  if (now.what == "from") {
    const std::size_t colon = now.bytes.find(':');
    by.from = {colon == std::string::npos ? by.way->server.address : now.bytes.substr(0, colon),
               std::stoi(now.bytes.substr(colon + 1))};
  }
  if (now.what == "deaf") by.way->deaf = true;
  if (now.what == "close" || now.what == "hang") end(by, now.what == "close");
  if (now.what == "reset") {
    by.way->dead = by.way->reset = by.way->ended = true;
    by.way->error = ECONNRESET;
  }
  return true;
}

// The bytes as they are, or, of "<~", anything up to and with them.
bool conversation::take(const step& now, party& by) {
  if (now.what == "<~") {
    const std::size_t at = by.inbox.find(now.bytes);
    if (at != std::string::npos) by.inbox.erase(0, at + now.bytes.size());
    return at != std::string::npos;
  }
  const std::string_view wanted = std::string_view(now.bytes).substr(matched_);
  const std::size_t count = std::min(wanted.size(), by.inbox.size());
  if (wanted.substr(0, count) != std::string_view(by.inbox).substr(0, count)) {
    problem(now, "expected " + shown(wanted) + ", received " + shown(by.inbox));
    by.way->dead = by.way->ended = true;
    return true;
  }
  by.inbox.erase(0, count);
  matched_ += count;
  return matched_ == now.bytes.size();
}

bool conversation::take_datagram(const step& now, party& by) {
  if (by.way->received.empty()) return false;
  const packet first = std::move(by.way->received.front());
  by.way->received.pop_front();
  // Whoever sends, answers go to the server, at the port of the last sender.
  const endpoint wanted = {by.way->server.address, by.from.port};
  if (first.bytes == now.bytes && first.other == wanted) return true;
  problem(now, "expected " + shown(now.bytes) + ", received " + shown(first.bytes) + " at " +
                   first.other.address + ":" + std::to_string(first.other.port));
  by.way->dead = true;
  return true;
}

void conversation::put(party& by, const std::string& bytes) {
  if (!by.tls) {
    by.way->on_way.push_back({bytes, by.from});
    return;
  }
  ERR_set_mark();
  SSL_write(by.tls.get(), bytes.data(), static_cast<int>(bytes.size()));
  ERR_pop_to_mark();
  pump_tls(by);
}

void conversation::end(party& by, bool farewell) {
  if (by.tls && farewell && by.secured) {
    ERR_set_mark();
    SSL_shutdown(by.tls.get());
    ERR_pop_to_mark();
    pump_tls(by);
  }
  by.way->ended = true;
}

void conversation::problem(const step& at, const std::string& what) {
  problems_.push_back("line " + std::to_string(at.line) + ": " + what);
}

std::vector<std::string> conversation::problems() {
  if (next_ < told_.steps.size()) problem(told_.steps[next_], "never came to this step");
  for (std::size_t i = 0; i < parties_.size(); ++i) {
    const connection& plan = told_.connections[i];
    const char* asked = parties_[i]->secured ? SSL_get_servername(parties_[i]->tls.get(), 0) : nullptr;
    if (plan.has("sni") && plan.with.at("sni") != (asked ? asked : "none"))
      problems_.push_back(std::string("asks for the server ") + (asked ? asked : "none"));
  }
  for (const auto& by : parties_) {
    const bool listens = by->way && !by->way->deaf && !by->way->dead;
    if (listens && !by->inbox.empty())
      problems_.push_back("received behind the last step: " + shown(by->inbox));
    if (by->way && by->way->datagrams && !by->way->received.empty() && !by->way->dead)
      problems_.push_back("a datagram behind the last step: " + shown(by->way->received.front().bytes));
  }
  return std::exchange(problems_, {});
}

}  // namespace scenario
