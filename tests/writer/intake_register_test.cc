// Registration and intake through the public calls: refusals that leave a
// context which still finishes into a readable file, start codes turned into
// lengths, and finishing.
#include <gtest/gtest.h>

#include <cstring>

#include "support/log_capture.h"
#include "writer/writer_support.h"

namespace {

using tarn_test::Bytes;
using tarn_test::Mux;

const uint8_t kDepths[4] = {8, 8, 8, 8}, kByte = 0;
const uint8_t kExif[14] = {'E', 'x', 'i', 'f', 0, 0, 'M', 'M', 0, 42, 0, 0, 0, 8};  // a bare TIFF header

TEST(Register, RefusalsLeaveTheContextUsable) {
  const tarn_test::Streams &fx = tarn_test::streams();
  using I = tarnm_image_info;
  using G = tarnm_grid_info;
  struct Case {
    const char *name;
    void (*mutate)(I *i, G *g);
    bool grid;
    const char *line;  // besides "failed to set image info!"
  };
  static const Case kCases[] = {
      {"no parameter sets", [](I *i, G *) { i->param_sets = tarnm_param_sets{}; }, false,
       "failed to make hvcC data"},
      {"five PPS", [](I *i, G *) { i->param_sets.pps_count = 5; }, false,
       "hvcC data size is abnormal(-1)"},
      {"image type 6", [](I *i, G *) { i->img_type = 6; }, false,
       "Should not be here. unsupported image type(6)"},
      {"four bit depths", [](I *i, G *) {
         i->bit_depth = kDepths;
         i->bit_depth_info_count = 4;
       }, false, "to big bit_depth_info_count(4)"},
      {"4096 x 3073 pixels", [](I *i, G *) { i->width = 4096, i->height = 3073; }, false, nullptr},
      {"pixels wrapping 32 bits", [](I *i, G *) { i->width = i->height = 65536; }, false, nullptr},
      {"zero width", [](I *i, G *) { i->width = 0; }, false, "image size is abnormal(0x128)"},
      {"tile id already registered", [](I *, G *g) { g->first_tile_id = 1, g->last_tile_id = 4; },
       true, "item 1 is already registered"},
      {"Exif size without data", [](I *i, G *) { i->exif_size = 10; }, false,
       "metadata pointer is NULL"},
      {"Exif beyond what the heap addresses", [](I *i, G *) {
         i->exif_data = &kByte;
         i->exif_size = 0x7FFFFFFC;
       }, false, "metadata is too big. exif size : 2147483644, xmp size : 0"},
      {"tone map size without data", [](I *i, G *) {
         i->img_type = IMG_TYPE_TMAP;
         i->tmap_size = 5;
       }, false, "gain map info is NULL. size : 5"},
      {"tone map beyond what idat holds", [](I *i, G *) {
         i->img_type = IMG_TYPE_TMAP;
         i->tmap_data = &kByte;
         i->tmap_size = 0x80000000u;
       }, false, nullptr},
      {"tone-map grid", [](I *i, G *) { i->img_type = IMG_TYPE_TMAP; }, true,
       "Should not be here. unsupported image type(3)"},
      {"tiles of 4096 x 3073 pixels", [](I *i, G *g) {
         i->width = 4096, i->height = 3073;
         g->output_width = 8192, g->output_height = 6146;
       }, true, nullptr},
      {"1 x 769 tiles", [](I *, G *g) { g->rows = 1, g->columns = 769, g->last_tile_id = 778; },
       true, nullptr},
      {"28 x 28 tiles", [](I *i, G *g) {
         i->width = i->height = 64;
         g->rows = g->columns = 28, g->output_width = g->output_height = 1792;
         g->first_tile_id = 100, g->last_tile_id = 883;
       }, true, nullptr},
      {"tile ids past 65535", [](I *, G *g) { g->first_tile_id = 65533, g->last_tile_id = 65536; }, true,
       "grid tile ids 65533..65536 do not hold 2 x 2 tiles apart from grid 20"},
      {"tile range short", [](I *, G *g) { g->last_tile_id = 12; }, true,
       "grid tile ids 10..12 do not hold 2 x 2 tiles apart from grid 20"},
      {"grid id as the last tile id", [](I *, G *g) { g->first_tile_id = 17, g->last_tile_id = 20; },
       true, "grid tile ids 17..20 do not hold 2 x 2 tiles apart from grid 20"},
      {"grid id other than the item id", [](I *, G *g) { g->grid_item_id = 21; }, true,
       "grid item id(21) differs from item id(20)"},
      {"output larger than the tiles", [](I *, G *g) { g->output_width = 513; }, true,
       "grid output 513x512 does not match 2 x 2 tiles of 256x256"},
      {"a row of tiles outside the output", [](I *, G *g) { g->output_height = 256; }, true,
       "grid output 512x256 does not match 2 x 2 tiles of 256x256"},
  };
  for (const Case &c : kCases) {
    SCOPED_TRACE(c.name);
    Mux mux;
    ASSERT_EQ(mux.image(1, 0, Mux::info_for(fx.single, 512, 512)), 0);
    ASSERT_EQ(mux.frame(1, fx.single), 0);
    ASSERT_EQ(mux.cover(1), 0);
    tarnm_image_info info = Mux::info_for(c.grid ? fx.tiles[0] : fx.thumb, 128, 128);
    tarnm_grid_info grid{512, 512, 2, 2, 10, 13, 20, 0};
    if (c.grid) info.width = info.height = 256;
    c.mutate(&info, &grid);
    tarn_test::LogCapture cap;
    EXPECT_EQ(mux.image(20, 0, info, c.grid ? &grid : nullptr), -1);
    EXPECT_TRUE(cap.has("failed to set image info!", "tarnm")) << cap.dump();
    EXPECT_TRUE(!c.line || cap.has(c.line)) << cap.dump();
    tarn_test::check_with_reader(mux.finish(), mux.expect);
  }
  // The largest accepted: 4096x3072, 768 tiles, three bit depths.
  Mux mux;
  EXPECT_EQ(mux.image(1, 0, Mux::info_for(fx.single, 4096, 3072)), 0);
  const tarnm_grid_info g{8192, 6144, 24, 32, 10, 10 + 767, 800, 0};
  EXPECT_EQ(mux.image(800, 0, Mux::info_for(fx.tiles[0], 256, 256), &g), 0);
  const tarnm_grid_info row{16384, 64, 1, 256, 2000, 2255, 2300, 0};  // the widest row of tiles
  EXPECT_EQ(mux.image(2300, 0, Mux::info_for(fx.tiles[0], 64, 64), &row), 0);
  const tarnm_grid_info one{256, 256, 1, 1, 3000, 3000, 3001, 0};  // a single tile, as phones write
  tarnm_image_info nclx = Mux::info_for(fx.tiles[0], 256, 256);  // whose tiles take no nclx
  static const uint8_t kNclx[7] = {1, 0, 13, 0, 6, 0, 1};
  nclx.color_type = 1, nclx.color_data = kNclx, nclx.color_size = sizeof kNclx;
  EXPECT_EQ(mux.image(3001, 0, nclx, &one), 0);
  const tarnm_grid_info tall{768, 65535, 256, 3, 1000, 1000 + 767, 900, 0};  // 256 rows, 16-bit height
  EXPECT_EQ(mux.image(900, 0, Mux::info_for(fx.tiles[0], 256, 256), &tall), 0);
  tarnm_image_info deep = Mux::info_for(fx.thumb, 128, 128);
  deep.bit_depth = kDepths;
  deep.bit_depth_info_count = 3;
  static const uint8_t kIcc[64] = {0, 0, 0, 64};
  deep.color_type = 2;
  deep.color_data = kIcc;
  deep.color_size = sizeof kIcc;
  EXPECT_EQ(mux.image(801, 0, deep), 0);
  tarnm_image_info stale = Mux::info_for(fx.thumb, 128, 128);
  stale.param_sets.pps_size[1] = 9;  // past pps_count: never read
  EXPECT_EQ(mux.image(803, 0, stale), 0);
  // Equal hvcC, ispe, pixi and colour are one box each.
  const uint32_t boxes = mux.st().ipco_list.elem_count;
  EXPECT_EQ(mux.image(802, 0, deep), 0);
  EXPECT_EQ(mux.st().ipco_list.elem_count, boxes);
  EXPECT_EQ(mux.image(0xFFFF, 0, deep), 0);  // the largest item id
  deep.color_type = 4;  // a colour of no known type takes no box
  deep.color_data = kDepths, deep.color_size = sizeof kDepths;
  EXPECT_EQ(mux.image(804, 0, deep), 0);
  EXPECT_EQ(mux.st().ipco_list.elem_count, boxes);
  // Exif and XMP slots: the last one is taken, one more is refused.
  Mux full;
  tarnm_image_info e = Mux::info_for(fx.thumb, 128, 128);
  e.exif_data = e.xmp_data = kExif;
  e.exif_size = sizeof kExif, e.xmp_size = 4;
  for (uint32_t id = 1; id <= 127; ++id) ASSERT_EQ(full.image(id, 0, e), 0);
  e.xmp_data = nullptr, e.xmp_size = 0;
  EXPECT_EQ(full.image(128, 0, e), 0);
  EXPECT_EQ(full.image(129, 0, e), -1);
  // Exif on the largest id leaves no id for its own item: the finish fails.
  Mux top;
  ASSERT_EQ(top.image(0xFFFF, 0, e), 0);
  tarn_test::LogCapture cap;
  EXPECT_EQ(tarnm_stop_muxing(top.ctx), -3);
  EXPECT_TRUE(cap.has("no item id left above 65535", "tarnm")) << cap.dump();
  // A pixi that would be the 128th property fails the whole registration.
  Mux many;
  tarnm_image_info p = Mux::info_for(fx.thumb, 128, 128);
  p.bit_depth = kDepths, p.bit_depth_info_count = 1;
  for (uint32_t id = 1; id <= 125; ++id) {
    p.width = 8 * id;
    ASSERT_EQ(many.image(id, 0, p), 0);
  }
  p.width = 8, p.bit_depth_info_count = 2;
  EXPECT_EQ(many.image(126, 0, p), -1);
  // So do the tiles' irot of a grid whose other properties all exist.
  p.bit_depth_info_count = 1, p.rotation = 90;
  const tarnm_grid_info single{8, 128, 1, 1, 200, 200, 201, 0};
  EXPECT_EQ(many.image(201, 0, p, &single), -1);
  EXPECT_EQ(many.image(202, 0, p), -1);  // and an image's own irot
  // 255 grids fill the item data; the 256th is refused.
  Mux grids;
  const tarnm_image_info tile = Mux::info_for(fx.thumb, 128, 128);
  for (uint32_t id = 2; id <= 512; id += 2) {  // over one tile each
    const tarnm_grid_info layout{128, 128, 1, 1, id - 1, id - 1, uint16_t(id), 0};
    ASSERT_EQ(grids.image(id, 0, tile, &layout), id < 512 ? 0 : -1) << id;
  }
  // 13 x 14 tiles of 1024 x 1024 make a grid within the pixel limit; 14 x 14 do not.
  const tarnm_image_info wide = Mux::info_for(fx.thumb, 1024, 1024);
  for (const uint32_t n : {13u, 14u}) {
    Mux big;
    const tarnm_grid_info layout{1024 * 14, 1024 * n, n, 14, 1, n * 14, uint16_t(n * 14 + 1), 0};
    EXPECT_EQ(big.image(n * 14 + 1, 0, wide, &layout), n == 13 ? 0 : -1);
  }
  Mux spare;  // the second column of tiles would lie wholly outside the output
  const tarnm_grid_info narrow{128, 128, 1, 2, 1, 2, 3, 0};
  EXPECT_EQ(spare.image(3, 0, tile, &narrow), -1);
  Mux flat;  // 65 tiles in a row cover a width that the grid record cannot hold
  const tarnm_grid_info strip{65600, 1024, 1, 65, 1, 65, 66, 0};
  EXPECT_EQ(flat.image(66, 0, wide, &strip), -1);
  // Sixteen stereo pairs fill the entity groups; the seventeenth is refused.
  Mux pairs;
  tarnm_image_info pair = Mux::info_for(fx.thumb, 128, 128);
  ASSERT_EQ(pairs.image(1, 0, pair), 0);
  pair.img_type = IMG_TYPE_STEREO;
  for (uint32_t id = 2; id <= 17; ++id) ASSERT_EQ(pairs.image(id, 1, pair), 0);
  EXPECT_EQ(pairs.image(18, 1, pair), -1);
  EXPECT_EQ(pairs.image(19, 0, Mux::info_for(fx.thumb, 128, 128)), 0);  // a plain image takes no group
  EXPECT_EQ(tarnm_set_cover_image(mux.ctx, -1), -1);
  EXPECT_EQ(tarnm_set_cover_image(nullptr, 1), -1);
}

TEST(Intake, StartCodesBecomeLengths) {
  // Units of 58 (or 59), 70 and 10 bytes: a start code straddles the end of
  // the converter's first 64-byte block (or begins at its last byte), another
  // lies in the third.
  auto three_units = [](uint8_t first, bool converted) {
    Bytes b;
    for (uint8_t len : {first, uint8_t(70), uint8_t(10)}) {
      b.insert(b.end(), {0, 0, 0, converted ? len : uint8_t(1)});
      b.insert(b.end(), len, 0x66);
    }
    return b;
  };
  const struct {
    const char *name;
    Bytes in, out;
  } kCases[] = {
      {"start codes across blocks", three_units(58, false), three_units(58, true)},
      {"start code from a block's last byte", three_units(59, false), three_units(59, true)},
      {"3-byte start code stays inside", {0, 0, 0, 1, 0x26, 0, 0, 1, 0x28, 7},
       {0, 0, 0, 6, 0x26, 0, 0, 1, 0x28, 7}},
      {"start code at the very end", {0, 0, 0, 1, 0x26, 9, 0, 0, 0, 1},
       {0, 0, 0, 2, 0x26, 9, 0, 0, 0, 1}},
      {"empty unit stops the conversion", {0, 0, 0, 1, 0, 0, 0, 1, 0x26, 0, 0, 0, 1, 0x28},
       {0, 0, 0, 1, 0, 0, 0, 1, 0x26, 0, 0, 0, 1, 0x28}},
      {"zeros before a start code belong to the unit", {0, 0, 0, 1, 0x26, 0, 0, 0, 0, 1, 0x28},
       {0, 0, 0, 2, 0x26, 0, 0, 0, 0, 1, 0x28}},
  };
  for (const auto &c : kCases) {
    SCOPED_TRACE(c.name);
    Mux mux;
    ASSERT_EQ(tarnm_put_frm(mux.ctx, 1, c.in.data(), uint32_t(c.in.size())), 0);
    EXPECT_EQ(Bytes(mux.st().write_ptr - c.in.size(), mux.st().write_ptr), c.out);
  }
  // A frame cut anywhere is stored without reading past its end (sanitizer
  // build) and with its first length entry intact.
  const tarn_test::Streams &fx = tarn_test::streams();
  tarn_test::HevcStream units;
  units.slices = {fx.thumb.vps[0], fx.thumb.sps[0], fx.thumb.slices[0]};
  const Bytes frame = units.frame();
  Mux mux;
  const size_t vps = fx.thumb.vps[0].size();
  for (size_t len = 5; len <= frame.size(); len += 7) {
    Bytes cut(frame.begin(), frame.begin() + long(len));
    cut.shrink_to_fit();
    ASSERT_EQ(tarnm_put_frm(mux.ctx, 1, cut.data(), uint32_t(len)), 0);
    EXPECT_EQ(tarn_test::be32(mux.st().write_ptr - len), len < 4 + vps ? len - 4 : vps) << len;
  }
}

TEST(Intake, RefusalsLeaveNothingBehind) {
  static const uint8_t kNoCode[] = {0x40, 1, 0x0C, 1, 0xFF}, kThree[] = {0, 0, 1, 0x40, 1, 0x0C},
                       kCodeOnly[] = {0, 0, 0, 1};
  const struct {
    const uint8_t *data;
    uint32_t size;
    const char *line;
  } kCases[] = {
      {kNoCode, sizeof kNoCode, "frame of item 1 does not start with a start code"},
      {kThree, sizeof kThree, "frame of item 1 does not start with a start code"},
      {kCodeOnly, 4, "frame of item 1 does not start with a start code"},
      {nullptr, 8, "invalid frame of item 1. size : 8"},
      {kThree, 0, "invalid frame of item 1. size : 0"},
      {kThree, 0x80000000u, "invalid frame of item 1. size : 2147483648"},
  };
  for (const auto &c : kCases) {
    SCOPED_TRACE(c.line);
    Mux mux;
    const int32_t before = tarnm_get_outputbuffer_size(mux.ctx);
    tarn_test::LogCapture cap;
    EXPECT_EQ(tarnm_put_frm(mux.ctx, 1, c.data, c.size), -1);
    EXPECT_TRUE(cap.has(c.line, "tarnm")) << cap.dump();
    EXPECT_EQ(tarnm_get_outputbuffer_size(mux.ctx), before);
    EXPECT_EQ(mux.st().iloc_list.elem_count, 0u);
  }
  uint32_t offset = 77;
  Mux empty;
  EXPECT_EQ(tarnm_put_metadata(empty.ctx, 3, kCodeOnly, 0, &offset), -1);
  EXPECT_EQ(tarnm_put_metadata(empty.ctx, 3, nullptr, 4, &offset), -1);
  EXPECT_EQ(tarnm_put_metadata(empty.ctx, 3, kCodeOnly, 0x80000000u, &offset), -1);
  EXPECT_EQ(tarnm_put_metadata(nullptr, 3, kCodeOnly, 4, &offset), -1);
  EXPECT_EQ(offset, 77u);
  EXPECT_EQ(tarnm_put_metadata(empty.ctx, 3, kCodeOnly, 4, &offset), 0);
  // A frame larger than the heap grown for the registered images is refused.
  const tarn_test::Streams &fx = tarn_test::streams();
  for (uint32_t id : {6u, 7u}) ASSERT_EQ(empty.image(id, 0, Mux::info_for(fx.single, 4096, 3072)), 0);
  Bytes huge(24u << 20, 0x55);
  huge[0] = huge[1] = huge[2] = 0, huge[3] = 1;
  EXPECT_EQ(tarnm_put_frm(empty.ctx, 6, huge.data(), uint32_t(huge.size())), -4);
  // A frame under a grid's id, then a tile that never arrives: both refused;
  // the file finishes once the tile is there.
  Mux mux;
  const tarnm_grid_info g{512, 512, 2, 2, 1, 4, 5, 0};
  ASSERT_EQ(mux.image(5, 0, Mux::info_for(fx.tiles[0], 256, 256), &g), 0);
  ASSERT_EQ(mux.cover(5), 0);
  tarn_test::LogCapture cap;
  EXPECT_EQ(mux.frame(5, fx.tiles[0]), -1);
  EXPECT_TRUE(cap.has("item 5 is a grid and takes no frame", "tarnm"));
  for (uint32_t id : {1u, 2u, 3u}) ASSERT_EQ(mux.frame(id, fx.tiles[0]), 0);
  EXPECT_EQ(tarnm_stop_muxing(mux.ctx), -3);
  EXPECT_TRUE(cap.has("grid 5 misses the frame of tile 4", "tarnm")) << cap.dump();
  ASSERT_EQ(mux.frame(4, fx.tiles[0]), 0);
  tarn_test::check_with_reader(mux.finish(), mux.expect);
}

TEST(Finalise, MetadataFollowsTheFrameInMdat) {
  const tarn_test::Streams &fx = tarn_test::streams();
  static const uint8_t kXmp[] = "<x:xmpmeta/>";
  Mux mux;
  tarnm_image_info i = Mux::info_for(fx.single, 512, 512);
  i.exif_data = kExif;
  i.exif_size = sizeof kExif;
  i.xmp_data = kXmp;
  i.xmp_size = sizeof kXmp;
  ASSERT_EQ(mux.image(1, 0, i), 0);
  // An image whose frame never comes: only its item description names id 2.
  ASSERT_EQ(mux.image(2, 0, Mux::info_for(fx.thumb, 128, 128)), 0);
  ASSERT_EQ(mux.frame(1, fx.single), 0);
  ASSERT_EQ(mux.cover(1), 0);
  uint32_t offset = 0;
  EXPECT_EQ(tarnm_get_metadata_offset(mux.ctx, 7, 1, &offset), -1);
  EXPECT_EQ(tarnm_get_metadata_offset(mux.ctx, 1, 0, nullptr), -1);
  const Bytes file = mux.finish();
  ASSERT_GT(file.size(), 32u);
  EXPECT_EQ(tarn_test::be32(&file[24]), 8 + fx.single.frame().size() + 4 + sizeof kExif + sizeof kXmp);
  ASSERT_EQ(tarnm_get_metadata_offset(mux.ctx, 1, 0, &offset), 0);
  ASSERT_LE(offset + 8, file.size());
  EXPECT_EQ(Bytes(&file[offset], &file[offset] + 8), Bytes({0, 0, 0, 6, 'E', 'x', 'i', 'f'}));
  ASSERT_EQ(tarnm_get_metadata_offset(mux.ctx, 1, 1, &offset), 0);
  ASSERT_LE(offset + sizeof kXmp, file.size());
  EXPECT_EQ(std::memcmp(&file[offset], kXmp, sizeof kXmp), 0);
  tarn_test::check_with_reader(file, mux.expect);
  EXPECT_EQ(tarnm_stop_muxing(mux.ctx), -3);  // finishing twice would describe all twice
}

}  // namespace
