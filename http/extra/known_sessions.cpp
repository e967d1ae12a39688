// SPDX-License-Identifier: MIT
// known_sessions.cpp: the sessions, the youngest last.
#include "http/extra/known_sessions.h"

#include <algorithm>
#include <array>
#include <memory>
#include <new>
#include <string>

#include "core/process_lock.h"
#include "http/http_session.h"
#include "log/clock.h"

namespace fetchrig {
namespace {

constexpr int64_t max_age_ms = 600000;

struct remembered {
  std::string origin;
  unique_ssl_session session;
  int64_t since_ms = 0;
};

// Null where there is none. Under process_lock; what is taken out is freed without it. As with the connections that
// wait, nothing is freed when the library is unloaded.
std::array<remembered*, 16> known;

// Takes the session of that origin out, or the eldest where there is no room left.
template <typename Wanted>
std::unique_ptr<remembered> take(Wanted wanted) {
  const auto found =
      std::find_if(known.begin(), known.end(), [&](const remembered* one) { return one && wanted(*one); });
  if (found == known.end()) return nullptr;
  std::unique_ptr<remembered> taken(*found);
  std::move(found + 1, known.end(), found);
  known.back() = nullptr;
  return taken;
}

const std::string* origin_of(const http_channel& channel) {
  const kept_connection* const kept = channel.own ? channel.own->kept.get() : nullptr;
  return kept && !kept->origin.empty() ? &kept->origin : nullptr;
}

}  // namespace

unique_ssl_session known_session(const http_channel& channel) {
  const std::string* const origin = origin_of(channel);
  if (!origin) return nullptr;
  std::unique_ptr<remembered> found;
  {
    const process_lock lock;
    found = take([&](const remembered& one) { return one.origin == *origin; });
  }
  if (!found || now_ms() - found->since_ms > max_age_ms) return nullptr;
  channel.own->kept->checked_ms = found->since_ms;  // until another handshake has checked it
  return std::move(found->session);
}

void remember_session(const http_channel& channel) {
  const std::string* const origin = origin_of(channel);
  if (!origin || !channel.ssl() || !channel.own->response.known) return;
  std::unique_ptr<remembered> made(new (std::nothrow) remembered);
  if (!made) return;
  made->session.reset(SSL_get1_session(channel.ssl()));
  if (!made->session || SSL_SESSION_is_resumable(made->session.get()) != 1) return;
  made->origin = *origin;
  made->since_ms = SSL_session_reused(channel.ssl()) == 1 ? channel.own->kept->checked_ms : now_ms();
  std::unique_ptr<remembered> replaced, eldest;
  const process_lock lock;
  replaced = take([&](const remembered& one) { return one.origin == made->origin; });
  if (known.back()) eldest = take([](const remembered&) { return true; });
  *std::find(known.begin(), known.end(), nullptr) = made.release();
}

void forget_sessions() {
  for (;;) {
    std::unique_ptr<remembered> gone;
    const process_lock lock;
    gone = take([](const remembered&) { return true; });
    if (!gone) return;
  }
}

}  // namespace fetchrig
