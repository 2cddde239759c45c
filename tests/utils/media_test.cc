// Media types, key-frame rules on hand-made headers, and the image-buffer
// helpers. Real encoder output is checked in keyframe_streams_test.cc.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tarn/utils.h"

namespace {

int32_t fcc(const char *s) {
  return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint8_t>(s[0])) |
                              static_cast<uint32_t>(static_cast<uint8_t>(s[1])) << 8 |
                              static_cast<uint32_t>(static_cast<uint8_t>(s[2])) << 16 |
                              static_cast<uint32_t>(static_cast<uint8_t>(s[3])) << 24);
}

TEST(MediaType, EveryCodeOfEveryTable) {
  struct Family {
    const char *name;
    uint32_t (*fn)(int32_t);
    std::vector<std::pair<std::string, uint32_t>> fccs;
    std::vector<std::pair<int32_t, uint32_t>> numbers;
  } const kFamilies[] = {
      {"video", omni_fcc2mt_vid,
       {{"DX50", 102}, {"dx50", 102}, {"M4S2", 102}, {"m4s2", 102}, {"FMP4", 102}, {"DIV4", 102},
        {"div4", 102}, {"XVID", 102}, {"xvid", 102}, {"MP4V", 102}, {"mp4v", 102}, {"DIVX", 102},
        {"divx", 102}, {"H263", 103}, {"h263", 103}, {"d263", 103}, {"s263", 103}, {"avc1", 104},
        {"AVC1", 104}, {"H264", 104}, {"h264", 104}, {"X264", 104}, {"x264", 104}, {"avcC", 104},
        {"WMV1", 105}, {"wmv1", 105}, {"WMV2", 106}, {"wmv2", 106}, {"WMV3", 107}, {"wmv3", 107},
        {"DIV3", 110}, {"div3", 110}, {"FLV1", 111}, {"RV10", 113}, {"RV20", 114}, {"RV30", 115},
        {"RV40", 116}, {"MP43", 117}, {"mp43", 117}, {"vc-1", 118}, {"WVC1", 118}, {"wvc1", 118},
        {"VP80", 119}, {"hvc1", 120}, {"hev1", 120}, {"hvcC", 120}, {"vxhC", 120}, {"VP90", 121},
        {"av01", 122}, {"av1C", 122}, {"apv1", 124},
        // unknown video codes, including other families' codes
        {"mp4a", 299}, {"hvc2", 299}, {"VP70", 299}, {"flv1", 299}, {"tx3g", 299}},
       {{0, 299}, {85, 299}, {-1, 299}}},
      {"audio", omni_fcc2mt_aud,
       {{"aac ", 306}, {"mp4a", 306}, {"ac-3", 307}, {"samr", 309}, {"sawb", 310}, {"sqcp", 311},
        {"dqcp", 311}, {"evrc", 321}, {"fLaC", 322}, {"sipr", 331}, {"cook", 332}, {"Opus", 334},
        {"DSD ", 335}, {"ec-3", 337}, {"ac-4", 338}, {"opus", 499}, {"hvc1", 499}, {"flac", 499}},
       {{1, 300}, {6, 301}, {7, 302}, {80, 304}, {85, 305}, {255, 306}, {8192, 307}, {8193, 308},
        {352, 312}, {353, 312}, {354, 313}, {355, 314}, {61868, 322}, {157519, 323}, {17, 329},
        {2, 330}, {0, 499}, {3, 499}, {356, 499}, {8194, 499}, {-1, 499}}},
      {"drm", omni_fcc2mt_drm, {{"DIVX", 1100}, {"divx", 1100}, {"xvid", 1299}, {"DivX", 1299}},
       {{0, 1299}}},
      {"subtitle", omni_fcc2mt_sub,
       {{"SSRT", 3000}, {"tx3g", 3006}, {"TX3G", 3006}, {"sbtl", 3006}, {"SBTL", 3006},
        {"SASS", 3007}, {"SSSA", 3008}, {"wvtt", 3199}, {"stpp", 3199}},
       {{0x54525353, 3000}, {0x67337874, 3006}, {0x53534153, 3007}, {0x41535353, 3008}, {1, 3199}}},
  };
  for (const auto &f : kFamilies) {
    for (const auto &c : f.fccs) EXPECT_EQ(f.fn(fcc(c.first.c_str())), c.second) << f.name << " " << c.first;
    for (const auto &c : f.numbers) EXPECT_EQ(f.fn(c.first), c.second) << f.name << " " << c.first;
  }
}

TEST(MediaType, AnyKindAsksAudioThenVideoThenSubtitles) {
  const struct {
    int32_t code;
    uint32_t type;
  } kCases[] = {{fcc("hvc1"), 120}, {fcc("hev1"), 120}, {85, 305},          {fcc("DIVX"), 102},
                {fcc("tx3g"), 3006}, {fcc("mp4a"), 306}, {fcc("zzzz"), 3199}, {0, 3199},
                {fcc("SSSA"), 3008}, {fcc("av01"), 122}};
  for (const auto &c : kCases) EXPECT_EQ(omni_fcc2mt(c.code), c.type) << c.code;
}

