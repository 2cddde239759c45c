// Opening the 48-tile phone photo from memory and building the model, with
// the number of heap allocations one open makes.
#include <benchmark/benchmark.h>

#include <stdio.h>
#include <stdlib.h>

#include <atomic>
#include <string>
#include <vector>

#include "tarn/io.h"
#include "tarn/reader.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TARN_BENCH_NO_ALLOC_HOOK 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define TARN_BENCH_NO_ALLOC_HOOK 1
#endif

namespace {
std::atomic<long> g_allocations{0};
}

// On glibc the process's allocator is wrapped so that every malloc, calloc
// and realloc is counted; elsewhere the count stays 0.
#if defined(__GLIBC__) && !defined(TARN_BENCH_NO_ALLOC_HOOK)
extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *p, size_t size);
void __libc_free(void *p);

void *malloc(size_t size) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_malloc(size);
}
void *calloc(size_t count, size_t size) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_calloc(count, size);
}
void *realloc(void *p, size_t size) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_realloc(p, size);
}
void free(void *p) { __libc_free(p); }
}
#endif

namespace {

bool read_whole(const std::string &path, std::vector<uint8_t> *out) {
  FILE *f = fopen(path.c_str(), "rb");
  if (f == nullptr) return false;
  uint8_t buf[65536];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), f)) > 0) out->insert(out->end(), buf, buf + n);
  fclose(f);
  return true;
}

void BM_ReaderOpenIphoneGrid(benchmark::State &state) {
  std::vector<uint8_t> bytes;
  if (!read_whole(std::string(TARN_CORPUS_DIR) + "/phones/iphone8plus_grid_thumb_exif.heic",
                  &bytes)) {
    state.SkipWithError("corpus file not found");
    return;
  }
  long allocations = 0;
  for (auto _ : state) {
    tarnd_io_dsc io;
    tarnd_io_init_memory(&io, bytes.data(), bytes.size());
    tarnd_file_info info;
    int32_t err = 0;
    const long before = g_allocations.load(std::memory_order_relaxed);
    void *handle = tarnd_create(&io, 0, &info, &err);
    allocations = g_allocations.load(std::memory_order_relaxed) - before;
    if (handle == nullptr) {
      state.SkipWithError("open failed");
      return;
    }
    benchmark::DoNotOptimize(handle);
    tarnd_delete(handle);
  }
  state.counters["allocs_per_open"] = static_cast<double>(allocations);
}
BENCHMARK(BM_ReaderOpenIphoneGrid)->Unit(benchmark::kMicrosecond);

}  // namespace
