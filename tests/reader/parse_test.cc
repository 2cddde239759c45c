// Limits of the box walk and parser details that only the model shows:
// unknown-box and group counts, a located 2 GiB mdat, the extent strict
// reading keeps, an auxC subtype.
#include <gtest/gtest.h>

#include "reader/helpers.h"
#include "support/log_capture.h"

namespace tarn_test {
namespace {

using namespace fx;

Bytes with_iinf_iloc(const Bytes &iinf_box, const Bytes &iloc_box) {
  return file({iinf_box, iloc_box, default_iprp()});
}
Bytes with_props(const std::vector<Bytes> &props) {
  return file({iinf({infe(1, "hvc1")}), iloc1(1, 0, 8), iprp(props, ipma1(1, {1}))});
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
const tarnd_property &prop(const tarnd_ctx *c, int i) { return c->meta.properties[i]; }
const tarnd_item &item0(const tarnd_ctx *c) { return c->meta.items[0]; }
// The open's status, the log line that says why, and checks of the model.
// clang-format off
struct Case { const char *name; Bytes bytes; int32_t err; const char *log; void (*check)(const tarnd_ctx *); };
// clang-format on

TEST(Parse, MalformedAndUnusualBoxes) {
  const Bytes valid = valid_file();
  const Case kCases[] = {
      {"8193 unknown boxes pass", cat({repeated(8193, box("zzzz")), valid}), 0, nullptr, nullptr},
      {"8194 unknown boxes stop", cat({repeated(8194, box("zzzz")), valid}), -2, "Too much unknown atom (8194)",
       nullptr},
      {"2 GiB mdat located, not read", cat({valid, u32(1), fourcc("mdat"), u64(2147483648ull + 16)}), 0,
       nullptr, [](const tarnd_ctx *c) { EXPECT_EQ(c->mdat_size, 2147483648ull + 16); }},
      {"iloc three extents and base offset: the last extent stays",
       with_iinf_iloc(iinf({infe(1, "hvc1")}),
                      fullbox("iloc", 1, 0, {u8(0x44), u8(0x40), u16(1), u16(1), u16(1), u16(0), u32(1000), u16(3),
                                             u32(1), u32(2), u32(3), u32(4), u32(50), u32(60)})),
       0, nullptr, [](const tarnd_ctx *c) {
         EXPECT_EQ(item0(c).offset, 1050u);
         EXPECT_EQ(item0(c).length, 60u);
         EXPECT_EQ(item0(c).construction_method, 1u);
       }},
      {"auxC alpha with subtype", with_props({auxC(cat({str("urn:mpeg:hevc:2015:auxid:1"), u32(2), u16(0xabcd)}))}),
       0, nullptr, [](const tarnd_ctx *c) {
         EXPECT_EQ(prop(c, 0).payload.auxC.subtype_size, 2u);
         EXPECT_EQ(prop(c, 0).payload.auxC.subtype_data[1], 0xcd);
         EXPECT_EQ(item0(c).flags, TARND_ITEM_AUX_ALPHA);
       }},
      {"17 ster groups", valid_file({box("grpl", {repeated(17, ster(100, 2, {1, 1}))})}), 0, "too many group count",
       [](const tarnd_ctx *c) { EXPECT_EQ(c->meta.group_cnt, 16u); }},
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
