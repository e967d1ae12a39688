/* SPDX-License-Identifier: MIT */
/* trust_store.c: installs a CA into a store, removes one, lists those that are there.
 *   trust_store /STORE list | install FILE | remove FILE
 * The store's links carry its path: it must be an absolute one.
 * HTTPS transfers trust the CAs of the store: option 1 sets option 11, too, while that is empty.
 *   cc trust_store.c $(pkg-config --cflags --libs fetchrig) -o trust_store */
#include <string.h>

#include "common.h"

/* 0 alone says that the CA was accepted, not that every file and link could be written: the cause does. */
static int told(const char* file, int rc) {
  const char* const why[] = {"", "no certificate, or no store", "installed already",
                             "among the factory's CAs"};
  const dl_result result = {rc, "the store was not changed as a whole"};
  if (rc < 0) return fprintf(stderr, "%s: %s\n", file, why[-rc]), 1;
  return dl_last_cause(NULL) == DL_CAUSE_NONE ? 0 : failed(file, &result);
}

/* A CA is installed only when it is what it should be. Of a link to a file the file would be copied. */
static int install(const char* file) {
  dl_ca_info info = {0};
  if (dl_get_ca_info(file, &info) != 0) return fprintf(stderr, "%s: no certificate\n", file), 1;
  printf("installing \"%s\", valid until %s\n", info.cn, info.not_after);
  return told(file, dl_install_ca(file));
}

/* The store's copy goes, and so does the file that is named: name the entry in the store. */
static int remove_ca(const char* file) {
  return told(file, dl_del_ca(file));
}

/* Looking removes entries that hold no certificate, such as links to nothing. A list has ten places. */
static int list(void) {
  static dl_trust_ca_list_ex found;
  dl_result result = {0, ""};
  if (dl_get_trust_ca_info_ex(&found, &result) != 0) return failed("the store", &result);
  for (uint32_t i = 0; i < found.count; ++i) {
    const dl_ca_info_ex* ca = &found.entries[i];
    printf("%08x  %s, by %s, until %s\n", (unsigned)ca->hash, ca->subject, ca->issuer, ca->not_after);
  }
  if (dl_last_cause(NULL) == DL_CAUSE_LIST_FULL) printf("and more\n");
  return 0;
}

int main(int argc, char** argv) {
  char store[512];
  const int has_file = argc == 4;
  if (argc < 3 || argc > 4 || argv[1][0] != '/' || has_file == (strcmp(argv[2], "list") == 0)) {
    return fprintf(stderr, "usage: trust_store /STORE list | install FILE | remove FILE\n"), 2;
  }
  /* The path must end in "/": names are put right behind it. */
  if (snprintf(store, sizeof store, "%s/", argv[1]) >= (int)sizeof store) return 1;
  dl_config_init();
  dl_log_init(0, log_to_stderr);
  if (dl_set_option(DL_OPT_TRUST_CA_DIR, store) != 0) return 1;
  int status = 2;
  if (!has_file)
    status = list();
  else if (strcmp(argv[2], "install") == 0)
    status = install(argv[3]);
  else if (strcmp(argv[2], "remove") == 0)
    status = remove_ca(argv[3]);
  dl_exit();
  return status;
}
