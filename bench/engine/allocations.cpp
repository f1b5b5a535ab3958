// SPDX-License-Identifier: Apache-2.0
#include "bench/engine/allocations.h"

#include <Judy.h>
#include <malloc.h>

#include <cerrno>
#include <cstdlib>

namespace {
U64 requests = 0;
U64 judyRequests = 0;
}  // namespace

namespace Bench {

Allocations allocations() { return {requests, judyRequests}; }

U64 bytesInUse() {
  struct mallinfo2 const info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

}  // namespace Bench

// The C library's own entry points, and the two of Judy.
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);

__attribute__((visibility("default"))) void* malloc(size_t bytes) {
  ++requests;
  return __libc_malloc(bytes);
}
__attribute__((visibility("default"))) void* calloc(size_t count, size_t bytes) {
  ++requests;
  return __libc_calloc(count, bytes);
}
__attribute__((visibility("default"))) void* realloc(void* block, size_t bytes) {
  ++requests;
  return __libc_realloc(block, bytes);
}
__attribute__((visibility("default"))) void* aligned_alloc(size_t alignment, size_t bytes) {
  ++requests;
  return __libc_memalign(alignment, bytes);
}
__attribute__((visibility("default"))) int posix_memalign(void** block, size_t alignment, size_t bytes) {
  ++requests;
  *block = __libc_memalign(alignment, bytes);
  return *block ? 0 : ENOMEM;
}
__attribute__((visibility("default"))) void free(void* block) { __libc_free(block); }

__attribute__((visibility("default"))) Word_t JudyMalloc(Word_t words) {
  ++judyRequests;
  return reinterpret_cast<Word_t>(malloc(words * sizeof(Word_t)));
}
__attribute__((visibility("default"))) void JudyFree(Pvoid_t block, Word_t) { free(block); }
}
