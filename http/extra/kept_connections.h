// SPDX-License-Identifier: MIT
// kept_connections.h: connections that stay open for the next request to the same origin (RFC 9112 section 9.3), for
// sessions opened with DL_EXTRA_KEPT_CONNECTIONS. A connection is kept when its last response was read to its end, and
// serves requests that were made under the very same options. Bodies are whole ones then. A request that finds its kept
// connection dead goes out again on a new one; a POST, which may not be repeated, never goes out on a kept one. At most
// 64 wait, none serves after 30 seconds, and dl_exit() closes them. Connections through proxies are not kept. Any
// thread.
#ifndef FETCHRIG_HTTP_EXTRA_KEPT_CONNECTIONS_H
#define FETCHRIG_HTTP_EXTRA_KEPT_CONNECTIONS_H

#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <string_view>

#include "core/config.h"
#include "core/extras.h"

namespace fetchrig {

struct http_channel;

// What a session knows of its connection.
struct kept_connection {
  uint32_t most = 0;        // connections that may wait
  bool takes_kept = false;  // its request may be repeated
  bool is_kept = false;     // the connection served before
  bool persists = false;    // the server leaves it open behind the response
  std::string origin;       // where it leads, and under which options; empty: it is not kept
  tls_options tls = {};     // those options
  std::string host;
  uint32_t port = 0;
  pid_t process = 0;       // that the connection belongs to
  int64_t checked_ms = 0;  // when the server's chain was checked, by now_ms()
};

#if FETCHRIG_EXTRAS

// Prepares the session for kept connections when `extras` asks for them. Returns 0 or -7.
[[nodiscard]] int ask_for_kept(const http_channel& channel, const transfer_extras& extras, int32_t method);

// Gives the session a connection to the server that waits, if there is one; else notes where the new one will lead.
// `kept_origin` is false for a proxy.
[[nodiscard]] bool take_kept(http_channel& channel, const char* host, uint32_t port, bool may_be_kept);

// Whether the session's connection served before, and where it leads.
[[nodiscard]] const kept_connection* kept_before(const http_channel& channel);

// Notes from a response's head whether the connection persists.
void note_persistence(http_channel& channel, std::string_view status_line);

// The connection is in the middle of something: it serves nobody else.
void never_keep(const http_channel& channel);

// Takes the connection out of the session, to wait for another, when it can serve again.
void keep_connection(http_channel& channel);

#else

inline int ask_for_kept(const http_channel& /*channel*/, const transfer_extras& /*extras*/,
                        int32_t /*method*/) {
  return 0;
}
inline bool take_kept(http_channel& /*channel*/, const char* /*host*/, uint32_t /*port*/,
                      bool /*may_be_kept*/) {
  return false;
}
inline const kept_connection* kept_before(const http_channel& /*channel*/) {
  return nullptr;
}
inline void note_persistence(http_channel& /*channel*/, std::string_view /*status_line*/) {}
inline void never_keep(const http_channel& /*channel*/) {}
inline void keep_connection(http_channel& /*channel*/) {}

#endif

}  // namespace fetchrig
#endif
