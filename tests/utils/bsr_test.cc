// Bit readers and the bit writer: random round trips, NAL payloads with
// emulation-prevention bytes, the sticky end of data, and writes that run into
// the end of the buffer. Buffers are exact heap copies so that
// AddressSanitizer sees any access outside the data. Start codes inside NAL
// payloads and the little-endian reader are left to the bit-reader fuzz
// inputs, whose read values the replay compares.
#include <gtest/gtest.h>

#include <array>
#include <random>
#include <tuple>
#include <vector>

#include "tarn/utils.h"

namespace {

constexpr uint32_t kEnd = 0xFFFFFFFFu;
using Bytes = std::vector<uint8_t>;

omni_bsr reader(const Bytes &b, omni_bsr_flush_fn flush) {
  omni_bsr bs{};  // zero_run starts at 0
  omni_bsr_init(&bs, b.empty() ? nullptr : b.data(), static_cast<uint32_t>(b.size()), flush);
  return bs;
}

Bytes g_completed;  // bytes the writer reported complete
void on_byte(omni_bsw *bw) { g_completed.push_back(*bw->cur); }

// Random fields of 1..32 bits, a third of them zero so that the escaped form
// is full of emulation-prevention bytes, written with the bit writer and read
// back plain and, escaped, through the NAL refill, mixing reads and skips.
// Peeks look at the raw byte past the cache, so only plain data checks them.
TEST(BitReader, RandomFieldsRoundTrip) {
  std::mt19937 rng(1234);
  for (int round = 0; round < 100; ++round) {
    std::vector<std::pair<uint32_t, int32_t>> f(128);  // value, width
    Bytes raw(1024), escaped;
    omni_bsw bw{};
    omni_bsw_init(&bw, raw.data(), static_cast<uint32_t>(raw.size()), on_byte);
    g_completed.clear();
    for (auto &x : f) {
      x.second = 1 + static_cast<int32_t>(rng() % 32);
      x.first = rng() % 3 ? static_cast<uint32_t>(rng()) >> (32 - x.second) : 0;
      ASSERT_EQ(x.second == 1 ? omni_bsw_write1(&bw, x.first) : omni_bsw_write(&bw, x.first, x.second), 0);
    }
    ASSERT_EQ(omni_bsw_write(&bw, 0, bw.leftbits % 8), 0);  // on to a byte boundary
    ASSERT_EQ(omni_bsw_write(&bw, 1, 8), 0);  // keeps a start code off the end of the escaped form
    raw.resize(static_cast<size_t>(bw.cur - bw.beg));
    EXPECT_EQ(g_completed, raw);
    int zeros = 0;  // escaped as an encoder does it
    for (uint8_t b : raw) {
      if (zeros >= 2 && b <= 3) escaped.push_back(3);
      escaped.push_back(b);
      zeros = b != 0 ? 0 : (zeros >= 2 ? 1 : zeros + 1);  // an inserted 3 ends the run
    }
    for (omni_bsr_flush_fn flush : {omni_bsr_flush_fn{nullptr}, omni_bsr_flush_fn{vc_nal_bsr_flush}}) {
      omni_bsr bs = reader(flush ? escaped : raw, flush);
      for (size_t i = 0; i < f.size(); ++i) {
        const int32_t w = f[i].second;
        ASSERT_EQ(i % 4 == 1 && !flush ? omni_bsr_peek(&bs, w) : f[i].first, f[i].first) << round << ":" << i;
        if (i % 4 == 2 && !flush) {  // skips this field, peeks at the next
          ASSERT_EQ(omni_bsr_skip_peek(&bs, w, f[i + 1].second), f[i + 1].first) << round << ":" << i;
        } else if (i % 4 == 2 || i % 8 == 7) {
          omni_bsr_skip(&bs, w);
        } else {
          ASSERT_EQ(w == 1 ? omni_bsr_read1(&bs) : omni_bsr_read(&bs, w), f[i].first) << round << ":" << i;
        }
      }
      omni_bsr_skip_to_align8(&bs);
      EXPECT_EQ(omni_bsr_read(&bs, 8), 1u);
      // The end of the data is sticky; outputs of failed reads stay as they were.
      uint32_t out = 7;
      uint8_t bit = 9;
      EXPECT_EQ(omni_bsr_read(&bs, 5), kEnd);
      EXPECT_EQ(omni_bsr_read1(&bs), kEnd);
      EXPECT_EQ(omni_bsr_read_value(&bs, 1, &out), -1);
      EXPECT_EQ(omni_bsr_read1_value(&bs, &bit), -1);
      EXPECT_EQ(out + bit, 7u + 9u);
      EXPECT_EQ(omni_bsr_skip_peek(&bs, 4, 4) + omni_bsr_peek(&bs, 16), 0u);
      EXPECT_EQ(bs.flush(&bs, 4), flush ? -301 : -1);
    }
  }
}

TEST(BitReader, AReadAcrossTheEndGetsZeroBits) {
  const Bytes buf = {0x12, 0x34, 0x56, 0x78, 0x9A};
  omni_bsr bs = reader(buf, nullptr);
  // A peek longer than the cache takes its last bits from the final byte.
  EXPECT_EQ(omni_bsr_read(&bs, 4) + omni_bsr_peek(&bs, 32), 0x23456789u + 1);
  bs = reader(buf, nullptr);  // a peek that the cache holds loads no more bytes
  EXPECT_EQ(omni_bsr_read(&bs, 8), 0x12u);
  const omni_bsr held = bs;
  EXPECT_EQ(omni_bsr_peek(&bs, 8), 0x34u);
  EXPECT_TRUE(bs.cur == held.cur && bs.leftbits == held.leftbits);
  bs = reader(buf, nullptr);
  EXPECT_EQ(omni_bsr_read(&bs, 28), 0x1234567u);
  EXPECT_EQ(omni_bsr_read(&bs, 16), 0x89A0u);
  bs = reader(buf, nullptr);  // a count past 32 reads 32 bits
  EXPECT_EQ(omni_bsr_read(&bs, 40), 0x12345678u);
  omni_bsr_init(&bs, nullptr, 100, nullptr);  // a null buffer is empty whatever its size
  EXPECT_EQ(omni_bsr_read(&bs, 1), kEnd);
  bs = reader(buf, nullptr);  // a set bit is a value, not the end
  uint8_t bit = 0;
  EXPECT_EQ(omni_bsr_read1_value(&bs, &bit) + bit, 0);
  omni_bsr_skip(&bs, 2);
  EXPECT_EQ(omni_bsr_read1_value(&bs, &bit) + bit, 1);
}

TEST(BitWriter, StopsAtTheEndOfTheBuffer) {
  // Buffer size; writes of {value, width (1: write1), result}; the buffer
  // afterwards, where a partial byte holds its bits at the low end.
  const std::tuple<uint32_t, std::vector<std::array<int64_t, 3>>, Bytes> kCases[] = {
      {4, {{5, 3, 0}, {6, 5, 0}, {0xABC, 12, 0}, {0, 33, -1}, {0, -1, -1}, {9, 0, 0}}, {0xA6, 0xAB, 0x0C}},
      {2, {{0xABCD, 16, 0}, {1, 1, -1}}, {0xAB, 0xCD}}, {2, {{0x12345678, 32, -1}}, {0x12, 0x34}},
      {3, {{0xFFFFF, 20, 0}, {0x5A, 8, -1}}, {0xFF, 0xFF, 0xF5}}, {0, {{1, 1, -1}, {0, 0, -1}}, {}},
      {1, {{1, 1, 0}, {0, 1, 0}, {1, 6, 0}, {1, 1, -1}}, {0x81}}};
  for (const auto &[size, writes, bytes] : kCases) {
    Bytes buf(size + 4, 0), want(bytes);  // the writer gets a prefix: nothing past it changes
    want.resize(buf.size());
    omni_bsw bw{};
    omni_bsw_init(&bw, buf.data(), size, nullptr);
    for (const auto &w : writes) {
      const auto value = static_cast<uint32_t>(w[0]);
      const auto width = static_cast<int32_t>(w[1]);
      EXPECT_EQ(width == 1 ? omni_bsw_write1(&bw, value) : omni_bsw_write(&bw, value, width), w[2]);
    }
    EXPECT_EQ(buf, want) << size;
  }
}

}  // namespace
