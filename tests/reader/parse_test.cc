// Box walker and box parsers on malformed and unusual files built with the
// box builder: header sizes, nesting, counts larger than the data, missing
// items, property slots, references, hvcC streams, descriptive properties
// and groups.
#include <gtest/gtest.h>

#include "reader/helpers.h"
#include "support/log_capture.h"

namespace tarn_test {
namespace {

using namespace fx;

Bytes with_iinf_iloc(const Bytes &iinf_box, const Bytes &iloc_box) {
  return file({iinf_box, iloc_box, default_iprp()});
}
Bytes with_props(const std::vector<Bytes> &props, const Bytes &ipma = ipma1(1, {1})) {
  return file({iinf({infe(1, "hvc1")}), iloc1(1, 0, 8), iprp(props, ipma)});
}
Bytes auxC(const Bytes &body) { return fullbox("auxC", 0, 0, {body}); }
Bytes ster(uint32_t id, uint32_t count, std::vector<uint32_t> ids) {
  Bytes out = cat({u32(id), u32(count)});
  for (uint32_t v : ids) append(&out, u32(v));
  return fullbox("ster", 0, 0, {out});
}
Bytes repeated(size_t n, const Bytes &one) {
  Bytes out;
  for (size_t i = 0; i < n; ++i) append(&out, one);
  return out;
}
// Item 1 hvc1, item 2 Exif, with extra boxes in meta.
Bytes two_items(std::initializer_list<Bytes> extra) {
  std::vector<Bytes> meta{iinf({infe(1, "hvc1"), infe(2, "Exif", 1)}),
                          fullbox("iloc", 0, 0, {u8(0x44), u8(0), u16(2), u16(1), u16(0), u16(1), u32(0), u32(8),
                                                 u16(2), u16(0), u16(1), u32(8), u32(4)}),
                          default_iprp()};
  meta.insert(meta.end(), extra);
  return file(meta);
}
Bytes iref(std::initializer_list<Bytes> refs) { return fullbox("iref", 0, 0, refs); }
const tarnd_property &prop(const tarnd_ctx *c, int i) { return c->meta.properties[i]; }
const tarnd_item &item0(const tarnd_ctx *c) { return c->meta.items[0]; }
Bytes config(const tarnd_ctx *c) {
  const auto &h = prop(c, 0).payload.hvcC;
  return Bytes(h.config_data, h.config_data + h.config_size);
}

// The open's status, the log line that says why, and checks of the model.
// clang-format off
struct Case { const char *name; Bytes bytes; int32_t err; const char *log; void (*check)(const tarnd_ctx *); };
// clang-format on

TEST(Parse, MalformedAndUnusualBoxes) {
  const Bytes valid = valid_file();
  const Case kCases[] = {
      // Box headers and the walk.
      {"32-bit size below 8 after the tables", cat({valid, u32(7), fourcc("free"), zeros(8)}), 0,
       "size of 32bit atom is too small", nullptr},
      {"8193 unknown boxes pass", cat({repeated(8193, box("zzzz")), valid}), 0, nullptr, nullptr},
      {"8194 unknown boxes stop", cat({repeated(8194, box("zzzz")), valid}), -2, "Too much unknown atom (8194)",
       nullptr},
      {"fewer than 8 trailing bytes", cat({valid, zeros(7)}), 0, nullptr, nullptr},
      {"size 0 runs to the end", cat({valid, u32(0), fourcc("free"), zeros(30)}), 0, nullptr, nullptr},
      {"largesize box", cat({ftyp(), box_large("free", {zeros(4)}), valid}), 0, nullptr, nullptr},
      {"2 GiB mdat located, not read", cat({valid, u32(1), fourcc("mdat"), u64(2147483648ull + 16)}), 0,
       nullptr, [](const tarnd_ctx *c) { EXPECT_EQ(c->mdat_size, 2147483648ull + 16); }},
      // Items and locations.
      {"iloc three extents and base offset: the last extent stays",
       with_iinf_iloc(iinf({infe(1, "hvc1")}),
                      fullbox("iloc", 1, 0, {u8(0x44), u8(0x40), u16(1), u16(1), u16(1), u16(0), u32(1000), u16(3),
                                             u32(1), u32(2), u32(3), u32(4), u32(50), u32(60)})),
       0, nullptr, [](const tarnd_ctx *c) {
         EXPECT_EQ(item0(c).offset, 1050u);
         EXPECT_EQ(item0(c).length, 60u);
         EXPECT_EQ(item0(c).construction_method, 1u);
       }},
      {"iloc entry without extents has no data",
       with_iinf_iloc(iinf({infe(1, "hvc1")}),
                      fullbox("iloc", 0, 0, {u8(0x44), u8(0x40), u16(1), u16(1), u16(0), u32(1000), u16(0)})),
       0, nullptr, [](const tarnd_ctx *c) { EXPECT_EQ(item0(c).offset + item0(c).length, 0u); }},
      // Properties and associations.
      {"no ipma", file({iinf({infe(1, "hvc1")}), iloc1(1, 0, 8), box("iprp", {box("ipco", {hvcC()})})}), -2,
       "ctx->meta.association_list is NULL", nullptr},
      {"ipma v1 flags 1: wide ids and indexes, unknown item skipped, index 0 dropped",
       with_props({hvcC(), ispe(10, 20), ispe(30, 40)},
                  fullbox("ipma", 1, 1,
                          {u32(2), u32(9), u8(1), u16(0x8002), u32(1), u8(3), u16(0x8001), u16(0), u16(3)})),
       0, nullptr, [](const tarnd_ctx *c) {
         EXPECT_EQ(c->meta.association_cnt, 3u);
         EXPECT_EQ(item0(c).view.image.ispe_width, 30u);  // the later ispe wins
         EXPECT_EQ(item0(c).view.image.hvcC_index, 0);
       }},
      {"second ipma merged", valid_file({ipma1(1, {2})}), 0, nullptr,
       [](const tarnd_ctx *c) { EXPECT_EQ(c->meta.association_cnt, 3u); }},
      // hvcC streams: VPS, SPS, PPS whatever the array order, SEI dropped.
      {"hvcC arrays PPS SPS VPS",
       with_props({box("hvcC", {zeros(21), u8(0xf1), u8(3), u8(34), u16(1), u16(2), u8(0x44), u8(1), u8(33), u16(1),
                                u16(2), u8(0x42), u8(1), u8(32), u16(1), u16(2), u8(0x40), u8(1)})}),
       0, nullptr, [](const tarnd_ctx *c) {
         EXPECT_EQ(config(c), Bytes({0, 0, 0, 1, 0x40, 1, 0, 0, 0, 1, 0x42, 1, 0, 0, 0, 1, 0x44, 1}));
         EXPECT_EQ(prop(c, 0).payload.hvcC.nal_length_size, 2u);
       }},
      {"hvcC two SPS arrays and an SEI array",
       with_props({box("hvcC", {zeros(21), u8(3), u8(3), u8(33), u16(1), u16(1), u8(0x42), u8(39), u16(1), u16(1),
                                u8(0x4e), u8(33), u16(1), u16(1), u8(0x43)})}),
       0, nullptr,
       [](const tarnd_ctx *c) { EXPECT_EQ(config(c), Bytes({0, 0, 0, 1, 0x42, 0, 0, 0, 1, 0x43})); }},
      // Descriptive properties.
      {"irot byte 0xff", with_props({box("irot", {u8(0xff)})}), 0, nullptr,
       [](const tarnd_ctx *c) { EXPECT_EQ(item0(c).view.image.irot_angle, 3u); }},
      {"colr prof larger than the source", with_props({box_sized(0x7ffffff0, "colr", {fourcc("prof"), zeros(4)})}),
       -2, "ctx->meta.association_list is NULL", nullptr},
      {"colr nclx and rICC",
       with_props({box("colr", {fourcc("nclx"), zeros(7)}), box("colr", {fourcc("rICC"), zeros(560)})}), 0,
       nullptr, [](const tarnd_ctx *c) {
         EXPECT_EQ(prop(c, 0).payload.colr.icc_size, 0u);
         EXPECT_EQ(prop(c, 1).payload.colr.icc_size, 560u);
         EXPECT_EQ(item0(c).view.image.colr_index, 0);
       }},
      {"auxC alpha with subtype", with_props({auxC(cat({str("urn:mpeg:hevc:2015:auxid:1"), u32(2), u16(0xabcd)}))}),
       0, nullptr, [](const tarnd_ctx *c) {
         EXPECT_EQ(prop(c, 0).payload.auxC.subtype_size, 2u);
         EXPECT_EQ(prop(c, 0).payload.auxC.subtype_data[1], 0xcd);
         EXPECT_EQ(item0(c).flags, TARND_ITEM_AUX_ALPHA);
       }},
      {"auxC depth without subtype, longer URN, gain map",
       with_props({auxC(str("urn:mpeg:hevc:2015:auxid:2")), auxC(str("urn:mpeg:hevc:2015:auxid:10")),
                   auxC(str("urn:com:orvanta:photo:2024:aux:hdrgainmap"))},
                  ipma1(1, {1, 2, 3})),
       0, nullptr, [](const tarnd_ctx *c) {
         EXPECT_EQ(prop(c, 0).payload.auxC.subtype_size, 0u);
         EXPECT_EQ(prop(c, 1).payload.auxC.aux_flags, 0u);
         EXPECT_EQ(item0(c).flags, TARND_ITEM_AUX_DEPTH | TARND_ITEM_AUX_GAINMAP);
       }},
      {"auxC subtype larger than the source",
       with_props({auxC(cat({str("urn:mpeg:hevc:2015:auxid:1"), u32(0xfffffff0u)}))}), -2,
       "ctx->meta.association_list is NULL", nullptr},
      // Groups.
      {"ster pair", two_items({box("grpl", {ster(7, 2, {1, 2})})}), 0, nullptr, [](const tarnd_ctx *c) {
         EXPECT_EQ(item0(c).flags & TARND_ITEM_STEREO_LEFT, TARND_ITEM_STEREO_LEFT);
         EXPECT_EQ(c->meta.items[1].flags & TARND_ITEM_STEREO_RIGHT, TARND_ITEM_STEREO_RIGHT);
       }},
      {"17 ster groups", two_items({box("grpl", {repeated(17, ster(100, 2, {1, 2}))})}), 0, "too many group count",
       [](const tarnd_ctx *c) { EXPECT_EQ(c->meta.group_cnt, 16u); }},
      // References.
      {"cdsc from Exif and dimg count 0",
       two_items({iref({box("cdsc", {u16(2), u16(1), u16(1)}), box("dimg", {u16(1), u16(0)})})}), 0,
       "reference count of 1 item is zero", [](const tarnd_ctx *c) {
         EXPECT_EQ(item0(c).flags, TARND_ITEM_HAS_EXIF);
         EXPECT_EQ(c->meta.items[1].referece_from_cnt, 1);
         EXPECT_EQ(item0(c).referece_from_cnt, 0);
       }},
  };
  for (const Case &c : kCases) {
    SCOPED_TRACE(c.name);
    LogCapture cap;
    int32_t err = 1;
    CtxPtr ctx = open_memory(c.bytes, &err);
    EXPECT_EQ(err, c.err) << cap.dump();
    ASSERT_EQ(ctx != nullptr, err == 0);
    EXPECT_TRUE(c.log == nullptr || cap.has(c.log)) << cap.dump();
    if (ctx != nullptr && c.check != nullptr) c.check(ctx.get());
  }
}

}  // namespace
}  // namespace tarn_test
