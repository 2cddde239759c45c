// Little-endian bit reader and the bit writer: fields across refills and
// writes that run into the end of the buffer. (Random round trips through
// the writer and the big-endian reader are in bsr_test.cc.)
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "tarn/utils.h"

namespace {

struct Field {
  uint32_t value;
  int32_t width;
};

int g_completed_bytes = 0;
void count_byte(omni_bsw *) { ++g_completed_bytes; }

TEST(LittleEndianBitReader, ReadsLowBitsFirst) {
  std::vector<uint8_t> a = {0x34, 0x12};
  omni_bsr bs{};
  omni_bsr_init(&bs, a.data(), 2, omni_bsr_le_flush);
  EXPECT_EQ(omni_bsr_le_read(&bs, 4), 0x4u);
  EXPECT_EQ(omni_bsr_le_read(&bs, 12), 0x123u);
  EXPECT_EQ(omni_bsr_le_read(&bs, 1), 0xFFFFFFFFu);
  EXPECT_EQ(omni_bsr_le_read(&bs, 1), 0xFFFFFFFFu);

  std::vector<uint8_t> b = {0x78, 0x56, 0x34, 0x12, 0xE5};
  omni_bsr_init(&bs, b.data(), 5, omni_bsr_le_flush);
  EXPECT_EQ(omni_bsr_le_read(&bs, 32), 0x12345678u);
  EXPECT_EQ(bs.leftbits, 0);
  EXPECT_EQ(omni_bsr_le_read(&bs, 5), 0x05u);  // refills: low 5 bits of 0xE5
  EXPECT_EQ(omni_bsr_le_read(&bs, 3), 0x07u);
  EXPECT_EQ(omni_bsr_le_read(&bs, 1), 0xFFFFFFFFu);

  // 3 bits left in the cache become the low bits of an 8-bit read; the other
  // 5 come from the refilled cache.
  std::vector<uint8_t> c = {0x00, 0x00, 0x00, 0xE0, 0x5A, 0xC3};
  omni_bsr_init(&bs, c.data(), 6, omni_bsr_le_flush);
  EXPECT_EQ(omni_bsr_le_read(&bs, 29), 0u);
  EXPECT_EQ(omni_bsr_le_read(&bs, 8), 0xD7u);
  EXPECT_EQ(omni_bsr_le_read(&bs, 11), 0x61Au);
  EXPECT_EQ(omni_bsr_le_read(&bs, 1), 0xFFFFFFFFu);

  // Skips: within the cache, to a byte boundary, and beyond what is left.
  omni_bsr_init(&bs, b.data(), 5, omni_bsr_le_flush);
  EXPECT_EQ(omni_bsr_le_read(&bs, 3), 0x0u);
  omni_bsr_le_skip_to_align8(&bs);
  EXPECT_EQ(omni_bsr_le_read(&bs, 8), 0x56u);
  omni_bsr_le_skip(&bs, 4);
  EXPECT_EQ(omni_bsr_le_read(&bs, 4), 0x3u);
  omni_bsr_le_skip(&bs, 20);  // more than the 8 bits left: the cache empties
  EXPECT_EQ(bs.leftbits, 0);
  EXPECT_EQ(omni_bsr_le_read(&bs, 8), 0xE5u);
}

TEST(BitWriter, PacksBytesAndReportsThem) {
  uint8_t buf[4] = {0xEE, 0xEE, 0xEE, 0xEE};
  omni_bsw bw{};
  g_completed_bytes = 0;
  omni_bsw_init(&bw, buf, 4, count_byte);
  EXPECT_EQ(omni_bsw_write(&bw, 0x5, 3), 0);
  EXPECT_EQ(omni_bsw_write(&bw, 0x06, 5), 0);
  EXPECT_EQ(buf[0], 0xA6);
  EXPECT_EQ(g_completed_bytes, 1);
  EXPECT_EQ(omni_bsw_write(&bw, 0xABC, 12), 0);
  EXPECT_EQ(buf[1], 0xAB);
  EXPECT_EQ(buf[2] & 0x0F, 0x0C);
  EXPECT_EQ(bw.leftbits, 4);
  EXPECT_EQ(omni_bsw_write(&bw, 0, 33), -1);
  EXPECT_EQ(omni_bsw_write(&bw, 0, -1), -1);
  EXPECT_EQ(omni_bsw_write(&bw, 0xFFFF, 0), 0);
  EXPECT_EQ(bw.leftbits, 4);
}

TEST(BitWriter, StopsAtTheEndOfTheBuffer) {
  struct Case {
    const char *name;
    uint32_t size;
    std::vector<Field> writes;
    std::vector<int> results;
    std::vector<uint8_t> bytes;  // the buffer's bytes afterwards
  } const kCases[] = {
      {"exact fill then refuse", 2, {{0xABCD, 16}, {1, 1}}, {0, -1}, {0xAB, 0xCD}},
      {"crossing write stops at the last byte", 3, {{0xFFFFF, 20}, {0x5A, 8}}, {0, -1},
       {0xFF, 0xFF, 0xF5}},
      {"32-bit write into 2 bytes", 2, {{0x12345678, 32}}, {-1}, {0x12, 0x34}},
      {"single bits", 1, {{1, 1}, {0, 1}, {1, 6}, {1, 1}}, {0, 0, 0, -1}, {0x81}},
      {"empty buffer", 0, {{1, 1}, {0, 0}}, {-1, -1}, {}},
  };
  for (const auto &c : kCases) {
    // The writer's buffer is a prefix of a guarded one: nothing past it changes.
    std::vector<uint8_t> buf(c.size + 4, 0x00);
    omni_bsw bw{};
    omni_bsw_init(&bw, c.size ? buf.data() : nullptr, c.size, nullptr);
    for (size_t i = 0; i < c.writes.size(); ++i) {
      const Field &w = c.writes[i];
      const int got = w.width == 1 && i % 2 ? omni_bsw_write1(&bw, w.value)
                                            : omni_bsw_write(&bw, w.value, w.width);
      EXPECT_EQ(got, c.results[i]) << c.name << " write " << i;
    }
    EXPECT_EQ(std::vector<uint8_t>(buf.begin(), buf.begin() + c.size), c.bytes) << c.name;
    for (size_t i = c.size; i < buf.size(); ++i) EXPECT_EQ(buf[i], 0) << c.name;
  }
}

}  // namespace
