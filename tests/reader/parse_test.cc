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

// The open's status, a log line (exact text and tag) expected, and checks of the model.
// clang-format off
struct Case { const char *name; Bytes bytes; int32_t err; const char *log, *tag; void (*check)(const tarnd_ctx *); };
// clang-format on

TEST(Parse, MalformedAndUnusualBoxes) {
  const Bytes valid = valid_file();
  const char *const kWalk = "tarnd_parse", *const kParse = "tarnd_handlers";
  const Case kCases[] = {
      // Box headers and the walk.
      {"valid file", valid, 0, nullptr, nullptr, nullptr},
      {"32-bit size below 8 before meta", cat({ftyp(), u32(4), fourcc("free"), valid}), -2,
       "size of 32bit atom is too small", kWalk, nullptr},
      {"32-bit size below 8 after the tables", cat({valid, u32(7), fourcc("free"), zeros(8)}), 0,
       "size of 32bit atom is too small", kWalk, nullptr},
      {"64-bit size 15", cat({ftyp(), u32(1), fourcc("free"), u64(15), valid}), -2,
       "size of 64bit atom is too small", kWalk, nullptr},
      {"64-bit size wrapping the position", cat({ftyp(), u32(1), fourcc("free"), u64(~0ull)}), -2,
       "atom size is too big(18446744073709551615)", kWalk, nullptr},
      {"full box smaller than its header", cat({ftyp(), box_sized(8, "meta"), valid}), -2,
       "size of 32bit atom is too small", kWalk, nullptr},
      {"8193 unknown boxes pass", cat({repeated(8193, box("zzzz")), valid}), 0, nullptr, nullptr, nullptr},
      {"8194 unknown boxes stop", cat({repeated(8194, box("zzzz")), valid}), -2, "Too much unknown atom (8194)",
       kWalk, nullptr},
      {"trld past the source", cat({valid, box_sized(100, "trld", {zeros(8)})}), 0, "trld size is not matched",
       kWalk, nullptr},
      {"fewer than 8 trailing bytes", cat({valid, zeros(7)}), 0, nullptr, nullptr, nullptr},
      {"size 0 runs to the end", cat({valid, u32(0), fourcc("free"), zeros(30)}), 0, nullptr, nullptr, nullptr},
      {"largesize box", cat({ftyp(), box_large("free", {zeros(4)}), valid}), 0, nullptr, nullptr, nullptr},
      {"2 GiB mdat located, not read", cat({valid, u32(1), fourcc("mdat"), u64(2147483648ull + 16)}), 0,
       nullptr, nullptr, [](const tarnd_ctx *c) { EXPECT_EQ(c->mdat_size, 2147483648ull + 16); }},
      {"child past the source: the walk resumes at its container end",
       file({iinf({infe(1, "hvc1")}), iloc1(1, 0, 8), default_iprp(), box_sized(0x7fffffff, "free")}), 0,
       nullptr, nullptr, [](const tarnd_ctx *c) { EXPECT_EQ(c->mdat_size, 16u); }},
      {"infe inside ipco keeps the property indexes",
       file({iinf({infe(1, "hvc1")}), iloc1(1, 0, 8), iprp({infe(9, "hvc1"), hvcC()}, ipma1(1, {2}))}), 0,
       "box type : 1701211753 is in ipco box", kWalk, [](const tarnd_ctx *c) {
         EXPECT_EQ(c->meta.item_cnt, 1u);
         EXPECT_EQ(item0(c).view.image.hvcC_index, 1);
       }},
      // Items and locations.
      {"iinf count 0", with_iinf_iloc(fullbox("iinf", 0, 0, {u16(0)}), iloc1(1, 0, 8)), -2,
       "parser_iinf : item count is abnormal(0)", kParse, nullptr},
      {"iinf count beyond its bytes", with_iinf_iloc(fullbox("iinf", 1, 0, {u32(60000)}), iloc1(1, 0, 8)), -2,
       "parser_iinf : item count is abnormal(60000)", kParse, nullptr},
      {"infe ids not increasing",
       with_iinf_iloc(iinf({infe(1, "hvc1"), infe(2, "hvc1"), infe(2, "hvc1")}), iloc1(1, 0, 8)), -2,
       "item_ID does not increase. previous(2), current(2)", kParse, nullptr},
      {"iloc count beyond its bytes",
       with_iinf_iloc(iinf({infe(1, "hvc1")}), fullbox("iloc", 0, 0, {u8(0x44), u8(0), u16(9000), u16(1)})),
       -2, "parser_iloc : item count is abnormal(9000)", kParse, nullptr},
      {"iloc names an undeclared item", with_iinf_iloc(iinf({infe(1, "hvc1")}), iloc1(7, 0, 8)), -2,
       "parser_iloc : valid index for item(7) could not be found", kParse, nullptr},
      {"iloc with more items than iinf",
       with_iinf_iloc(iinf({infe(1, "hvc1")}),
                      fullbox("iloc", 1, 0, {u8(0x44), u8(0x40), u16(2), u16(1), u16(0), u16(0), u16(1), u32(0),
                                             u32(8), u16(2), u16(0), u16(0), u16(1), u32(0), u32(8)})),
       -2, "items are more than item count(1)", kParse, nullptr},
      {"iloc v2 id above 16 bits",
       with_iinf_iloc(iinf({infe(1, "hvc1")}), fullbox("iloc", 2, 0, {u8(0x44), u8(0), u32(1), u32(70000), u16(0),
                                                                       u16(0), u16(1), u32(0), u32(8)})),
       -2, "parser_iloc : item id is too big(70000)", kParse, nullptr},
      {"iloc three extents and base offset: the last extent stays",
       with_iinf_iloc(iinf({infe(1, "hvc1")}),
                      fullbox("iloc", 1, 0, {u8(0x44), u8(0x40), u16(1), u16(1), u16(1), u16(0), u32(1000), u16(3),
                                             u32(1), u32(2), u32(3), u32(4), u32(50), u32(60)})),
       0, nullptr, nullptr, [](const tarnd_ctx *c) {
         EXPECT_EQ(item0(c).offset, 1050u);
         EXPECT_EQ(item0(c).length, 60u);
         EXPECT_EQ(item0(c).construction_method, 1u);
       }},
      {"iloc entry without extents has no data",
       with_iinf_iloc(iinf({infe(1, "hvc1")}),
                      fullbox("iloc", 0, 0, {u8(0x44), u8(0x40), u16(1), u16(1), u16(0), u32(1000), u16(0)})),
       0, nullptr, nullptr, [](const tarnd_ctx *c) { EXPECT_EQ(item0(c).offset + item0(c).length, 0u); }},
      // Properties and associations.
      {"ipco of 7 payload bytes", with_props({zeros(7)}), -2, "parser_ipco : invalid item property count(0)",
       kParse, nullptr},
      {"second ipco refused", valid_file({box("ipco", {ispe(1, 1)})}), 0, "parser_ipco : duplicated ipco box",
       kParse, nullptr},
      {"ipma entry count beyond its payload", with_props({hvcC()}, fullbox("ipma", 0, 0, {u32(10), zeros(16)})),
       -2, "atom data size is abnormal. atom data size : 20, entry_cnt : 10", kParse, nullptr},
      {"no ipma", file({iinf({infe(1, "hvc1")}), iloc1(1, 0, 8), box("iprp", {box("ipco", {hvcC()})})}), -2,
       "ctx->meta.association_list is NULL", "tarnd", nullptr},
      {"ispe before ipco", file({ispe(1, 1)}), -2, "parser_ispe : abnormal file. maybe ipco box does not exist.",
       kParse, nullptr},
      {"ipma v1 flags 1: wide ids and indexes, unknown item skipped, index 0 dropped",
       with_props({hvcC(), ispe(10, 20), ispe(30, 40)},
                  fullbox("ipma", 1, 1,
                          {u32(2), u32(9), u8(1), u16(0x8002), u32(1), u8(3), u16(0x8001), u16(0), u16(3)})),
       0, nullptr, nullptr, [](const tarnd_ctx *c) {
         EXPECT_EQ(c->meta.association_cnt, 3u);
         EXPECT_EQ(item0(c).view.image.ispe_width, 30u);  // the later ispe wins
         EXPECT_EQ(item0(c).view.image.hvcC_index, 0);
       }},
      {"second ipma merged", valid_file({ipma1(1, {2})}), 0, nullptr, nullptr,
       [](const tarnd_ctx *c) { EXPECT_EQ(c->meta.association_cnt, 3u); }},
      // hvcC streams: VPS, SPS, PPS whatever the array order, SEI dropped.
      {"hvcC arrays PPS SPS VPS",
       with_props({box("hvcC", {zeros(21), u8(0xf1), u8(3), u8(34), u16(1), u16(2), u8(0x44), u8(1), u8(33), u16(1),
                                u16(2), u8(0x42), u8(1), u8(32), u16(1), u16(2), u8(0x40), u8(1)})}),
       0, nullptr, nullptr, [](const tarnd_ctx *c) {
         EXPECT_EQ(config(c), Bytes({0, 0, 0, 1, 0x40, 1, 0, 0, 0, 1, 0x42, 1, 0, 0, 0, 1, 0x44, 1}));
         EXPECT_EQ(prop(c, 0).payload.hvcC.nal_length_size, 2u);
       }},
      {"hvcC two SPS arrays and an SEI array",
       with_props({box("hvcC", {zeros(21), u8(3), u8(3), u8(33), u16(1), u16(1), u8(0x42), u8(39), u16(1), u16(1),
                                u8(0x4e), u8(33), u16(1), u16(1), u8(0x43)})}),
       0, nullptr, nullptr,
       [](const tarnd_ctx *c) { EXPECT_EQ(config(c), Bytes({0, 0, 0, 1, 0x42, 0, 0, 0, 1, 0x43})); }},
      {"hvcC cut inside a NAL unit",
       with_props({box_sized(40, "hvcC", {zeros(21), u8(3), u8(1), u8(33), u16(1), u16(200)})}), -2,
       "ctx->meta.association_list is NULL", "tarnd", nullptr},
      // Descriptive properties.
      {"irot byte 0xff", with_props({box("irot", {u8(0xff)})}), 0, nullptr, nullptr,
       [](const tarnd_ctx *c) { EXPECT_EQ(item0(c).view.image.irot_angle, 3u); }},
      {"colr prof without profile", with_props({box("colr", {fourcc("prof")})}), -2, "color data size is too big 4",
       kParse, nullptr},
      {"colr prof larger than the source", with_props({box_sized(0x7ffffff0, "colr", {fourcc("prof"), zeros(4)})}),
       -2, "ctx->meta.association_list is NULL", "tarnd", nullptr},
      {"colr nclx and rICC",
       with_props({box("colr", {fourcc("nclx"), zeros(7)}), box("colr", {fourcc("rICC"), zeros(560)})}), 0,
       nullptr, nullptr, [](const tarnd_ctx *c) {
         EXPECT_EQ(prop(c, 0).payload.colr.icc_size, 0u);
         EXPECT_EQ(prop(c, 1).payload.colr.icc_size, 560u);
         EXPECT_EQ(item0(c).view.image.colr_index, 0);
       }},
      {"auxC alpha with subtype", with_props({auxC(cat({str("urn:mpeg:hevc:2015:auxid:1"), u32(2), u16(0xabcd)}))}),
       0, nullptr, nullptr, [](const tarnd_ctx *c) {
         EXPECT_EQ(prop(c, 0).payload.auxC.subtype_size, 2u);
         EXPECT_EQ(prop(c, 0).payload.auxC.subtype_data[1], 0xcd);
         EXPECT_EQ(item0(c).flags, TARND_ITEM_AUX_ALPHA);
       }},
      {"auxC depth without subtype, longer URN, gain map",
       with_props({auxC(str("urn:mpeg:hevc:2015:auxid:2")), auxC(str("urn:mpeg:hevc:2015:auxid:10")),
                   auxC(str("urn:com:orvanta:photo:2024:aux:hdrgainmap"))},
                  ipma1(1, {1, 2, 3})),
       0, nullptr, nullptr, [](const tarnd_ctx *c) {
         EXPECT_EQ(prop(c, 0).payload.auxC.subtype_size, 0u);
         EXPECT_EQ(prop(c, 1).payload.auxC.aux_flags, 0u);
         EXPECT_EQ(item0(c).flags, TARND_ITEM_AUX_DEPTH | TARND_ITEM_AUX_GAINMAP);
       }},
      {"auxC without terminator", with_props({auxC(raw("urn:mpeg")), hvcC()}, ipma1(1, {2})), 0,
       "aux data is abnormal", kParse, [](const tarnd_ctx *c) { EXPECT_EQ(c->meta.property_cnt, 2); }},
      {"auxC subtype larger than the source",
       with_props({auxC(cat({str("urn:mpeg:hevc:2015:auxid:1"), u32(0xfffffff0u)}))}), -2,
       "ctx->meta.association_list is NULL", "tarnd", nullptr},
      // Groups.
      {"ster pair", two_items({box("grpl", {ster(7, 2, {1, 2})})}), 0, nullptr, nullptr, [](const tarnd_ctx *c) {
         EXPECT_EQ(item0(c).flags & TARND_ITEM_STEREO_LEFT, TARND_ITEM_STEREO_LEFT);
         EXPECT_EQ(c->meta.items[1].flags & TARND_ITEM_STEREO_RIGHT, TARND_ITEM_STEREO_RIGHT);
       }},
      {"17 ster groups", two_items({box("grpl", {repeated(17, ster(100, 2, {1, 2}))})}), 0, "too many group count",
       kParse, [](const tarnd_ctx *c) { EXPECT_EQ(c->meta.group_cnt, 16u); }},
      {"ster count beyond its payload", two_items({box("grpl", {ster(7, 0x40000000, {1})})}), 0,
       "ster atom is too small size(24), entityCount(1073741824)", kParse,
       [](const tarnd_ctx *c) { EXPECT_EQ(c->meta.group_cnt, 0u); }},
      // References.
      {"cdsc from Exif and dimg count 0",
       two_items({iref({box("cdsc", {u16(2), u16(1), u16(1)}), box("dimg", {u16(1), u16(0)})})}), 0,
       "reference count of 1 item is zero", kParse, [](const tarnd_ctx *c) {
         EXPECT_EQ(item0(c).flags, TARND_ITEM_HAS_EXIF);
         EXPECT_EQ(c->meta.items[1].referece_from_cnt, 1);
         EXPECT_EQ(item0(c).referece_from_cnt, 0);
       }},
      {"thmb to a missing item", two_items({iref({box("thmb", {u16(1), u16(2), u16(2), u16(9)})})}), 0,
       "parser_single_iref : valid index for to_item(9) could not be found", kParse,
       [](const tarnd_ctx *c) { EXPECT_EQ(item0(c).referece_from_cnt, 0); }},
      {"reference count beyond its bytes", two_items({iref({box("thmb", {u16(1), u16(40000), u16(2)})})}), 0,
       nullptr, nullptr, [](const tarnd_ctx *c) { EXPECT_EQ(item0(c).referece_from_cnt, 0); }},
      {"17 references from one item: the 17th is passed over, the walk goes on",
       two_items({iref({repeated(17, box("thmb", {u16(1), u16(1), u16(2)})), box("auxl", {u16(1), u16(1), u16(2)})})}),
       0, "too many referece_from_cnt. ignore reference", kParse, [](const tarnd_ctx *c) {
         EXPECT_EQ(item0(c).referece_from_cnt, 16);
         EXPECT_EQ(c->meta.items[1].flags & TARND_ITEM_HAS_AUX, 0u);
       }},
  };
  for (const Case &c : kCases) {
    SCOPED_TRACE(c.name);
    LogCapture cap;
    int32_t err = 1;
    CtxPtr ctx = open_memory(c.bytes, &err);
    EXPECT_EQ(err, c.err) << cap.dump();
    ASSERT_EQ(ctx != nullptr, err == 0);
    EXPECT_TRUE(c.log == nullptr || cap.has(c.log, c.tag)) << cap.dump();
    if (ctx != nullptr && c.check != nullptr) c.check(ctx.get());
  }
}

// The walker finds handlers by binary search: the table must stay sorted.
TEST(Parse, HandlerTableIsSortedAndSearchable) {
  const tarnd_handler *rows = tarnd_handlers();
  for (int32_t i = 0; i < tarnd_handlers_cnt(); ++i) {
    EXPECT_TRUE(i == 0 || rows[i - 1].fcc < rows[i].fcc) << i;
    EXPECT_EQ(tarn_bsearch(rows, tarnd_handlers_cnt(), sizeof(*rows), &rows[i].fcc, tarnd_grammar_compare, nullptr),
              &rows[i]);
  }
  EXPECT_EQ(tarnd_search_fcc(fcc("iprp"), tarnd_handlers_containr_fcc(), 4), 3);
  EXPECT_EQ(tarnd_search_fcc(fcc("iref"), tarnd_handlers_containr_fcc(), 4), -1);
}

}  // namespace
}  // namespace tarn_test
