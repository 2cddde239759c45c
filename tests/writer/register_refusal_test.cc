// Registrations the writer must refuse, each with its line, leaving a
// context that still finishes into a file the reader opens; and the limits
// and property sharing of registration.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "support/log_capture.h"
#include "writer/internal.h"
#include "writer/roundtrip_scenarios.h"

namespace {

using tarn_test::Bytes;
using tarn_test::HevcStream;
using tarn_test::Mux;

struct Fixture {
  HevcStream single, tile, thumb;
  Fixture() {
    EXPECT_TRUE(tarn_test::load_stream("single512.hevc", &single));
    EXPECT_TRUE(tarn_test::load_stream("tile0.hevc", &tile));
    EXPECT_TRUE(tarn_test::load_stream("thumb128.hevc", &thumb));
  }
};

TEST(RegisterRefusal, ContextStaysUsable) {
  const Fixture fx;
  // An SPS whose chroma_format_idc codeword reads 4 and one cut short.
  Bytes sps_cut(fx.single.sps[0].begin(), fx.single.sps[0].begin() + 12);
  static const uint8_t kDepths[4] = {8, 8, 8, 8};
  static const uint8_t kByte = 0;
  struct Case {
    const char *name;
    void (*mutate)(tarnm_image_info *info, tarnm_grid_info *grid, const Bytes &cut);
    bool use_grid;
    const char *line;  // specific line before "failed to set image info!", or null
  };
  static const Case kCases[] = {
      {"no parameter sets", [](tarnm_image_info *i, tarnm_grid_info *, const Bytes &) {
         i->param_sets = tarnm_param_sets{};
       }, false, "failed to make hvcC data"},
      {"no SPS pointer", [](tarnm_image_info *i, tarnm_grid_info *, const Bytes &) {
         i->param_sets.sps_data[0] = nullptr;
       }, false, "failed to make hvcC data"},
      {"SPS cut inside its profile", [](tarnm_image_info *i, tarnm_grid_info *, const Bytes &cut) {
         i->param_sets.sps_data[0] = cut.data();
         i->param_sets.sps_size[0] = uint32_t(cut.size());
       }, false, "failed to make hvcC data"},
      {"five PPS", [](tarnm_image_info *i, tarnm_grid_info *, const Bytes &) {
         i->param_sets.pps_count = 5;
       }, false, "hvcC data size is abnormal(-1)"},
      {"image type 6", [](tarnm_image_info *i, tarnm_grid_info *, const Bytes &) { i->img_type = 6; },
       false, "Should not be here. unsupported image type(6)"},
      {"four bit depths", [](tarnm_image_info *i, tarnm_grid_info *, const Bytes &) {
         i->bit_depth = kDepths;
         i->bit_depth_info_count = 4;
       }, false, "to big bit_depth_info_count(4)"},
      {"4096 x 3073 pixels", [](tarnm_image_info *i, tarnm_grid_info *, const Bytes &) {
         i->width = 4096;
         i->height = 3073;
       }, false, nullptr},
      {"zero width", [](tarnm_image_info *i, tarnm_grid_info *, const Bytes &) { i->width = 0; },
       false, "image size is abnormal(0x128)"},
      {"id of an image already registered", [](tarnm_image_info *, tarnm_grid_info *g, const Bytes &) {
         g->first_tile_id = 1;
         g->last_tile_id = 4;
       }, true, "item 1 is already registered"},
      {"pixels wrapping 32 bits", [](tarnm_image_info *i, tarnm_grid_info *, const Bytes &) {
         i->width = 65536;
         i->height = 65536;
       }, false, nullptr},
      {"Exif size without data", [](tarnm_image_info *i, tarnm_grid_info *, const Bytes &) {
         i->exif_size = 10;
       }, false, "metadata pointer is NULL"},
      {"Exif larger than the heap can address", [](tarnm_image_info *i, tarnm_grid_info *, const Bytes &) {
         i->exif_data = &kByte;
         i->exif_size = 0x7FFFFFFC;
       }, false, "metadata is too big. exif size : 2147483644, xmp size : 0"},
      {"tone map size without data", [](tarnm_image_info *i, tarnm_grid_info *, const Bytes &) {
         i->img_type = IMG_TYPE_TMAP;
         i->tmap_size = 5;
       }, false, "gain map info is NULL. size : 5"},
      {"tone-map grid", [](tarnm_image_info *i, tarnm_grid_info *, const Bytes &) {
         i->img_type = IMG_TYPE_TMAP;
       }, true, "Should not be here. unsupported image type(3)"},
      {"1 x 769 tiles", [](tarnm_image_info *, tarnm_grid_info *g, const Bytes &) {
         g->rows = 1;
         g->columns = 769;
         g->last_tile_id = 10 + 768;
       }, true, nullptr},
      {"tile range short of rows x columns", [](tarnm_image_info *, tarnm_grid_info *g, const Bytes &) {
         g->last_tile_id = 12;
       }, true, "grid tile ids 10..12 do not hold 2 x 2 tiles apart from grid 20"},
      {"grid id inside the tile range", [](tarnm_image_info *, tarnm_grid_info *g, const Bytes &) {
         g->first_tile_id = 18;
         g->last_tile_id = 21;
       }, true, "grid tile ids 18..21 do not hold 2 x 2 tiles apart from grid 20"},
      {"grid id other than the item id", [](tarnm_image_info *, tarnm_grid_info *g, const Bytes &) {
         g->grid_item_id = 21;
       }, true, "grid item id(21) differs from item id(20)"},
      {"output larger than the tiles", [](tarnm_image_info *, tarnm_grid_info *g, const Bytes &) {
         g->output_width = 513;
       }, true, "grid output 513x512 does not match 2 x 2 tiles of 256x256"},
      {"a column of tiles outside the output", [](tarnm_image_info *, tarnm_grid_info *g, const Bytes &) {
         g->output_height = 256;
       }, true, "grid output 512x256 does not match 2 x 2 tiles of 256x256"},
  };
  for (const Case &c : kCases) {
    SCOPED_TRACE(c.name);
    Mux mux;
    ASSERT_EQ(mux.image(1, 0, Mux::info_for(fx.single, 512, 512)), 0);
    ASSERT_EQ(mux.frame(1, fx.single), 0);
    ASSERT_EQ(mux.cover(1), 0);
    tarnm_image_info info = Mux::info_for(c.use_grid ? fx.tile : fx.thumb, 128, 128);
    tarnm_grid_info grid{512, 512, 2, 2, 10, 13, 20, 0};
    if (c.use_grid) info.width = info.height = 256;
    c.mutate(&info, &grid, sps_cut);
    tarn_test::LogCapture cap;
    EXPECT_EQ(mux.image(20, 0, info, c.use_grid ? &grid : nullptr), -1);
    EXPECT_TRUE(cap.has("failed to set image info!", "tarnm")) << cap.dump();
    if (c.line) {
      EXPECT_TRUE(cap.has(c.line)) << cap.dump();
    }
    const Bytes file = mux.finish();
    tarn_test::check_with_reader(file, mux.expect);
  }
}

TEST(Register, LimitsAccepted) {
  const Fixture fx;
  Mux mux;
  tarnm_image_info big = Mux::info_for(fx.single, 4096, 3072);
  EXPECT_EQ(mux.image(1, 0, big), 0);
  tarnm_image_info tile = Mux::info_for(fx.tile, 256, 256);
  const tarnm_grid_info g{8192, 6144, 24, 32, 10, 10 + 767, 800, 0};
  EXPECT_EQ(mux.image(800, 0, tile, &g), 0);
  static const uint8_t kDepths[3] = {10, 10, 10};
  tarnm_image_info deep = Mux::info_for(fx.thumb, 128, 128);
  deep.bit_depth = kDepths;
  deep.bit_depth_info_count = 3;
  EXPECT_EQ(mux.image(801, 0, deep), 0);
}

// Ids of the Exif item and of groups start above the largest id in use,
// whatever the order of registration; a tone map registered without
// metadata still gets its dimg reference and altr group.
TEST(Register, WriterIdsAboveLargestId) {
  const Fixture fx;
  static const uint8_t kExif[100] = {'E', 'x', 'i', 'f'};
  Mux mux;
  ASSERT_EQ(mux.cover(3), 0);
  ASSERT_EQ(mux.image(50, 0, Mux::info_for(fx.thumb, 128, 128)), 0);
  tarnm_image_info i = Mux::info_for(fx.single, 512, 512);
  i.exif_data = kExif;
  i.exif_size = sizeof kExif;
  ASSERT_EQ(mux.image(3, 0, i), 0);
  const tarnm_metadata_entry &e = mux.ctx()->state.metadata[0];
  ASSERT_EQ(e.size, 104u);
  EXPECT_EQ(Bytes(e.data, e.data + 8), Bytes({0, 0, 0, 6, 'E', 'x', 'i', 'f'}));
  tarnm_image_info t{};
  t.img_type = IMG_TYPE_TMAP;
  t.width = 4000;
  t.height = 3000;
  t.rotation = 90;
  ASSERT_EQ(mux.image(4, 50, t), 0);
  EXPECT_EQ(mux.ctx()->state.item_data_count, 0);
  // The caller's record describes the stored orientation afterwards.
  ASSERT_EQ(tarnm_set_image_info(mux.ctx(), 5, 50, &t, nullptr), 0);
  EXPECT_EQ(t.width, 3000u);
  EXPECT_EQ(t.height, 4000u);
  EXPECT_EQ(t.rotation, 0u);
  ASSERT_EQ(mux.frame(50, fx.thumb), 0);
  ASSERT_EQ(mux.frame(3, fx.single), 0);
  const Bytes file = mux.finish();
  ASSERT_FALSE(file.empty());
  // Exif item 51; groups 52 and 53 (two tone maps), each {tmap, primary}.
  const auto top = tarn_test::child_boxes(file, 0, file.size());
  ASSERT_EQ(top.size(), 3u);
  auto find = [&](const Bytes &needle) {
    return std::search(file.begin(), file.end(), needle.begin(), needle.end()) != file.end();
  };
  EXPECT_TRUE(find({0, 51, 0, 0, 'E', 'x', 'i', 'f'}));
  EXPECT_TRUE(find({'a', 'l', 't', 'r', 0, 0, 0, 0, 0, 0, 0, 52, 0, 0, 0, 2, 0, 0, 0, 4, 0, 0, 0, 3}));
  EXPECT_TRUE(find({'a', 'l', 't', 'r', 0, 0, 0, 0, 0, 0, 0, 53, 0, 0, 0, 2, 0, 0, 0, 5, 0, 0, 0, 3}));
  EXPECT_TRUE(find({'c', 'd', 's', 'c', 0, 51, 0, 1, 0, 3}));
}

// Equal hvcC, ispe and colour data are one property box each in ipco.
TEST(Register, EqualPropertiesShared) {
  const Fixture fx;
  static const uint8_t kIcc[64] = {0, 0, 0, 64};
  Mux mux;
  tarnm_image_info i = Mux::info_for(fx.single, 512, 512);
  i.color_type = 2;
  i.color_data = kIcc;
  i.color_size = sizeof kIcc;
  ASSERT_EQ(mux.image(1, 0, i), 0);
  ASSERT_EQ(mux.image(2, 0, i), 0);
  EXPECT_EQ(mux.ctx()->state.property_count, 3u);
  i.rotation = 180;
  ASSERT_EQ(mux.image(3, 0, i), 0);
  EXPECT_EQ(mux.ctx()->state.property_count, 4u);
}

TEST(Register, CoverImage) {
  tarn_test::LogCapture cap;
  Mux mux;
  EXPECT_EQ(tarnm_set_cover_image(mux.ctx(), -1), -1);
  EXPECT_TRUE(cap.has("img_id is invalid : -1", "tarnm"));
  EXPECT_EQ(tarnm_set_cover_image(nullptr, 1), -1);
  EXPECT_TRUE(cap.has("TARNM is NULL", "tarnm"));
}

}  // namespace
