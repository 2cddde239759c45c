// Decoding as the proof that extraction is right: the decoder
// configuration followed by the extracted frame, written to a file, must
// decode with an independent HEVC decoder (dec265) to a picture of the
// item's size. The JPEG preview of a camera file goes through ImageMagick's
// identify the same way.

#include <gtest/gtest.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "reader/open_helpers.h"
#include "support/files.h"

namespace {

std::string run(const std::string &command) {
  std::string out;
  if (FILE *p = popen((command + " 2>&1").c_str(), "r")) {
    char buf[512];
    for (size_t n; (n = fread(buf, 1, sizeof(buf), p)) > 0;) out.append(buf, n);
    pclose(p);
  }
  return out;
}

// Path of the program on PATH, or "".
std::string find_tool(const char *name) {
  const std::string out = run(std::string("command -v ") + name);
  return out.empty() || out[0] != '/' ? "" : out.substr(0, out.find('\n'));
}

struct Case {
  const char *file;
  uint32_t role;  // TARND_ID_* of the primary, or 0 for item
  int32_t item;
  bool jpeg;
  uint32_t width, height;
};

// clang-format off
const Case kCases[] = {
    {"nokia/autumn_1440x960.heic", TARND_ID_PRIMARY, 0, false, 1440, 960},
    {"nokia/stereo_1200x800.heic", TARND_ID_STEREO_RIGHT, 0, false, 1200, 800},
    {"phones/iphone8plus_grid_thumb_exif.heic", 0, 17, false, 512, 512},  // a tile
    {"phones/iphone8plus_grid_thumb_exif.heic", TARND_ID_THUMBNAIL, 0, false, 320, 240},
    {"synthetic/RGBA_8__128x128.heif", TARND_ID_AUXILIARY, 0, false, 128, 128},  // alpha plane
    {"synthetic/RGB_10__128x128.heif", TARND_ID_PRIMARY, 0, false, 128, 128},  // 10-bit
    {"synthetic/L_12__29x100.heif", TARND_ID_PRIMARY, 0, false, 64, 100},  // 12-bit monochrome
    {"phones/sony_grid_jpeg_thumb.hif", 0, 8, true, 160, 120},  // JPEG preview
};
// clang-format on

TEST(Decode, ExtractedFramesDecodeToTheirSize) {
  TARN_REQUIRE_CORPUS();
  std::string dec265 = find_tool("dec265");
  if (dec265.empty()) dec265 = find_tool("libde265-dec265");  // Debian's name
  const std::string identify = find_tool("identify");
  if (dec265.empty()) GTEST_SKIP() << "dec265 not installed (Debian libde265-examples)";
  char tmpl[] = "/tmp/tarn_decode_XXXXXX";
  const int fd = mkstemp(tmpl);
  ASSERT_GE(fd, 0);
  close(fd);
  const std::string tmp = tmpl;

  for (const auto &c : kCases) {
    SCOPED_TRACE(c.file);
    if (c.jpeg && identify.empty()) {
      printf("identify not installed (Debian imagemagick): %s skipped\n", c.file);
      continue;
    }
    tarn_test::CtxPtr ctx = tarn_test::open_path(tarn_test::corpus_dir() + "/" + c.file, nullptr);
    ASSERT_NE(ctx, nullptr);
    void *h = ctx.get();
    uint32_t id = static_cast<uint32_t>(c.item);
    if (c.role != 0) {
      uint32_t primary = 0;
      ASSERT_EQ(tarnd_get_image_id(h, TARND_ID_PRIMARY, 0, &primary), 0);
      ASSERT_EQ(tarnd_get_image_id(h, c.role, primary, &id), 0);
    }
    tarnd_image_info info = {};
    ASSERT_EQ(tarnd_get_info_image(h, static_cast<int32_t>(id), &info), 0);
    EXPECT_EQ(info.width, c.width);
    EXPECT_EQ(info.height, c.height);

    int32_t size = 0;
    ASSERT_EQ(tarnd_get_image_frm(h, static_cast<int32_t>(id), nullptr, 0, &size), 0);
    std::vector<uint8_t> stream(info.config_data, info.config_data + info.config_size);
    stream.resize(info.config_size + static_cast<size_t>(size));
    int32_t written = 0;
    ASSERT_EQ(
        tarnd_get_image_frm(h, static_cast<int32_t>(id), stream.data() + info.config_size, size, &written),
        0);
    EXPECT_EQ(written, size);

    FILE *f = fopen(tmp.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    ASSERT_EQ(fwrite(stream.data(), 1, stream.size(), f), stream.size());
    fclose(f);
    const std::string dims = std::to_string(c.width) + "x" + std::to_string(c.height);
    if (c.jpeg) {
      const std::string out = run("'" + identify + "' '" + tmp + "'");
      EXPECT_NE(out.find("JPEG " + dims + " "), std::string::npos) << out;
    } else {
      const std::string out = run("'" + dec265 + "' -q '" + tmp + "'");
      EXPECT_NE(out.find("nFrames decoded: 1 (" + dims + " "), std::string::npos) << out;
      EXPECT_EQ(out.find("WARNING"), std::string::npos) << out;
    }
  }
  remove(tmp.c_str());
}

}  // namespace
