/* public_header.c: the public headers as a C99 application sees them: they compile alone and first, and calls work
 * through the shared library. The layout of records is on record in packaging/libfetchrig.abi. */
#include <fetchrig.h>
#include <fetchrig_openssl.h>

#include <stdio.h>
#include <string.h>

int main(void) {
  const uint32_t timeout = 5;
  int32_t code = 1;
  dl_url* url = dl_url_parse("https://h:8443/a b", "user", NULL, &code);
  const int parsed =
      url && code == 0 && url->port == 8443 && strcmp(url->path, "/a%20b") == 0 && !url->password;
  dl_url_free(url);
  dl_config_init();
  dl_log_init(0, NULL);
  const int set = dl_set_option(DL_OPT_NET_TIMEOUT, &timeout) == 0 && g_dl_cfg.net_timeout == 5;
  const int rings = strcmp(ring_tab[0], "ringtone-") == 0 && !ring_tab[3];
  const int wave = memcmp(wave_fmt, "WAVEfmt ", 8) == 0;
  dl_exit();
  printf("URL %d, option %d, ring names %d, WAVE template %d\n", parsed, set, rings, wave);
  return !(parsed && set && rings && wave);
}
