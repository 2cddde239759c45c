// The meta box and its element builders: every child written from known
// element lists, sized by the size pass and parsed back by the reader;
// shared properties; refusals that keep the fixed tables and the 7/16-bit
// fields from overflowing.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "support/log_capture.h"
#include "tarn/io.h"
#include "tarn/reader.h"
#include "writer/intake.h"
#include "writer/writer_support.h"

namespace {

using tarn_test::Bytes;
using tarn_test::fcc;

struct Writer {
  const tarnm_init_dsc dsc = {};
  tarnm_ctx *ctx = tarnm_create(&dsc, nullptr);
  tarnm_state *st = tarnm_checked_state(ctx);
  ~Writer() { tarnm_delete(ctx); }
  Bytes file() {
    Bytes out(size_t(tarnm_get_outputbuffer_size(ctx)));
    EXPECT_EQ(0, tarnm_dump_image_to_outputbuffer(ctx, out.data()));
    return out;
  }
};

// Every child of meta: a grid of two 10-byte tiles, an XMP item, shared
// properties, references, a group, and grid record and XMP in idat.
void populate(tarnm_state *st) {
  st->primary_item_id = 3;
  const char *kTypes[] = {"hvc1", "hvc1", "grid", "mime"};
  for (uint32_t id = 1; id <= 4; ++id) {
    ASSERT_EQ(0, tarnm_add_element_infe(st, id, fcc(kTypes[id - 1]), id > 2));
  }
  static const uint8_t kHvcc[23] = {1, 1, 0x60, 0, 0, 0, 0, 0, 0, 0, 0, 0, 90,
                                    0xF0, 0, 0xFC, 0xFD, 0xF8, 0xF8, 0, 0, 0x0F, 0};
  static const uint8_t kNclx[7] = {1, 0, 13, 0, 6, 0, 1}, kDepths[3] = {8, 10, 12};
  st->assoc_count = 0;
  ASSERT_EQ(0, tarnm_add_hvcc_property(st, kHvcc, sizeof kHvcc));
  ASSERT_EQ(0, tarnm_add_ispe_property(st, 64, 64));
  ASSERT_EQ(0, tarnm_add_element_ipma(st, 1, st->assoc_count, st->assoc));
  ASSERT_EQ(0, tarnm_add_element_ipma(st, 2, st->assoc_count, st->assoc));
  st->assoc_count = 0;
  ASSERT_EQ(0, tarnm_add_ispe_property(st, 128, 64));
  ASSERT_EQ(0, tarnm_add_irot_property(st, 90));
  st->image_info.color_type = 1;  // nclx words in host order, full range
  st->image_info.color_data = kNclx;
  st->image_info.color_size = 7;
  ASSERT_EQ(0, tarnm_add_colr_property(st, kNclx, 7));
  ASSERT_EQ(0, tarnm_add_pixi_property(st, kDepths, 3));  // the one non-essential
  ASSERT_EQ(0, tarnm_add_element_ipma(st, 3, st->assoc_count, st->assoc));
  const uint32_t tiles[2] = {1, 2}, described[1] = {3}, alternatives[2] = {3, 1};
  ASSERT_EQ(0, tarnm_add_element_itemtyperef(st, 3, fcc("dimg"), 2, tiles));
  ASSERT_EQ(0, tarnm_add_element_itemtyperef(st, 4, fcc("cdsc"), 1, described));
  ASSERT_EQ(0, tarnm_add_element_entity_group(st, 10, 2, alternatives, fcc("altr")));
  ASSERT_EQ(0, tarnm_add_iloc_entry(st, 1, 0, 32, 10));
  ASSERT_EQ(0, tarnm_add_iloc_entry(st, 2, 0, 42, 10));
  ASSERT_EQ(0, tarnm_add_iloc_entry(st, 3, 1, 0, 8));
  ASSERT_EQ(0, tarnm_add_iloc_entry(st, 4, 1, 8, 5));
  // Private copies, as registration makes them.
  const tarnm_grid_info grid = {128, 64, 1, 2, 1, 2, 3, 0};
  const struct {
    uint32_t kind;
    const void *data;
    uint32_t size;
  } kData[] = {{TARNM_ITEM_DATA_GRID, &grid, sizeof grid}, {TARNM_ITEM_DATA_TMAP, "<xmp>", 5}};
  for (const auto &d : kData) {
    void *copy = malloc(d.size);
    ASSERT_NE(nullptr, copy);
    memcpy(copy, d.data, d.size);
    st->item_data[st->item_data_count++] = {d.kind, d.size, copy};
  }
  // The tiles and the mdat size, as intake and finalisation leave them.
  memset(st->write_ptr, 0x26, 20);
  st->write_ptr += 20;
  st->remaining -= 20;
  st->heap[st->mdat_offset + 3] = 28;
}

TEST(BoxTree, EveryChildSizedAndReadsBack) {
  Bytes roomy;
  for (bool tight : {false, true}) {
    SCOPED_TRACE(tight ? "50 bytes left: meta grows the heap once" : "room enough");
    Writer w;
    populate(w.st);
    ASSERT_FALSE(testing::Test::HasFatalFailure());
    uint64_t sized = 0;
    for (const atom_desc *d = atom_meta_template; d->fcc != TARNM_ATOM_END; ++d) {
      uint64_t c = 0;
      atom_visit_size_inner(d, w.st, &c);
      if (c) sized += d->full_box ? tarnm_atomf_size(c) : tarnm_atom_size(c);
    }
    if (tight) {
      w.st->heap_size -= uint32_t(w.st->remaining - 50);
      w.st->remaining = 50;
      w.st->max_image_size = 1 << 20;
    }
    ASSERT_EQ(0, tarnm_atom_meta(w.st));
    if (tight) {
      EXPECT_EQ(1u << 20, w.st->heap_size);
    }
    const Bytes file = w.file();
    EXPECT_EQ(tarnm_atomf_size(sized), file.size() - 52);  // the size pass agrees
    if (tight) {
      EXPECT_EQ(roomy, file);  // growing mid-box changes nothing
      continue;
    }
    roomy = file;
    // What the reader does not keep: essential bits (pixi the one
    // non-essential property), pixi's depths and nclx's full-range bit.
    static const Bytes kIpma = {'i', 'p', 'm', 'a', 0, 0, 0, 0, 0, 0, 0, 3, 0, 1, 2, 0x81, 0x82, 0, 2, 2,
                                0x81, 0x82, 0, 3, 4, 0x83, 0x84, 0x85, 0x06},
                       kPixi = {'p', 'i', 'x', 'i', 0, 0, 0, 0, 3, 8, 10, 12},
                       kNclx = {'c', 'o', 'l', 'r', 'n', 'c', 'l', 'x', 0, 1, 0, 13, 0, 6, 0x80};
    for (const Bytes *needle : {&kIpma, &kPixi, &kNclx}) {
      EXPECT_NE(std::search(file.begin(), file.end(), needle->begin(), needle->end()), file.end());
    }

    tarnd_io_dsc io;
    ASSERT_EQ(0, tarnd_io_init_memory(&io, file.data(), file.size()));
    tarnd_file_info info = {};
    int32_t err = -100;
    tarnd_ctx *r = static_cast<tarnd_ctx *>(tarnd_create(&io, 0, &info, &err));
    ASSERT_NE(nullptr, r) << err;
    EXPECT_EQ(3, r->primary_item_id);
    ASSERT_EQ(4u, r->meta.item_cnt);
    const struct {
      uint16_t id;
      const char *type;
      uint32_t method;
      uint64_t offset, length;
    } kItems[] = {{1, "hvc1", 0, 32, 10}, {2, "hvc1", 0, 42, 10}, {3, "grid", 1, 0, 8}, {4, "mime", 1, 8, 5}};
    for (const auto &it : kItems) {
      uint32_t slot = 0;
      ASSERT_EQ(0, tarnd_find_itemIndex(r->meta.items, r->meta.item_cnt, it.id, &slot));
      const tarnd_item &item = r->meta.items[slot];
      EXPECT_EQ(std::vector<uint64_t>({fcc(it.type), it.method, it.offset, it.length}),
                std::vector<uint64_t>({item.item_type, item.construction_method, item.offset, item.length}));
    }
    EXPECT_EQ(8u, r->meta.association_cnt);
    ASSERT_EQ(13u, r->meta.idat_size);
    EXPECT_EQ(0, memcmp(r->meta.idat + 8, "<xmp>", 5));
    tarnd_delete(r);
  }
}

using Build = std::function<int32_t(tarnm_state *)>;

TEST(Builders, RefusalsAndBoundsLeaveTheListsUsable) {
  static const uint8_t kBytes[4080] = {};
  static const uint32_t kIds[769] = {};
  // Restarts the association set as each registration does.
  static const auto restart = [](tarnm_state *s) {
    s->last_property_index = s->property_count = s->assoc_count = 0;
  };
  auto colr = [](uint32_t type) {
    return [type](tarnm_state *s) {
      s->image_info.color_type = type;
      s->image_info.color_data = kBytes;
      s->image_info.color_size = 8;
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
      {"hvcC of 2 GiB", nullptr,
       [](tarnm_state *s) { return tarnm_add_hvcc_property(s, kBytes, 0x80000000u); }, -1, nullptr},
      // No builder touches a missing state.
      {"no state", nullptr,
       [](tarnm_state *) {
         const uint8_t d[1] = {8};
         return tarnm_add_element_infe(nullptr, 1, 0, 0) & tarnm_add_element_itemtyperef(nullptr, 1, 0, 1, kIds) &
                tarnm_add_element_entity_group(nullptr, 1, 2, kIds, 0) & tarnm_add_element_hvcC(nullptr, d, 1) &
                tarnm_add_element_colr(nullptr) & tarnm_add_element_auxC(nullptr) &
                tarnm_add_element_ispe(nullptr, 1, 1) & tarnm_add_element_irot(nullptr, 90) &
                tarnm_add_element_pixi(nullptr, 1, d) & tarnm_add_element_clli(nullptr, 1, 1) &
                tarnm_add_element_ipma(nullptr, 1, 1, d) & tarnm_add_colr_property(nullptr, d, 1) &
                tarnm_add_hvcc_property(nullptr, d, 1) & tarnm_add_ispe_property(nullptr, 1, 1) &
                tarnm_add_irot_property(nullptr, 90) & tarnm_add_pixi_property(nullptr, d, 1);
       },
       -1, nullptr},
  };
  for (const auto &c : kCases) {
    SCOPED_TRACE(c.name);
    Writer w;
    if (c.fill) c.fill(w.st);
    const uint32_t props = w.st->ipco_list.elem_count, items = w.st->infe_list.elem_count;
    tarn_test::LogCapture cap;
    EXPECT_EQ(c.rc, c.next(w.st));
    if (c.line) {
      EXPECT_TRUE(cap.has(c.line, "tarnm_util")) << cap.dump();
    }
    EXPECT_EQ(props, w.st->ipco_list.elem_count);
    EXPECT_EQ(items, w.st->infe_list.elem_count);
    EXPECT_EQ(0u, w.st->grpl_list.elem_count + w.st->iref_list.elem_count + w.st->ipma_list.elem_count);
    EXPECT_EQ(0, tarnm_add_element_ispe(w.st, 1, 1));
  }
  Writer w;  // a lookup of an absent property finds nothing
  EXPECT_EQ(-1, tarnm_get_hvcc_property_index(w.st, kBytes, 2));
  EXPECT_EQ(-1, tarnm_get_ispe_property_index(w.st, 64, 32));
}

}  // namespace
