// Box parsers on malformed and unusual input: counts larger than the data,
// duplicate and missing items, property slots, references, hvcC streams,
// descriptive properties and groups.
#include <gtest/gtest.h>

#include <cstring>

#include "common/log.h"
#include "reader/model_fixtures.h"
#include "reader/open_helpers.h"
#include "support/log_capture.h"

namespace tarn_test {
namespace {

using namespace bb;
using fx::file;
using fx::valid_file;

// Meta children of the valid file with the item, location or property boxes
// replaced.
std::vector<Bytes> meta_with(const Bytes &iinf, const Bytes &iloc, const Bytes &iprp,
                             std::initializer_list<Bytes> extra = {}) {
  std::vector<Bytes> out{fx::hdlr(), iinf, iloc, iprp};
  out.insert(out.end(), extra.begin(), extra.end());
  return out;
}

Bytes with_props(std::initializer_list<Bytes> props, const Bytes &ipma) {
  return file(meta_with(fx::iinf({fx::infe(1, "hvc1")}), fx::iloc1(1, 0, 8),
                        fx::iprp(props, ipma)));
}

Bytes iloc_v1(std::initializer_list<Bytes> entries, uint16_t count) {
  std::vector<Bytes> parts{u8(0x44), u8(0x40), u16(count)};
  parts.insert(parts.end(), entries.begin(), entries.end());
  return fullbox("iloc", 1, 0, parts);
}

Bytes auxC(const Bytes &body) { return fullbox("auxC", 0, 0, {body}); }

Bytes ster(uint32_t id, std::initializer_list<uint32_t> ids) {
  std::vector<Bytes> parts{u32(id), u32(static_cast<uint32_t>(ids.size()))};
  for (uint32_t v : ids) parts.push_back(u32(v));
  return fullbox("ster", 0, 0, parts);
}

Bytes many_ster(int n) {
  std::vector<Bytes> groups;
  for (int i = 0; i < n; ++i) groups.push_back(ster(100 + i, {1, 2}));
  return box("grpl", groups);
}

Bytes two_items(std::initializer_list<Bytes> extra) {
  return file(meta_with(fx::iinf({fx::infe(1, "hvc1"), fx::infe(2, "Exif", 1)}),
                        fullbox("iloc", 0, 0, {u8(0x44), u8(0), u16(2), u16(1), u16(0), u16(1),
                                               u32(0), u32(8), u16(2), u16(0), u16(1), u32(8),
                                               u32(4)}),
                        fx::default_iprp(), extra));
}

const tarnd_property &prop(const tarnd_ctx *c, int i) { return c->meta.properties[i]; }

struct ParseCase {
  const char *name;
  Bytes bytes;
  int32_t err;
  const char *log;  // exact text, or null
  const char *tag;
  void (*check)(const tarnd_ctx *);
};

TEST(Parsers, MalformedAndUnusualBoxes) {
  const ParseCase kCases[] = {
      // Items and locations.
      {"iinf count 0", file(meta_with(fullbox("iinf", 0, 0, {u16(0)}), fx::iloc1(1, 0, 8),
                                      fx::default_iprp())),
       -2, "parser_iinf : item count is abnormal(0)", "tarnd_handlers", nullptr},
      {"iinf count beyond its bytes", file(meta_with(fullbox("iinf", 1, 0, {u32(60000)}),
                                                     fx::iloc1(1, 0, 8), fx::default_iprp())),
       -2, "parser_iinf : item count is abnormal(60000)", "tarnd_handlers", nullptr},
      {"infe ids not increasing",
       file(meta_with(fx::iinf({fx::infe(1, "hvc1"), fx::infe(2, "hvc1"), fx::infe(2, "hvc1")}),
                      fx::iloc1(1, 0, 8), fx::default_iprp())),
       -2, "item_ID does not increase. previous(2), current(2)", "tarnd_handlers", nullptr},
      {"iloc count beyond its bytes",
       file(meta_with(fx::iinf({fx::infe(1, "hvc1")}),
                      fullbox("iloc", 0, 0, {u8(0x44), u8(0), u16(9000), u16(1)}),
                      fx::default_iprp())),
       -2, "parser_iloc : item count is abnormal(9000)", "tarnd_handlers", nullptr},
      {"iloc names an undeclared item",
       file(meta_with(fx::iinf({fx::infe(1, "hvc1")}), fx::iloc1(7, 0, 8), fx::default_iprp())),
       -2, "parser_iloc : valid index for item(7) could not be found", "tarnd_handlers", nullptr},
      {"iloc with more items than iinf",
       file(meta_with(fx::iinf({fx::infe(1, "hvc1")}),
                      iloc_v1({u16(1), u16(0), u16(0), u16(1), u32(0), u32(8), u16(2), u16(0),
                               u16(0), u16(1), u32(0), u32(8)},
                              2),
                      fx::default_iprp())),
       -2, "items are more than item count(1)", "tarnd_handlers", nullptr},
      {"iloc v2 id above 16 bits",
       file(meta_with(fx::iinf({fx::infe(1, "hvc1")}),
                      fullbox("iloc", 2, 0, {u8(0x44), u8(0), u32(1), u32(70000), u16(0), u16(0),
                                             u16(1), u32(0), u32(8)}),
                      fx::default_iprp())),
       -2, "parser_iloc : item id is too big(70000)", "tarnd_handlers", nullptr},
      {"iloc three extents and base offset",
       file(meta_with(fx::iinf({fx::infe(1, "hvc1")}),
                      fullbox("iloc", 1, 0, {u8(0x44), u8(0x40), u16(1), u16(1), u16(1), u16(0),
                                             u32(1000), u16(3), u32(1), u32(2), u32(3), u32(4),
                                             u32(50), u32(60)}),
                      fx::default_iprp())),
       0, nullptr, nullptr, [](const tarnd_ctx *c) {
         EXPECT_EQ(c->meta.items[0].offset, 1050u);
         EXPECT_EQ(c->meta.items[0].length, 60u);
         EXPECT_EQ(c->meta.items[0].construction_method, 1u);
       }},
      {"iloc entry without extents has no data",
       file(meta_with(fx::iinf({fx::infe(1, "hvc1")}),
                      fullbox("iloc", 0, 0, {u8(0x44), u8(0x40), u16(1), u16(1), u16(0),
                                             u32(1000), u16(0)}),
                      fx::default_iprp())),
       0, nullptr, nullptr, [](const tarnd_ctx *c) {
         EXPECT_EQ(c->meta.items[0].offset, 0u);
         EXPECT_EQ(c->meta.items[0].length, 0u);
       }},
      // Properties and associations.
      {"ipco of 7 payload bytes", with_props({zeros(7)}, fx::ipma1(1, {1})), -2,
       "parser_ipco : invalid item property count(0)", "tarnd_handlers", nullptr},
      {"second ipco refused",
       valid_file({box("ipco", {fx::ispe(1, 1)})}), 0, "parser_ipco : duplicated ipco box",
       "tarnd_handlers", nullptr},
      {"ipma entry count beyond its payload",
       with_props({fx::hvcC()}, fullbox("ipma", 0, 0, {u32(10), zeros(16)})), -2,
       "atom data size is abnormal. atom data size : 20, entry_cnt : 10", "tarnd_handlers",
       nullptr},
      {"no ipma",
       file(meta_with(fx::iinf({fx::infe(1, "hvc1")}), fx::iloc1(1, 0, 8),
                      box("iprp", {box("ipco", {fx::hvcC()})}))),
       -2, "ctx->meta.association_list is NULL", "tarnd", nullptr},
      {"ispe before ipco", file({fx::ispe(1, 1)}), -2,
       "parser_ispe : abnormal file. maybe ipco box does not exist.", "tarnd_handlers", nullptr},
      {"ipma v1 flags 1: wide ids and indexes, unknown item skipped, index 0 dropped",
       with_props({fx::hvcC(), fx::ispe(10, 20), fx::ispe(30, 40)},
                  fullbox("ipma", 1, 1, {u32(2), u32(9), u8(1), u16(0x8002), u32(1), u8(3),
                                         u16(0x8001), u16(0), u16(3)})),
       0, nullptr, nullptr, [](const tarnd_ctx *c) {
         EXPECT_EQ(c->meta.association_cnt, 3u);
         EXPECT_EQ(c->meta.items[0].view.image.ispe_width, 30u);  // the later ispe wins
         EXPECT_EQ(c->meta.items[0].view.image.hvcC_index, 0);
       }},
      {"second ipma merged", valid_file({fx::ipma1(1, {2})}), 0, nullptr, nullptr,
       [](const tarnd_ctx *c) { EXPECT_EQ(c->meta.association_cnt, 3u); }},
      // hvcC streams.
      {"hvcC arrays PPS SPS VPS",
       with_props({box("hvcC", {zeros(21), u8(0xf1), u8(3), u8(34), u16(1), u16(2), u8(0x44),
                                u8(1), u8(33), u16(1), u16(2), u8(0x42), u8(1), u8(32), u16(1),
                                u16(2), u8(0x40), u8(1)})},
                  fx::ipma1(1, {1})),
       0, nullptr, nullptr, [](const tarnd_ctx *c) {
         const uint8_t want[] = {0, 0, 0, 1, 0x40, 1, 0, 0, 0, 1, 0x42, 1, 0, 0, 0, 1, 0x44, 1};
         ASSERT_EQ(prop(c, 0).payload.hvcC.config_size, sizeof(want));
         EXPECT_EQ(memcmp(prop(c, 0).payload.hvcC.config_data, want, sizeof(want)), 0);
         EXPECT_EQ(prop(c, 0).payload.hvcC.nal_length_size, 2u);
       }},
      {"hvcC sizes 24 40 7", with_props({fx::hvcC()}, fx::ipma1(1, {1})), 0, nullptr, nullptr,
       [](const tarnd_ctx *c) { EXPECT_EQ(prop(c, 0).payload.hvcC.config_size, 83u); }},
      {"hvcC two SPS arrays and an SEI array",
       with_props({box("hvcC", {zeros(21), u8(3), u8(3), u8(33), u16(1), u16(1), u8(0x42),
                                u8(39), u16(1), u16(1), u8(0x4e), u8(33), u16(1), u16(1),
                                u8(0x43)})},
                  fx::ipma1(1, {1})),
       0, nullptr, nullptr, [](const tarnd_ctx *c) {
         const uint8_t want[] = {0, 0, 0, 1, 0x42, 0, 0, 0, 1, 0x43};
         ASSERT_EQ(prop(c, 0).payload.hvcC.config_size, sizeof(want));
         EXPECT_EQ(memcmp(prop(c, 0).payload.hvcC.config_data, want, sizeof(want)), 0);
       }},
      {"hvcC cut inside a NAL unit",
       with_props({box_sized(40, "hvcC", {zeros(21), u8(3), u8(1), u8(33), u16(1), u16(200)})},
                  fx::ipma1(1, {1})),
       -2, "ctx->meta.association_list is NULL", "tarnd", nullptr},
      // Descriptive properties.
      {"irot byte 0xff", with_props({box("irot", {u8(0xff)})}, fx::ipma1(1, {1})), 0, nullptr,
       nullptr, [](const tarnd_ctx *c) { EXPECT_EQ(c->meta.items[0].view.image.irot_angle, 3u); }},
      {"colr prof without profile", with_props({box("colr", {fourcc("prof")})}, fx::ipma1(1, {1})),
       -2, "color data size is too big 4", "tarnd_handlers", nullptr},
      {"colr prof larger than the source",
       with_props({box_sized(0x7ffffff0, "colr", {fourcc("prof"), zeros(4)})}, fx::ipma1(1, {1})),
       -2, "ctx->meta.association_list is NULL", "tarnd", nullptr},
      {"colr nclx and rICC", with_props({box("colr", {fourcc("nclx"), zeros(7)}),
                                         box("colr", {fourcc("rICC"), zeros(560)})},
                                        fx::ipma1(1, {1})),
       0, nullptr, nullptr, [](const tarnd_ctx *c) {
         EXPECT_EQ(prop(c, 0).payload.colr.icc_size, 0u);
         EXPECT_EQ(prop(c, 1).payload.colr.icc_size, 560u);
         EXPECT_EQ(c->meta.items[0].view.image.colr_index, 0);
       }},
      {"auxC alpha with subtype",
       with_props({auxC(cat({str("urn:mpeg:hevc:2015:auxid:1"), u32(2), u8(0xab), u8(0xcd)}))},
                  fx::ipma1(1, {1})),
       0, nullptr, nullptr, [](const tarnd_ctx *c) {
         EXPECT_EQ(prop(c, 0).payload.auxC.subtype_size, 2u);
         EXPECT_EQ(prop(c, 0).payload.auxC.subtype_data[1], 0xcd);
         EXPECT_EQ(c->meta.items[0].flags, TARND_ITEM_AUX_ALPHA);
       }},
      {"auxC depth without subtype, longer URN, gain map",
       with_props({auxC(str("urn:mpeg:hevc:2015:auxid:2")),
                   auxC(str("urn:mpeg:hevc:2015:auxid:10")),
                   auxC(str("urn:com:orvanta:photo:2024:aux:hdrgainmap"))},
                  fx::ipma1(1, {1, 2, 3})),
       0, nullptr, nullptr, [](const tarnd_ctx *c) {
         EXPECT_EQ(prop(c, 0).payload.auxC.subtype_size, 0u);
         EXPECT_EQ(prop(c, 1).payload.auxC.aux_flags, 0u);
         EXPECT_EQ(c->meta.items[0].flags, TARND_ITEM_AUX_DEPTH | TARND_ITEM_AUX_GAINMAP);
       }},
      {"auxC without terminator", with_props({auxC(raw("urn:mpeg")), fx::hvcC()},
                                             fx::ipma1(1, {2})),
       0, "aux data is abnormal", "tarnd_handlers",
       [](const tarnd_ctx *c) { EXPECT_EQ(c->meta.property_cnt, 2); }},
      {"auxC subtype larger than the source",
       with_props({auxC(cat({str("urn:mpeg:hevc:2015:auxid:1"), u32(0xfffffff0u)}))},
                  fx::ipma1(1, {1})),
       -2, "ctx->meta.association_list is NULL", "tarnd", nullptr},
      // Groups.
      {"ster pair", two_items({box("grpl", {ster(7, {1, 2})})}), 0, nullptr, nullptr,
       [](const tarnd_ctx *c) {
         EXPECT_EQ(c->meta.items[0].flags & TARND_ITEM_STEREO_LEFT, TARND_ITEM_STEREO_LEFT);
         EXPECT_EQ(c->meta.items[1].flags & TARND_ITEM_STEREO_RIGHT, TARND_ITEM_STEREO_RIGHT);
       }},
      {"17 ster groups", two_items({many_ster(17)}), 0, "too many group count", "tarnd_handlers",
       [](const tarnd_ctx *c) { EXPECT_EQ(c->meta.group_cnt, 16u); }},
      {"ster count beyond its payload",
       two_items({box("grpl", {fullbox("ster", 0, 0, {u32(7), u32(0x40000000), u32(1)})})}), 0,
       "ster atom is too small size(24), entityCount(1073741824)", "tarnd_handlers",
       [](const tarnd_ctx *c) { EXPECT_EQ(c->meta.group_cnt, 0u); }},
      // References.
      {"cdsc from Exif and dimg count 0",
       two_items({fullbox("iref", 0, 0, {box("cdsc", {u16(2), u16(1), u16(1)}),
                                         box("dimg", {u16(1), u16(0)})})}),
       0, "reference count of 1 item is zero", "tarnd_handlers", [](const tarnd_ctx *c) {
         EXPECT_EQ(c->meta.items[0].flags, TARND_ITEM_HAS_EXIF);
         EXPECT_EQ(c->meta.items[1].referece_from_cnt, 1);
         EXPECT_EQ(c->meta.items[0].referece_from_cnt, 0);
       }},
      {"thmb to a missing item",
       two_items({fullbox("iref", 0, 0, {box("thmb", {u16(1), u16(2), u16(2), u16(9)})})}), 0,
       "parser_single_iref : valid index for to_item(9) could not be found", "tarnd_handlers",
       [](const tarnd_ctx *c) { EXPECT_EQ(c->meta.items[0].referece_from_cnt, 0); }},
      {"reference count beyond its bytes",
       two_items({fullbox("iref", 0, 0, {box("thmb", {u16(1), u16(40000), u16(2)})})}), 0,
       nullptr, nullptr,
       [](const tarnd_ctx *c) { EXPECT_EQ(c->meta.items[0].referece_from_cnt, 0); }},
  };
  for (const ParseCase &c : kCases) {
    LogCapture cap;
    int32_t err = 1;
    CtxPtr ctx = open_memory(c.bytes, &err);
    EXPECT_EQ(err, c.err) << c.name << "\n" << cap.dump();
    if (c.log != nullptr) {
      EXPECT_TRUE(cap.has(c.log, c.tag)) << c.name << "\n" << cap.dump();
    }
    if (ctx != nullptr && c.check != nullptr) {
      SCOPED_TRACE(c.name);
      c.check(ctx.get());
    }
  }
}

TEST(Parsers, SeventeenthReferenceIsPassedOver) {
  std::vector<Bytes> refs;
  for (int i = 0; i < 17; ++i) refs.push_back(box("thmb", {u16(1), u16(1), u16(2)}));
  refs.push_back(box("auxl", {u16(1), u16(1), u16(2)}));
  LogCapture cap;
  CtxPtr ctx = open_memory(two_items({fullbox("iref", 0, 0, refs)}), nullptr);
  ASSERT_NE(ctx, nullptr);
  EXPECT_TRUE(cap.has("too many referece_from_cnt. ignore reference", "tarnd_handlers"));
  EXPECT_EQ(ctx->meta.items[0].referece_from_cnt, 16);
  EXPECT_EQ(ctx->meta.items[1].flags & TARND_ITEM_HAS_AUX, 0u);  // the walk went on past 17
}

}  // namespace
}  // namespace tarn_test
