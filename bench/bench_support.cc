#include "bench_support.h"

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>

#include "tarn/writer.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(memory_sanitizer)
#define TARN_BENCH_NO_HEAP_COUNT 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define TARN_BENCH_NO_HEAP_COUNT 1
#endif
#if !defined(__GLIBC__)
#define TARN_BENCH_NO_HEAP_COUNT 1
#endif

namespace {

std::atomic<long> g_allocations{0};
std::atomic<long> g_live{0};
std::atomic<long> g_peak{0};
// Counting is on only while count_heap measures one call, so that timed
// loops (of libtarn and of the peer alike) run at the allocator's own speed.
std::atomic<bool> g_counting{false};

#if !defined(TARN_BENCH_NO_HEAP_COUNT)
inline bool counting() { return g_counting.load(std::memory_order_relaxed); }
void note_alloc(size_t bytes) {
  if (!g_counting.load(std::memory_order_relaxed)) return;
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  const long live = g_live.fetch_add(static_cast<long>(bytes), std::memory_order_relaxed) +
                    static_cast<long>(bytes);
  long peak = g_peak.load(std::memory_order_relaxed);
  while (live > peak && !g_peak.compare_exchange_weak(peak, live, std::memory_order_relaxed)) {
  }
}
void note_free(size_t bytes) {
  if (g_counting.load(std::memory_order_relaxed)) {
    g_live.fetch_sub(static_cast<long>(bytes), std::memory_order_relaxed);
  }
}
#endif

}  // namespace

// glibc's allocator stays the one that works; these wrappers, which replace
// the C library's entry points for the whole process (operator new included,
// since libstdc++ allocates through malloc), only count, and only between
// heap_mark() and heap_since_mark(). Live bytes use the usable size of each
// block so that frees balance allocations exactly.
#if !defined(TARN_BENCH_NO_HEAP_COUNT)
#include <malloc.h>
extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *p, size_t size);
void *__libc_memalign(size_t alignment, size_t size);
void __libc_free(void *p);

void *malloc(size_t size) {
  void *p = __libc_malloc(size);
  if (p != nullptr && counting()) note_alloc(malloc_usable_size(p));
  return p;
}
void *calloc(size_t count, size_t size) {
  void *p = __libc_calloc(count, size);
  if (p != nullptr && counting()) note_alloc(malloc_usable_size(p));
  return p;
}
void *realloc(void *old, size_t size) {
  if (!counting()) return __libc_realloc(old, size);
  const size_t before = old != nullptr ? malloc_usable_size(old) : 0;
  void *p = __libc_realloc(old, size);
  if (p == nullptr) return p;  // old block untouched (or size 0 freed it)
  note_free(before);
  note_alloc(malloc_usable_size(p));
  return p;
}
void *memalign(size_t alignment, size_t size) {
  void *p = __libc_memalign(alignment, size);
  if (p != nullptr && counting()) note_alloc(malloc_usable_size(p));
  return p;
}
void *aligned_alloc(size_t alignment, size_t size) { return memalign(alignment, size); }
int posix_memalign(void **out, size_t alignment, size_t size) {
  if (alignment < sizeof(void *) || (alignment & (alignment - 1)) != 0) return 22;  // EINVAL
  void *p = memalign(alignment, size);
  if (p == nullptr) return 12;  // ENOMEM
  *out = p;
  return 0;
}
void free(void *p) {
  if (p == nullptr) return;
  if (counting()) note_free(malloc_usable_size(p));
  __libc_free(p);
}
}
#endif

