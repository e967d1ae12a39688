// http_session.cpp: the session record's life.
#include "http/http_session.h"

#include <openssl/err.h>
#include <stdlib.h>
#include <unistd.h>

#include <exception>
#include <mutex>
#include <new>
#include <unordered_map>

#include "core/owners.h"
#include "net/tls_bio.h"

namespace fetchrig {
namespace {

// The private state of every session that an open call made, by the record's address. The lock guards the map
// alone.
class private_states {
 public:
  http_private* find(const dl_http_session* session) {
    const std::lock_guard guard(lock_);
    const auto found = states_.find(session);
    return found == states_.end() ? nullptr : found->second.get();
  }
  void add(const dl_http_session* session) {
    auto state = std::make_unique<http_private>();
    const std::lock_guard guard(lock_);
    states_[session] = std::move(state);
  }
  void remove(const dl_http_session* session) {
    const std::lock_guard guard(lock_);
    states_.erase(session);
  }

 private:
  std::mutex lock_;
  std::unordered_map<const dl_http_session*, std::unique_ptr<http_private>> states_;
};

// Never destroyed: sessions may outlive static destruction.
private_states& states() {
  static auto* const instance = new private_states;
  return *instance;
}

void end_tls(dl_http_session& session) {
  auto* ssl = static_cast<SSL*>(session.ssl);
  if (!ssl) return;
  start_tls_operation(ssl);
  ERR_clear_error();
  SSL_shutdown(ssl);
  ERR_clear_error();
  SSL_free(ssl);
}

}  // namespace

http_channel::http_channel(dl_http_session& record) : session(record), own(states().find(&record)) {}

bool is_http_session(const dl_http_session* session) {
  return session && session->magic == DL_HTTP_MAGIC;
}

unique_http_session new_http_session() {
  auto record = zeroed_record<dl_http_session>();
  try {
    if (record) states().add(record.get());
  } catch (const std::exception&) {
    return nullptr;
  }
  if (!record) return nullptr;
  record->magic = DL_HTTP_MAGIC;
  return unique_http_session(record.release());
}

void http_session_closer::operator()(dl_http_session* session) const {
  http_channel channel(*session);
  http_session_reset(channel);
  session->magic = 0;
  states().remove(session);
  ::free(session);
}

void free_chunk(http_channel& channel) {
  http_chunk_buf* chunk = channel.session.chunk;
  if (chunk) ::free(chunk->data);
  ::free(chunk);
  channel.session.chunk = nullptr;
  if (channel.own) channel.own->chunk_begin = 0;
}

void free_headers(dl_http_session& session) {
  ::free(session.headers);
  session.headers = nullptr;
  session.headers_len = 0;
}

void http_session_reset(http_channel& channel) {
  constexpr int last_standard_descriptor = 2;
  dl_http_session& session = channel.session;
  free_chunk(channel);
  free_headers(session);
  if (channel.is_tls()) end_tls(session);
  if (session.sock > last_standard_descriptor) ::close(session.sock);
  if (channel.is_tls()) SSL_CTX_free(static_cast<SSL_CTX*>(session.ssl_ctx));
  session = {};
  session.magic = DL_HTTP_MAGIC;
  if (!channel.own) return;
  channel.own->ahead.filled(0);
  channel.own->response = {};
}

}  // namespace fetchrig
