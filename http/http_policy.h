// SPDX-License-Identifier: MIT
// http_policy.h: the points at which an exchange may go another way than the classic one: how a server is reached, how
// a request is completed, which answers are followed and where they lead. An exchange without a policy is the classic
// one. One thread at a time per policy, which belongs to one call.
#ifndef FETCHRIG_HTTP_HTTP_POLICY_H
#define FETCHRIG_HTTP_HTTP_POLICY_H

#include <string>

#include "http/http_message.h"
#include "http/http_session.h"

namespace fetchrig {

// What becomes of a response.
enum class response_act {
  finish,         // its status is the outcome
  follow,         // the redirect
  answer,         // the first challenge of the server's, in the classic way
  answer_choice,  // the challenge that the policy chooses
};

constexpr response_act classic_act(int status) {
  switch (status) {
    case 301:
    case 302:
      return response_act::follow;
    case 401:
      return response_act::answer;
    default:
      return response_act::finish;
  }
}

class http_policy {
 public:
  http_policy() = default;
  virtual ~http_policy() = default;
  http_policy(const http_policy&) = delete;
  http_policy& operator=(const http_policy&) = delete;

  // Whether connect() is asked for every connection, the first and each later one.
  virtual bool has_route() const = 0;
  // Connects the empty session for a request of the URL. Returns 0, a negative code, or the status of 400 and above
  // with which a proxy refuses.
  [[nodiscard]] virtual int connect(http_channel& channel, const dl_url& url) = 0;

  // Completes the message for the URL, each time before it is sent. Returns 0 or a negative code.
  [[nodiscard]] virtual int complete(http_msg& message, const dl_url& url) = 0;

  // Of the response to the message that went out last: 0, or a negative code when its header block proves it false; and
  // what becomes of it.
  [[nodiscard]] virtual int check(const char* headers) = 0;
  [[nodiscard]] virtual response_act act_on(int status, const http_msg& message) const = 0;

  // The absolute URL that a stored "location" line leads to from `url`. Returns 0 or a negative code.
  [[nodiscard]] virtual int resolve(std::string& target, const dl_url& url, const char* line) = 0;
  // Changes the message, and the login that `url` takes along, for a redirect of that status from `old_url`.
  [[nodiscard]] virtual int move(int status, http_msg& message, dl_url& url, const dl_url& old_url) = 0;

  // Chooses one of the challenges and what answers it in the next request. Returns 0, or a negative code, logged:
  // DL_ERR_AUTH when there is nothing to answer with. The limit of option 15 is kept by the caller for 401, else here.
  [[nodiscard]] virtual int choose(int status, const char* headers, http_msg& message, const dl_url& url) = 0;
};

}  // namespace fetchrig
#endif
