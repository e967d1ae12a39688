/* SPDX-License-Identifier: MIT */
/* read.c: hands a remote file's bytes to the caller a buffer at a time, with log lines at warning level and
 * above. cc read.c $(pkg-config --cflags --libs fetchrig) -o read */
#include <fetchrig.h>
#include <stdio.h>

static int log_to_stderr(const char* line, int32_t length) {
  return fprintf(stderr, "%.*s", (int)length, line);
}

int main(int argc, char** argv) {
  if (argc != 2) return fprintf(stderr, "usage: read URL\n"), 2;
  dl_config_init();
  dl_log_init(0, log_to_stderr);
  const dl_request request = {argv[1], NULL, NULL, NULL};
  char redirect[DL_REDIRECT_SIZE] = "", buffer[16384];
  dl_result result = {0, ""};
  dl_handle* handle = NULL;
  int count = dl_open(&request, &handle, redirect, &result);
  if (count == 0) {
    while ((count = dl_read(handle, buffer, sizeof buffer, &result)) > 0)
      fwrite(buffer, 1, (size_t)count, stdout);
    dl_close(handle);
  }
  if (count < 0) fprintf(stderr, "%s: %d %s\n", argv[1], (int)result.code, result.message);
  dl_exit();
  return count < 0;
}
