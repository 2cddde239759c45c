// Block lists, box headers around the 32-bit limit, and the context:
// handles, heap growth, delivered buffers, file output and release.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "support/files.h"
#include "tarn/io.h"
#include "writer/intake.h"
#include "writer/writer_support.h"

namespace {

using tarn_test::be32;
using tarn_test::Bytes;
using tarn_test::Cursor;
using tarn_test::Mux;

struct List {
  tarn_mblk l;
  explicit List(uint32_t elem_size) { EXPECT_EQ(0, tarn_mblk_ctor(&l, elem_size)); }
  ~List() { tarn_mblk_dtor(&l); }
  // n elements whose first word is step * (i + 1).
  void fill(uint32_t n, uint32_t step = 1) {
    Bytes e(l.elem_size, 0x5A);
    for (uint32_t i = 0; i < n; ++i) {
      const uint32_t key = step * (i + 1);
      memcpy(e.data(), &key, 4);
      ASSERT_EQ(0, tarn_mblk_elem_add(&l, e.data()));
    }
  }
};
uint32_t key_of(const void *p) {
  uint32_t k;
  memcpy(&k, p, 4);
  return k;
}

TEST(Mblk, ElementsChainBlocks) {
  const struct {
    uint32_t elem_size;
    std::vector<int32_t> sizes;  // -2: a fixed-size add
    int32_t last_rc;
    uint32_t blocks;
    uint64_t bytes;  // datasize for fixed lists, total_datasize for sized
  } kCases[] = {
      {16, std::vector<int32_t>(255, -2), 0, 1, 4080}, {16, std::vector<int32_t>(256, -2), 0, 2, 4096},
      {1548, {-2, -2}, 0, 1, 3096},  {1548, {-2, -2, -2}, 0, 2, 4644},
      {21, {4080}, 0, 1, 4080},      {21, {4080, 1}, 0, 2, 4081},
      {21, {4000, 80}, 0, 1, 4080},  {21, {4000, 81}, 0, 2, 4081},  // never spans blocks
      {21, {10, 4081}, -1, 1, 10},   {21, {10, -1}, -1, 1, 10},      {21, {}, 0, 0, 0},
  };
  const Bytes data(4096, 0x11);
  for (const auto &c : kCases) {
    SCOPED_TRACE(testing::Message() << c.elem_size << " x " << c.sizes.size());
    List list(c.elem_size);
    int32_t rc = 0;
    for (int32_t s : c.sizes) {
      rc = s == -2 ? tarn_mblk_elem_add(&list.l, data.data())
                   : tarn_mblk_elem_add_with_size(&list.l, data.data(), s);
    }
    EXPECT_EQ(c.last_rc, rc);
    EXPECT_EQ(c.blocks, list.l.block_count);
    const bool fixed = !c.sizes.empty() && c.sizes[0] == -2;
    EXPECT_EQ(c.bytes, fixed ? tarn_mblk_datasize(&list.l) : tarn_mblk_total_datasize(&list.l));
  }
  // An element must fit a block.
  tarn_mblk bad;
  EXPECT_EQ(-1, tarn_mblk_ctor(&bad, 0));
  EXPECT_EQ(-1, tarn_mblk_ctor(&bad, TARN_MBLK_PAYLOAD_SIZE + 1));
  List whole(TARN_MBLK_PAYLOAD_SIZE);
  // Iteration both ways; stepping before the first element stays on it.
  for (uint32_t n : {0u, 1u, 255u, 256u, 1000u}) {
    List list(16);
    list.fill(n);
    tarn_mblk_iter it{};
    uint32_t seen = 0;
    for (void *p = tarn_mblk_elem_first(&list.l, &it); p; p = tarn_mblk_elem_next(&list.l, &it)) {
      EXPECT_EQ(++seen, key_of(p));
    }
    EXPECT_EQ(n, seen);
    EXPECT_EQ(nullptr, it.block);
    tarn_mblk_elem_last(&list.l, &it);
    for (void *p = it.elem; p; p = tarn_mblk_elem_prev(&list.l, &it)) EXPECT_EQ(seen--, key_of(p));
    EXPECT_EQ(0u, seen);
    if (n) {
      EXPECT_EQ(1u, key_of(it.elem));
    }
  }
}

TEST(Mblk, FindThroughBlockIndexAndBoundedDumps) {
  List list(2040);  // two per block, first keys 10, 30, 50, 70
  list.fill(7, 10);
  ASSERT_EQ(4u, list.l.block_count);
  auto compare = [](const void *key, const void *elem, void *) -> int32_t {
    const uint32_t k = *static_cast<const uint32_t *>(key), e = key_of(elem);
    return k < e ? -1 : k > e ? 1 : 0;
  };
  EXPECT_EQ(nullptr, tarn_mblk_elem_find(&list.l, 30, compare));  // no index: first block only
  EXPECT_EQ(nullptr, tarn_mblk_elem_find(nullptr, 30, compare));
  ASSERT_EQ(0, tarn_mblk_upd_meta(&list.l, key_of));
  EXPECT_EQ(-1, tarn_mblk_upd_meta(&list.l, key_of));  // built once only
  for (uint32_t key : {10u, 20u, 30u, 40u, 70u, 5u, 29u, 31u, 80u}) {
    void *p = tarn_mblk_elem_find(&list.l, key, compare);
    EXPECT_EQ(key % 10 == 0 && key <= 70 ? key : 0u, p ? key_of(p) : 0u);
  }
  // Copies stop at the cursor end: whole blocks or nothing.
  List fixed(16), sized(21);
  fixed.fill(300);
  const Bytes a(4000, 1), b(100, 2);
  ASSERT_EQ(0, tarn_mblk_elem_add_with_size(&sized.l, a.data(), 4000));
  ASSERT_EQ(0, tarn_mblk_elem_add_with_size(&sized.l, b.data(), 100));
  const struct {
    bool sized;
    size_t room;
    int32_t rc;
    size_t written;
  } kDumps[] = {{false, 4800, 300, 4800}, {false, 4799, -4, 4080}, {true, 4100, 2, 4100},
                {true, 4099, -4, 4000}};
  for (const auto &c : kDumps) {
    Cursor out(c.room);
    EXPECT_EQ(c.rc, c.sized ? tarn_mblk_dump_size(&sized.l, &out.st) : tarn_mblk_dump(&fixed.l, &out.st));
    EXPECT_EQ(c.written, out.written().size());
    EXPECT_EQ(0xEE, out.buf[c.room]);
    if (!c.sized && c.rc > 0) {
      EXPECT_EQ(300u, key_of(&out.buf[299 * 16]));
    }
  }
}

TEST(AtomHeader, SizesAroundThe32BitLimit) {
  const struct {
    uint64_t payload;
    int full;
    uint32_t room;
    int32_t rc;
    uint64_t total;
    size_t written;
  } kCases[] = {
      {0, 0, 8, 0, 8, 8}, {0, 1, 12, 0, 12, 12},
      {0xFFFFFFF7u, 0, 16, 0, 0xFFFFFFFFu, 8}, {0xFFFFFFF8u, 0, 16, 0, 0xFFFFFFF8ull + 16, 16},
      {0xFFFFFFF3u, 1, 16, 0, 0xFFFFFFFFu, 12},
      // Version and flags push these over: largesize, and every size agrees.
      {0xFFFFFFF4u, 1, 20, 0, 0xFFFFFFF4ull + 20, 20}, {0xFFFFFFF7u, 1, 20, 0, 0xFFFFFFF7ull + 20, 20},
      {1ull << 32, 1, 20, 0, (1ull << 32) + 20, 20},
      // Each part checks its own room; parts already written stay.
      {10, 0, 7, -4, 18, 0}, {10, 1, 11, -4, 22, 8},
      {1ull << 32, 0, 15, -4, (1ull << 32) + 16, 8}, {1ull << 32, 1, 19, -4, (1ull << 32) + 20, 16},
  };
  for (const auto &c : kCases) {
    SCOPED_TRACE(testing::Message() << std::hex << c.payload << " full " << c.full << " room " << c.room);
    EXPECT_EQ(c.total, c.full ? tarnm_atomf_size(c.payload) : tarnm_atom_size(c.payload));
    Cursor out(c.room);
    const uint8_t flags[3] = {0x12, 0x34, 0x56};
    EXPECT_EQ(c.rc, tarnm_atom_header(&out.st, TARN_FCC('t', 'e', 's', 't'), c.payload, c.full, 7, flags));
    const Bytes h = out.written();
    ASSERT_EQ(c.written, h.size());
    EXPECT_EQ(0xEE, out.buf[c.room]);
    if (c.rc != 0) continue;
    const bool large = be32(&h[0]) == 1;
    EXPECT_EQ(c.total, large ? uint64_t(be32(&h[8])) << 32 | be32(&h[12]) : be32(&h[0]));
    EXPECT_EQ(c.total, h.size() + c.payload);
    EXPECT_EQ(0, memcmp(h.data() + 4, "test", 4));
    if (c.full) {
      EXPECT_EQ(Bytes({7, 0x12, 0x34, 0x56}), Bytes(h.end() - 4, h.end()));
    }
  }
}

const tarnm_init_dsc kDefault = {};

TEST(WriterContext, CreateAndBadHandles) {
  tarnm_init_dsc nine = {};
  nine.use_custom_brands = 1;
  nine.compatible_brand_count = 9;
  tarnm_init_dsc eight = nine;  // the most brands the header holds
  eight.compatible_brand_count = 8;
  const tarnm_init_dsc *const kDescriptors[] = {&kDefault, nullptr, &nine, &eight};
  for (const tarnm_init_dsc *dsc : kDescriptors) {
    int32_t err = 123;
    tarnm_ctx *ctx = tarnm_create(dsc, &err);
    const bool fine = dsc == &kDefault || dsc == &eight;
    EXPECT_EQ(fine ? 0 : -2, err);
    EXPECT_EQ(!fine, ctx == nullptr);
    tarnm_delete(ctx);
  }
  Mux w;
  // Null, and a copy of a live context with its magic broken.
  tarnm_ctx *bad = static_cast<tarnm_ctx *>(malloc(sizeof(tarnm_ctx)));
  ASSERT_NE(nullptr, bad);
  memcpy(bad, w.ctx, sizeof(tarnm_ctx));
  bad->magic = 0x4845494E;
  uint8_t buf[64];
  tarnm_output_dsc dsc = {};
  tarnm_image_info info = {};
  for (tarnm_ctx *h : {static_cast<tarnm_ctx *>(nullptr), bad}) {
    EXPECT_EQ(-1, tarnm_get_outputbuffer_size(h));
    EXPECT_EQ(-1, tarnm_dump_image_to_outputbuffer(h, buf));
    EXPECT_EQ(-1, tarnm_dump_image_to_file(h, &dsc));
    EXPECT_EQ(-1, tarnm_use_delivered_memory_buffer(h, buf, sizeof buf));
    EXPECT_EQ(-1, tarnm_set_image_info(h, 1, 0, &info, nullptr));
    EXPECT_EQ(-1, tarnm_put_frm(h, 1, buf, sizeof buf));
    EXPECT_EQ(-1, tarnm_stop_muxing(h));
    tarnm_delete(h);  // ignored: must not free the copied heap pointer
  }
  free(bad);
  EXPECT_EQ(32, tarnm_get_outputbuffer_size(w.ctx));
}

// Marks the heap as full without writing.
void fill_heap(tarnm_state *st) {
  st->write_ptr = st->heap + st->heap_size;
  st->remaining = 0;
}

TEST(WriterContext, HeapGrowthDeliveredBuffersAndRefusals) {
  const struct {
    const char *name;
    std::vector<uint32_t> estimates;  // one growth per estimate
    int32_t last_rc;
    std::vector<uint32_t> capacities;
  } kCases[] = {
      {"halve, then full, then refuse", {30000000, 30000000, 30000000}, -4,
       {15000000, 30000000, 30000000}},
      {"below the halving threshold takes all", {21946985}, 0, {21946985}},
      {"the threshold is halved", {21946986}, 0, {10973493}},
      {"not above the initial heap", {TARNM_INIT_HEAP_SIZE}, -4, {TARNM_INIT_HEAP_SIZE}},
      {"one byte above the initial heap", {TARNM_INIT_HEAP_SIZE + 1}, 0, {10973493}},
  };
  for (const auto &c : kCases) {
    SCOPED_TRACE(c.name);
    Mux w;
    for (size_t i = 0; i < c.estimates.size(); ++i) {
      tarnm_state *st = &w.st();
      st->heap[40] = 0xA5;  // the file so far survives every growth
      fill_heap(st);
      st->max_image_size = c.estimates[i];
      const int32_t rc = tarnm_reallocate_image_buffer(st);
      EXPECT_EQ(i + 1 == c.estimates.size() ? c.last_rc : 0, rc);
      EXPECT_EQ(c.capacities[i], uint32_t(st->write_ptr - st->heap) + uint32_t(st->remaining));
      EXPECT_EQ(0xA5, st->heap[40]);
    }
  }
  // remaining is signed: 2 GiB or more is refused like a failed allocation.
  Mux w;
  EXPECT_EQ(-5, tarnm_alloc_additional_buffer(&w.st(), 0x80000000u));
  EXPECT_EQ(-1, tarnm_alloc_additional_buffer(&w.st(), 31));  // less than the file so far
  EXPECT_EQ(0, tarnm_alloc_additional_buffer(&w.st(), 32));   // exactly the file so far
  EXPECT_EQ(32, tarnm_get_outputbuffer_size(w.ctx));
  // A caller's buffer must hold the file so far, and it never grows.
  Mux d;
  uint8_t buf[48];
  EXPECT_EQ(-4, tarnm_use_delivered_memory_buffer(d.ctx, buf, 31));
  EXPECT_EQ(-1, tarnm_use_delivered_memory_buffer(d.ctx, nullptr, 100));
  EXPECT_EQ(-1, tarnm_use_delivered_memory_buffer(d.ctx, buf, 0));
  Mux exact;
  uint8_t just[32];
  EXPECT_EQ(0, tarnm_use_delivered_memory_buffer(exact.ctx, just, sizeof just));
  ASSERT_EQ(0, tarnm_use_delivered_memory_buffer(d.ctx, buf, sizeof buf));
  d.st().max_image_size = 50000000;
  EXPECT_EQ(-4, tarnm_reallocate_image_buffer(&d.st()));
  static const uint8_t kToneMap[17] = {};
  EXPECT_EQ(-4, atom_dump_tmap_data(kToneMap, sizeof kToneMap, &d.st()));
  EXPECT_EQ(-4, tarn_chunk_dump(&d.st(), kToneMap, sizeof kToneMap, 1));
  Cursor byte(1);  // too small for the counts in front of the item lists
  EXPECT_EQ(-4, atom_dump_iinf(nullptr, nullptr, &byte.st) & atom_dump_ipma(nullptr, nullptr, &byte.st) &
                    atom_dump_iloc(nullptr, nullptr, &byte.st));
  static const uint8_t kFrame[40] = {0, 0, 0, 1, 0x26};  // refused before its location is kept
  const uint32_t locations = d.st().iloc_list.elem_count;
  EXPECT_EQ(-4, tarnm_put_frm(d.ctx, 1, kFrame, sizeof kFrame));
  EXPECT_EQ(locations, d.st().iloc_list.elem_count);
  // Tone maps may fill idat up to 4 GiB less one byte, and no further.
  Mux t;
  EXPECT_EQ(0, tarnm_put_tonemap_data(&t.st(), 1, 0xFFFFFFFFu));
  EXPECT_EQ(-1, tarnm_put_tonemap_data(&t.st(), 2, 1));
  EXPECT_EQ(-1, tarnm_put_tonemap_data(&t.st(), 3, 0));
}

TEST(WriterContext, FileOutput) {
  Mux w;
  const std::string path = testing::TempDir() + "tarn_writer_out.heic";
  for (const char *target : {path.c_str(), "/nonexistent-dir/x.heic", "/dev/full"}) {
    const bool ok = target == path.c_str();
    tarnm_file_output out;
    ASSERT_EQ(0, tarnm_output_init_file(&out, target));
    EXPECT_EQ(ok ? 0 : -6, tarnm_dump_image_to_file(w.ctx, &out.dsc)) << target;
    EXPECT_EQ(!ok, out.failed != 0);
    EXPECT_EQ(nullptr, out.file);
  }
  EXPECT_EQ(-6, tarnm_dump_image_to_file(w.ctx, nullptr));
  Bytes back;
  ASSERT_TRUE(tarn_test::read_file(path, &back));
  remove(path.c_str());
  ASSERT_EQ(32u, back.size());
  EXPECT_EQ(0, memcmp(back.data() + 24, "\0\0\0\0mdat", 8));  // ftyp, then an mdat header patched at the end
  tarnm_file_output out;
  ASSERT_EQ(0, tarnm_output_init_file(&out, path.c_str()));
  EXPECT_EQ(0u, out.dsc.write(&out, "x", 1));  // nothing reaches a stream that is not open
  EXPECT_EQ(nullptr, out.dsc.open(&out.dsc, 0));  // for writing only
  EXPECT_EQ(-1, tarnm_output_init_file(&out, ""));
  EXPECT_EQ(-1, tarnm_output_init_file(nullptr, "x"));
}

}  // namespace
