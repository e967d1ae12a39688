/* SPDX-License-Identifier: MIT */
/* ring.c: finds the ring that the alert text of an incoming call names.
 *   ring TEXT [CA-DIR]                       TEXT: a ring name, or the URL of a WAVE file
 *   cc ring.c $(pkg-config --cflags --libs fetchrig) -o ring */
#include "common.h"

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) return fprintf(stderr, "usage: ring TEXT [CA-DIR]\n"), 2;
  /* The caller waits while a ring is downloaded: a telephone wants a short limit. WAVE files above 200 KiB are
   * refused in any case; they must hold mono mu-law at 8 kHz. */
  const uint32_t wait_s = 3;
  if (be_strict(argc == 3 ? argv[2] : "/etc/ssl/certs", 200 * 1024) != 0 ||
      dl_set_option(DL_OPT_NET_TIMEOUT, &wait_s) != 0) {
    return 1;
  }
  dl_set_tls_wait_limit(wait_s);
  /* Names of one's own, in ten slots, beside "Bellcore-drN", "ringtone-N" and "MyMelodyN". */
  const dl_ring_entry entries[] = {{.slot = 0, .number = 7, .name = "door bell"},
                                   {.slot = 1, .number = 8, .name = "internal"}};
  for (size_t i = 0; i < sizeof entries / sizeof *entries; ++i) {
    if (dl_set_option(DL_OPT_RING_ENTRY, &entries[i]) != 0) return 1;
  }
  int32_t number = 0;
  char path[256] = "";
  /* The text comes from whoever calls. A file that was downloaded once is found in /tmp the next time. A ring name in
   * the place of NULL would be played when a URL gives nothing, and instead of a TEXT that is no URL. */
  const int found = dl_distinctive_ringtone_download(argv[1], NULL, &number, path, sizeof path);
  if (found == 0)
    printf("the default ring\n");
  else if (number >= 0)
    printf("ring %d\n", (int)number);
  else
    printf("play %s\n", path);
  dl_exit();
  return found == 0;
}
