/* SPDX-License-Identifier: MIT */
/* get.c: downloads a URL into a file.   cc get.c $(pkg-config --cflags --libs fetchrig) -o get */
#include <fetchrig.h>
#include <stdio.h>

int main(int argc, char** argv) {
  if (argc != 3) return fprintf(stderr, "usage: get URL FILE\n"), 2;
  const uint32_t tls_any = 3, on = 1;
  dl_set_option(DL_OPT_SSL_METHOD, &tls_any);
  dl_set_option(DL_OPT_VERIFY_PEER, &on);
  dl_set_option(DL_OPT_VERIFY_HOST, &on);
  dl_set_option(DL_OPT_HTTPS_CA_DIR, "/etc/ssl/certs");
  const dl_request request = {argv[1], NULL, NULL, NULL};
  char redirect[DL_REDIRECT_SIZE] = "";
  dl_result result = {0, ""};
  const int rc = dl_download(&request, argv[2], redirect, &result);
  if (rc != 0) fprintf(stderr, "%s: %d %s\n", argv[1], (int)result.code, result.message);
  dl_exit();
  return rc != 0;
}
