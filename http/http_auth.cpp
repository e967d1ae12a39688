// http_auth.cpp: the working record that the challenge parser fills and the answer builders use.
#include "http/http_auth.h"

#include <openssl/crypto.h>
#include <stdlib.h>
#include <string.h>

#include <initializer_list>

#include "include/fetchrig_openssl.h"

namespace fetchrig {

auth_work::~auth_work() {
  Curl_digest_cleanup_one(&challenge);
  Curl_digest_cleanup_one(&proxy_challenge);
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

void release_answer(char*& answer) {
  if (answer) OPENSSL_cleanse(answer, strlen(answer));
  ::free(answer);
  answer = nullptr;
}

}  // namespace fetchrig

void Curl_digest_cleanup_one(digest_challenge* challenge) {
  if (!challenge) return;
  for (char** text : {&challenge->nonce, &challenge->cnonce, &challenge->realm, &challenge->opaque,
                      &challenge->qop, &challenge->algorithm}) {
    ::free(*text);
    *text = nullptr;
  }
  challenge->stale = 0;
  challenge->nc = 0;
  challenge->session = 0;
}
