/* SPDX-License-Identifier: MIT */
/* credentials.c: posts a text to a server that wants a login, of which several may be right, and prints the answer.
 *   credentials URL BODY LOGINS [CA-DIR]      LOGINS: a file with a user, a blank and a password in each line
 * On a command line every user of the machine would see the passwords.
 *   cc credentials.c $(pkg-config --cflags --libs fetchrig) -o credentials */
#include <string.h>

#include "common.h"

enum { most_logins = 5, line_size = 256, most_bytes = 1024 * 1024 };

/* Fills `logins`, whose texts stay in `lines`. Returns how many, or 0. */
static int read_logins(const char* path, char lines[][line_size], dl_auth_info* logins) {
  FILE* file = fopen(path, "r");
  if (!file) return perror(path), 0;
  int count = 0;
  while (count < most_logins && fgets(lines[count], line_size, file)) {
    char* line = lines[count];
    char* blank = strchr(line, ' ');
    line[strcspn(line, "\r\n")] = '\0';
    if (!blank) continue;
    *blank = '\0';
    logins[count++] = (dl_auth_info){line, blank + 1};
  }
  fclose(file);
  return count;
}

static int print_answer(dl_http_session* session, const char* url) {
  unsigned long done = 0;
  char buffer[4096];
  dl_result result = {0, ""};
  for (int count; (count = dl_http_read(session, buffer, sizeof buffer, &result)) != 0;) {
    if (count < 0) return failed(url, &result);
    done += (unsigned long)count;
    if (done > most_bytes || fwrite(buffer, 1, (size_t)count, stdout) != (size_t)count) return 1;
  }
  return fflush(stdout) != 0 || dl_http_body_end(session) != DL_BODY_WHOLE;
}

/* Each challenge of the server, Basic or Digest, is answered with the next login; after the last one the call fails
 * with code -11. */
static int post(const char* url, const char* body, const dl_auth_info* logins, int count) {
  const dl_http_request request = {
      .method = DL_METHOD_POST, .url = url, .headers = "Content-Type: text/plain\r\n", .body = body};
  char redirect[DL_REDIRECT_SIZE] = "";
  dl_result result = {0, ""};
  dl_http_session* session = NULL;
  if (dl_http_post_multi_auth(&session, &request, logins, count, redirect, &result) != 0) {
    return failed(url, &result);
  }
  fprintf(stderr, "status %d\n", dl_http_get_status(session));
  const int status = print_answer(session, url);
  dl_http_close(session);
  return status;
}

int main(int argc, char** argv) {
  char lines[most_logins][line_size];
  dl_auth_info logins[most_logins];
  if (argc < 4 || argc > 5) return fprintf(stderr, "usage: credentials URL BODY LOGINS [CA-DIR]\n"), 2;
  if (be_strict(argc == 5 ? argv[4] : "/etc/ssl/certs", most_bytes) != 0) return 1;
  const int count = read_logins(argv[3], lines, logins);
  const int status = count == 0 ? 1 : post(argv[1], argv[2], logins, count);
  memset(lines, 0, sizeof lines);
  dl_exit();
  return status;
}
