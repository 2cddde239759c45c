// Makes the test binary's heap allocation fail at the N-th call and counts
// the blocks still live, so that a test can fail every allocation of an
// operation in turn and require a clean status and no leak at each. Include
// it in exactly one source file of a test binary: it replaces malloc, calloc,
// realloc and free for the whole program. Only glibc builds without
// sanitizers (which bring their own allocator) get the hook; elsewhere
// TARN_TEST_ALLOC_HOOK stays undefined and such tests skip.
//
//   g_count = 0, g_live = 0, g_fail_at = n, g_armed = true;
//   ... library calls only: test code must not allocate while armed ...
//   g_armed = false;  // then g_live == 0, and g_count > n if n was reached
#ifndef TARN_TESTS_ALLOC_HOOK_H
#define TARN_TESTS_ALLOC_HOOK_H

#include <stddef.h>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(memory_sanitizer)
#define TARN_TEST_NO_ALLOC_HOOK 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define TARN_TEST_NO_ALLOC_HOOK 1
#endif

#if defined(__GLIBC__) && !defined(TARN_TEST_NO_ALLOC_HOOK)
#define TARN_TEST_ALLOC_HOOK 1
namespace {
bool g_armed = false;
long g_count = 0, g_fail_at = -1, g_live = 0;
bool should_fail() { return g_armed && g_count++ == g_fail_at; }
}  // namespace

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *p, size_t size);
void __libc_free(void *p);
void *malloc(size_t size) {
  if (should_fail()) return nullptr;
  void *p = __libc_malloc(size);
  if (g_armed && p != nullptr) ++g_live;
  return p;
}
void *calloc(size_t count, size_t size) {
  if (should_fail()) return nullptr;
  void *p = __libc_calloc(count, size);
  if (g_armed && p != nullptr) ++g_live;
  return p;
}
void *realloc(void *old, size_t size) {
  if (should_fail()) return nullptr;
  void *p = __libc_realloc(old, size);
  if (g_armed && p != nullptr && old == nullptr) ++g_live;
  return p;
}
void free(void *p) {
  if (g_armed && p != nullptr) --g_live;
  __libc_free(p);
}
}
#endif

#endif  // TARN_TESTS_ALLOC_HOOK_H
