// Aligned allocation, strided plane copies and the word fills.
//
// The fills write whole 32-byte blocks of words as vector stores, then byte
// tails where a routine has them. The block sizes and tail rules are part of
// each routine's contract.
#include <stdlib.h>
#include <string.h>

#include "tarn/utils.h"

namespace {

constexpr uintptr_t kAlign = 32;
// The heap address is kept in a pointer-sized slot just below the block.
constexpr size_t kSlot = sizeof(void *);

void *alloc_aligned(uint32_t size) {
  // With a 32-bit size_t the slack can wrap the total around.
  const size_t total = size_t{size} + (kAlign - 1) + kSlot;
  if (total < size) return nullptr;
  uint8_t *raw = static_cast<uint8_t *>(malloc(total));
  if (!raw) return nullptr;
  const uintptr_t base = reinterpret_cast<uintptr_t>(raw);
  const uintptr_t aligned = (base + (kAlign - 1) + kSlot) & ~(kAlign - 1);
  uint8_t *block = raw + (aligned - base);  // between raw + kSlot and raw + kSlot + 31
  memcpy(block - kSlot, &raw, kSlot);
  return block;
}

void free_aligned(void *ptr) {
  if (!ptr) return;
  void *raw;
  memcpy(&raw, static_cast<uint8_t *>(ptr) - kSlot, kSlot);
  free(raw);
}

// x86-64 glibc hosts get a 256-bit-store version picked at load time; other
// targets (NEON on ARM) use the portable code as compiled.
#if defined(__x86_64__) && defined(__GLIBC__) && defined(__GNUC__) && !defined(__clang__)
#define TARN_WIDE_STORES __attribute__((target_clones("avx2", "default")))
#else
#define TARN_WIDE_STORES
#endif

// 32 bytes of words as one vector value (two 128-bit registers on NEON and
// SSE, one 256-bit register with AVX2); may_alias and aligned(4) make a store
// through it legal on any 4-byte-aligned destination.
typedef uint32_t Words32 __attribute__((vector_size(32), aligned(4), may_alias));

// ARM cores gain from a software prefetch of the line ahead in the routines
// that ask for it; x86 stream prefetchers already cover sequential stores,
// where the extra instruction only costs.
#if defined(__arm__) || defined(__aarch64__)
constexpr bool kPrefetchHelps = true;
#else
constexpr bool kPrefetchHelps = false;
#endif

// Large byte fills (value's four bytes equal, the way callers use the
// routines) go to the C library's memset, which has the processor's
// large-fill method (stores that skip reading the line first) that plain
// stores cannot reach once the buffer leaves the caches; small fills are
// faster inline.
constexpr size_t kMemsetFromBlocks = (64 * 1024) / 32;

inline bool is_byte_fill(uint32_t value) { return value == (value & 0xFFu) * 0x01010101u; }

// Two blocks per step.
TARN_WIDE_STORES void fill_blocks(uint8_t *dst, uint32_t value, size_t blocks, bool prefetch) {
  if (blocks >= kMemsetFromBlocks && is_byte_fill(value)) {
    memset(dst, static_cast<int>(value & 0xFF), 32 * blocks);
    return;
  }
  const Words32 v = {value, value, value, value, value, value, value, value};
  size_t i = 0;
  if (kPrefetchHelps && prefetch) {
    for (; blocks - i > 4; i += 2) {  // the prefetched line stays inside the fill
      __builtin_prefetch(dst + 32 * i + 128, 1);
      *reinterpret_cast<Words32 *>(dst + 32 * i) = v;
      *reinterpret_cast<Words32 *>(dst + 32 * i + 32) = v;
    }
  }
  for (; blocks - i >= 2; i += 2) {
    *reinterpret_cast<Words32 *>(dst + 32 * i) = v;
    *reinterpret_cast<Words32 *>(dst + 32 * i + 32) = v;
  }
  if (i < blocks) *reinterpret_cast<Words32 *>(dst + 32 * i) = v;
}

inline size_t non_negative(int32_t size) { return size > 0 ? static_cast<size_t>(size) : 0; }

}  // namespace

extern "C" {

void *omni_malloc_align32(uint32_t size) { return alloc_aligned(size); }
void omni_mfree_align32(void *ptr) { free_aligned(ptr); }
void *omni_malloc_fast_align32(uint32_t size) { return alloc_aligned(size); }
void omni_mfree_fast_align32(void *ptr) { free_aligned(ptr); }

void omni_blk_mcpy(void *dst, const void *src, int32_t dst_stride, int32_t src_stride,
                   uint32_t width, int32_t rows) {
  uint8_t *d = static_cast<uint8_t *>(dst);
  const uint8_t *s = static_cast<const uint8_t *>(src);
  for (int32_t row = 0; row < rows; ++row) {
    if (row > 0) {  // never step past the last row: a negative stride would leave the plane
      d += dst_stride;
      s += src_stride;
    }
    memcpy(d, s, width);
  }
}

void omni_mset_x32(void *dst, uint32_t value, int32_t size) {
  fill_blocks(static_cast<uint8_t *>(dst), value, non_negative(size) / 32, false);
}

void omni_mset_x32ax4(void *dst, uint32_t value, int32_t size) {
  uint8_t *d = static_cast<uint8_t *>(dst);
  const size_t n = non_negative(size);
  fill_blocks(d, value, n / 32, true);
  memset(d + (n & ~size_t{31}), static_cast<int>(value & 0xFF), n % 32);
}

void omni_mset_x64(void *dst, uint32_t value, int32_t size) {
  fill_blocks(static_cast<uint8_t *>(dst), value, non_negative(size) / 128 * 4, false);
}

void omni_mset_x64a(void *dst, uint32_t value, int32_t size) {
  uint8_t *d = static_cast<uint8_t *>(dst);
  const size_t n = non_negative(size);
  fill_blocks(d, value, n / 64 * 2, true);
  memset(d + (n & ~size_t{63}), static_cast<int>(value & 0xFF), n % 64);
}

void omni_mset_x128(void *dst, uint32_t value, int32_t size) {
  // Whole 128-byte blocks until the count is used up: a size that is not a
  // multiple of 128 is rounded up.
  const size_t blocks = (non_negative(size) + 127) / 128;
  fill_blocks(static_cast<uint8_t *>(dst), value, blocks * 4, false);
}

void omni_mclr_x64(void *dst, int32_t count) {
  // 256 bytes per 64 words; a count that is not a multiple of 64 never
  // clears past 4 * count bytes.
  fill_blocks(static_cast<uint8_t *>(dst), 0, non_negative(count) / 64 * 8, true);
}

}  // extern "C"
