// Every round-trip scenario written, read back by the project's reader and by
// independent tools (heif-info, heif-convert, exiftool as black boxes), and
// written twice to the same bytes.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "support/files.h"
#include "writer/writer_support.h"

namespace {

using tarn_test::Bytes;
using tarn_test::HevcStream;
using tarn_test::Mux;

const tarn_test::Streams &S() { return tarn_test::streams(); }

#define STEP(call)                         \
  do {                                     \
    if ((call) != 0) return "failed: " #call; \
  } while (0)

using Result = const char *;  // null when every call worked

// A 2x2 grid of the four tiles as items first..first+3 with base's colour
// and metadata.
int32_t grid(Mux *m, uint32_t id, uint32_t first, uint32_t type, uint32_t ref, uint32_t out_w = 512,
             uint32_t out_h = 512, tarnm_image_info info = {}) {
  info.param_sets = S().tiles[0].param_sets();
  info.width = info.height = 256;
  info.img_type = type;
  const tarnm_grid_info g{out_w, out_h, 2, 2, first, first + 3, uint16_t(id), 0};
  return m->image(id, ref, info, &g);
}
Result tiles(Mux *m, uint32_t first, int from = 0, int to = 4) {
  for (int i = from; i < to; ++i) STEP(m->frame(first + uint32_t(i), S().tiles[i]));
  return nullptr;
}
tarnm_image_info typed(const HevcStream &s, uint32_t size, uint32_t type, uint32_t aux = 0) {
  tarnm_image_info i = Mux::info_for(s, size, size);
  i.img_type = type;
  i.aux_type = aux;
  return i;
}
Result main_and(Mux *m, const tarnm_image_info &second, const HevcStream &stream) {
  STEP(m->image(1, 0, Mux::info_for(S().single, 512, 512)));
  STEP(m->image(2, 1, second));
  STEP(m->frame(1, S().single));
  STEP(m->frame(2, stream));
  STEP(m->cover(1));
  return nullptr;
}

const uint8_t kTonemap[20] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19};
tarnm_image_info tonemap(uint32_t w, uint32_t h, uint32_t rotation) {
  tarnm_image_info t{};
  t.img_type = IMG_TYPE_TMAP;
  t.width = w;
  t.height = h;
  t.rotation = rotation;
  t.tmap_data = kTonemap;
  t.tmap_size = sizeof kTonemap;
  return t;
}

// TIFF with Make, Model and Orientation 6 in IFD0, behind "Exif\0\0".
const Bytes &exif() {
  static const Bytes b = {'E', 'x', 'i', 'f', 0, 0, 'M', 'M', 0, 42, 0, 0, 0, 8, 0, 3,
                          1, 0x0F, 0, 2, 0, 0, 0, 8, 0, 0, 0, 50,
                          1, 0x10, 0, 2, 0, 0, 0, 8, 0, 0, 0, 58,
                          1, 0x12, 0, 3, 0, 0, 0, 1, 0, 6, 0, 0,
                          0, 0, 0, 0, 'T', 'a', 'r', 'n', 'C', 'a', 'm', 0,
                          'M', 'o', 'd', 'e', 'l', ' ', '7', 0};
  return b;
}
const char kXmp[] =
    "<?xpacket begin=\"\xEF\xBB\xBF\" id=\"W5M0MpCehiHzreSzNTczkc9d\"?>"
    "<x:xmpmeta xmlns:x=\"adobe:ns:meta/\"><rdf:RDF "
    "xmlns:rdf=\"http://www.w3.org/1999/02/22-rdf-syntax-ns#\"><rdf:Description rdf:about=\"\" "
    "xmlns:xmp=\"http://ns.adobe.com/xap/1.0/\" xmp:CreatorTool=\"libtarn round trip\"/>"
    "</rdf:RDF></x:xmpmeta><?xpacket end=\"w\"?>";

// An ICC profile header that PNG writers accept (RGB display class, XYZ
// connection space, D50 illuminant, no tags) when no real profile is
// installed.
const Bytes &icc() {
  static Bytes b;
  if (b.empty() && !tarn_test::read_file("/usr/share/color/icc/ghostscript/srgb.icc", &b)) {
    b.assign(132, 0);
    b[3] = 132;
    b[8] = 0x02, b[9] = 0x10;  // version 2.1
    std::memcpy(&b[12], "mntrRGB XYZ ", 12);
    std::memcpy(&b[36], "acsp", 4);
    const uint8_t d50[12] = {0, 0, 0xF6, 0xD6, 0, 1, 0, 0, 0, 0, 0xD3, 0x2D};
    std::memcpy(&b[68], d50, sizeof(d50));
  }
  return b;
}

