// Key frames of real encoder output (tests/data/keyframes, frame types as
// ffprobe decoded them) and of hand-made headers, lookup precedence, strided
// copies and fills (nothing written outside the contract).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <tuple>

#include "support/files.h"
#include "tarn/utils.h"

namespace {

using Bytes = std::vector<uint8_t>;

// On an exact-size copy, so that AddressSanitizer sees any look past the frame.
int32_t key_of(uint32_t type, const uint8_t *data, size_t size) {
  const Bytes exact(data, data + size);
  return omni_is_vkeyfrm(type, exact.empty() ? nullptr : exact.data(), static_cast<int32_t>(size));
}

TEST(KeyFrame, RealStreamsAgreeWithTheDecoder) {
  const std::pair<const char *, uint32_t> kClips[] = {
      {"hevc_x265_open_gop.hevc", 120}, {"hevc_x265_closed_gop.hevc", 120}, {"avc_x264.h264", 104},
      {"mpeg4_part2.m4v", 102}, {"h263.h263", 103}, {"flv1.flv1", 111}, {"vp8.vp8", 119}, {"vp9.vp9", 121},
      {"wmv1.wmv1", 105}, {"wmv2.wmv2", 106}, {"div3.div3", 110}};
  for (const auto &c : kClips) {
    SCOPED_TRACE(c.first);
    const std::string path = tarn_test::data_path(std::string("keyframes/") + c.first);
    Bytes s;
    tarn_test::read_file(path, &s);  // a missing clip fails the bounds check below
    std::ifstream idx(path.substr(0, path.rfind('.')) + ".idx");
    int64_t at, size, key, frames = 0, keys = 0;
    std::string pict_type;
    while (idx >> at >> size >> key >> pict_type) {
      ASSERT_LE(size_t(at + size), s.size());
      EXPECT_EQ(key_of(c.second, s.data() + at, size_t(size)), key) << "frame " << frames << " " << pict_type;
      for (int64_t cut = 0; cut < 12 && cut < size; ++cut) key_of(c.second, s.data() + at, size_t(cut));
      ++frames;
      keys += key;
    }
    EXPECT_GT(keys, 1);
    EXPECT_GT(frames, keys);
  }
}

// The corners that no encoder run above reaches.
TEST(KeyFrame, HeaderRules) {
  const std::tuple<uint32_t, Bytes, int32_t> kCases[] = {  // media type, frame, key
      // AVC: lengths instead of start codes, a start code at the very end. HEVC: BLA, reserved type 22.
      // WMV3: no rule. VP9: profile 3 reads byte 1. MPEG-4 short headers; H.263 marker bits and
      // extended PTYPE; FLV1 picture sizes s = 1, 2.
      {104, {0, 0, 0, 9, 0x65, 0x88, 0x80}, 0}, {104, {0x11, 0, 0, 1}, 0}, {120, {0, 0, 1, 0x20, 1}, 1},
      {120, {0, 0, 1, 0x2C, 1, 0, 0, 1, 0x02, 1}, 0}, {107, {0, 0}, 0}, {121, {0x8B, 0}, 1}, {121, {0x8B, 0x80}, 0},
      {121, {0x8B}, 0}, {102, {0, 0, 0x80, 2, 0x08, 0}, 1}, {102, {0, 0, 0x80, 2, 0x0A, 0}, 0},
      {103, {0, 0, 0x80, 1, 0x08, 0, 0}, 0}, {103, {0, 0, 0x80, 2, 0x1C, 0x00, 0, 0}, 1},
      {103, {0, 0, 0x80, 2, 0x1C, 0x10, 0, 0}, 0}, {103, {0, 0, 0x80, 2, 0x1C, 0x80, 0, 0}, 1},
      {103, {0, 0, 0x80, 2, 0x1C, 0x80, 0}, 0}, {111, {0, 0, 0x84, 0, 0x80, 0, 0, 0}, 0},
      {111, {0, 0, 0x84, 0, 0x80, 0, 0, 0, 0}, 1}, {111, {0, 0, 0x84, 1, 0, 0, 0x60}, 1},
      {102, {0, 0, 1, 0xB6, 0}, 1}, {102, {0, 0, 0x80, 1, 0x08, 0}, 0}, {102, {0x11, 0, 1, 0xB6, 0}, 0},
      {102, {0, 0, 0x80, 2, 0x1C, 0}, 0},  // an MPEG-4 short header with an extended type decides nothing
      {105, {0x3F}, 1}, {105, {0x40}, 0}, {106, {0x7F}, 1}, {106, {0x80}, 0},  // WMV1, WMV2: picture type
      {119, {0x10, 0, 0, 0x9D, 1, 0x2A}, 1}, {119, {0x10, 0, 0, 0x9D, 1, 0x2B}, 0},  // VP8 start code
      // AVC IDR start code filling the frame; MPEG-4 start code of another unit; a zero run after a header
      {104, {0, 0, 1, 0x65}, 1}, {102, {0, 0, 1, 0x20, 0}, 0}, {103, {0, 0, 1, 0x80, 2, 0, 0, 0}, 0},
      // HEVC: an IDR start code filling the frame; a picture of VCL type 9 decides before an IDR
      {120, {0, 0, 1, 0x26}, 1}, {120, {0, 0, 1, 0x12, 1, 0, 0, 1, 0x26, 1}, 0},
      // AVC: a non-IDR slice decides before an IDR; MPEG-4: the last short-header code, a P-VOP
      {104, {0, 0, 1, 0x41, 1, 0, 0, 1, 0x65, 1}, 0}, {102, {0, 0, 0x83, 2, 0x08, 0}, 1}, {102, {0, 0, 1, 0xB6, 0x40}, 0}};
  for (const auto &[type, f, key] : kCases) EXPECT_EQ(key_of(type, f.data(), f.size()), key) << type;
  const uint8_t idr[] = {0, 0, 1, 0x65};
  EXPECT_EQ(omni_is_vkeyfrm(104, idr, -4), 0);
  EXPECT_EQ(omni_is_vkeyfrm(104, nullptr, 4), 0);
}

int32_t fcc(const char *s) {  // first character in the least significant byte
  uint32_t v = 0;
  for (int i = 3; i >= 0; --i) v = v << 8 | static_cast<uint8_t>(s[i]);
  return static_cast<int32_t>(v);
}

TEST(MediaType, LookupsAndPrecedence) {
  // The combined lookup: audio first (small numbers are format tags), then
  // video, then subtitles, never DRM; lookups are case-sensitive.
  const std::pair<int32_t, uint32_t> kCases[] = {
      {85, 305}, {fcc("DIVX"), 102}, {fcc("tx3g"), 3006}, {fcc("zzzz"), 3199}, {fcc("Opus"), 334}};
  for (const auto &[code, type] : kCases) EXPECT_EQ(omni_fcc2mt(code), type) << std::hex << code;
  EXPECT_EQ(omni_fcc2mt_aud(fcc("opus")), 499u);
  // Logarithms at the ends of the range: value, ceil, floor.
  const int64_t kLogs[][3] = {{0, 0, -1}, {1, 0, 0}, {3, 2, 1}, {0x80000000u, 31, 31}, {0x80000001u, 32, 31}};
  for (const auto &c : kLogs)
    EXPECT_EQ(std::make_pair(omni_ceil_log2(uint32_t(c[0])), omni_floor_log2(uint32_t(c[0]))),
              std::make_pair(int32_t(c[1]), int32_t(c[2])));
  EXPECT_EQ(omni_imgb_get_plane_count(600) * 10 + omni_imgb_get_plane_count(8), 30u);  // 8 is no format
  omni_imgb_dump(nullptr);
}

TEST(Fills, WriteExactlyTheirBlocksAndTails) {
  // Fill, smallest size, size step (x128 takes multiples of 128 only), block:
  // words cover the size rounded down to a multiple of block; with tail, the
  // rest follows as bytes of value's low byte.
  const std::tuple<void (*)(void *, uint32_t, int32_t), int32_t, int32_t, int32_t, bool> kFills[] = {
      {omni_mset_x32, 32, 1, 32, false}, {omni_mset_x32ax4, 32, 1, 32, true},
      {omni_mset_x64, 128, 1, 128, false}, {omni_mset_x64a, 1, 1, 64, true},
      {omni_mset_x128, 128, 128, 128, false}};
  // A word of distinct bytes tells words from tails; a byte value is how
  // callers fill, and large ones take another path.
  for (const uint32_t value : {0x44332211u, 0x41414141u}) {
    for (const auto &[fill, min, step, block, has_tail] : kFills) {
      std::vector<int32_t> sizes = {65536, 200064, 65663 / step * step};
      for (int32_t size = min; size <= 3 * 128 + 64; size += step) sizes.push_back(size);
      for (const int32_t size : sizes) {
        const size_t words = size_t(size / block * block), tail = has_tail ? size_t(size % block) : 0;
        // 4 bytes past a 32-byte boundary: the fills only promise 4-byte alignment.
        Bytes buf(4 + words + tail + 64, 0xEE), want(buf);
        for (size_t i = 0; i < words + tail; ++i)
          want[4 + i] = static_cast<uint8_t>(i < words ? value >> (8 * (i % 4)) : value);
        fill(buf.data() + 4, value, size);
        ASSERT_EQ(buf, want) << value << " fill " << block << (has_tail ? "+" : "/") << step << ": " << size;
      }
    }
  }
  for (const int32_t count : {64, 640, 100}) {  // 32-bit words, 256 bytes per 64 of them
    Bytes buf(size_t(count / 64 * 256) + 32, 0xEE), want(buf);
    std::fill(want.begin(), want.end() - 32, 0);
    omni_mclr_x64(buf.data(), count);
    EXPECT_EQ(buf, want) << count;
  }
}

// Three rows of two bytes between exact-size planes, read or written
// bottom-up: the copy never steps past the last row.
TEST(BlockCopy, NegativeStridesStayInsideThePlanes) {
  const Bytes src = {1, 2, 0, 3, 4, 0, 5, 6};
  Bytes up(6, 0xEE), down(6, 0xEE);
  omni_blk_mcpy(up.data(), src.data() + 6, 2, -3, 2, 3);
  omni_blk_mcpy(down.data() + 4, src.data(), -2, 3, 2, 3);
  omni_blk_mcpy(down.data(), src.data(), 2, 3, 2, -1);  // no rows: nothing copied
  EXPECT_EQ(up, Bytes({5, 6, 3, 4, 1, 2}));
  EXPECT_EQ(down, up);
}

}  // namespace
