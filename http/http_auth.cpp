// SPDX-License-Identifier: MIT
// http_auth.cpp: the working record of one 401.
#include "http/http_auth.h"

#include <stdlib.h>

#include <initializer_list>

#include "core/text.h"

namespace fetchrig {

auth_work::~auth_work() {
  release_challenge(challenge);
  release_challenge(proxy_challenge);
  release_answer(answer);
  release_answer(proxy_answer);
}

auth_side side_of(http_auth_state& state, int proxy) {
  if (proxy) {
    return {"Proxy-",           state.proxy_user,  state.proxy_password, state.proxy_challenge,
            state.proxy_picked, state.proxy_answer};
  }
  return {"", state.user, state.password, state.challenge, state.picked, state.answer};
}

void release_challenge(digest_challenge& challenge) {
  for (char** text : {&challenge.nonce, &challenge.cnonce, &challenge.realm, &challenge.opaque,
                      &challenge.qop, &challenge.algorithm}) {
    free(*text);
    *text = nullptr;
  }
  challenge.stale = 0;
  challenge.nc = 0;
  challenge.session = 0;
}

void release_answer(char*& answer) {
  wipe(answer);
  free(answer);
  answer = nullptr;
}

}  // namespace fetchrig