struct Scenario {
  const char *name, *png;  // png: tests/data/hevc picture of the primary image
  Result (*build)(Mux *m);
};
const Scenario kScenarios[] = {
    {"single_image", "src512.png",
     [](Mux *m) -> Result {
       STEP(m->image(1, 0, Mux::info_for(S().single, 512, 512)));
       STEP(m->frame(1, S().single));
       return m->cover(1) ? "cover" : nullptr;
     }},
    {"grid_of_tiles", "src512.png",
     [](Mux *m) -> Result {
       STEP(grid(m, 5, 1, IMG_TYPE_MAIN, 0));
       STEP(m->cover(5));
       return tiles(m, 1);
     }},
    // Tiles arrive before their grid is registered.
    {"grid_with_thumbnail", "src512.png",
     [](Mux *m) -> Result {
       STEP(m->cover(10));
       if (tiles(m, 1)) return "tiles";
       STEP(grid(m, 10, 1, IMG_TYPE_MAIN, 0));
       STEP(m->image(11, 10, typed(S().thumb, 128, IMG_TYPE_THUMBNAIL)));
       return m->frame(11, S().thumb) ? "thumb" : nullptr;
     }},
    {"alpha", "src512.png",
     [](Mux *m) { return main_and(m, typed(S().alpha, 512, IMG_TYPE_AUX, 1), S().alpha); }},
    {"depth", "src512.png",  // with subtype bytes after its URN
     [](Mux *m) {
       static const uint8_t kSubtype[3] = {0xD1, 0xD2, 0xD3};
       tarnm_image_info depth = typed(S().alpha, 512, IMG_TYPE_AUX, 2);
       depth.aux_subtype_data = kSubtype, depth.aux_subtype_size = sizeof kSubtype;
       return main_and(m, depth, S().alpha);
     }},
    {"gain_map_with_tone_map", "src512.png",
     [](Mux *m) -> Result {
       STEP(m->cover(1));
       if (Result r = main_and(m, typed(S().thumb, 128, IMG_TYPE_AUX, 3), S().thumb)) return r;
       return m->image(3, 2, tonemap(302, 198, 90)) ? "tmap" : nullptr;
     }},
    {"rotation", "src302x198.png",
     [](Mux *m) -> Result {
       tarnm_image_info i = Mux::info_for(S().odd, 302, 198);
       i.rotation = 90;
       STEP(m->image(1, 0, i));
       STEP(m->frame(1, S().odd));
       return m->cover(1) ? "cover" : nullptr;
     }},
    // ICC on an image and on a grid (tiles share it), nclx on a third.
    {"icc_colour", "src512.png",
     [](Mux *m) -> Result {
       tarnm_image_info i = Mux::info_for(S().single, 512, 512);
       i.color_type = 3;
       i.color_data = icc().data();
       i.color_size = uint32_t(icc().size());
       STEP(m->image(1, 0, i));
       STEP(grid(m, 20, 10, IMG_TYPE_OTHER, 0, 512, 512, i));
       static const uint8_t kNclx[7] = {1, 0, 13, 0, 6, 0, 1};  // host-order words, full range
       tarnm_image_info n = Mux::info_for(S().thumb, 128, 128);
       n.color_type = 1;
       n.color_data = kNclx;
       n.color_size = 7;
       STEP(m->image(30, 0, n));
       STEP(m->frame(1, S().single));
       STEP(m->frame(30, S().thumb));
       STEP(m->cover(1));
       return tiles(m, 10);
     }},
    {"exif_and_xmp", "src512.png",
     [](Mux *m) -> Result {
       tarnm_image_info i = Mux::info_for(S().single, 512, 512);
       i.exif_data = exif().data();
       i.exif_size = uint32_t(exif().size());
       i.max_cll = 1000;  // a light level without a frame average still takes clli
       tarnm_image_info t = typed(S().thumb, 128, IMG_TYPE_THUMBNAIL);
       t.xmp_data = i.xmp_data = reinterpret_cast<const uint8_t *>(kXmp);
       t.xmp_size = i.xmp_size = uint32_t(sizeof kXmp - 1);
       STEP(m->image(1, 0, i));
       STEP(m->image(2, 1, t));
       STEP(m->frame(1, S().single));
       STEP(m->frame(2, S().thumb));
       return m->cover(1) ? "cover" : nullptr;
     }},
    {"stereo_pair", "src512.png",
     [](Mux *m) { return main_and(m, typed(S().single, 512, IMG_TYPE_STEREO), S().single); }},
    // Interleaved tiles: each grid's location follows its own last tile.
    {"several_grids", "src512.png",
     [](Mux *m) -> Result {
       STEP(m->cover(5));
       STEP(grid(m, 5, 1, IMG_TYPE_MAIN, 0));
       STEP(grid(m, 10, 6, IMG_TYPE_OTHER, 0, 500, 300));
       STEP(grid(m, 15, 11, IMG_TYPE_THUMBNAIL, 5, 400, 400));
       if (tiles(m, 6, 0, 2) || tiles(m, 1) || tiles(m, 11) || tiles(m, 6, 2, 4)) return "tiles";
       STEP(m->image(20, 0, Mux::info_for(S().thumb, 128, 128)));
       return m->frame(20, S().thumb) ? "frame" : nullptr;
     }},
    // Frames before registrations, the cover first, a tone map between a grid
    // and its last tile, Exif on a grid (items registered in ascending ids).
    {"any_order", "src512.png",
     [](Mux *m) -> Result {
       STEP(m->cover(5));
       STEP(m->frame(60, S().thumb));
       if (tiles(m, 1, 0, 3)) return "tiles";
       tarnm_image_info g{};
       g.exif_data = exif().data();
       g.exif_size = uint32_t(exif().size());
       STEP(grid(m, 5, 1, IMG_TYPE_MAIN, 0, 512, 512, g));
       STEP(m->image(7, 5, typed(S().thumb, 128, IMG_TYPE_AUX, 3)));
       STEP(m->image(8, 7, tonemap(512, 384, 0)));  // not turned: no sides swapped
       if (tiles(m, 1, 3, 4)) return "tiles";
       STEP(m->frame(7, S().thumb));
       return m->image(60, 5, typed(S().thumb, 128, IMG_TYPE_THUMBNAIL)) ? "thumb" : nullptr;
     }},
};

