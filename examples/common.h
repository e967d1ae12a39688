/* SPDX-License-Identifier: MIT */
/* common.h: what every program in this folder does first, and how it tells of a failure. */
#ifndef COMMON_H
#define COMMON_H

#include <fetchrig.h>
#include <stdio.h>

static inline int log_to_stderr(const char* line, int32_t length) {
  return fprintf(stderr, "%.*s", (int)length, line);
}

/* The library's own defaults suit a closed network: nothing is verified. A program that talks to servers which it does
 * not control sets what follows. `ca_dir` is a hashed directory of trusted CAs, such as /etc/ssl/certs; `most_bytes`
 * the largest file that it has room for. Returns 0, or -1 when an option was refused. */
static inline int be_strict(const char* ca_dir, uint32_t most_bytes) {
  const uint32_t newest_tls = 3, yes = 1, wait_s = 10;
  dl_config_init();
  dl_log_init(0, log_to_stderr); /* warnings and errors; without this call the system log has them */
  dl_set_tls_wait_limit(wait_s); /* TLS waits have no limit otherwise */
  if (dl_set_option(DL_OPT_HTTPS_CA_DIR, ca_dir) != 0 || dl_set_option(DL_OPT_SSL_METHOD, &newest_tls) != 0 ||
      dl_set_option(DL_OPT_VERIFY_PEER, &yes) != 0 || dl_set_option(DL_OPT_VERIFY_HOST, &yes) != 0 ||
      dl_set_option(DL_OPT_NET_TIMEOUT, &wait_s) != 0 ||
      dl_set_option(DL_OPT_MAX_FILE_SIZE, &most_bytes) != 0) {
    fprintf(stderr, "an option was refused\n");
    return -1;
  }
  return 0;
}

/* The code tells the step that failed, the cause why. Returns 1, for main() to return. */
static inline int failed(const char* what, const dl_result* result) {
  dl_cause_info cause = {0, 0, ""};
  dl_last_cause(&cause);
  fprintf(stderr, "%s: %d %s (cause %d, %d %s)\n", what, (int)result->code, result->message, (int)cause.cause,
          (int)cause.number, cause.text);
  return 1;
}

#endif
