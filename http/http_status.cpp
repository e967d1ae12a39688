// http_status.cpp: what is known of a response beside its body: its status and how the body ended.
#include "core/boundary.h"
#include "http/http_session.h"
#include "include/fetchrig.h"

namespace fetchrig {
namespace {

// Written and read by each thread for itself.
thread_local int last_status = 0;

// RFC 9112 section 6.3: these end with their header block, whatever it says.
bool has_no_body(int status) {
  return (status >= 100 && status < 200) || status == 204 || status == 304;
}

dl_body_end end_of_chunks(const dl_http_session& session) {
  if (!session.chunk || !session.chunk->finished || session.chunk->length > 0) return DL_BODY_OPEN;
  return session.chunk->finished == DL_HTTP_CHUNKS_ALL ? DL_BODY_WHOLE : DL_BODY_CUT;
}

}  // namespace

void set_last_status(int status) {
  last_status = status;
}

dl_body_end http_body_end(const http_channel& channel) {
  if (!channel.own || !channel.own->response.known) return DL_BODY_OPEN;
  const http_response_facts& facts = channel.own->response;
  if (facts.header_cut) return DL_BODY_HEADER_CUT;
  if (has_no_body(facts.status)) return DL_BODY_WHOLE;
  if (channel.is_chunked()) return end_of_chunks(channel.session);
  const bool all_read = channel.session.remaining == 0;
  if (facts.has_length && all_read) return DL_BODY_WHOLE;
  if (!facts.stream_ended && !all_read) return DL_BODY_OPEN;
  return facts.has_length ? DL_BODY_CUT : DL_BODY_UNMARKED;
}

}  // namespace fetchrig

using namespace fetchrig;

// The record is only looked at.
int dl_http_get_status(const dl_http_session* session) {
  if (!is_http_session(session)) return 0;
  const auto status = [session] {
    const http_channel channel(*const_cast<dl_http_session*>(session));
    return channel.own ? channel.own->response.status : 0;
  };
  return guarded(status, [] { return 0; });
}

int dl_http_body_end(const dl_http_session* session) {
  if (!is_http_session(session)) return DL_BODY_OPEN;
  const auto end = [session] {
    return int{http_body_end(http_channel(*const_cast<dl_http_session*>(session)))};
  };
  return guarded(end, [] { return int{DL_BODY_OPEN}; });
}

int dl_http_last_status() {
  return last_status;
}