TEST(KeyFrame, HeaderRules) {
  struct Case {
    const char *name;
    uint32_t type;
    std::vector<uint8_t> data;
    int32_t key;
  } const kCases[] = {
      // The clips of keyframe_streams_test.cc cover ordinary frames; these are
      // the corners no encoder run reaches.
      {"avc sps pps idr", 104, {0, 0, 0, 1, 0x67, 0x42, 0, 0, 0, 1, 0x68, 0xCE, 0, 0, 1, 0x65}, 1},
      {"avc three bytes", 104, {0, 0, 1}, 0},
      {"avc start code at the very end", 104, {0x11, 0, 0, 1}, 0},
      {"avc length-prefixed", 104, {0, 0, 0, 9, 0x65, 0x88, 0x80}, 0},
      {"hevc sei then rasl", 120, {0, 0, 1, 0x4E, 0x01, 5, 0, 0, 1, 0x10, 0x01}, 0},
      {"hevc reserved 22 is stepped over", 120, {0, 0, 1, 0x2C, 0x01, 0, 0, 1, 0x02, 0x01}, 0},
      {"hevc no start code", 120, {0x26, 0x01, 0xAF, 0x00, 0x11}, 0},
      {"mpeg4 short header intra", 102, {0, 0, 0x80, 0x02, 0x08, 0x00}, 1},
      {"mpeg4 short header inter", 102, {0, 0, 0x80, 0x02, 0x0A, 0x00}, 0},
      {"mpeg4 vop cut short", 102, {0, 0, 1, 0xB6}, 0},
      {"h263 bad marker bits", 103, {0, 0, 0x80, 0x01, 0x08, 0, 0}, 0},
      {"h263 plustype intra", 103, {0, 0, 0x80, 0x02, 0x1C, 0x00, 0, 0}, 1},
      {"h263 plustype inter", 103, {0, 0, 0x80, 0x02, 0x1C, 0x10, 0, 0}, 0},
      {"h263 plustype u=1 intra", 103, {0, 0, 0x80, 0x02, 0x1C, 0x80, 0, 0x00}, 1},
      {"h263 plustype u=1 past the end", 103, {0, 0, 0x80, 0x02, 0x1C, 0x80, 0}, 0},
      {"h263 six bytes", 103, {0, 0, 0x80, 0x02, 0x08, 0}, 0},
      {"flv1 s=1 needs byte 8", 111, {0, 0, 0x84, 0x00, 0x80, 0, 0, 0}, 0},
      {"flv1 s=1 intra", 111, {0, 0, 0x84, 0x00, 0x80, 0, 0, 0, 0x00}, 1},
      {"flv1 s=2 uses byte 4", 111, {0, 0, 0x84, 0x01, 0x00, 0, 0x60}, 1},
      {"vp8 five bytes", 119, {0x10, 0x02, 0x00, 0x9D, 0x01}, 0},
      {"vp9 profile 3 key", 121, {0x8B, 0x00}, 1},
      {"vp9 profile 3 needs byte 1", 121, {0x8B}, 0},
      {"wmv3 unsupported", 107, {0x00, 0x00}, 0},
      {"empty", 104, {}, 0},
  };
  for (const auto &c : kCases) {
    std::vector<uint8_t> exact(c.data);  // exact size: AddressSanitizer catches over-reads
    EXPECT_EQ(omni_is_vkeyfrm(c.type, exact.empty() ? nullptr : exact.data(),
                              static_cast<int32_t>(exact.size())),
              c.key)
        << c.name;
  }
  const uint8_t idr[] = {0, 0, 1, 0x65};
  EXPECT_EQ(omni_is_vkeyfrm(104, idr, 4), 1);
  EXPECT_EQ(omni_is_vkeyfrm(104, idr, -4), 0);
  EXPECT_EQ(omni_is_vkeyfrm(104, nullptr, 4), 0);
}

TEST(ImageBuffer, PlaneCountsAndLogarithms) {
  const struct {
    int32_t format;
    uint32_t planes;
  } kFormats[] = {{4, 3}, {7, 2}, {201, 1}, {202, 0}, {209, 0}, {210, 1}, {302, 0},
                  {503, 1}, {504, 0}, {600, 3}, {601, 2}, {0, 0}, {-1, 0}};
  for (const auto &c : kFormats) EXPECT_EQ(omni_imgb_get_plane_count(c.format), c.planes) << c.format;

  const struct {
    uint32_t v;
    int32_t ceil, floor;
  } kLogs[] = {{0, 0, -1},           {1, 0, 0},           {2, 1, 1},          {3, 2, 1},
               {4, 2, 2},            {5, 3, 2},           {0x7FFFFFFF, 31, 30}, {0x80000000u, 31, 31},
               {0x80000001u, 32, 31}, {0xFFFFFFFFu, 32, 31}};
  for (const auto &c : kLogs) {
    EXPECT_EQ(omni_ceil_log2(c.v), c.ceil) << c.v;
    EXPECT_EQ(omni_floor_log2(c.v), c.floor) << c.v;
  }
  omni_imgb_dump(nullptr);
}

}  // namespace
