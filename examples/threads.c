/* SPDX-License-Identifier: MIT */
/* threads.c: downloads several URLs at once, a thread each, with one log that tells the threads apart.
 *   threads CA-DIR URL...
 *   cc threads.c $(pkg-config --cflags --libs fetchrig) -pthread -o threads */
#include <pthread.h>

#include "common.h"

enum { most_threads = 8, most_bytes = 64 * 1024 * 1024 };

static pthread_key_t name_key; /* what the current thread is called in the log */
static pthread_mutex_t log_lock = PTHREAD_MUTEX_INITIALIZER;

/* Runs on whichever thread logs, on several at once. It must return, and should do so soon: the transfer waits. It may
 * ask dl_last_cause(), but should call nothing that transfers. The line ends in a line feed of its own. */
static int log_line(const char* line, int32_t length) {
  const char* name = pthread_getspecific(name_key);
  pthread_mutex_lock(&log_lock);
  fprintf(stderr, "[%s] %.*s", name ? name : "main", (int)length, line);
  pthread_mutex_unlock(&log_lock);
  return 0;
}

typedef struct job {
  const char* url;
  char name[16];
  pthread_t thread;
  unsigned long bytes;
  int failed;
} job;

/* A handle belongs to one thread at a time; options and log belong to all. */
static void* run(void* argument) {
  job* mine = argument;
  const dl_request request = {mine->url, NULL, NULL, NULL};
  char redirect[DL_REDIRECT_SIZE] = "", buffer[16384];
  dl_result result = {0, ""};
  dl_handle* handle = NULL;
  pthread_setspecific(name_key, mine->name);
  int count = dl_open(&request, &handle, redirect, &result);
  if (count == 0) {
    while ((count = dl_read(handle, buffer, sizeof buffer, &result)) > 0 && mine->bytes <= most_bytes) {
      mine->bytes += (unsigned long)count;
    }
    dl_close(handle);
  }
  mine->failed = count != 0;
  if (count < 0) failed(mine->url, &result); /* the cause is this thread's own */
  return NULL;
}

int main(int argc, char** argv) {
  static job jobs[most_threads];
  const int count = argc - 2;
  if (count < 1 || count > most_threads) return fprintf(stderr, "usage: threads CA-DIR URL...\n"), 2;
  /* All options before the first thread: a change in between would hold for what begins later. */
  if (be_strict(argv[1], most_bytes) != 0 || pthread_key_create(&name_key, NULL) != 0) return 1;
  dl_log_init(DL_LOG_WITH_TIME, log_line);
  dl_set_log_level(4); /* notices, too */
  int started = 0;
  for (; started < count; ++started) {
    job* next = &jobs[started];
    next->url = argv[started + 2];
    snprintf(next->name, sizeof next->name, "%d", started + 1);
    if (pthread_create(&next->thread, NULL, run, next) != 0) break;
  }
  int status = started < count;
  for (int i = 0; i < started; ++i) {
    pthread_join(jobs[i].thread, NULL);
    printf("%s: %lu bytes%s\n", jobs[i].url, jobs[i].bytes, jobs[i].failed ? ", failed" : "");
    if (jobs[i].failed) status = 1;
  }
  dl_exit(); /* when no other call runs */
  return status;
}
