// Queries over small files built box by box: roles, image information,
// grid layouts, metadata bytes and references, with the malformed cases of
// each query (unknown items, wrong types, short grid data, data cut off).
#include <gtest/gtest.h>

#include <algorithm>

#include "reader/helpers.h"

namespace tarn_test {
namespace {

using namespace bb;

// Item 1 primary (64x48), 2 its thumbnail, 3 its alpha plane, 4 a tmap over
// 1 with gain map 5 (describing 2), 6 Exif of 1, 7 a 2x3 grid; a ster group
// of 1 alone (no pair), then one pairing 2 and 3.
// A property of unknown type still takes its slot in ipco.
Bytes role_file() {
  File f;
  f.infes = {infe(1, "hvc1"), infe(2, "hvc1"), infe(3, "hvc1"), infe(4, "tmap"),
             infe(5, "hvc1"), infe(6, "Exif"), infe(7, "grid")};
  f.locs.clear();
  for (uint16_t id = 1; id <= 7; ++id) f.locs.push_back({id, 0, 0, 0});
  f.ipco = cat({hvcc(), box("zzzz"), ispe(64, 48), fullbox("auxC", 0, 0, {str("urn:mpeg:hevc:2015:auxid:1")}),
                clap({128, 1, 48, 1, 0, 1, 0, 1}), clap({32, 1, 24, 1, 0, 1, 0, 1}),
                box("colr", {fourcc("prof"), raw("ICCDATA")})});
  f.ipma_box = ipma({{1, 0x81, 3, 7}, {2, 0x81, 3, 5}, {3, 0x81, 3, 4, 6}, {5, 0x81, 3}, {7, 3}});
  f.more = cat({iref(cat({ref("thmb", 2, {1}), ref("auxl", 3, {1}), ref("dimg", 4, {1, 5}),
                          ref("cdsc", 4, {2}), ref("cdsc", 6, {1}), ref("dimg", 7, {1, 2, 3, 5, 1, 2})})),
                box("grpl", {fullbox("ster", 0, 0, {u32(8), u32(1), u32(1)}),  // no pair
                             fullbox("ster", 0, 0, {u32(9), u32(2), u32(2), u32(3)})})});
  return f.build();
}

TEST(Query, RolesInformationAndReferences) {
  const Bytes file = role_file();  // read by the queries: must outlive ctx
  CtxPtr ctx = open_memory(file, nullptr);
  ASSERT_NE(ctx, nullptr);
  EXPECT_EQ(ctx->meta.property_cnt, 7);  // the unknown box among them
  // clang-format off
  struct Role { uint32_t code, ref_id; int32_t status; uint32_t id; };
  const Role kRoles[] = {
      {TARND_ID_PRIMARY, 0, 0, 1}, {TARND_ID_THUMBNAIL, TARND_ID_REF_PRIMARY, 0, 2}, {TARND_ID_AUXILIARY, 1, 0, 3},
      {TARND_ID_TONEMAP, 1, 0, 4}, {TARND_ID_GAINMAP, TARND_ID_REF_PRIMARY, 0, 5},
      {TARND_ID_STEREO_LEFT, 0, 0, 2}, {TARND_ID_STEREO_RIGHT, 0, 0, 3},
      {TARND_ID_THUMBNAIL, 3, -1, 0xFFFFFFFFu},  // no thumbnail of the alpha plane
      {TARND_ID_TONEMAP, 2, -1, 0xFFFFFFFFu},  // the tmap describes 2 (cdsc) but is not made from it
      {0, 0, 0, 0x5555u},  // an unknown code leaves the answer alone
  };
  // clang-format on
  for (const Role &c : kRoles) {
    uint32_t id = 0x5555u;
    EXPECT_EQ(tarnd_get_image_id(ctx.get(), c.code, c.ref_id, &id), c.status) << c.code;
    EXPECT_EQ(id, c.id) << c.code;
  }
  uint32_t id = 0, fake_magic[64] = {0x12345678u};
  EXPECT_EQ(tarnd_get_image_id(nullptr, TARND_ID_PRIMARY, 0, &id), -1);
  EXPECT_EQ(tarnd_get_image_id(fake_magic, TARND_ID_PRIMARY, 0, &id), -1);
  EXPECT_EQ(tarnd_get_image_id(ctx.get(), TARND_ID_PRIMARY, 0, nullptr), -1);
  uint32_t slot = 7;  // no table, or an empty one, has no item
  EXPECT_EQ(tarnd_find_itemIndex(nullptr, 1, 1, &slot) + tarnd_find_itemIndex(ctx->meta.items, 0, 1, &slot), -2);
  EXPECT_EQ(slot, 7u);
  tarnd_item three[3] = {};  // a search stays within its count, whichever path it takes
  three[0].item_id = 5, three[1].item_id = 9, three[2].item_id = 7;
  EXPECT_EQ(tarnd_find_itemIndex(three, 2, 7, &slot), -1);

  // Image information of real files (crops among it) is checked by the
  // corpus test; here the flags that tie an image to its auxiliary plane
  // and to its references, and no item.
  tarnd_image_info info = {};
  ASSERT_EQ(tarnd_get_info_image(ctx.get(), 3, &info), 0);
  EXPECT_EQ(info.flags, 0x1100u);
  ASSERT_EQ(tarnd_get_info_image(ctx.get(), 1, &info), 0);  // the image the alpha plane belongs to
  EXPECT_NE(info.flags & TARND_ITEM_HAS_AUX, 0u);
  ASSERT_EQ(tarnd_get_info_image(ctx.get(), 2, &info), 0);  // described by the tmap, which is no XMP
  EXPECT_EQ(info.flags & TARND_ITEM_HAS_MIME, 0u);
  // A tmap's dimg makes it neither a grid nor an overlay; a grid's does.
  for (const auto &want : {std::make_pair(4, 0u), std::make_pair(7, TARND_ITEM_GRID)}) {
    info = {};
    ASSERT_EQ(tarnd_get_info_image(ctx.get(), want.first, &info), 0);
    EXPECT_EQ(info.flags & (TARND_ITEM_GRID | TARND_ITEM_OVERLAY), want.second) << want.first;
  }
  EXPECT_EQ(tarnd_get_info_image(ctx.get(), 99, &info), -1);
  EXPECT_EQ(tarnd_get_info_image(ctx.get(), 1, nullptr), -1);

  // A tile list stops at count; an item without references is refused.
  std::vector<uint32_t> out(7, 0);
  EXPECT_EQ(tarnd_get_list_referenceto(ctx.get(), 7, out.data(), 4), 0);
  EXPECT_EQ(out, std::vector<uint32_t>({1, 2, 3, 5, 0, 0, 0}));
  EXPECT_EQ(tarnd_get_list_referenceto(ctx.get(), 1, out.data(), 7), -1);
  EXPECT_EQ(tarnd_get_list_referenceto(ctx.get(), 7, nullptr, 4), -1);
  // Frames: a grid has none, an unknown item zeroes the size.
  int32_t size = 0x5555;
  EXPECT_EQ(tarnd_get_image_frm(ctx.get(), 7, nullptr, 0, &size), -1);
  EXPECT_EQ(tarnd_get_image_frm(ctx.get(), 42, nullptr, 0, &size), -1);
  EXPECT_EQ(size, 0);
  EXPECT_EQ(tarnd_get_image_frm(ctx.get(), 1, nullptr, 0, nullptr), -1);
  // A caller's container list is searched within its count; a null one holds nothing.
  EXPECT_EQ(tarnd_search_fcc(fcc("meta"), "metadinf", 1), 0);
  EXPECT_EQ(tarnd_search_fcc(fcc("dinf"), "metadinf", 1), -1);
  EXPECT_EQ(tarnd_search_fcc(fcc("meta"), nullptr, 2), -1);
}

TEST(Query, ItemInformation) {
  const Bytes grid16 = cat({u16(0), u8(1), u8(2), u16(3840), u16(3024)});
  const Bytes exif = cat({u32(6), raw("Exif"), u16(0), raw("MM")});
  // clang-format off
  // item: item 2, describing item 1 (cdsc), its data in mdat or in idat
  // (method 1), its iloc length and offset when not the data's own; out:
  // grid words, or the data size.
  struct Item { uint16_t id; const char *type; Bytes data; uint16_t method = 0; int64_t length = -1;
                int64_t offset = -1; };
  struct Case { const char *name; Item item; uint32_t kind; int32_t ask, status; std::vector<uint32_t> out;
                Bytes bytes; };
  const Bytes tmap = cat({u8(0), u16(0xAABB)});
  const Case kCases[] = {
      {"grid, 16-bit sizes", {2, "grid", grid16}, TARND_INFO_GRID, 2, 0, {2, 3, 3840, 3024}, {}},
      {"grid, 32-bit sizes", {2, "grid", cat({u8(0), u8(1), u8(5), u8(7), u32(4032), u32(3024)})}, TARND_INFO_GRID, 2,
       0, {6, 8, 4032, 3024}, {}},
      {"grid of 3 bytes", {2, "grid", Bytes(3, 0)}, TARND_INFO_GRID, 2, -2, {0, 0, 16, 16}, {}},
      {"grid cut off by the file end", {2, "grid", grid16, 0, 100000}, TARND_INFO_GRID, 2, -6, {0, 0, 16, 16}, {}},
      {"grid in an unsupported location", {2, "grid", grid16, 2}, TARND_INFO_GRID, 2, -2, {0, 0, 16, 16}, {}},
      {"grid kind on an image", {2, "grid", grid16}, TARND_INFO_GRID, 1, -1, {77, 77, 77, 77}, {}},
      {"Exif in idat", {2, "Exif", exif, 1}, TARND_INFO_EXIF, 1, 0, {8}, cat({raw("Exif"), u16(0), raw("MM")})},
      {"Exif of 4 bytes", {2, "Exif", u32(0)}, TARND_INFO_EXIF, 1, 0, {0}, {}},
      {"Exif cut off by the file end", {2, "Exif", exif, 0, 70000}, TARND_INFO_EXIF, 1, -6, {77}, {}},
      {"no XMP", {2, "Exif", exif}, TARND_INFO_XMP, 1, 0, {77}, {}},
      {"tone map in idat", {2, "tmap", tmap, 1}, TARND_INFO_TONEMAP, 2, 0, {2}, u16(0xAABB)},
      {"tone map in the file", {2, "tmap", tmap}, TARND_INFO_TONEMAP, 2, 0, {2}, u16(0xAABB)},
      {"tone map past the file", {2, "tmap", tmap, 0, -1, 100000}, TARND_INFO_TONEMAP, 2, -1, {77}, {}},
      {"tone map of 1 byte", {2, "tmap", u8(0)}, TARND_INFO_TONEMAP, 2, -2, {0}, {}},
      {"tone map of 2 bytes", {2, "tmap", cat({u8(0), u8(7)})}, TARND_INFO_TONEMAP, 2, 0, {1}, u8(7)},
      {"tone map past idat", {2, "tmap", cat({u8(0), u16(1)}), 1, 9}, TARND_INFO_TONEMAP, 2, -2, {77}, {}},
      {"tone-map kind on an image", {2, "tmap", u16(1)}, TARND_INFO_TONEMAP, 1, 0, {77}, {}},
      {"kind 1", {2, "grid", grid16}, 1, 2, -2, {77, 77, 77, 77}, {}},
      {"unknown item", {2, "grid", grid16}, TARND_INFO_GRID, 3, -1, {77, 77, 77, 77}, {}},
  };
  // clang-format on
  for (const auto &c : kCases) {
    SCOPED_TRACE(c.name);
    const bool grid = c.kind == TARND_INFO_GRID || c.kind == 1;
    const Item &it = c.item;
    File f;
    f.infes = {infe(1, "hvc1"), infe(it.id, it.type)};
    f.iloc_version = 1;
    const int64_t length = it.length >= 0 ? it.length : int64_t(it.data.size());
    f.locs = {{1, 0, 0, 0}, {it.id, uint32_t(std::max<int64_t>(it.offset, 0)), uint32_t(length), it.method}};
    f.ipco = cat({hvcc(), ispe(16, 16)});
    f.ipma_box = ipma({{1, 0x81, 0x82}, {2, 0x82}});
    f.mdat = it.method == 1 ? Bytes() : it.data;
    f.more = cat({iref(ref("cdsc", 2, {1})), it.method == 1 ? box("idat", {it.data}) : Bytes()});
    const Bytes file = f.build();
    CtxPtr ctx = open_memory(file, nullptr);
    ASSERT_NE(ctx, nullptr);
    tarnd_grid_info g = {77, 77, 77, 77, 77};
    tarnd_item_data d = {nullptr, 77};
    EXPECT_EQ(tarnd_get_info_item(ctx.get(), c.ask, c.kind, grid ? static_cast<void *>(&g) : &d), c.status);
    if (grid) { EXPECT_EQ(std::vector<uint32_t>({g.rows, g.columns, g.output_width, g.output_height}), c.out); }
    if (!grid) { EXPECT_EQ(d.size, c.out[0]); }
    // Without bytes to give, no pointer is given either (nothing read).
    EXPECT_TRUE(c.bytes.empty() ? d.data == nullptr : Bytes(d.data, d.data + d.size) == c.bytes);
  }
}

// One frame of three NAL units, with length prefixes of 1, 2 and 4 bytes,
// stored whole or in two extents cut at every byte (laid out in order or
// the second first), in mdat or in idat: tolerant reading hands out the
// same start-code form from each, refuses a buffer one byte short (and a
// size too small for any start code, even without a buffer) and fails when
// the file ends one byte early.
TEST(Query, FramesFromEveryLayoutOfTheirExtents) {
  const std::vector<Bytes> units = {{0x26, 1, 2}, {0x02, 1, 2, 3, 4}, {0x28}};  // the last of one byte
  Bytes want;
  for (const Bytes &u : units) want = cat({want, u32(1), u});
  for (const uint8_t prefix : {1, 2, 4}) {
    Bytes data;
    for (const Bytes &u : units) data = cat({data, be(u.size(), prefix), u});
    const uint32_t n = uint32_t(data.size());
    for (uint32_t cut = 0; cut < n; ++cut) {
      for (const int layout : {0, 1, 2, 3}) {  // mdat in order, mdat second first, idat, mdat cut short
        SCOPED_TRACE("prefix " + std::to_string(prefix) + ", cut " + std::to_string(cut) + ", layout " +
                     std::to_string(layout));
        const Bytes a(data.begin(), data.begin() + cut), b(data.begin() + cut, data.end());
        File f;
        f.iloc_version = 1;
        f.ipco = cat({hvcc({}, 0, prefix), ispe(64, 64)});
        f.locs = {{1, 0, n, uint16_t(layout == 2)}};
        if (cut != 0) f.split = layout == 1 ? decltype(f.split){{n - cut, cut}, {0, n - cut}}
                                            : decltype(f.split){{0, cut}, {cut, n - cut}};
        f.mdat = layout == 1 ? cat({b, a}) : layout == 2 ? Bytes() : data;
        f.more = box("idat", {layout == 2 ? data : Bytes(n, 0)});  // mdat items must not read it
        Bytes file = f.build();
        if (layout == 3) file.pop_back();
        CtxPtr ctx = open_memory(file, nullptr, TARND_READ_TOLERANT);
        ASSERT_NE(ctx, nullptr);
        int32_t size = -1;
        Bytes buf(want.size() + 4, 0xEE);
        EXPECT_EQ(tarnd_get_image_frm(ctx.get(), 1, nullptr, 0, &size), layout == 3 ? -6 : 0);
        EXPECT_EQ(size, layout == 3 ? 0 : int32_t(want.size()));
        if (layout == 3) continue;
        EXPECT_EQ(tarnd_get_image_frm(ctx.get(), 1, buf.data(), int32_t(want.size()) - 1, &size), -4);
        EXPECT_EQ(tarnd_get_image_frm(ctx.get(), 1, nullptr, 1, &size), -4);  // a size bounds even no buffer
        EXPECT_EQ(tarnd_get_image_frm(ctx.get(), 1, buf.data(), int32_t(want.size()), &size), 0);
        EXPECT_EQ(buf, cat({want, Bytes(4, 0xEE)}));
      }
    }
  }
}

}  // namespace
}  // namespace tarn_test
