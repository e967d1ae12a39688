/* SPDX-License-Identifier: MIT */
/* upload.c: sends a file over the protocol that the URL names.
 *   upload FILE URL [put|post] [CA-DIR]                       put and post are for HTTP and HTTPS
 *   cc upload.c $(pkg-config --cflags --libs fetchrig) -o upload */
#include <string.h>

#include "common.h"

/* A POST is a form with one part. The boundary between parts must not occur in the file: a random one does not. */
static int form_headers(char* headers, size_t size) {
  unsigned char random[16];
  char boundary[2 * sizeof random + 1] = "";
  FILE* source = fopen("/dev/urandom", "rb");
  const size_t count = source ? fread(random, 1, sizeof random, source) : 0;
  if (source) fclose(source);
  if (count != sizeof random) return perror("/dev/urandom"), -1;
  for (size_t i = 0; i < sizeof random; ++i) snprintf(boundary + 2 * i, 3, "%02x", random[i]);
  snprintf(headers, size, "Content-Type: multipart/form-data; boundary=%s\r\n", boundary);
  return 0;
}

/* FTP and TFTP take the remote name from an argument of its own, not from the URL. */
static const char* remote_name(const char* url) {
  const char* host = strstr(url, "://");
  const char* path = host ? strchr(host + 3, '/') : NULL;
  return path ? path + 1 : NULL;
}

static int upload(const char* file, const char* url, int post) {
  const dl_request request = {url, NULL, NULL, NULL};
  const int is_http = strncmp(url, "http", 4) == 0;
  char redirect[DL_REDIRECT_SIZE] = "", headers[128] = "Content-Type: application/octet-stream\r\n";
  dl_result result = {0, ""};
  if (is_http && post && form_headers(headers, sizeof headers) != 0) return 1;
  /* Over FTP an upload stops where the remote file and this one together would pass the size limit. */
  const int rc = is_http ? dl_upload(&request, file, NULL, redirect, &result, headers,
                                     post ? DL_HTTP_POST : DL_HTTP_PUT, 0)
                         : dl_upload(&request, file, remote_name(url), redirect, &result, NULL, DL_FTP_STORE,
                                     DL_FTP_LIMIT_STOP);
  if (rc < 0) return failed(url, &result);
  fprintf(stderr, "%s: sent\n", file);
  return 0;
}

int main(int argc, char** argv) {
  const char* method = argc > 3 ? argv[3] : "put";
  if (argc < 3 || argc > 5 || (strcmp(method, "put") != 0 && strcmp(method, "post") != 0)) {
    return fprintf(stderr, "usage: upload FILE URL [put|post] [CA-DIR]\n"), 2;
  }
  /* The limit holds for what is sent, too. */
  if (be_strict(argc == 5 ? argv[4] : "/etc/ssl/certs", 64 * 1024 * 1024) != 0) return 1;
  const int status = upload(argv[1], argv[2], strcmp(method, "post") == 0);
  dl_exit();
  return status;
}
