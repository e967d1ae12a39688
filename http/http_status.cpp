// SPDX-License-Identifier: MIT
// http_status.cpp: status and end of a response.
#include "http/http_status.h"

#include "core/cause.h"
#include "http/http_session.h"

namespace fetchrig {
namespace {

// Written and read by each thread for itself.
thread_local int last_status_read = 0;

dl_body_end end_of_chunks(const dl_http_session& session) {
  if (!session.chunk || !session.chunk->finished || session.chunk->length > 0) return DL_BODY_OPEN;
  return session.chunk->finished == DL_HTTP_CHUNKS_ALL ? DL_BODY_WHOLE : DL_BODY_CUT;
}

// Null for a record that is not live or the caller's own, and before a response has been read.
const http_private* known_of(const dl_http_session* session) {
  const http_private* const own = is_http_session(session) ? find_http_private(session) : nullptr;
  return own && own->response.known ? own : nullptr;
}

}  // namespace

bool has_no_body(int status) {
  return (status >= 100 && status < 200) || status == 204 || status == 304;
}

int http_status(const dl_http_session* session) {
  const http_private* const own = known_of(session);
  return own ? own->response.status : 0;
}

dl_body_end http_body_end(const dl_http_session* session) {
  const http_private* const own = known_of(session);
  if (!own) return DL_BODY_OPEN;
  const http_response_facts* const facts = &own->response;
  if (facts->header_cut) return DL_BODY_HEADER_CUT;
  if (own->whole) return end_of_whole_body(*own->whole);
  if (has_no_body(facts->status)) return DL_BODY_WHOLE;
  if (session->flags & DL_HTTP_FLAG_CHUNKED) return end_of_chunks(*session);
  const bool all_read = session->remaining == 0;
  if (facts->has_length && all_read) return DL_BODY_WHOLE;
  if (!facts->stream_ended && !all_read) return DL_BODY_OPEN;
  return facts->has_length ? DL_BODY_CUT : DL_BODY_UNMARKED;
}

int last_status() {
  return last_status_read;
}

void forget_earlier_calls() {
  set_last_status(0);
  clear_cause();
}

void set_last_status(int status) {
  last_status_read = status;
}

}  // namespace fetchrig