TEST(RoundTrip, EveryScenarioReadsBackAndIsDeterministic) {
  ASSERT_TRUE(S().ok);
  for (const Scenario &sc : kScenarios) {
    SCOPED_TRACE(sc.name);
    Mux first, second;
    ASSERT_EQ(sc.build(&first), nullptr);
    ASSERT_EQ(sc.build(&second), nullptr);
    const Bytes file = first.finish();
    tarn_test::check_with_reader(file, first.expect);
    EXPECT_TRUE(file == second.finish());
    // Into a caller's buffer: the frames fill it up to the mdat's end, the
    // file fills it to its last byte, and one byte short fails the finish
    // without a write past the end.
    const size_t mdat_end = tarn_test::children(file, 0, file.size())[1].end;
    for (const size_t room : {mdat_end, file.size() - 1, file.size()}) {
      Mux into;
      Bytes buf(room + 1, 0xEE);
      ASSERT_EQ(tarnm_use_delivered_memory_buffer(into.ctx, buf.data(), int32_t(room)), 0);
      ASSERT_EQ(sc.build(&into), nullptr) << room;
      EXPECT_EQ(tarnm_stop_muxing(into.ctx), room == file.size() ? 0 : -3) << room;
      EXPECT_EQ(buf.back(), 0xEE);
      EXPECT_TRUE(room < file.size() || Bytes(buf.begin(), buf.end() - 1) == file);
    }
  }
}

// ---- independent tools ----

