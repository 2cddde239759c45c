// Element builders: each element compared byte for byte with the same box
// built independently, shared properties, and the refusals that keep the
// fixed tables and the 7/16-bit fields from overflowing.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <vector>

#include "support/box_builder.h"
#include "support/log_capture.h"
#include "writer/internal.h"

namespace {

using namespace tarn_test::bb;
using Build = std::function<int32_t(tarnm_state *)>;

struct Writer {
  tarnm_ctx *ctx;
  tarnm_state *st;
  Writer() {
    const tarnm_init_dsc dsc = {};
    ctx = tarnm_create(&dsc, nullptr);
    st = tarnm_checked_state(ctx);
  }
  ~Writer() { tarnm_delete(ctx); }
};

// All elements of a sized list, concatenated.
Bytes list_bytes(tarn_mblk *list) {
  Bytes buf(static_cast<size_t>(tarn_mblk_total_datasize(list)));
  tarnm_state out{};
  out.write_ptr = buf.data();
  out.remaining = static_cast<int32_t>(buf.size());
  EXPECT_EQ(static_cast<int32_t>(list->elem_count), tarn_mblk_dump_size(list, &out));
  return buf;
}

uint32_t fcc(const char *s) { return TARN_FCC(s[0], s[1], s[2], s[3]); }

void set_colour(tarnm_state *s, uint32_t type, const uint8_t *data, uint32_t size) {
  s->image_info.color_type = type;
  s->image_info.color_data = data;
  s->image_info.color_size = size;
}

TEST(BuildersTest, AuxCBoxes) {
  // The one property box the meta test does not carry.
  static const uint8_t kSub[2] = {0xAA, 0xBB};
  const struct {
    uint32_t aux_type;
    const uint8_t *sub;
    Bytes expected;
  } kAux[] = {
      {1, nullptr, fullbox("auxC", 0, 0, {str("urn:mpeg:hevc:2015:auxid:1")})},
      {3, kSub, fullbox("auxC", 0, 0, {str("urn:com:orvanta:photo:2024:aux:hdrgainmap"), u32(2),
                                        u8(0xAA), u8(0xBB)})},
  };
  for (const auto &c : kAux) {
    Writer w;
    ASSERT_NE(nullptr, w.ctx);
    w.st->image_info.aux_type = c.aux_type;
    w.st->image_info.aux_subtype_data = c.sub;
    w.st->image_info.aux_subtype_size = c.sub ? 2 : 0;
    ASSERT_EQ(0, tarnm_add_element_auxC(w.st));
    EXPECT_EQ(c.expected, list_bytes(&w.st->ipco_list)) << c.aux_type;
  }
}

TEST(BuildersTest, SharedPropertiesAreAddedOnce) {
  Writer w;
  ASSERT_NE(nullptr, w.ctx);
  tarnm_state *st = w.st;
  static const uint8_t kA[3] = {1, 2, 3}, kB[3] = {1, 2, 4};
  static const uint8_t kNclx[7] = {1, 0, 1, 0, 1, 0, 1};
  set_colour(st, 1, kNclx, 7);
  const struct {
    Build add;
    uint8_t index;  // the index appended to the association set
  } kSteps[] = {
      {[](tarnm_state *s) { return tarnm_add_ispe_property(s, 64, 64); }, 1},
      {[](tarnm_state *s) { return tarnm_add_ispe_property(s, 64, 64); }, 1},
      {[](tarnm_state *s) { return tarnm_add_hvcc_property(s, kA, 3); }, 2},
      {[](tarnm_state *s) { return tarnm_add_hvcc_property(s, kB, 3); }, 3},
      {[](tarnm_state *s) { return tarnm_add_pixi_property(s, kA, 3); }, 4},
      {[](tarnm_state *s) { return tarnm_add_pixi_property(s, kA, 2); }, 5},
      {[](tarnm_state *s) { return tarnm_add_hvcc_property(s, kA, 3); }, 2},
      {[](tarnm_state *s) { return tarnm_add_irot_property(s, 90); }, 6},
      {[](tarnm_state *s) { return tarnm_add_colr_property(s, kNclx, 7); }, 7},
      {[](tarnm_state *s) { return tarnm_add_colr_property(s, kNclx, 7); }, 7},
      {[](tarnm_state *s) { return tarnm_add_irot_property(s, 90); }, 6},
  };
  Bytes expected;
  for (const auto &s : kSteps) {
    ASSERT_EQ(0, s.add(st));
    expected.push_back(s.index);
  }
  EXPECT_EQ(expected, Bytes(st->assoc, st->assoc + st->assoc_count));
  EXPECT_EQ(7u, st->ipco_list.elem_count);
  EXPECT_EQ(-1, tarnm_get_hvcc_property_index(st, kA, 2));
  EXPECT_EQ(-1, tarnm_get_ispe_property_index(st, 64, 32));
}

TEST(BuildersTest, RefusalsLeaveTheListsUsable) {
  static const uint8_t kBytes[4080] = {};
  static const uint32_t kIds[769] = {};
  struct Case {
    const char *name;
    Build call;
    int32_t rc;
    const char *line;
  };
  const Case kCases[] = {
      {"16 entities",
       [](tarnm_state *s) { return tarnm_add_element_entity_group(s, 1, 16, kIds, fcc("ster")); },
       -1, nullptr},
      {"769 references",
       [](tarnm_state *s) { return tarnm_add_element_itemtyperef(s, 1, fcc("dimg"), 769, kIds); },
       -1, nullptr},
      {"nclx of 8 bytes",
       [](tarnm_state *s) {
         set_colour(s, 1, kBytes, 8);
         return tarnm_add_element_colr(s);
       },
       -5, "nclx color size is abnormal(8)"},
      {"colour type 4",
       [](tarnm_state *s) {
         set_colour(s, 4, kBytes, 8);
         return tarnm_add_element_colr(s);
       },
       -1, "Should not be here. unsupported color type(4)"},
      {"hvcC beyond one block",
       [](tarnm_state *s) { return tarnm_add_element_hvcC(s, kBytes, 4073); }, -5,
       "failed to tarnm_add_element_hvcC!"},
  };
  for (const auto &c : kCases) {
    SCOPED_TRACE(c.name);
    Writer w;
    ASSERT_NE(nullptr, w.ctx);
    tarn_test::LogCapture cap;
    EXPECT_EQ(c.rc, c.call(w.st));
    if (c.line) {
      EXPECT_TRUE(cap.has(c.line, "tarnm_util")) << cap.dump();
    }
    EXPECT_EQ(0u, w.st->property_count);
    EXPECT_EQ(0u, w.st->ipco_list.elem_count + w.st->grpl_list.elem_count +
                      w.st->iref_list.elem_count + w.st->ipma_list.elem_count +
                      w.st->infe_list.elem_count);
    EXPECT_EQ(0, tarnm_add_element_ispe(w.st, 1, 1));
  }
}

TEST(BuildersTest, TablesAndIndicesAreBounded) {
  // Restarts the association set as each registration does.
  auto restart = [](tarnm_state *s) {
    s->last_property_index = s->property_count = s->assoc_count = 0;
  };
  const struct {
    const char *name;
    std::function<void(tarnm_state *)> fill;
    Build next;
    const char *line;
  } kCases[] = {
      {"128th ipco index",
       [](tarnm_state *s) {
         for (uint32_t i = 0; i < 127; ++i) tarnm_add_ispe_property(s, i, 1);
       },
       [](tarnm_state *s) { return tarnm_add_ispe_property(s, 1000, 1); },
       "property index out of range(128)"},
      {"256th association",
       [](tarnm_state *s) {
         for (uint32_t i = 0; i < 255; ++i) tarnm_add_irot_property(s, 90);
       },
       [](tarnm_state *s) { return tarnm_add_irot_property(s, 90); }, "too many associations(255)"},
      {"256th distinct ispe",
       [&](tarnm_state *s) {
         for (uint32_t i = 0; i < 255; ++i) {
           restart(s);
           tarnm_add_ispe_property(s, i, 2);
         }
         restart(s);
       },
       [](tarnm_state *s) { return tarnm_add_ispe_property(s, 999, 2); },
       "too many ispe properties(255)"},
      {"65,536th infe",
       [](tarnm_state *s) {
         for (uint32_t i = 0; i < 65535; ++i) tarnm_add_element_infe(s, i, fcc("hvc1"), 1);
       },
       [](tarnm_state *s) { return tarnm_add_element_infe(s, 1, fcc("hvc1"), 1); },
       "too many items(65535)"},
  };
  for (const auto &c : kCases) {
    SCOPED_TRACE(c.name);
    Writer w;
    ASSERT_NE(nullptr, w.ctx);
    c.fill(w.st);
    const uint32_t props = w.st->ipco_list.elem_count, items = w.st->infe_list.elem_count;
    tarn_test::LogCapture cap;
    EXPECT_EQ(-1, c.next(w.st));
    EXPECT_TRUE(cap.has(c.line, "tarnm_util")) << cap.dump();
    EXPECT_EQ(props, w.st->ipco_list.elem_count);
    EXPECT_EQ(items, w.st->infe_list.elem_count);
  }
}

}  // namespace
