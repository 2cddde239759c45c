// The lossless edit: GPS removal on hostile Exif, and the library's
// refusals, which must never reach the output.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "support/files.h"
#include "tarn/edit.h"
#include "tarn/io.h"

namespace {

// An Exif block: IFD0 {Make "Apple" out of line, GPS pointer, Orientation 6},
// next-IFD offset 0x1234, then a GPS IFD {version inline, latitude as three
// rationals out of line}.
struct Exif {
  std::vector<uint8_t> bytes;
  uint32_t base = 0;  // where the TIFF header starts
  bool little = false;
  void put(uint32_t at, uint32_t v, int n) {
    for (int i = 0; i < n; ++i) bytes[base + at + i] = uint8_t(v >> (8 * (little ? i : n - 1 - i)));
  }
  uint32_t get(uint32_t at, int n) const {
    uint32_t v = 0;
    for (int i = 0; i < n; ++i) v |= uint32_t(bytes[base + at + i]) << (8 * (little ? i : n - 1 - i));
    return v;
  }
  void entry(uint32_t at, uint16_t tag, uint16_t type, uint32_t count, uint32_t value) {
    put(at, tag, 2), put(at + 2, type, 2), put(at + 4, count, 4), put(at + 8, value, 4);
  }
};
constexpr uint32_t kIfd0 = 8, kMake = 50, kGps = 56, kLatitude = 86, kEnd = 110;

Exif make_exif(bool little, bool marker) {
  Exif e;
  e.little = little;
  e.base = marker ? 6 : 0;
  e.bytes.assign(e.base + kEnd, 0xEE);
  if (marker) std::memcpy(e.bytes.data(), "Exif\0\0", 6);
  e.bytes[e.base] = e.bytes[e.base + 1] = little ? 'I' : 'M';
  e.put(2, 42, 2), e.put(4, kIfd0, 4);
  e.put(kIfd0, 3, 2);
  e.entry(kIfd0 + 2, 0x010F, 2, 6, kMake);
  e.entry(kIfd0 + 14, 0x8825, 4, 1, kGps);
  e.entry(kIfd0 + 26, 0x0112, 3, 1, 0);
  e.put(kIfd0 + 26 + 8, 6, 2);
  e.put(kIfd0 + 38, 0x1234, 4);
  std::memcpy(e.bytes.data() + e.base + kMake, "Apple", 6);
  e.put(kGps, 2, 2);
  e.entry(kGps + 2, 0x0000, 1, 4, 0x02030000);
  e.entry(kGps + 14, 0x0002, 5, 3, kLatitude);
  e.put(kGps + 26, 0, 4);
  return e;
}

TEST(StripGps, RemovesThePointerAndZeroesTheGpsIfd) {
  for (bool little : {false, true}) {
    for (bool marker : {false, true}) {
      SCOPED_TRACE(testing::Message() << "little " << little << " marker " << marker);
      Exif e = make_exif(little, marker);
      ASSERT_EQ(tarn_edit_strip_gps(e.bytes.data(), uint32_t(e.bytes.size())), 1);
      // Two entries left, Make and Orientation; the next-IFD offset moves up with them.
      EXPECT_EQ(std::vector<uint32_t>({e.get(kIfd0, 2), e.get(kIfd0 + 2, 2), e.get(kIfd0 + 2 + 8, 4),
                                       e.get(kIfd0 + 14, 2), e.get(kIfd0 + 14 + 8, 2), e.get(kIfd0 + 26, 4)}),
                std::vector<uint32_t>({2, 0x010F, kMake, 0x0112, 6, 0x1234}));
      EXPECT_EQ(std::memcmp(e.bytes.data() + e.base + kMake, "Apple", 6), 0);
      for (uint32_t at = kGps; at < kEnd; ++at) ASSERT_EQ(e.bytes[e.base + at], 0) << at;
      // A second pass finds nothing left to remove.
      EXPECT_EQ(tarn_edit_strip_gps(e.bytes.data(), uint32_t(e.bytes.size())), 0);
    }
  }
}

TEST(StripGps, RefusesMalformedBlocksWithoutChangingThem) {
  struct Case {
    const char *name;
    uint32_t at;
    uint32_t value;
    int width;
    int32_t expected;
  };
  const Case kCases[] = {
      {"byte order mark", 0, 0x4949 ^ 0x0101, 2, -1},
      {"magic", 2, 43, 2, -1},
      {"IFD0 past the end", 4, kEnd - 1, 4, -1},
      {"IFD0 inside the header", 4, 2, 4, -1},
      {"IFD0 count larger than the data", kIfd0, 0xFFFF, 2, -1},
      {"GPS IFD past the end", kIfd0 + 22, kEnd, 4, -1},
      {"GPS IFD at IFD0", kIfd0 + 22, kIfd0, 4, -1},
      {"GPS IFD in the header", kIfd0 + 22, 0, 4, -1},
      {"GPS count larger than the data", kGps, 0x7FFF, 2, -1},
      {"GPS value past the end", kGps + 22, kEnd - 8, 4, -1},
      {"GPS value count overflowing", kGps + 18, 0xFFFFFFFF, 4, -1},
      {"GPS value over IFD0", kGps + 22, kIfd0 + 4, 4, -1},
      {"no GPS pointer", kIfd0 + 14, 0x0110, 2, 0},
  };
  for (const Case &c : kCases) {
    SCOPED_TRACE(c.name);
    Exif e = make_exif(false, true);
    e.put(c.at, c.value, c.width);
    const std::vector<uint8_t> before = e.bytes;
    EXPECT_EQ(tarn_edit_strip_gps(e.bytes.data(), uint32_t(e.bytes.size())), c.expected);
    EXPECT_EQ(e.bytes, before);
  }
  // Every truncation is refused or harmless, never read past (sanitizers watch).
  const Exif whole = make_exif(true, true);
  for (uint32_t size = 0; size < whole.bytes.size(); ++size) {
    std::vector<uint8_t> cut(whole.bytes.begin(), whole.bytes.begin() + size);
    EXPECT_LT(tarn_edit_strip_gps(cut.data(), size), 1) << size;
  }
}

// Output that records whether the edit ever opened it.
struct Output {
  tarnm_output_dsc dsc;
  int opens = 0;
};

TEST(Edit, RefusalsNeverReachTheOutput) {
  static const uint8_t kNotHeif[64] = {0, 0, 0, 16, 'f', 't', 'y', 'p', 'j', 'u', 'n', 'k'};
  tarnd_io_dsc junk;
  tarnd_io_init_memory(&junk, kNotHeif, sizeof kNotHeif);
  std::vector<uint8_t> overlay;
  const bool have_corpus = !tarn_test::corpus_dir().empty() &&
                           tarn_test::read_file(tarn_test::corpus_dir() + "/nokia/overlay_1000x680.heic", &overlay);
  tarnd_io_dsc overlay_io;
  tarnd_io_init_memory(&overlay_io, overlay.data(), overlay.size());
  struct Case {
    const char *name;
    const tarnd_io_dsc *in;
    tarn_edit_options options;
    int32_t expected;
    const char *message;
  };
  const uint8_t exif[1] = {0};
  const Case kCases[] = {
      {"no input", nullptr, {}, TARN_EDIT_BAD_ARGUMENT, "no input"},
      {"rotation 45", &junk, {TARN_EDIT_SET_ROTATION, 45, nullptr, 0, nullptr, 0, nullptr, 0}, TARN_EDIT_BAD_ARGUMENT,
       "rotation"},
      {"unknown flag", &junk, {0x80000000u, 0, nullptr, 0, nullptr, 0, nullptr, 0}, TARN_EDIT_BAD_ARGUMENT, "unknown"},
      {"empty Exif", &junk, {0, 0, exif, 0, nullptr, 0, nullptr, 0}, TARN_EDIT_BAD_ARGUMENT, "empty"},
      {"not HEIF", &junk, {}, TARN_EDIT_UNREADABLE, "not a readable HEIF"},
      {"overlay primary", &overlay_io, {}, TARN_EDIT_REFUSED, "overlay (iovl)"},
  };
  for (const Case &c : kCases) {
    if (c.in == &overlay_io && !have_corpus) continue;
    SCOPED_TRACE(c.name);
    Output out{{[](tarnm_output_dsc *dsc, int32_t) -> void * {
                  ++reinterpret_cast<Output *>(dsc)->opens;
                  return dsc;
                },
                [](void *) {}, nullptr, [](void *, const void *, size_t count) { return count; }}};
    char message[256] = "unset";
    tarn_edit_options options = c.options;
    options.message = message;
    options.message_size = sizeof message;
    EXPECT_EQ(tarn_edit(c.in, &out.dsc, &options), c.expected);
    EXPECT_NE(std::strstr(message, c.message), nullptr) << message;
    EXPECT_EQ(out.opens, 0);
  }
}

}  // namespace
