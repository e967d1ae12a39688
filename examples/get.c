/* SPDX-License-Identifier: MIT */
/* get.c: downloads a URL into a file, in one call.   get URL FILE [CA-DIR]
 *   cc get.c $(pkg-config --cflags --libs fetchrig) -o get */
#include "common.h"

int main(int argc, char** argv) {
  if (argc < 3 || argc > 4) return fprintf(stderr, "usage: get URL FILE [CA-DIR]\n"), 2;
  if (be_strict(argc == 4 ? argv[3] : "/etc/ssl/certs", 64 * 1024 * 1024) != 0) return 1;
  const dl_request request = {argv[1], NULL, NULL, NULL};
  char redirect[DL_REDIRECT_SIZE] = ""; /* where an HTTP server sent us in the end */
  dl_result result = {0, ""};
  int status = 0;
  /* A failure leaves no file. A cut HTTP body counts as a shorter file, though: download.c tells the difference. */
  if (dl_download(&request, argv[2], redirect, &result) != 0) status = failed(argv[1], &result);
  dl_exit();
  return status;
}
