// Key frames of real encoder output (tests/data/keyframes, made by
// make_keyframes.py) against the frame types ffprobe decoded from them.
#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "support/files.h"
#include "tarn/utils.h"

namespace {

TEST(KeyFrame, RealStreamsAgreeWithTheDecoder) {
  struct Clip {
    const char *name, *ext;
    uint32_t media_type;
  } const kClips[] = {
      {"hevc_x265_open_gop", "hevc", 120}, {"hevc_x265_closed_gop", "hevc", 120},
      {"avc_x264", "h264", 104},           {"mpeg4_part2", "m4v", 102},
      {"h263", "h263", 103},               {"flv1", "flv1", 111},
      {"vp8", "vp8", 119},                 {"vp9", "vp9", 121},
      {"wmv1", "wmv1", 105},               {"wmv2", "wmv2", 106},
      {"div3", "div3", 110},
  };
  for (const Clip &c : kClips) {
    const std::string base = tarn_test::data_path(std::string("keyframes/") + c.name);
    std::vector<uint8_t> stream;
    ASSERT_TRUE(tarn_test::read_file(base + "." + c.ext, &stream)) << c.name;
    std::ifstream idx(base + ".idx");
    size_t offset, size;
    int key, frames = 0, keys = 0;
    std::string pict_type;
    while (idx >> offset >> size >> key >> pict_type) {
      ASSERT_LE(offset, stream.size()) << c.name;
      ASSERT_LE(size, stream.size() - offset) << c.name;
      // An exact-size copy: the detector must not look past the frame.
      std::vector<uint8_t> frame(stream.begin() + static_cast<std::ptrdiff_t>(offset),
                                 stream.begin() + static_cast<std::ptrdiff_t>(offset + size));
      EXPECT_EQ(omni_is_vkeyfrm(c.media_type, frame.data(), static_cast<int32_t>(size)), key)
          << c.name << " frame " << frames << " (" << pict_type << ") at " << offset;
      // The first bytes alone never read outside (they answer whatever they can).
      for (int32_t cut = 0; cut < 12 && static_cast<size_t>(cut) < size; ++cut) {
        std::vector<uint8_t> head(frame.begin(), frame.begin() + cut);
        omni_is_vkeyfrm(c.media_type, head.empty() ? nullptr : head.data(), cut);
      }
      ++frames;
      keys += key;
    }
    EXPECT_GT(keys, 1) << c.name;
    EXPECT_GT(frames, keys) << c.name;
  }
}

}  // namespace
