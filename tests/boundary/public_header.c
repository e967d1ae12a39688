/* public_header.c: the public headers as a C99 application sees them: they compile alone and first, and calls work
 * through the shared library. The layout of records is on record in packaging/libfetchrig.abi. */
#include <fetchrig.h>
#include <fetchrig_openssl.h>

#include <stdio.h>
#include <string.h>

static int failures;
static int lines;

static void expect(int holds, const char* what) {
  if (holds) return;
  ++failures;
  fprintf(stderr, "failed: %s\n", what);
}

static int count_line(const char* line, int32_t length) {
  expect(line[length - 1] == '\n', "a log line ends in a line feed");
  ++lines;
  return 0;
}

int main(void) {
  const uint32_t timeout = 5;
  dl_result result;
  char redirect[DL_REDIRECT_SIZE];
  dl_handle* handle = NULL;
  dl_request request;
  int32_t code = 1;
  dl_url* url = dl_url_parse("https://h:8443/a b", "user", NULL, &code);
  expect(url && code == 0 && url->port == 8443 && strcmp(url->path, "/a%20b") == 0 && !url->password, "URL");
  dl_url_free(url);
  dl_config_init();
  dl_log_init(0, count_line);
  expect(dl_set_option(DL_OPT_NET_TIMEOUT, &timeout) == 0 && g_dl_cfg.net_timeout == 5, "option set");
  /* An address that the options do not allow: the request fails before it reaches the network. */
  memset(&request, 0, sizeof request);
  memset(&result, 0x55, sizeof result);
  request.url = "http://[::1]/";
  expect(dl_open(&request, &handle, redirect, &result) == -1 && !handle && lines > 0, "refused and logged");
  expect(strcmp(ring_tab[0], "ringtone-") == 0 && !ring_tab[3], "ring names");
  expect(memcmp(wave_fmt, "WAVEfmt ", 8) == 0, "WAVE template");
  dl_exit();
  return failures != 0;
}
