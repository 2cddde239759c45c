// Aligned allocation, strided copies and the fills: exact byte counts, word
// and tail contents, and nothing written outside the contract.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "tarn/utils.h"

namespace {

constexpr uint8_t kGuard = 0xEE;

using FillFn = void (*)(void *, uint32_t, int32_t);

// Bytes written by each fill for a size: word bytes first, then tail bytes.
struct Fill {
  const char *name;
  FillFn fn;
  int32_t min_size;
  size_t (*words)(size_t size);
  size_t (*tail)(size_t size);
};

const Fill kFills[] = {
    {"x32", omni_mset_x32, 32, [](size_t n) { return n / 32 * 32; }, [](size_t) { return size_t{0}; }},
    {"x32ax4", omni_mset_x32ax4, 32, [](size_t n) { return n / 32 * 32; },
     [](size_t n) { return n % 32; }},
    {"x64", omni_mset_x64, 128, [](size_t n) { return n / 128 * 128; },
     [](size_t) { return size_t{0}; }},
    {"x64a", omni_mset_x64a, 1, [](size_t n) { return n / 64 * 64; },
     [](size_t n) { return n % 64; }},
    {"x128", omni_mset_x128, 128, [](size_t n) { return (n + 127) / 128 * 128; },
     [](size_t) { return size_t{0}; }},
};

TEST(AlignedMemory, BlocksAreAlignedWritableAndFreed) {
  for (uint32_t size : {0u, 1u, 31u, 32u, 33u, 4095u, 100000u}) {
    for (int twin = 0; twin < 2; ++twin) {
      void *p = twin ? omni_malloc_fast_align32(size) : omni_malloc_align32(size);
      ASSERT_NE(p, nullptr) << size;
      EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 32, 0u) << size;
      memset(p, 0x5A, size);  // AddressSanitizer checks the block really holds size bytes
      twin ? omni_mfree_fast_align32(p) : omni_mfree_align32(p);
    }
  }
  omni_mfree_align32(nullptr);
  omni_mfree_fast_align32(nullptr);
}

// Both a word pattern (distinct bytes tell words from tails) and a byte
// value, the way callers use the fills; every tail length.
TEST(Fills, WriteExactlyTheirBlocksAndTails) {
  for (const uint32_t value : {0x44332211u, 0x41414141u}) {
    for (const Fill &f : kFills) {
      std::vector<int32_t> sizes = {65536, 65536 + 127, 200064};  // large fills take another path
      for (int32_t size = f.min_size; size <= 3 * 128 + 64; ++size) sizes.push_back(size);
      for (const int32_t size : sizes) {
        if (f.fn == omni_mset_x128 && size % 128 != 0) continue;  // caller passes multiples
        const size_t words = f.words(static_cast<size_t>(size));
        const size_t tail = f.tail(static_cast<size_t>(size));
        // Offset 4 from a 32-byte boundary: the fills only promise 4-byte alignment.
        std::vector<uint8_t> buf(4 + words + tail + 64, kGuard);
        uint8_t *dst = buf.data() + 4;
        f.fn(dst, value, size);
        std::vector<uint8_t> want(buf.size(), kGuard);
        for (size_t i = 0; i < words + tail; ++i)
          want[4 + i] = static_cast<uint8_t>(i < words ? value >> (8 * (i % 4)) : value);
        ASSERT_EQ(buf, want) << f.name << " size " << size << " value " << value;
      }
    }
  }
  // The clear counts 32-bit words: 256 bytes per 64 of them.
  for (const int32_t count : {64, 128, 640, 100}) {
    const size_t cleared = static_cast<size_t>(count / 64 * 256);
    std::vector<uint8_t> buf(cleared + 32, kGuard), want(buf);
    std::fill(want.begin(), want.begin() + static_cast<std::ptrdiff_t>(cleared), 0);
    omni_mclr_x64(buf.data(), count);
    EXPECT_EQ(buf, want) << count;
  }
}

TEST(BlockCopy, OddAndNegativeStrides) {
  struct Case {
    const char *name;
    int32_t dst_stride, src_stride;
    uint32_t width;
    int32_t rows;
  } const kCases[] = {
      {"odd strides", 7, 13, 5, 6},     {"bottom-up source", 9, -11, 9, 4},
      {"bottom-up dest", -3, 3, 3, 5},  {"single row", 1, 1, 17, 1},
      {"no rows", 5, 5, 5, 0},          {"negative rows", 5, 5, 5, -3},
      {"zero width", 4, 4, 0, 3},
  };
  for (const auto &c : kCases) {
    const int32_t rows = c.rows > 0 ? c.rows : 0;
    const int32_t span_src = rows > 0 ? (rows - 1) * (c.src_stride < 0 ? -c.src_stride : c.src_stride) : 0;
    const int32_t span_dst = rows > 0 ? (rows - 1) * (c.dst_stride < 0 ? -c.dst_stride : c.dst_stride) : 0;
    std::vector<uint8_t> src(static_cast<size_t>(span_src) + c.width + 1);
    for (size_t i = 0; i < src.size(); ++i) src[i] = static_cast<uint8_t>(i * 7 + 1);
    std::vector<uint8_t> dst(static_cast<size_t>(span_dst) + c.width + 1, kGuard);
    const uint8_t *s0 = src.data() + (c.src_stride < 0 ? span_src : 0);
    uint8_t *d0 = dst.data() + (c.dst_stride < 0 ? span_dst : 0);
    omni_blk_mcpy(d0, s0, c.dst_stride, c.src_stride, c.width, c.rows);
    std::vector<uint8_t> expect(dst.size(), kGuard);
    for (int32_t r = 0; r < rows; ++r)
      memcpy(expect.data() + (d0 - dst.data()) + r * c.dst_stride, s0 + r * c.src_stride, c.width);
    EXPECT_EQ(dst, expect) << c.name;
  }
}

}  // namespace
