// The meta box's element builders: refusals that keep the fixed tables and
// the 7/16-bit fields from overflowing, and lists left usable after each.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>

#include "support/log_capture.h"
#include "writer/intake.h"
#include "writer/writer_support.h"

namespace {

using tarn_test::fcc;

using tarn_test::Mux;

using Build = std::function<int32_t(tarnm_state *)>;

TEST(Builders, RefusalsAndBoundsLeaveTheListsUsable) {
  static const uint8_t kBytes[4080] = {};
  static const uint32_t kIds[769] = {};
  // Restarts the association set as each registration does.
  static const auto restart = [](tarnm_state *s) {
    s->last_property_index = s->property_count = s->assoc_count = 0;
  };
  auto colr = [](uint32_t type, uint32_t size = 8) {
    return [type, size](tarnm_state *s) {
      s->image_info.color_type = type;
      s->image_info.color_data = kBytes;
      s->image_info.color_size = size;
      return tarnm_add_element_colr(s);
    };
  };
  const struct {
    const char *name;
    std::function<void(tarnm_state *)> fill;
    Build next;
    int32_t rc;
    const char *line;
  } kCases[] = {
      {"16 entities", nullptr,
       [](tarnm_state *s) { return tarnm_add_element_entity_group(s, 1, 16, kIds, fcc("ster")); }, -1, nullptr},
      {"769 references", nullptr,
       [](tarnm_state *s) { return tarnm_add_element_itemtyperef(s, 1, fcc("dimg"), 769, kIds); }, -1, nullptr},
      {"nclx of 8 bytes", nullptr, colr(1), -5, "nclx color size is abnormal(8)"},
      {"colour type 4", nullptr, colr(4), -1, "Should not be here. unsupported color type(4)"},
      {"colour size without data", nullptr, [](tarnm_state *s) {
         s->image_info.color_type = 2, s->image_info.color_data = nullptr, s->image_info.color_size = 8;
         return tarnm_add_element_colr(s);
       }, -1, nullptr},
      {"colour of 4 GiB", nullptr, colr(2, 0xFFFFFFFFu), -1, nullptr},
      {"hvcC beyond one block", nullptr,
       [](tarnm_state *s) { return tarnm_add_element_hvcC(s, kBytes, 4073); }, -5,
       "failed to tarnm_add_element_hvcC!"},
      {"128th ipco index",
       [](tarnm_state *s) {
         for (uint32_t i = 0; i < 127; ++i) tarnm_add_ispe_property(s, i, 1);
       },
       [](tarnm_state *s) { return tarnm_add_ispe_property(s, 1000, 1); }, -1,
       "property index out of range(128)"},
      {"256th association",
       [](tarnm_state *s) {
         for (uint32_t i = 0; i < 255; ++i) tarnm_add_irot_property(s, 90);
       },
       [](tarnm_state *s) { return tarnm_add_irot_property(s, 90); }, -1, "too many associations(255)"},
      {"256th distinct ispe",
       [](tarnm_state *s) {
         for (uint32_t i = 0; i < 255; ++i) restart(s), tarnm_add_ispe_property(s, i, 2);
         restart(s);
       },
       [](tarnm_state *s) { return tarnm_add_ispe_property(s, 999, 2); }, -1,
       "too many ispe properties(255)"},
      {"65,536th infe",
       [](tarnm_state *s) {
         for (uint32_t i = 0; i < 65535; ++i) tarnm_add_element_infe(s, i, fcc("hvc1"), 1);
       },
       [](tarnm_state *s) { return tarnm_add_element_infe(s, 1, fcc("hvc1"), 1); }, -1,
       "too many items(65535)"},
      {"128 associations", nullptr,
       [](tarnm_state *s) { return tarnm_add_element_ipma(s, 1, 128, kBytes); }, -1, "unsupported association count(128)"},
      {"ipma item id above 16 bits", nullptr,
       [](tarnm_state *s) { return tarnm_add_element_ipma(s, 0x10000, 0, kBytes); }, -1, "unsupported item id(65536)"},
      {"property index 0", nullptr,
       [](tarnm_state *s) { return tarnm_add_element_ipma(s, 1, 1, kBytes); }, -1, "invalid property index(0)"},
      {"auxiliary type 4", nullptr,
       [](tarnm_state *s) { return s->image_info.aux_type = 4, tarnm_add_element_auxC(s); }, -1,
       "unsupported auxiliary image type(4)"},
      {"auxC beyond one block", nullptr,
       [](tarnm_state *s) {
         s->image_info.aux_type = 1, s->image_info.aux_subtype_data = kBytes, s->image_info.aux_subtype_size = 4040;
         return tarnm_add_element_auxC(s);
       }, -1, "failed to tarnm_add_element_auxC!"},
      {"hvcC of 2 GiB", nullptr,
       [](tarnm_state *s) { return tarnm_add_hvcc_property(s, kBytes, 0x80000000u); }, -1, nullptr},
      {"grid record cut short",
       [](tarnm_state *s) { s->item_data[s->item_data_count++] = {TARNM_ITEM_DATA_GRID, 4, calloc(1, 4)}; },
       [](tarnm_state *s) { return tarnm_atom_meta(s); }, -1, nullptr},
      // No builder touches a missing state.
      {"no state", nullptr,
       [](tarnm_state *s) {
         const uint8_t d[1] = {8};
         return tarnm_add_element_infe(nullptr, 1, 0, 0) & tarnm_add_element_itemtyperef(nullptr, 1, 0, 1, kIds) &
                tarnm_add_element_entity_group(nullptr, 1, 2, kIds, 0) & tarnm_add_element_hvcC(nullptr, d, 1) &
                tarnm_add_element_colr(nullptr) & tarnm_add_element_auxC(nullptr) &
                tarnm_add_element_ispe(nullptr, 1, 1) & tarnm_add_element_irot(nullptr, 90) &
                tarnm_add_element_pixi(nullptr, 1, d) & tarnm_add_element_clli(nullptr, 1, 1) &
                tarnm_add_element_ipma(nullptr, 1, 1, d) & tarnm_add_colr_property(nullptr, d, 1) &
                tarnm_add_hvcc_property(nullptr, d, 1) & tarnm_add_ispe_property(nullptr, 1, 1) &
                tarnm_add_irot_property(nullptr, 90) & tarnm_add_pixi_property(nullptr, d, 1) &
                tarnm_reallocate_image_buffer(nullptr) & atom_dump_tmap_data(d, 1, nullptr) &
                tarn_mblk_dump(&s->ipco_list, nullptr) & tarn_mblk_dump_size(nullptr, s) &
                tarnm_atom_header(nullptr, 1, 0, 0, 0, d) & tarnm_get_pixi_property_index(nullptr, d, 1) &
                tarnm_get_colr_property_index(nullptr, d, 1) & tarnm_get_hvcc_property_index(nullptr, d, 1) &
                tarnm_get_irot_property_index(nullptr, 90) & tarnm_get_ispe_property_index(nullptr, 1, 1) &
                tarnm_alloc_additional_buffer(nullptr, 1) & tarn_chunk_dump(nullptr, d, 1, 0) &
                tarn_chunk_dump(s, nullptr, 1, 0) & atom_visit_write(nullptr, s) & tarnm_atom_meta(nullptr) &
                tarnm_put_tonemap_data(nullptr, 1, 1) & atom_data_hdlr(nullptr, nullptr, s) &
                tarnm_atom_ftyp(nullptr, nullptr) & atom_dump_grid(nullptr, s);
       },
       -1, nullptr},
      // Nor do the lists and raw records take a missing list, element, writer or visitor.
      {"no list or element", nullptr,
       [](tarnm_state *s) {
         static const rawstruct_field kWord[] = {{0, 4, 1, 1}, {0, 0, 0, 0}};
         static const uint8_t kFour[4] = {8, 8, 8, 8};  // one channel more than pixi takes
         uint32_t word = 0;
         tarn_mblk_iter it;
         tarn_mblk_elem_last(nullptr, &it);
         const bool none = tarn_mblk_datasize(nullptr) == 0 && !tarn_mblk_elem_first(nullptr, &it) && !it.elem &&
                           !tarn_mblk_elem_prev(nullptr, &it) && !tarn_mblk_elem_next(nullptr, &it) &&
                           !tarn_mblk_elem_prev(&s->ipco_list, nullptr) &&
                           tarn_rawstruct_write_iter(s, &word, kWord, nullptr, nullptr) == 0;
         return tarn_mblk_ctor(nullptr, 4) & tarn_mblk_elem_add_with_size(&s->ipco_list, nullptr, 4) &
                tarn_mblk_elem_add(&s->iloc_list, nullptr) & tarn_mblk_elem_add(nullptr, &word) &
                tarnm_add_element_pixi(s, 4, kFour) &
                tarn_mblk_upd_meta(nullptr, [](const void *) { return 0u; }) &
                tarn_rawstruct_mwrite(nullptr, &word, kWord) & tarn_rawstruct_mwrite(s, nullptr, kWord) &
                tarn_rawstruct_iter(&word, kWord, [](void *, const rawstruct_field *, void *) { return 1; }, nullptr) &
                (none ? -1 : 0);
       },
       -1, nullptr},
  };
  for (const auto &c : kCases) {
    SCOPED_TRACE(c.name);
    Mux w;
    tarnm_state *st = &w.st();
    if (c.fill) c.fill(st);
    const uint32_t props = st->ipco_list.elem_count, items = st->infe_list.elem_count;
    tarn_test::LogCapture cap;
    EXPECT_EQ(c.rc, c.next(st));
    EXPECT_TRUE(!c.line || cap.has(c.line, "tarnm_util")) << cap.dump();
    EXPECT_EQ(props, st->ipco_list.elem_count);
    EXPECT_EQ(items, st->infe_list.elem_count);
    EXPECT_EQ(0u, st->grpl_list.elem_count + st->iref_list.elem_count + st->ipma_list.elem_count);
    EXPECT_EQ(0, tarnm_add_element_ispe(st, 1, 1));
  }
  Mux w;  // an empty hvcC needs no bytes; a lookup of an absent property finds nothing
  EXPECT_EQ(0, tarnm_add_element_hvcC(&w.st(), nullptr, 0));
  EXPECT_EQ(-1, tarnm_get_hvcc_property_index(&w.st(), kBytes, 2));
  EXPECT_EQ(-1, tarnm_get_ispe_property_index(&w.st(), 64, 32));
  static const uint8_t kDepths[3] = {8, 10, 12};
  ASSERT_EQ(0, tarnm_add_pixi_property(&w.st(), kDepths, 3));
  EXPECT_EQ(-1, tarnm_get_pixi_property_index(&w.st(), kBytes, 3));  // as many channels, other depths
  EXPECT_EQ(-1, tarnm_get_pixi_property_index(&w.st(), kDepths, 4));
  EXPECT_EQ(-1, tarnm_get_pixi_property_index(&w.st(), nullptr, 3));  // channels without depths
  EXPECT_EQ(0, tarn_mblk_elem_add_with_size(&w.st().ipco_list, nullptr, 0));  // nothing to copy
  EXPECT_EQ(0, tarn_chunk_dump(&w.st(), kDepths, 1, 1));  // one byte is a chunk
}

}  // namespace
