// Byte-order conversions on file-like buffers: unaligned positions, odd
// lengths, zero counts, and the property that each conversion undoes itself.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <numeric>
#include <vector>

#include "tarn/common.h"

namespace {

std::vector<uint8_t> iota_bytes(size_t n) {
  std::vector<uint8_t> v(n);
  std::iota(v.begin(), v.end(), uint8_t{1});
  return v;
}

struct ConvCase {
  const char *name;
  std::vector<uint8_t> in;
  std::function<void(void *)> conv;
  std::vector<uint8_t> out;
};

TEST(ByteOrder, ConvertsKnownValues) {
  const ConvCase cases[] = {
      {"u16", {0x12, 0x34}, tarn_conv_u16, {0x34, 0x12}},
      {"u32", {1, 2, 3, 4}, tarn_conv_u32, {4, 3, 2, 1}},
      {"u64", {1, 2, 3, 4, 5, 6, 7, 8}, tarn_conv_u64, {8, 7, 6, 5, 4, 3, 2, 1}},
      {"with_i n=2", {1, 2, 3, 4}, [](void *p) { tarn_conv_u32_with_i(p, 2); }, {2, 1, 3, 4}},
      {"with_i n=3", {1, 2, 3, 4}, [](void *p) { tarn_conv_u32_with_i(p, 3); }, {3, 2, 1, 4}},
      {"with_i n=4", {1, 2, 3, 4}, [](void *p) { tarn_conv_u32_with_i(p, 4); }, {4, 3, 2, 1}},
      {"with_i n=1", {1, 2, 3, 4}, [](void *p) { tarn_conv_u32_with_i(p, 1); }, {1, 2, 3, 4}},
      {"with_i n=5", {1, 2, 3, 4, 5}, [](void *p) { tarn_conv_u32_with_i(p, 5); }, {1, 2, 3, 4, 5}},
      {"with_i n=0", {1, 2}, [](void *p) { tarn_conv_u32_with_i(p, 0); }, {1, 2}},
      {"with_i n<0", {1, 2}, [](void *p) { tarn_conv_u32_with_i(p, -3); }, {1, 2}},
      {"reverse n=0", {1, 2, 3}, [](void *p) { tarn_conv_reverse(p, 0); }, {1, 2, 3}},
      {"reverse n=1", {1, 2, 3}, [](void *p) { tarn_conv_reverse(p, 1); }, {1, 2, 3}},
      {"reverse n<0", {1, 2, 3}, [](void *p) { tarn_conv_reverse(p, -1); }, {1, 2, 3}},
      {"reverse odd keeps middle", {1, 2, 3, 4, 5}, [](void *p) { tarn_conv_reverse(p, 5); }, {5, 4, 3, 2, 1}},
      {"reverse prefix only", {1, 2, 3, 4, 5}, [](void *p) { tarn_conv_reverse(p, 2); }, {2, 1, 3, 4, 5}},
      {"int nal length", {0, 0, 1, 0x2C}, [](void *p) { tarn_conv_int(p, 4); }, {0x2C, 1, 0, 0}},
      {"int n=3", {1, 2, 3, 9}, [](void *p) { tarn_conv_int(p, 3); }, {3, 2, 1, 9}},
      {"int n=8", {1, 2, 3, 4, 5, 6, 7, 8}, [](void *p) { tarn_conv_int(p, 8); }, {8, 7, 6, 5, 4, 3, 2, 1}},
      {"int n=1", {7, 8}, [](void *p) { tarn_conv_int(p, 1); }, {7, 8}},
      {"int n=9 refused", {1, 2, 3, 4, 5, 6, 7, 8, 9},
       [](void *p) { tarn_conv_int(p, 9); }, {1, 2, 3, 4, 5, 6, 7, 8, 9}},
      {"buf_u16 count 0", {1, 2}, [](void *p) { tarn_conv_buf_u16(p, 0); }, {1, 2}},
      {"buf_u32 count 0", {1, 2, 3, 4}, [](void *p) { tarn_conv_buf_u32(p, 0); }, {1, 2, 3, 4}},
      {"buf_u64 count 0", {1, 2, 3, 4, 5, 6, 7, 8}, [](void *p) { tarn_conv_buf_u64(p, 0); },
       {1, 2, 3, 4, 5, 6, 7, 8}},
      {"buf_u16 odd count leaves tail", {1, 2, 3, 4, 5, 6, 7}, [](void *p) { tarn_conv_buf_u16(p, 3); },
       {2, 1, 4, 3, 6, 5, 7}},
      {"buf_u32 leaves tail", {1, 2, 3, 4, 5, 6, 7, 8, 9}, [](void *p) { tarn_conv_buf_u32(p, 2); },
       {4, 3, 2, 1, 8, 7, 6, 5, 9}},
  };
  for (const auto &c : cases) {
    std::vector<uint8_t> buf = c.in;
    c.conv(buf.data());
    EXPECT_EQ(buf, c.out) << c.name;
  }
}

// Host value of a big-endian 32-bit field read into a variable and turned.
TEST(ByteOrder, HostValueOfBigEndianFields) {
  const uint8_t be32[] = {0x31, 0x63, 0x76, 0x68};
  uint32_t v;
  std::memcpy(&v, be32, 4);
  tarn_conv_u32(&v);
  EXPECT_EQ(v, 0x31637668u);
  const uint8_t be64[] = {0, 0, 0, 1, 0, 0, 0, 2};
  uint64_t w;
  std::memcpy(&w, be64, 8);
  tarn_conv_u64(&w);
  EXPECT_EQ(w, 0x100000002ull);
}

// Array forms at every misalignment and length must convert each element
// exactly once (a wide-register path that converted a tail twice or skipped
// it would show here) and touch nothing outside the elements.
TEST(ByteOrder, ArrayFormsAtEveryOffsetAndLength) {
  struct Form {
    size_t width;
    void (*conv)(void *, size_t);
  };
  const Form forms[] = {{2, tarn_conv_buf_u16}, {4, tarn_conv_buf_u32}, {8, tarn_conv_buf_u64}};
  for (const auto &form : forms) {
    for (size_t offset = 0; offset < 8; ++offset) {
      for (size_t count = 0; count <= 37; ++count) {
        std::vector<uint8_t> buf = iota_bytes(offset + count * form.width + 8);
        const std::vector<uint8_t> orig = buf;
        form.conv(buf.data() + offset, count);
        for (size_t i = 0; i < buf.size(); ++i) {
          size_t expected_from = i;
          if (i >= offset && i < offset + count * form.width) {
            const size_t elem = (i - offset) / form.width;
            const size_t within = (i - offset) % form.width;
            expected_from = offset + elem * form.width + (form.width - 1 - within);
          }
          ASSERT_EQ(buf[i], orig[expected_from])
              << "width " << form.width << " offset " << offset << " count " << count << " byte " << i;
        }
        form.conv(buf.data() + offset, count);
        ASSERT_EQ(buf, orig) << "not its own inverse: width " << form.width << " count " << count;
      }
    }
  }
}

TEST(ByteOrder, SingleValueFormsAreTheirOwnInverseWhenUnaligned) {
  std::vector<uint8_t> buf = iota_bytes(24);
  const std::vector<uint8_t> orig = buf;
  for (size_t offset = 0; offset < 8; ++offset) {
    for (auto conv : {tarn_conv_u16, tarn_conv_u32, tarn_conv_u64}) {
      conv(buf.data() + offset);
      conv(buf.data() + offset);
      ASSERT_EQ(buf, orig);
    }
    for (int32_t n = -1; n <= 9; ++n) {
      tarn_conv_reverse(buf.data() + offset, n);
      tarn_conv_reverse(buf.data() + offset, n);
      tarn_conv_int(buf.data() + offset, n);
      tarn_conv_int(buf.data() + offset, n);
      tarn_conv_u32_with_i(buf.data() + offset, n);
      tarn_conv_u32_with_i(buf.data() + offset, n);
      ASSERT_EQ(buf, orig) << "n " << n;
    }
  }
}

}  // namespace
