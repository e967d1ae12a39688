/* SPDX-License-Identifier: MIT */
/* client_certificate.c: shows a client certificate to an HTTPS server and downloads a file.
 *   client_certificate URL FILE CERTIFICATE [CA-DIR]       CERTIFICATE: a PEM file with certificate and private key
 * The environment variable PASSPHRASE opens an encrypted key.
 *   cc client_certificate.c $(pkg-config --cflags --libs fetchrig) -o client_certificate */
#include <stdlib.h>
#include <string.h>

#include "common.h"

/* A certificate that cannot be read, or has no key, would only be told by the server's refusal, or not at all where
 * the server does not ask: so it is looked at first. */
static int check(const char* certificate) {
  dl_ca_info_ex info = {0};
  dl_result result = {0, ""};
  if (dl_get_ca_info_ex(certificate, &info, 1, &result) != 0) return failed(certificate, &result);
  if (info.priv_bits == 0) return fprintf(stderr, "%s: no private key that can be used\n", certificate), 1;
  fprintf(stderr, "I am \"%s\", until %s\n", info.subject, info.not_after);
  return 0;
}

int main(int argc, char** argv) {
  if (argc < 4 || argc > 5) {
    return fprintf(stderr, "usage: client_certificate URL FILE CERTIFICATE [CA-DIR]\n"), 2;
  }
  const char* passphrase = getenv("PASSPHRASE");
  if (strncmp(argv[1], "https://", 8) != 0) return fprintf(stderr, "only https has certificates\n"), 2;
  if (be_strict(argc == 5 ? argv[4] : "/etc/ssl/certs", 64 * 1024 * 1024) != 0) return 1;
  if (dl_set_option(DL_OPT_HTTPS_CERT_FILE, argv[3]) != 0 ||
      dl_set_option(DL_OPT_KEY_PASSPHRASE, passphrase ? passphrase : "") != 0) {
    return fprintf(stderr, "an option was refused\n"), 1;
  }
  int status = check(argv[3]);
  if (status == 0) {
    const dl_request request = {argv[1], NULL, NULL, NULL};
    char redirect[DL_REDIRECT_SIZE] = "";
    dl_result result = {0, ""};
    /* A server that refuses the certificate ends TLS with an alert, which is the cause (DL_CAUSE_TLS_ALERT), or
     * answers with a status such as 403 or 400, which is the code. */
    if (dl_download(&request, argv[2], redirect, &result) != 0) status = failed(argv[1], &result);
  }
  dl_exit(); /* wipes the pass phrase */
  return status;
}
