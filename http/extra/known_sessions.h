// SPDX-License-Identifier: MIT
// known_sessions.h: TLS sessions that a later connection to the same origin goes on with (RFC 8446 section 2.2), for
// sessions opened with DL_EXTRA_KEPT_CONNECTIONS. The verdict on the server's chain stays with its session, so one is
// gone on with for ten minutes at most, under the same options and while the directory of trusted CAs is unchanged. Any
// thread.
#ifndef FETCHRIG_HTTP_EXTRA_KNOWN_SESSIONS_H
#define FETCHRIG_HTTP_EXTRA_KNOWN_SESSIONS_H

#include "core/extras.h"
#include "core/openssl_owners.h"

namespace fetchrig {

struct http_channel;

#if FETCHRIG_EXTRAS

// The session to go on with on the channel's new connection; null without one.
[[nodiscard]] unique_ssl_session known_session(const http_channel& channel);

// Remembers the session of the channel's connection, when a response came over it.
void remember_session(const http_channel& channel);

// Forgets all.
void forget_sessions();

#else

inline unique_ssl_session known_session(const http_channel& /*channel*/) {
  return nullptr;
}

#endif

}  // namespace fetchrig
#endif
