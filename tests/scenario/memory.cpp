// memory.cpp: the allocation calls, replaced for a program in which they are to fail.
#include <stdlib.h>

#include <new>

#include "tests/scenario/faults.h"

#if defined(__SANITIZE_ADDRESS__)
#define REAL(name) __interceptor_##name
#else
#define REAL(name) __libc_##name
#endif

using namespace scenario;

extern "C" {
void* REAL(malloc)(size_t);
void* REAL(calloc)(size_t, size_t);
void* REAL(realloc)(void*, size_t);

REPLACED EARLY void* malloc(size_t size) noexcept {
  return strikes(call::memory) ? nullptr : REAL(malloc)(size);
}
REPLACED EARLY void* calloc(size_t count, size_t size) noexcept {
  return strikes(call::memory) ? nullptr : REAL(calloc)(count, size);
}
REPLACED EARLY void* realloc(void* old, size_t size) noexcept {
  return strikes(call::memory) ? nullptr : REAL(realloc)(old, size);
}
}

void* operator new(size_t size) {
  if (void* memory = malloc(size ? size : 1)) return memory;
  throw std::bad_alloc();
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return malloc(size ? size : 1);
}
// Not inlined, so that the compiler does not see memory of `new` go to free().
__attribute__((noinline)) void operator delete(void* memory) noexcept {
  free(memory);
}
__attribute__((noinline)) void operator delete(void* memory, size_t) noexcept {
  free(memory);
}
