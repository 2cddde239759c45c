// Open with every heap allocation failing in turn: each gives a status or a
// usable handle, and nothing leaks. The process allocator is wrapped on glibc
// builds without sanitizers (which bring their own allocator).
#include <gtest/gtest.h>

#include <stdlib.h>

#include <string>
#include <vector>

#include "reader/open_helpers.h"
#include "support/files.h"

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
// Armed only inside the test: fail the allocation numbered fail_at, and
// count live blocks.
bool g_armed = false;
long g_count = 0, g_fail_at = -1, g_live = 0;

bool should_fail() {
  if (!g_armed) return false;
  return g_count++ == g_fail_at;
}
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

namespace tarn_test {
namespace {

TEST(AllocFailure, EveryAllocationOfAnOpenFailsCleanly) {
#if !defined(TARN_TEST_ALLOC_HOOK)
  GTEST_SKIP() << "allocator wrapping needs glibc without sanitizers";
#else
  TARN_REQUIRE_CORPUS();
  for (const char *name : {"nokia/grid_960x640.heic", "nokia/stereo_1200x800.heic",
                           "synthetic/LA_8__29x100.heif"}) {
    std::vector<uint8_t> bytes;
    ASSERT_TRUE(read_file(corpus_dir() + "/" + name, &bytes)) << name;
    tarnd_io_dsc io;
    tarnd_io_init_memory(&io, bytes.data(), bytes.size());
    for (long fail_at = 0;; ++fail_at) {
      tarnd_file_info info;
      int32_t err = 1;
      g_count = 0;
      g_live = 0;
      g_fail_at = fail_at;
      g_armed = true;
      void *handle = tarnd_create(&io, 0, &info, &err);
      const bool reached = g_count > fail_at;
      tarnd_delete(handle);
      g_armed = false;
      EXPECT_EQ(g_live, 0) << name << " failing allocation " << fail_at;
      EXPECT_EQ(handle != nullptr, err == 0) << name << " at " << fail_at;
      EXPECT_TRUE(err == 0 || err == -2 || err == -5 || err == -6) << err;
      if (!reached) {
        EXPECT_EQ(err, 0) << name;  // every allocation succeeded
        break;
      }
    }
  }
#endif
}

}  // namespace
}  // namespace tarn_test
