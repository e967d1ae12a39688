/* SPDX-License-Identifier: MIT */
/* download.c: takes a file piece by piece, shows how far it is, and keeps it only when it is whole.
 *   download URL FILE [CA-DIR]
 *   cc download.c $(pkg-config --cflags --libs fetchrig) -o download */
#include <stdlib.h>
#include <string.h>

#include "common.h"

enum { most_bytes = 64 * 1024 * 1024 };

static int is_http(const dl_handle* handle) {
  return handle->proto == DL_PROTO_HTTP || handle->proto == DL_PROTO_HTTPS;
}

/* How long the server says that the file is, 0 when it does not: chunked bodies and TFTP have no length in front. */
static unsigned long announced(const dl_handle* handle) {
  if (handle->proto == DL_PROTO_FTP) return ((const dl_ftp_session*)handle->session)->remaining;
  const char* line = is_http(handle) ? dl_http_find_header_by_name(handle->session, "content-length") : NULL;
  return line ? strtoul(strchr(line, ':') + 1, NULL, 10) : 0;
}

/* An HTTP body that was cut reads as a shorter one. One whose end nothing marked may have been cut, too. */
static int is_whole(const dl_handle* handle) {
  return !is_http(handle) || dl_http_body_end(handle->session) == DL_BODY_WHOLE;
}

/* Returns 0 or 1. The size limit of the options holds for whole files; who reads piece by piece counts. */
static int copy(dl_handle* handle, FILE* file, const char* url) {
  const unsigned long length = announced(handle);
  unsigned long done = 0;
  char buffer[16384];
  dl_result result = {0, ""};
  for (int count; (count = dl_read(handle, buffer, sizeof buffer, &result)) != 0;) {
    if (count < 0) return failed(url, &result);
    done += (unsigned long)count;
    if (done > most_bytes) return fprintf(stderr, "%s: too large\n", url), 1;
    if (fwrite(buffer, 1, (size_t)count, file) != (size_t)count) return perror("write"), 1;
    fprintf(stderr, length ? "\r%lu of %lu bytes" : "\r%lu bytes", done, length);
  }
  fputc('\n', stderr);
  if (!is_whole(handle)) return fprintf(stderr, "%s: the connection ended early\n", url), 1;
  return 0;
}

/* Written beside its place and renamed: whoever looks finds the old file or the whole new one. */
static int save(dl_handle* handle, const char* url, const char* path) {
  char partial[4096];
  if (snprintf(partial, sizeof partial, "%s.part", path) >= (int)sizeof partial) return 1;
  FILE* file = fopen(partial, "wb");
  if (!file) return perror(partial), 1;
  int status = copy(handle, file, url);
  if (fclose(file) != 0) perror(partial), status = 1; /* a full disk may show here for the first time */
  if (status == 0 && rename(partial, path) != 0) perror(path), status = 1;
  if (status != 0) remove(partial);
  return status;
}

int main(int argc, char** argv) {
  if (argc < 3 || argc > 4) return fprintf(stderr, "usage: download URL FILE [CA-DIR]\n"), 2;
  if (be_strict(argc == 4 ? argv[3] : "/etc/ssl/certs", most_bytes) != 0) return 1;
  const dl_request request = {argv[1], NULL, NULL, NULL};
  char redirect[DL_REDIRECT_SIZE] = "";
  dl_result result = {0, ""};
  dl_handle* handle = NULL;
  int status = 0;
  if (dl_open(&request, &handle, redirect, &result) != 0) {
    status = failed(argv[1], &result);
  } else {
    status = save(handle, argv[1], argv[2]);
    dl_close(handle);
  }
  dl_exit();
  return status;
}
