/* consumer.c: an application, in C and in C++: the version that it was compiled for is the one that it runs with. */
#include <fetchrig.h>
#include <stdio.h>
#include <string.h>

int main(void) {
  char numbers[32];
  snprintf(numbers, sizeof numbers, "%d.%d.%d.%d", FETCHRIG_VERSION_MAJOR, FETCHRIG_VERSION_MINOR,
           FETCHRIG_VERSION_PATCH, FETCHRIG_VERSION_TWEAK);
  const uint32_t best = 3;
  const int works = dl_set_option(DL_OPT_SSL_METHOD, &best) == 0;
  dl_exit();
  puts(dl_get_version());
  return works && strcmp(numbers, FETCHRIG_VERSION) == 0 && strcmp(dl_get_version(), numbers) == 0 ? 0 : 1;
}
