// Big-endian bit reader: refills, byte boundaries, NAL payloads with
// emulation-prevention bytes and the sticky end of data. Buffers are exact
// heap copies so that AddressSanitizer sees any read past the data.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "tarn/utils.h"

namespace {

constexpr uint32_t kEnd = 0xFFFFFFFFu;

// Inserts an emulation-prevention byte wherever two zeros precede a byte of
// 0..3, as an encoder does.
std::vector<uint8_t> escape(const std::vector<uint8_t> &raw) {
  std::vector<uint8_t> out;
  int zeros = 0;
  for (uint8_t b : raw) {
    if (zeros >= 2 && b <= 3) {
      out.push_back(3);
      zeros = 0;
    }
    out.push_back(b);
    zeros = b == 0 ? zeros + 1 : 0;
  }
  return out;
}

// Reads bytes through the NAL-aware refill until the reader fails.
std::vector<uint8_t> nal_bytes(const std::vector<uint8_t> &in) {
  omni_bsr bs{};
  bs.zero_run = 0;
  omni_bsr_init(&bs, in.data(), static_cast<uint32_t>(in.size()), vc_nal_bsr_flush);
  std::vector<uint8_t> out;
  uint32_t v;
  while (out.size() <= in.size() && omni_bsr_read_value(&bs, 8, &v) == 0 && bs.leftbits >= 0)
    out.push_back(static_cast<uint8_t>(v));
  return out;
}

// Unsigned Exp-Golomb decoding as a codec parser does it, in two pieces for
// codewords longer than 32 bits.
bool read_ue(omni_bsr *bs, uint32_t *value) {
  int zeros = 0;
  for (;;) {
    uint32_t bit = omni_bsr_read1(bs);
    if (bit == kEnd) return false;
    if (bit) break;
    if (++zeros > 31) return false;
  }
  uint32_t suffix;
  if (omni_bsr_read_value(bs, zeros, &suffix) != 0) return false;
  *value = static_cast<uint32_t>((uint64_t{1} << zeros) - 1 + suffix);
  return true;
}

TEST(BitReader, ReadsFieldsAcrossBytesAndTheEnd) {
  std::vector<uint8_t> data = {0xA5, 0x0F};
  omni_bsr bs{};
  omni_bsr_init(&bs, data.data(), 2, nullptr);
  EXPECT_EQ(omni_bsr_read(&bs, 3), 5u);
  EXPECT_EQ(omni_bsr_read(&bs, 9), 0x50u);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(omni_bsr_read1(&bs), 1u);
  EXPECT_EQ(omni_bsr_read1(&bs), kEnd);
  EXPECT_EQ(omni_bsr_read1(&bs), kEnd);  // sticky

  std::vector<uint8_t> word = {0x12, 0x34, 0x56, 0x78, 0x9A};
  omni_bsr_init(&bs, word.data(), 4, nullptr);
  EXPECT_EQ(omni_bsr_read(&bs, 32), 0x12345678u);
  EXPECT_EQ(bs.leftbits, 0);
  uint32_t out = 7;
  EXPECT_EQ(omni_bsr_read_value(&bs, 1, &out), -1);
  EXPECT_EQ(out, 7u);
}

// Random fixed-width fields mixed with Exp-Golomb codes of every length
// (shortest and longest codeword for 0..31 leading zeros), written with the
// bit writer, then read back plain and, escaped, through the NAL refill.
TEST(BitReader, RandomFieldsAndExpGolombRoundTrip) {
  struct Field {
    uint32_t value;
    int width;  // 0: an Exp-Golomb code
  };
  std::mt19937 rng(1234);
  for (int round = 0; round < 100; ++round) {
    std::vector<Field> fields;
    std::vector<uint8_t> raw(4096);
    omni_bsw bw{};
    omni_bsw_init(&bw, raw.data(), static_cast<uint32_t>(raw.size()), nullptr);
    for (int i = 0; i < 64; ++i) {
      Field f{0, 1 + static_cast<int>(rng() % 32)};
      if (rng() % 3) f.value = static_cast<uint32_t>(rng()) >> (32 - f.width);  // else zero runs
      if (i % 2) f = {static_cast<uint32_t>(((uint64_t{1} << (i / 2)) - 1) << (round % 2)), 0};
      fields.push_back(f);
      if (f.width) {
        ASSERT_EQ(omni_bsw_write(&bw, f.value, f.width), 0);
        continue;
      }
      const uint64_t code = uint64_t{f.value} + 1;
      int len = 0;
      while ((code >> (len + 1)) != 0) ++len;
      ASSERT_EQ(omni_bsw_write(&bw, 0, len), 0);
      ASSERT_EQ(omni_bsw_write(&bw, 1, 1), 0);
      ASSERT_EQ(omni_bsw_write(&bw, static_cast<uint32_t>(code), len), 0);
    }
    ASSERT_EQ(omni_bsw_write(&bw, 1, 8), 0);  // a trailing 1 keeps the escaped form free of start codes
    raw.resize(static_cast<size_t>(bw.cur - bw.beg));
    const std::vector<uint8_t> escaped = escape(raw);
    for (auto flush : {omni_bsr_flush_fn{nullptr}, omni_bsr_flush_fn{vc_nal_bsr_flush}}) {
      std::vector<uint8_t> buf(flush ? escaped : raw);
      omni_bsr bs{};
      bs.zero_run = 0;
      omni_bsr_init(&bs, buf.data(), static_cast<uint32_t>(buf.size()), flush);
      for (size_t i = 0; i < fields.size(); ++i) {
        uint32_t v = 0;
        if (fields[i].width) {
          ASSERT_EQ(omni_bsr_read_value(&bs, fields[i].width, &v), 0) << round << ":" << i;
        } else {
          ASSERT_TRUE(read_ue(&bs, &v)) << round << ":" << i;
        }
        ASSERT_EQ(v, fields[i].value) << "round " << round << " field " << i;
      }
    }
  }
  // 32 leading zeros is longer than any codeword the library decodes.
  std::vector<uint8_t> too_long = {0, 0, 0, 0, 0x80, 0, 0, 0, 0};
  omni_bsr bs{};
  omni_bsr_init(&bs, too_long.data(), static_cast<uint32_t>(too_long.size()), nullptr);
  uint32_t got;
  EXPECT_FALSE(read_ue(&bs, &got));
}

TEST(BitReader, NalRefillDropsEmulationPreventionAndStopsAtStartCodes) {
  struct Case {
    const char *name;
    std::vector<uint8_t> in, out;
  } const kCases[] = {
      {"escaped one", {0x00, 0x00, 0x03, 0x01}, {0x00, 0x00, 0x01}},
      {"three-byte start code", {0x25, 0x00, 0x00, 0x01, 0x40, 0x01, 0x02}, {0x25}},
      {"four-byte start code", {0x25, 0x26, 0x00, 0x00, 0x00, 0x01, 0x40, 0x01, 0x09},
       {0x25, 0x26}},
      {"start code first", {0x00, 0x00, 0x01, 0x40, 0x01, 0x02}, {}},
      {"03 at the start is data", {0x03, 0x00, 0x00, 0x03, 0x00}, {0x03, 0x00, 0x00, 0x00}},
      {"escape as last byte", {0x11, 0x00, 0x00, 0x03}, {0x11, 0x00, 0x00}},
      {"back to back", {0x00, 0x00, 0x03, 0x00, 0x00, 0x03, 0x00, 0x00, 0x03, 0x01},
       {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01}},
      {"escape after refill boundary", {0x11, 0x22, 0x00, 0x00, 0x03, 0x01, 0x05},
       {0x11, 0x22, 0x00, 0x00, 0x01, 0x05}},
      {"escape after refill boundary, more to come",
       {0x11, 0x22, 0x00, 0x00, 0x03, 0x21, 0x05, 0x06, 0x07, 0x08, 0x09},
       {0x11, 0x22, 0x00, 0x00, 0x21, 0x05, 0x06, 0x07, 0x08, 0x09}},
      {"two escapes in a row are one", {0x00, 0x00, 0x03, 0x03}, {0x00, 0x00, 0x03}},
      {"short tail not a start code", {0x7F, 0x00, 0x00, 0x01}, {0x7F, 0x00, 0x00, 0x01}},
      {"single byte", {0x42}, {0x42}},
      {"empty", {}, {}},
  };
  for (const auto &c : kCases) EXPECT_EQ(nal_bytes(c.in), c.out) << c.name;
}

TEST(BitReader, FailingRefillsAreSticky) {
  struct Case {
    const char *name;
    omni_bsr_flush_fn flush;
    int expected_code;
  } const kCases[] = {{"plain", omni_bsr_flush, -1}, {"nal", vc_nal_bsr_flush, -301}};
  for (const auto &c : kCases) {
    std::vector<uint8_t> buf = {0x12, 0x34, 0x56, 0x78, 0x9A};
    omni_bsr bs{};
    bs.zero_run = 0;
    omni_bsr_init(&bs, buf.data(), 5, c.flush);
    // The second read straddles the end: its missing low bits read as 0.
    EXPECT_EQ(omni_bsr_read(&bs, 28), 0x1234567u) << c.name;
    EXPECT_EQ(omni_bsr_read(&bs, 16), 0x89A0u) << c.name;
    EXPECT_LT(bs.leftbits, 0) << c.name;
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(omni_bsr_read(&bs, 5), kEnd) << c.name;
      EXPECT_EQ(omni_bsr_read1(&bs), kEnd) << c.name;
      uint8_t bit = 9;
      EXPECT_EQ(omni_bsr_read1_value(&bs, &bit), -1) << c.name;
      EXPECT_EQ(bit, 9) << c.name;
      EXPECT_EQ(omni_bsr_skip_peek(&bs, 4, 4), 0u) << c.name;
      EXPECT_EQ(omni_bsr_peek(&bs, 16), 0u) << c.name;
      EXPECT_EQ(bs.flush(&bs, 4), c.expected_code) << c.name;
    }
    // An empty or null buffer never loads a byte.
    omni_bsr_init(&bs, nullptr, 100, c.flush);
    EXPECT_EQ(omni_bsr_read(&bs, 1), kEnd) << c.name;
    omni_bsr_init(&bs, buf.data(), 0, c.flush);
    EXPECT_EQ(omni_bsr_peek(&bs, 8), 0u) << c.name;
    EXPECT_EQ(omni_bsr_read(&bs, 8), kEnd) << c.name;
  }
}

