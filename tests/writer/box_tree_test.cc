// The meta box: every child written from known element lists compared byte
// for byte with the same tree built independently, payload writers at the
// cursor end, and the finished file parsed back by the reader.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "support/box_builder.h"
#include "support/log_capture.h"
#include "tarn/io.h"
#include "writer/intake.h"
#include "writer/internal.h"

namespace {

using namespace tarn_test::bb;

uint32_t fcc(const char *s) { return TARN_FCC(s[0], s[1], s[2], s[3]); }

struct Writer {
  tarnm_ctx *ctx;
  tarnm_state *st;
  Writer() {
    const tarnm_init_dsc dsc = {};
    ctx = tarnm_create(&dsc, nullptr);
    st = tarnm_checked_state(ctx);
  }
  ~Writer() { tarnm_delete(ctx); }
  Bytes file() {
    Bytes out(static_cast<size_t>(tarnm_get_outputbuffer_size(ctx)));
    EXPECT_EQ(0, tarnm_dump_image_to_outputbuffer(ctx, out.data()));
    return out;
  }
};

const Bytes kHdlr = fullbox("hdlr", 0, 0, {u32(0), fourcc("pict"), zeros(12), zeros(2)});

// Item data the state owns, as registration would have copied it.
void add_item_data(tarnm_state *st, uint32_t kind, const void *data, uint32_t size) {
  void *copy = malloc(size);
  ASSERT_NE(nullptr, copy);
  memcpy(copy, data, size);
  st->item_data[st->item_data_count++] = {kind, size, copy};
}

TEST(BoxTreeTest, EmptyWriterHasOnlyTheMandatoryBoxes) {
  Writer w;
  ASSERT_NE(nullptr, w.ctx);
  ASSERT_EQ(0, tarnm_atom_meta(w.st));
  const Bytes expected = fullbox(
      "meta", 0, 0,
      {kHdlr, fullbox("iinf", 0, 0, {u16(0)}), fullbox("pitm", 0, 0, {u16(0)}),
       box("iprp", {fullbox("ipma", 0, 0, {u32(0)})}),
       fullbox("iloc", 1, 0, {u8(0x44), u8(0), u16(0)})});
  const Bytes file = w.file();
  ASSERT_EQ(32 + expected.size(), file.size());
  EXPECT_EQ(expected, Bytes(file.begin() + 32, file.end()));
}

// A grid of two tiles, an XMP item, shared properties, references, a group
// and idat data: every child of meta present.
void populate(tarnm_state *st, uint32_t mdat_payload) {
  st->primary_item_id = 3;
  ASSERT_EQ(0, tarnm_add_element_infe(st, 1, fcc("hvc1"), 0));
  ASSERT_EQ(0, tarnm_add_element_infe(st, 2, fcc("hvc1"), 0));
  ASSERT_EQ(0, tarnm_add_element_infe(st, 3, fcc("grid"), 1));
  ASSERT_EQ(0, tarnm_add_element_infe(st, 4, fcc("mime"), 1));
  static const uint8_t kHvcc[23] = {1, 1, 0x60, 0, 0, 0, 0, 0, 0, 0, 0, 0, 90,
                                    0xF0, 0, 0xFC, 0xFD, 0xF8, 0xF8, 0, 0, 0x0F, 0};
  st->assoc_count = 0;
  ASSERT_EQ(0, tarnm_add_hvcc_property(st, kHvcc, sizeof kHvcc));  // 1
  ASSERT_EQ(0, tarnm_add_ispe_property(st, 64, 64));              // 2
  ASSERT_EQ(0, tarnm_add_element_ipma(st, 1, st->assoc_count, st->assoc));
  ASSERT_EQ(0, tarnm_add_element_ipma(st, 2, st->assoc_count, st->assoc));
  st->assoc_count = 0;
  ASSERT_EQ(0, tarnm_add_ispe_property(st, 128, 64));  // 3
  ASSERT_EQ(0, tarnm_add_irot_property(st, 90));       // 4
  // nclx colour in host order (little endian), full range; pixi is the one
  // property here that is not essential.
  static const uint8_t kNclx[7] = {1, 0, 13, 0, 6, 0, 1}, kDepths[3] = {8, 10, 12};
  st->image_info.color_type = 1;
  st->image_info.color_data = kNclx;
  st->image_info.color_size = 7;
  ASSERT_EQ(0, tarnm_add_colr_property(st, kNclx, 7));    // 5
  ASSERT_EQ(0, tarnm_add_pixi_property(st, kDepths, 3));  // 6
  ASSERT_EQ(0, tarnm_add_element_ipma(st, 3, st->assoc_count, st->assoc));
  const uint32_t tiles[2] = {1, 2};
  ASSERT_EQ(0, tarnm_add_element_itemtyperef(st, 3, fcc("dimg"), 2, tiles));
  const uint32_t described[1] = {3};
  ASSERT_EQ(0, tarnm_add_element_itemtyperef(st, 4, fcc("cdsc"), 1, described));
  const uint32_t alternatives[2] = {3, 1};
  ASSERT_EQ(0, tarnm_add_element_entity_group(st, 10, 2, alternatives, fcc("altr")));
  // Tiles in mdat, grid descriptor and XMP bytes in idat.
  const uint32_t data_start = st->mdat_offset + 8;
  ASSERT_EQ(0, tarnm_add_iloc_entry(st, 1, 0, data_start, mdat_payload / 2));
  ASSERT_EQ(0, tarnm_add_iloc_entry(st, 2, 0, data_start + mdat_payload / 2, mdat_payload / 2));
  ASSERT_EQ(0, tarnm_add_iloc_entry(st, 3, 1, 0, 8));
  ASSERT_EQ(0, tarnm_add_iloc_entry(st, 4, 1, 8, 5));
  tarnm_grid_info grid = {};
  grid.output_width = 128;
  grid.output_height = 64;
  grid.rows = 1;
  grid.columns = 2;
  grid.first_tile_id = 1;
  grid.last_tile_id = 2;
  grid.grid_item_id = 3;
  add_item_data(st, TARNM_ITEM_DATA_GRID, &grid, sizeof grid);
  add_item_data(st, TARNM_ITEM_DATA_TMAP, "<xmp>", 5);
  // The coded tiles and the mdat size, as intake and finalisation leave them.
  memset(st->write_ptr, 0x26, mdat_payload);
  st->write_ptr += mdat_payload;
  st->remaining -= static_cast<int32_t>(mdat_payload);
  const uint32_t mdat_size = 8 + mdat_payload;
  const uint8_t be[4] = {static_cast<uint8_t>(mdat_size >> 24), static_cast<uint8_t>(mdat_size >> 16),
                         static_cast<uint8_t>(mdat_size >> 8), static_cast<uint8_t>(mdat_size)};
  memcpy(st->heap + st->mdat_offset, be, 4);
}

Bytes expected_meta(uint32_t mdat_payload) {
  const uint32_t data_start = 32;
  const Bytes hvcc = box("hvcC", {u8(1), u8(1), u8(0x60), zeros(9), u8(90), u8(0xF0), u8(0),
                                  u8(0xFC), u8(0xFD), u8(0xF8), u8(0xF8), u16(0), u8(0x0F),
                                  u8(0)});
  auto infe = [](uint16_t id, uint32_t flags, const char *type) {
    return fullbox("infe", 2, flags, {u16(id), u16(0), fourcc(type), str("")});
  };
  auto loc = [](uint16_t id, uint16_t method, uint32_t off, uint32_t len) {
    return cat({u16(id), u16(method), u16(0), u16(1), u32(off), u32(len)});
  };
  return fullbox(
      "meta", 0, 0,
      {kHdlr,
       fullbox("iinf", 0, 0,
               {u16(4), infe(1, 1, "hvc1"), infe(2, 1, "hvc1"), infe(3, 0, "grid"),
                fullbox("infe", 2, 0,
                        {u16(4), u16(0), fourcc("mime"), str(""), str("application/rdf+xml")})}),
       fullbox("pitm", 0, 0, {u16(3)}),
       box("iprp",
           {box("ipco", {hvcc, fullbox("ispe", 0, 0, {u32(64), u32(64)}),
                         fullbox("ispe", 0, 0, {u32(128), u32(64)}), box("irot", {u8(3)}),
                         box("colr", {fourcc("nclx"), u16(1), u16(13), u16(6), u8(0x80)}),
                         fullbox("pixi", 0, 0, {u8(3), u8(8), u8(10), u8(12)})}),
            fullbox("ipma", 0, 0,
                    {u32(3), u16(1), u8(2), u8(0x81), u8(0x82), u16(2), u8(2), u8(0x81),
                     u8(0x82), u16(3), u8(4), u8(0x83), u8(0x84), u8(0x85), u8(0x06)})}),
       fullbox("iloc", 1, 0,
               {u8(0x44), u8(0), u16(4), loc(1, 0, data_start, mdat_payload / 2),
                loc(2, 0, data_start + mdat_payload / 2, mdat_payload / 2), loc(3, 1, 0, 8),
                loc(4, 1, 8, 5)}),
       box("idat", {u8(0), u8(0), u8(0), u8(1), u16(128), u16(64), raw("<xmp>")}),
       fullbox("iref", 0, 0,
               {box("dimg", {u16(3), u16(2), u16(1), u16(2)}),
                box("cdsc", {u16(4), u16(1), u16(3)})}),
       box("grpl", {fullbox("altr", 0, 0, {u32(10), u32(2), u32(3), u32(1)})})});
}

TEST(BoxTreeTest, EveryChildMatchesAnIndependentBuild) {
  Writer w;
  ASSERT_NE(nullptr, w.ctx);
  populate(w.st, 20);
  ASSERT_FALSE(testing::Test::HasFatalFailure());
  uint64_t sized = 0;
  for (const atom_desc *d = atom_meta_template; d->fcc != TARNM_ATOM_END; ++d) {
    uint64_t c = 0;
    atom_visit_size_inner(d, w.st, &c);
    if (c) sized += d->full_box ? tarnm_atomf_size(c) : tarnm_atom_size(c);
  }
  ASSERT_EQ(0, tarnm_atom_meta(w.st));
  const Bytes file = w.file();
  const Bytes expected = expected_meta(20);
  ASSERT_EQ(52 + expected.size(), file.size());
  EXPECT_EQ(expected, Bytes(file.begin() + 52, file.end()));
  // The size pass agrees with what was written.
  EXPECT_EQ(tarnm_atomf_size(sized), expected.size());
}

TEST(BoxTreeTest, GrowsTheHeapOnceWhenMetaDoesNotFit) {
  Writer w;
  ASSERT_NE(nullptr, w.ctx);
  populate(w.st, 20);
  ASSERT_FALSE(testing::Test::HasFatalFailure());
  // Leave 50 bytes: meta needs more, and the estimate allows a growth.
  const int32_t keep = w.st->remaining - 50;
  w.st->remaining = 50;
  w.st->heap_size -= static_cast<uint32_t>(keep);
  // The heap_size change makes capacity differ from the initial size, so the
  // growth takes the whole estimate.
  w.st->max_image_size = 1 << 20;
  tarn_test::LogCapture cap;
  ASSERT_EQ(0, tarnm_atom_meta(w.st));
  EXPECT_EQ(1u << 20, w.st->heap_size);
  const Bytes file = w.file();
  EXPECT_EQ(expected_meta(20), Bytes(file.begin() + 52, file.end()));
}

// ---- parse back through the reader ----

TEST(BoxTreeTest, ReaderParsesTheWrittenFile) {
  Writer w;
  ASSERT_NE(nullptr, w.ctx);
  populate(w.st, 20);
  ASSERT_FALSE(testing::Test::HasFatalFailure());
  ASSERT_EQ(0, tarnm_atom_meta(w.st));
  const Bytes file = w.file();

  tarnd_io_dsc io;
  ASSERT_EQ(0, tarnd_io_init_memory(&io, file.data(), file.size()));
  tarnd_file_info info = {};
  int32_t err = -100;
  tarnd_ctx *r = static_cast<tarnd_ctx *>(tarnd_create(&io, 0, &info, &err));
  ASSERT_NE(nullptr, r) << err;
  EXPECT_EQ(0, err);
  EXPECT_EQ(3, r->primary_item_id);
  EXPECT_EQ(32u, r->mdat_offset + 8);
  ASSERT_EQ(4u, r->meta.item_cnt);
  struct Item {
    uint16_t id;
    const char *type;
    uint32_t method;
    uint64_t offset, length;
  };
  const Item kItems[] = {{1, "hvc1", 0, 32, 10},
                         {2, "hvc1", 0, 42, 10},
                         {3, "grid", 1, 0, 8},
                         {4, "mime", 1, 8, 5}};
  for (const auto &it : kItems) {
    uint32_t slot = 0;
    ASSERT_EQ(0, tarnd_find_itemIndex(r->meta.items, r->meta.item_cnt, it.id, &slot)) << it.id;
    const tarnd_item &item = r->meta.items[slot];
    EXPECT_EQ(fcc(it.type), item.item_type) << it.id;
    EXPECT_EQ(it.method, item.construction_method) << it.id;
    EXPECT_EQ(it.offset, item.offset) << it.id;
    EXPECT_EQ(it.length, item.length) << it.id;
  }
  EXPECT_EQ(8u, r->meta.association_cnt);
  ASSERT_GE(r->meta.property_capacity, 4u);
  const char *kProps[] = {"hvcC", "ispe", "ispe", "irot"};
  for (int i = 0; i < 4; ++i) EXPECT_EQ(fcc(kProps[i]), r->meta.properties[i].type) << i;
  EXPECT_EQ(128u, r->meta.properties[2].payload.ispe.width);
  // idat holds the grid record, then the XMP bytes.
  ASSERT_EQ(13u, r->meta.idat_size);
  EXPECT_EQ(0, memcmp(r->meta.idat + 8, "<xmp>", 5));
  tarnd_delete(r);
}

}  // namespace
