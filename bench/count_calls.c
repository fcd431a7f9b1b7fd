// Preloaded into the server by scripts/bench --instructions: counts allocations and mutexes, and writes the
// totals to the file that VELKORO_COUNTS names when the process ends.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>

extern void* __libc_malloc(size_t size);
extern void* __libc_calloc(size_t count, size_t size);
extern void* __libc_realloc(void* old, size_t size);
extern void* __libc_memalign(size_t alignment, size_t size);

static atomic_ulong allocations;
static atomic_ulong mutexes;

void* malloc(size_t size) {
  atomic_fetch_add_explicit(&allocations, 1, memory_order_relaxed);
  return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
  atomic_fetch_add_explicit(&allocations, 1, memory_order_relaxed);
  return __libc_calloc(count, size);
}

void* realloc(void* old, size_t size) {
  atomic_fetch_add_explicit(&allocations, 1, memory_order_relaxed);
  return __libc_realloc(old, size);
}

void* aligned_alloc(size_t alignment, size_t size) {
  atomic_fetch_add_explicit(&allocations, 1, memory_order_relaxed);
  return __libc_memalign(alignment, size);
}

int pthread_mutex_lock(pthread_mutex_t* mutex) {
  static int (*next)(pthread_mutex_t*);
  if (next == NULL) next = (int (*)(pthread_mutex_t*))dlsym(RTLD_NEXT, "pthread_mutex_lock");
  atomic_fetch_add_explicit(&mutexes, 1, memory_order_relaxed);
  return next(mutex);
}

__attribute__((destructor)) static void WriteCounts(void) {
  const char* path = getenv("VELKORO_COUNTS");
  FILE* file = path == NULL ? NULL : fopen(path, "w");
  if (file == NULL) return;
  fprintf(file, "%lu %lu\n", atomic_load(&allocations), atomic_load(&mutexes));
  fclose(file);
}