TEST(BitReader, PeekSkipAndAlign) {
  std::vector<uint8_t> buf = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE};
  struct Case {
    int pre_read;  // bits consumed first
    int peek;      // width to peek
  } const kCases[] = {{0, 16}, {0, 32}, {3, 32}, {7, 29}, {9, 31}, {27, 20}, {30, 26}, {40, 16}};
  for (const auto &c : kCases) {
    omni_bsr bs{};
    omni_bsr_init(&bs, buf.data(), static_cast<uint32_t>(buf.size()), nullptr);
    // Consume in pieces so the cache is partly full when peeking.
    for (int left = c.pre_read; left > 0; left -= 8) omni_bsr_skip(&bs, left < 8 ? left : 8);
    const uint32_t peeked = omni_bsr_peek(&bs, c.peek);
    EXPECT_EQ(peeked, omni_bsr_read(&bs, c.peek)) << c.pre_read << "+" << c.peek;
  }
  omni_bsr bs{};
  omni_bsr_init(&bs, buf.data(), static_cast<uint32_t>(buf.size()), nullptr);
  EXPECT_EQ(omni_bsr_read(&bs, 3), 0u);
  omni_bsr_skip_to_align8(&bs);
  EXPECT_EQ(omni_bsr_read(&bs, 8), 0x34u);
  EXPECT_EQ(omni_bsr_skip_peek(&bs, 12, 12), 0x89Au);
  EXPECT_EQ(omni_bsr_read(&bs, 24), 0x89ABCDu);
  omni_bsr_skip(&bs, 32);
  EXPECT_EQ(omni_bsr_read1(&bs), kEnd);
}

}  // namespace