std::string run(const std::string &cmd, int *status) {
  std::string out;
  FILE *p = popen((cmd + " 2>&1").c_str(), "r");
  char buf[4096];
  for (size_t n; p && (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
  *status = p ? pclose(p) : -1;
  return out;
}
bool have(const char *tool) {
  return std::system(("command -v " + std::string(tool) + " >/dev/null 2>&1").c_str()) == 0;
}
std::string size_of(const std::string &png) {
  int status;
  const std::string s = run("(identify -format '%wx%h' '" + png + "' 2>/dev/null)", &status);
  return status == 0 ? s : "";
}

class Interop : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = testing::TempDir() + "tarn_interop_" + std::to_string(getpid());
    ASSERT_EQ(std::system(("mkdir -p '" + dir_ + "'").c_str()), 0);
  }
  void TearDown() override { (void)std::system(("rm -rf '" + dir_ + "'").c_str()); }
  std::string write(const Scenario &sc) {
    Mux mux;
    EXPECT_EQ(sc.build(&mux), nullptr);
    const Bytes file = mux.finish();
    const std::string path = dir_ + "/" + sc.name + ".heic";
    FILE *f = fopen(path.c_str(), "wb");
    EXPECT_TRUE(f && fwrite(file.data(), 1, file.size(), f) == file.size() && !file.empty());
    if (f) fclose(f);
    return path;
  }
  std::string dir_;
};

// What heif-info must report besides the primary image.
const struct {
  const char *scenario, *text;
} kInfoLines[] = {
    {"grid_of_tiles", "image: 512x512 (id=5), primary"}, {"grid_with_thumbnail", "thumbnail: 128x128"},
    {"alpha", "alpha channel: yes"},                     {"depth", "depth channel: yes"},
    {"rotation", "image: 198x302 (id=1), primary"},      {"icc_colour", "color profile: prof"},
    {"icc_colour", "color profile: nclx"},               {"exif_and_xmp", "Exif: 76 bytes"},
    {"exif_and_xmp", "XMP: 304 bytes"},                  {"several_grids", "image: 500x300 (id=10)"},
    {"several_grids", "thumbnail: 400x400"},             {"any_order", "thumbnail: 128x128"},
};

TEST_F(Interop, HeifInfoAndConvert) {
  if (!have("heif-info") || !have("heif-convert")) {
    GTEST_SKIP() << "heif-info/heif-convert not installed (Debian libheif-examples)";
  }
  if (!have("compare") || !have("identify")) GTEST_SKIP() << "ImageMagick not installed";
  for (const Scenario &sc : kScenarios) {
    SCOPED_TRACE(sc.name);
    const std::string path = write(sc), stem = dir_ + "/" + sc.name;
    int status;
    const std::string info = run("heif-info '" + path + "'", &status);
    EXPECT_EQ(status, 0) << info;
    EXPECT_NE(info.find("primary"), std::string::npos) << info;
    for (const auto &line : kInfoLines) {
      if (sc.name == std::string(line.scenario)) {
        EXPECT_NE(info.find(line.text), std::string::npos) << info;
      }
    }
    const std::string conv = run("heif-convert '" + path + "' '" + stem + ".png'", &status);
    ASSERT_EQ(status, 0) << conv;
    std::string source = tarn_test::data_path(std::string("hevc/") + sc.png);
    if (sc.name == std::string("rotation")) {  // 90 degrees clockwise, as registered
      run("convert '" + source + "' -rotate 90 '" + stem + "_src.png'", &status);
      source = stem + "_src.png";
    }
    // One output per top-level image: name.png or name-1.png, name-2.png...
    int compared = 0;
    for (int i = 0; i < 10; ++i) {
      const std::string out = stem + (i ? "-" + std::to_string(i) : "") + ".png";
      if (size_of(out).empty() || size_of(out) != size_of(source)) continue;
      ++compared;
      const std::string psnr =
          run("compare -alpha off -metric PSNR '" + out + "' '" + source + "' null:", &status);
      EXPECT_GE(psnr.rfind("inf", 0) == 0 ? 1000.0 : std::atof(psnr.c_str()), 35.0) << out;
    }
    EXPECT_GT(compared, 0) << conv;
  }
}

TEST_F(Interop, ExiftoolReadsExifAndXmp) {
  if (!have("exiftool")) GTEST_SKIP() << "exiftool not installed (Debian libimage-exiftool-perl)";
  int status;
  const std::string out = run("exiftool -s -s -s -Make -Model -Orientation# -CreatorTool '" +
                                  write(kScenarios[8]) + "'",
                              &status);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(out, "TarnCam\nModel 7\n6\nlibtarn round trip\n");
}

}  // namespace