namespace tarn_bench {

void heap_mark() {
  // Live bytes count from the mark: blocks older than it that the operation
  // frees take the level below 0, which never raises the peak.
  g_live.store(0, std::memory_order_relaxed);
  g_peak.store(0, std::memory_order_relaxed);
  g_allocations.store(0, std::memory_order_relaxed);
  g_counting.store(true, std::memory_order_relaxed);
}

HeapUse heap_since_mark() {
  g_counting.store(false, std::memory_order_relaxed);
#if defined(TARN_BENCH_NO_HEAP_COUNT)
  return HeapUse{false, 0, 0};
#else
  return HeapUse{true, g_allocations.load(std::memory_order_relaxed),
                 g_peak.load(std::memory_order_relaxed)};
#endif
}

bool read_file(const std::string &path, Bytes *out) {
  out->clear();
  FILE *f = fopen(path.c_str(), "rb");
  if (f == nullptr) return false;
  uint8_t chunk[65536];
  size_t n;
  while ((n = fread(chunk, 1, sizeof chunk, f)) > 0) out->insert(out->end(), chunk, chunk + n);
  const bool ok = ferror(f) == 0;
  fclose(f);
  return ok;
}

std::string corpus_path(const std::string &relative) {
  const char *env = getenv("TARN_CORPUS_DIR");
  return std::string(env != nullptr && *env != '\0' ? env : TARN_CORPUS_DIR) + "/" + relative;
}

const std::vector<std::string> &corpus_files() {
  static const std::vector<std::string> files = [] {
    std::vector<std::string> found;
    const std::string root = corpus_path("");
    DIR *top = opendir(root.c_str());
    if (top == nullptr) return found;
    while (const dirent *folder = readdir(top)) {
      if (folder->d_name[0] == '.') continue;
      const std::string sub = root + folder->d_name;
      DIR *dir = opendir(sub.c_str());
      if (dir == nullptr) continue;  // README.md, facts.json
      while (const dirent *entry = readdir(dir)) {
        struct stat st;
        const std::string path = sub + "/" + entry->d_name;
        if (entry->d_name[0] != '.' && stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
          found.push_back(std::string(folder->d_name) + "/" + entry->d_name);
        }
      }
      closedir(dir);
    }
    closedir(top);
    std::sort(found.begin(), found.end());
    return found;
  }();
  return files;
}

namespace {

// NAL units of an Annex-B stream (3- or 4-byte start codes), without them.
std::vector<Bytes> nal_units(const Bytes &s) {
  std::vector<Bytes> units;
  size_t start = 0;
  bool open = false;
  for (size_t i = 0; i + 3 <= s.size(); ++i) {
    if (s[i] != 0 || s[i + 1] != 0 || s[i + 2] != 1) continue;
    if (open) {
      size_t end = i;
      while (end > start && s[end - 1] == 0) --end;
      units.emplace_back(s.begin() + static_cast<long>(start), s.begin() + static_cast<long>(end));
    }
    start = i + 3;
    open = true;
  }
  if (open && start < s.size()) {
    units.emplace_back(s.begin() + static_cast<long>(start), s.end());
  }
  return units;
}

const uint8_t kStartCode[4] = {0, 0, 0, 1};

}  // namespace

Picture load_picture(const char *relative_path, uint32_t width, uint32_t height) {
  Picture p;
  Bytes stream;
  if (!read_file(std::string(TARN_SOURCE_DIR) + "/" + relative_path, &stream)) return p;
  for (const Bytes &unit : nal_units(stream)) {
    if (unit.size() < 2) continue;
    const int type = (unit[0] >> 1) & 0x3F;
    if (type == 32) p.vps.push_back(unit);
    if (type == 33) p.sps.push_back(unit);
    if (type == 34) p.pps.push_back(unit);
    if (type < 32) {  // slice segments: the coded picture itself
      p.frame.insert(p.frame.end(), kStartCode, kStartCode + 4);
      p.frame.insert(p.frame.end(), unit.begin(), unit.end());
    }
  }
  p.width = width;
  p.height = height;
  p.ok = !p.frame.empty() && p.vps.size() == 1 && p.sps.size() == 1 && p.pps.size() == 1;
  return p;
}

Picture grow_picture(const Picture &p, size_t target) {
  Picture big = p;
  // The slice bytes after the first start code are appended to the last
  // unit, so that the picture keeps its number of NAL units as a camera's
  // large slice does. Slice data end in a non-zero byte, so no start code
  // forms where two copies meet.
  while (big.ok && big.frame.size() < target) {
    big.frame.insert(big.frame.end(), p.frame.begin() + 4, p.frame.end());
  }
  return big;
}

void fill_image_info(const Picture &p, tarnm_image_info *info) {
  *info = tarnm_image_info{};
  info->width = p.width;
  info->height = p.height;
  tarnm_param_sets &ps = info->param_sets;
  ps.vps_count = ps.sps_count = ps.pps_count = 1;
  ps.vps_size[0] = static_cast<uint32_t>(p.vps[0].size());
  ps.vps_data[0] = p.vps[0].data();
  ps.sps_size[0] = static_cast<uint32_t>(p.sps[0].size());
  ps.sps_data[0] = p.sps[0].data();
  ps.pps_size[0] = static_cast<uint32_t>(p.pps[0].size());
  ps.pps_data[0] = p.pps[0].data();
}

const Bytes &sample_file() {
  static const Bytes file = [] {
    Bytes out;
    Picture tiles[4];
    for (int t = 0; t < 4; ++t) {
      const std::string name = "samples/tile_" + std::to_string(t) + ".hevc";
      tiles[t] = load_picture(name.c_str(), 512, 512);
      if (!tiles[t].ok) return out;
    }
    const Picture thumb = load_picture("samples/thumbnail.hevc", 256, 256);
    Bytes exif;
    if (!thumb.ok || !read_file(std::string(TARN_SOURCE_DIR) + "/samples/exif.bin", &exif)) {
      return out;
    }
    const tarnm_init_dsc dsc = {};
    tarnm_ctx *ctx = tarnm_create(&dsc, nullptr);
    if (ctx == nullptr) return out;
    tarnm_image_info info;
    fill_image_info(tiles[0], &info);
    info.exif_data = exif.data();
    info.exif_size = static_cast<uint32_t>(exif.size());
    const tarnm_grid_info grid = {1024, 1024, 2, 2, 1, 4, 5, 0};
    tarnm_image_info thumb_info;
    fill_image_info(thumb, &thumb_info);
    thumb_info.img_type = IMG_TYPE_THUMBNAIL;
    bool ok = tarnm_set_image_info(ctx, 5, 0, &info, &grid) == 0 &&
              tarnm_set_image_info(ctx, 6, 5, &thumb_info, nullptr) == 0 &&
              tarnm_set_cover_image(ctx, 5) == 0;
    for (uint32_t t = 0; ok && t < 4; ++t) {
      ok = tarnm_put_frm(ctx, t + 1, tiles[t].frame.data(),
                         static_cast<uint32_t>(tiles[t].frame.size())) == 0;
    }
    ok = ok && tarnm_put_frm(ctx, 6, thumb.frame.data(), static_cast<uint32_t>(thumb.frame.size())) == 0;
    ok = ok && tarnm_stop_muxing(ctx) == 0;
    const int32_t size = ok ? tarnm_get_outputbuffer_size(ctx) : -1;
    if (size > 0) {
      out.resize(static_cast<size_t>(size));
      if (tarnm_dump_image_to_outputbuffer(ctx, out.data()) != 0) out.clear();
    }
    tarnm_delete(ctx);
    return out;
  }();
  return file;
}

bool case_bytes(const std::string &name, Bytes *out) {
  if (name == kSampleName) {
    *out = sample_file();
    return !out->empty();
  }
  return read_file(corpus_path(name), out) && !out->empty();
}

}  // namespace tarn_bench
