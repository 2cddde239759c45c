// Box headers and ftyp: the 8/16-byte header choice around the 32-bit limit
// (computed sizes must equal what is written), room checks and brands.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "support/box_builder.h"
#include "support/log_capture.h"
#include "writer/internal.h"

namespace {

using namespace tarn_test::bb;

struct Cursor {
  tarnm_state st{};
  std::vector<uint8_t> buf;
  explicit Cursor(size_t size) : buf(size + 1, 0xEE) {
    st.write_ptr = buf.data();
    st.remaining = static_cast<int32_t>(size);
  }
  Bytes written() const { return Bytes(buf.begin(), buf.begin() + (st.write_ptr - buf.data())); }
};

uint64_t read_be(const Bytes &b, size_t off, size_t n) {
  uint64_t v = 0;
  for (size_t i = 0; i < n && off + i < b.size(); ++i) v = v << 8 | b[off + i];
  return v;
}

TEST(AtomHeaderTest, SizesAroundThe32BitLimit) {
  struct Case {
    uint64_t payload;
    int full;
    uint32_t room;
    int32_t rc;
    uint64_t total;
    size_t written;
  };
  const Case kCases[] = {
      {0, 0, 8, 0, 8, 8},
      {0, 1, 12, 0, 12, 12},
      {0xFFFFFFF7u, 0, 16, 0, 0xFFFFFFFFu, 8},
      {0xFFFFFFF8u, 0, 16, 0, 0xFFFFFFF8ull + 16, 16},
      {0xFFFFFFF3u, 1, 16, 0, 0xFFFFFFFFu, 12},
      // Version and flags push these over the limit: the largesize form is
      // used and every size function agrees with it.
      {0xFFFFFFF4u, 1, 20, 0, 0xFFFFFFF4ull + 20, 20},
      {0xFFFFFFF7u, 1, 20, 0, 0xFFFFFFF7ull + 20, 20},
      {1ull << 32, 1, 20, 0, (1ull << 32) + 20, 20},
      // Each part checks its own room; parts already written stay.
      {10, 0, 7, -4, 18, 0},
      {10, 1, 11, -4, 22, 8},
      {1ull << 32, 0, 15, -4, (1ull << 32) + 16, 8},
      {1ull << 32, 1, 19, -4, (1ull << 32) + 20, 16},
  };
  for (const auto &c : kCases) {
    SCOPED_TRACE(testing::Message() << std::hex << c.payload << " full " << c.full << " room "
                                    << c.room);
    EXPECT_EQ(c.total, c.full ? tarnm_atomf_size(c.payload) : tarnm_atom_size(c.payload));
    Cursor out(c.room);
    const uint8_t flags[3] = {0x12, 0x34, 0x56};
    EXPECT_EQ(c.rc, tarnm_atom_header(&out.st, TARN_FCC('t', 'e', 's', 't'), c.payload, c.full, 7,
                                      flags));
    const Bytes h = out.written();
    ASSERT_EQ(c.written, h.size());
    EXPECT_EQ(0xEE, out.buf[c.room]);
    if (c.rc != 0) continue;
    EXPECT_EQ(0, memcmp(h.data() + 4, "test", 4));
    // The declared size (or largesize after size 1) is the computed one,
    // and equals the header written plus the payload.
    const bool large = read_be(h, 0, 4) == 1;
    EXPECT_EQ(c.total, large ? read_be(h, 8, 8) : read_be(h, 0, 4));
    EXPECT_EQ(c.total, h.size() + c.payload);
    if (c.full) {
      EXPECT_EQ(Bytes({7, 0x12, 0x34, 0x56}), Bytes(h.end() - 4, h.end()));
    }
  }
  Cursor out(8);
  EXPECT_EQ(0, tarnm_atom_mdat(&out.st, 100));
  EXPECT_EQ(cat({u32(108), fourcc("mdat")}), out.written());
}

TEST(AtomHeaderTest, Ftyp) {
  tarnm_init_dsc custom = {};
  custom.use_custom_brands = 1;
  memcpy(&custom.major_brand, "avif", 4);
  memcpy(&custom.minor_version, "\0\0\1\2", 4);
  for (int i = 0; i < 8; ++i) memcpy(&custom.compatible_brands[i], i ? "miaf" : "mif1", 4);
  tarnm_init_dsc two = custom, none = custom, nine = custom;
  two.compatible_brand_count = 2;
  nine.compatible_brand_count = 9;
  const tarnm_init_dsc builtin = {};
  struct Case {
    const tarnm_init_dsc *dsc;
    uint32_t room;
    int32_t rc;
    Bytes expected;
  };
  const Case kCases[] = {
      {&builtin, 24, 0, box("ftyp", {fourcc("heic"), u32(0), fourcc("mif1"), fourcc("heic")})},
      {&builtin, 23, -4, {}},
      {&two, 24, 0, box("ftyp", {fourcc("avif"), u32(0x102), fourcc("mif1"), fourcc("miaf")})},
      {&two, 23, -4, {}},
      {&none, 16, 0, box("ftyp", {fourcc("avif"), u32(0x102)})},
      {&nine, 100, -1, {}},
      {nullptr, 100, -1, {}},
  };
  for (const auto &c : kCases) {
    tarn_test::LogCapture cap;
    Cursor out(c.room);
    out.st.max_image_size = 1000;
    EXPECT_EQ(c.rc, tarnm_atom_ftyp(&out.st, c.dsc));
    EXPECT_EQ(c.expected, out.written());
    EXPECT_EQ(1000 + c.expected.size(), out.st.max_image_size);
    EXPECT_EQ(!c.dsc, cap.has("invalid argument, init_dsc is NULL", "tarnm_atom"));
  }
}

}  // namespace
