// SPDX-License-Identifier: MIT
// http_session.h: the session record's life and what belongs to it privately. The record itself is plain C
// (dl_http_session), allocated with calloc(); private state is found by the record's address, so that every
// call also works, without read-ahead, on a record that a caller made. One thread at a time per session.
#ifndef FETCHRIG_HTTP_HTTP_SESSION_H
#define FETCHRIG_HTTP_HTTP_SESSION_H

#include <openssl/ssl.h>

#include <memory>

#include "http/extra/kept_connections.h"
#include "http/extra/whole_body.h"
#include "include/fetchrig_types.h"
#include "net/tcp_stream.h"

namespace fetchrig {

// What is known of the response that a session stands at.
struct http_response_facts {
  bool known = false;  // a response has been read
  int status = 0;
  bool header_cut = false;    // the stream ended inside the status line or the header block
  bool has_length = false;    // the body's length was announced
  bool is_too_long = false;   // it was, with 4 GiB or more: option 6 cuts the body
  bool stream_ended = false;  // a read met the end of the connection
  bool has_trailer = false;   // lines that nobody reads follow the last chunk
};

// What an open call keeps beside its session record.
struct http_private {
  http_response_facts response;
  read_ahead ahead;
  std::unique_ptr<kept_connection> kept;  // where connections are kept
  std::unique_ptr<whole_body> whole;      // where bodies must be whole
  uint32_t chunk_begin = 0;               // taken bytes at the front of the chunk buffer
  const dl_http_session* owner = nullptr;
  http_private* next = nullptr;  // in the table of live sessions
};

// The private state of the session at that address; null for a caller's own record.
[[nodiscard]] http_private* find_http_private(const dl_http_session* session);

// A session at work: the record and its private state.
struct http_channel {
  explicit http_channel(dl_http_session& record) : session(record), own(find_http_private(&record)) {}
  dl_http_session& session;
  http_private* own;  // null for a caller's own record

  bool is_tls() const { return (session.flags & DL_HTTP_FLAG_TLS) != 0; }
  bool is_chunked() const { return (session.flags & DL_HTTP_FLAG_CHUNKED) != 0; }
  SSL* ssl() const { return static_cast<SSL*>(session.ssl); }
};

struct http_session_closer {
  void operator()(dl_http_session* session) const;
};
using unique_http_session = std::unique_ptr<dl_http_session, http_session_closer>;

// A live, empty session; null without memory.
[[nodiscard]] unique_http_session new_http_session();

// True for a record with a live session's mark.
[[nodiscard]] bool is_http_session(const dl_http_session* session);

// Ends a live session and frees its record; null and other records are left alone.
void http_close(dl_http_session* session);

// Releases the connection and everything that belongs to one response; an empty live session remains.
void http_session_reset(http_channel& channel);

// Frees the chunk buffer; the next chunked read makes a new one.
void free_chunk(http_channel& channel);
// Frees the header block.
void free_headers(dl_http_session& session);

}  // namespace fetchrig
#endif
