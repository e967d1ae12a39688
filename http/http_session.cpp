// SPDX-License-Identifier: MIT
// http_session.cpp: the session record's life.
#include "http/http_session.h"

#include <openssl/err.h>
#include <stdlib.h>

#include <array>
#include <cstddef>
#include <functional>
#include <new>

#include "core/boundary.h"
#include "core/owners.h"
#include "core/process_lock.h"
#include "net/socket.h"
#include "net/tls_bio.h"

namespace fetchrig {
namespace {

// The private state of every session that an open call made, found by the record's address. Chained in
// buckets of static storage: the table allocates nothing, and unloading the library leaves nothing of it.
std::array<http_private*, 64> states;

// The place that holds the session's state, or the null at the end of its bucket. Under process_lock.
http_private** place_of(const dl_http_session* session) {
  http_private** place = &states[std::hash<const void*>()(session) / alignof(max_align_t) % states.size()];
  while (*place && (*place)->owner != session) place = &(*place)->next;
  return place;
}

bool add_state(const dl_http_session* session) {
  auto* state = new (std::nothrow) http_private;
  if (!state) return false;
  state->owner = session;
  const process_lock lock;
  *place_of(session) = state;
  return true;
}

std::unique_ptr<http_private> take_state(const dl_http_session* session) {
  const process_lock lock;
  http_private** place = place_of(session);
  http_private* const state = *place;
  if (state) *place = state->next;
  return std::unique_ptr<http_private>(state);
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

http_private* find_http_private(const dl_http_session* session) {
  const process_lock lock;
  return *place_of(session);
}

bool is_http_session(const dl_http_session* session) {
  return session && session->magic == DL_HTTP_MAGIC;
}

unique_http_session new_http_session() {
  auto record = zeroed_record<dl_http_session>();
  if (!record || !add_state(record.get())) return nullptr;
  record->magic = DL_HTTP_MAGIC;
  return unique_http_session(record.release());
}

void http_session_closer::operator()(dl_http_session* session) const {
  http_channel channel(*session);
  http_session_reset(channel);
  session->magic = 0;
  take_state(session).reset();
  free(session);
}

void http_close(dl_http_session* session) {
  if (is_http_session(session)) guarded([session] { http_session_closer()(session); });
}

void free_chunk(http_channel& channel) {
  http_chunk_buf* chunk = channel.session.chunk;
  if (chunk) free(chunk->data);
  free(chunk);
  channel.session.chunk = nullptr;
  if (channel.own) channel.own->chunk_begin = 0;
}

void free_headers(dl_http_session& session) {
  free(session.headers);
  session.headers = nullptr;
  session.headers_len = 0;
}

void http_session_reset(http_channel& channel) {
  dl_http_session& session = channel.session;
  keep_connection(channel);
  free_chunk(channel);
  free_headers(session);
  if (channel.is_tls()) end_tls(session);
  close_socket(session.sock);
  if (channel.is_tls()) SSL_CTX_free(static_cast<SSL_CTX*>(session.ssl_ctx));
  session = {};
  session.magic = DL_HTTP_MAGIC;
  if (!channel.own) return;
  channel.own->ahead.filled(0);
  channel.own->response = {};
}

}  // namespace fetchrig
