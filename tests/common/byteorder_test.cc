// Byte-order conversions on file-like buffers: every misalignment, odd and
// refused lengths, zero counts, nothing written outside the value.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <vector>

#include "tarn/common.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Each case at every offset 0..7 inside guard bytes.
TEST(ByteOrder, SingleValuesAtEveryOffset) {
  struct Case { const char *name; void (*conv)(void *, int32_t); int32_t n; Bytes in, out; };
  const auto u16 = [](void *p, int32_t) { tarn_conv_u16(p); };
  const auto u32 = [](void *p, int32_t) { tarn_conv_u32(p); };
  const auto u64 = [](void *p, int32_t) { tarn_conv_u64(p); };
  const Case kCases[] = {
      {"u16", u16, 0, {0x12, 0x34}, {0x34, 0x12}},
      {"u32", u32, 0, {1, 2, 3, 4}, {4, 3, 2, 1}},
      {"u64", u64, 0, {1, 2, 3, 4, 5, 6, 7, 8}, {8, 7, 6, 5, 4, 3, 2, 1}},
      {"with_i 2", tarn_conv_u32_with_i, 2, {1, 2, 3, 4}, {2, 1, 3, 4}},
      {"with_i 3", tarn_conv_u32_with_i, 3, {1, 2, 3, 4}, {3, 2, 1, 4}},
      {"with_i 1", tarn_conv_u32_with_i, 1, {1, 2, 3, 4}, {1, 2, 3, 4}},
      {"with_i 5", tarn_conv_u32_with_i, 5, {1, 2, 3, 4, 5}, {1, 2, 3, 4, 5}},
      {"with_i 0", tarn_conv_u32_with_i, 0, {1, 2}, {1, 2}},
      {"with_i <0", tarn_conv_u32_with_i, -3, {1, 2}, {1, 2}},
      {"reverse 0", tarn_conv_reverse, 0, {1, 2, 3}, {1, 2, 3}},
      {"reverse <0", tarn_conv_reverse, -1, {1, 2, 3}, {1, 2, 3}},
      {"reverse odd keeps middle", tarn_conv_reverse, 5, {1, 2, 3, 4, 5}, {5, 4, 3, 2, 1}},
      {"reverse prefix", tarn_conv_reverse, 2, {1, 2, 3, 4, 5}, {2, 1, 3, 4, 5}},
      {"int 2", tarn_conv_int, 2, {1, 2, 9}, {2, 1, 9}},
      {"int 3", tarn_conv_int, 3, {1, 2, 3, 9}, {3, 2, 1, 9}},
      {"int 8", tarn_conv_int, 8, {1, 2, 3, 4, 5, 6, 7, 8}, {8, 7, 6, 5, 4, 3, 2, 1}},
      {"int 1", tarn_conv_int, 1, {7, 8}, {7, 8}},
      {"int 9 refused", tarn_conv_int, 9, {1, 2, 3, 4, 5, 6, 7, 8, 9}, {1, 2, 3, 4, 5, 6, 7, 8, 9}},
  };
  for (const Case &c : kCases) {
    for (size_t offset = 0; offset < 8; ++offset) {
      Bytes buf(offset + c.in.size() + 8, 0xEE), want(buf);
      std::copy(c.in.begin(), c.in.end(), buf.begin() + long(offset));
      std::copy(c.out.begin(), c.out.end(), want.begin() + long(offset));
      c.conv(buf.data() + offset, c.n);
      EXPECT_EQ(buf, want) << c.name << " at offset " << offset;
    }
  }
}

// Array forms at every misalignment and length must convert each element
// exactly once (a wide-register path that converted a tail twice or skipped
// it would show here) and touch nothing outside the elements.
TEST(ByteOrder, ArrayFormsAtEveryOffsetAndLength) {
  const std::pair<size_t, void (*)(void *, size_t)> kForms[] = {
      {2, tarn_conv_buf_u16}, {4, tarn_conv_buf_u32}, {8, tarn_conv_buf_u64}};
  for (const auto &[width, conv] : kForms) {
    for (size_t offset = 0; offset < 8; ++offset) {
      for (size_t count = 0; count <= 37; ++count) {
        Bytes buf(offset + count * width + 8);
        std::iota(buf.begin(), buf.end(), uint8_t{1});
        const Bytes orig = buf;
        conv(buf.data() + offset, count);
        for (size_t i = 0; i < buf.size(); ++i) {
          const bool inside = i >= offset && i < offset + count * width;
          const size_t from = inside ? i - (i - offset) % width * 2 + width - 1 : i;
          ASSERT_EQ(buf[i], orig[from]) << width << " offset " << offset << " count " << count << " byte " << i;
        }
      }
    }
  }
}

}  // namespace
