// memory.cpp: the allocation calls, replaced for a program in which they are to fail.
#include <malloc.h>
#include <stdlib.h>
#include <string.h>

#include <new>

#include "tests/scenario/faults.h"

#if defined(__SANITIZE_ADDRESS__)
#define REAL(name) __interceptor_##name
#else
#define REAL(name) __libc_##name
#endif

using namespace scenario;

// Whether the library's memory tells a password.
EARLY static bool holds_secret(const void* memory) {
  const bool asked = memory && plan.secret && plan.active && plan.host_depth == 0;
  return asked &&
         memmem(memory, malloc_usable_size(const_cast<void*>(memory)), plan.secret, strlen(plan.secret));
}
// What lay there before, from `offset` on, is not what the library tells.
EARLY static void* fresh(void* memory, size_t offset) {
  if (!memory || !plan.secret || !plan.active) return memory;
  const size_t size = malloc_usable_size(memory);
  if (size > offset) memset(static_cast<char*>(memory) + offset, 0x5a, size - offset);
  return memory;
}

extern "C" {
void* REAL(malloc)(size_t);
void* REAL(calloc)(size_t, size_t);
void* REAL(realloc)(void*, size_t);
void REAL(free)(void*);

REPLACED EARLY void* malloc(size_t size) noexcept {
  return strikes(call::memory) ? nullptr : fresh(REAL(malloc)(size), 0);
}
REPLACED EARLY void* calloc(size_t count, size_t size) noexcept {
  return strikes(call::memory) ? nullptr : REAL(calloc)(count, size);
}
REPLACED EARLY void* realloc(void* old, size_t size) noexcept {
  if (strikes(call::memory)) return nullptr;
  const size_t old_size = malloc_usable_size(old);
  const bool tells = holds_secret(old);
  void* const moved = REAL(realloc)(old, size);
  plan.secret_freed |= tells && moved && moved != old;
  return fresh(moved, old_size);
}
REPLACED EARLY void free(void* memory) noexcept {
  plan.secret_freed |= holds_secret(memory);
  REAL(free)(memory);
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
