// libc_memory.h: the real allocation calls, for a program that replaces malloc(), calloc() and realloc().
#ifndef FETCHRIG_TESTS_SUPPORT_LIBC_MEMORY_H
#define FETCHRIG_TESTS_SUPPORT_LIBC_MEMORY_H

#include <stddef.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define REAL(name) __interceptor_##name
#else
#define REAL(name) __libc_##name
#endif

// Beside a definition of ours that the library and OpenSSL are to use.
#define REPLACED __attribute__((visibility("default")))

extern "C" {
void* REAL(malloc)(size_t);
void* REAL(calloc)(size_t, size_t);
void* REAL(realloc)(void*, size_t);
}

#endif
