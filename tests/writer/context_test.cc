// Writer context: creation, handle checks, heap growth, delivered buffers,
// output and release of everything the context allocated.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#define TARN_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TARN_TEST_ASAN 1
#endif
#endif
#if defined(TARN_TEST_ASAN)
#include <sanitizer/allocator_interface.h>
#else
#include <malloc.h>
#endif

#include "support/log_capture.h"
#include "tarn/io.h"
#include "writer/intake.h"
#include "writer/internal.h"

namespace {

// Bytes currently allocated by the process: the sanitizer's count under
// ASan (which replaces malloc), else the C library's.
size_t live_heap_bytes() {
#if defined(TARN_TEST_ASAN)
  return __sanitizer_get_current_allocated_bytes();
#else
  const struct mallinfo2 mi = mallinfo2();
  return mi.uordblks + mi.hblkhd;
#endif
}

const tarnm_init_dsc kDefault = {};

struct Writer {
  tarnm_ctx *ctx;
  explicit Writer(const tarnm_init_dsc *dsc = &kDefault, int32_t *err = nullptr)
      : ctx(tarnm_create(dsc, err)) {}
  ~Writer() { tarnm_delete(ctx); }
  tarnm_state *st() { return tarnm_checked_state(ctx); }
};

// Marks the heap as full without writing: the cursor at the end.
void fill_heap(tarnm_state *st) {
  st->write_ptr = st->heap + st->heap_size;
  st->remaining = 0;
}

uint32_t capacity(const tarnm_state *st) {
  return static_cast<uint32_t>(st->write_ptr - st->heap) + static_cast<uint32_t>(st->remaining);
}

TEST(WriterContextTest, Create) {
  tarnm_init_dsc nine = {};
  nine.use_custom_brands = 1;
  nine.compatible_brand_count = 9;
  const struct {
    const tarnm_init_dsc *dsc;
    int32_t err;
  } kCases[] = {{&kDefault, 0}, {nullptr, -2}, {&nine, -2}};
  for (const auto &c : kCases) {
    tarn_test::LogCapture cap;
    int32_t err = 123;
    Writer w(c.dsc, &err);
    EXPECT_EQ(c.err, err);
    EXPECT_EQ(c.err != 0, cap.has("tarnm_create() failed", "tarnm")) << cap.dump();
    if (c.err) {
      EXPECT_EQ(nullptr, w.ctx);
      continue;
    }
    // ftyp, then an mdat header whose size is patched at the end.
    std::vector<uint8_t> out(32);
    ASSERT_EQ(32, tarnm_get_outputbuffer_size(w.ctx));
    ASSERT_EQ(0, tarnm_dump_image_to_outputbuffer(w.ctx, out.data()));
    EXPECT_EQ(0, memcmp(out.data() + 24, "\0\0\0\0mdat", 8));
    EXPECT_EQ(24u, w.st()->mdat_offset);
  }
}

TEST(WriterContextTest, BadHandlesAreRefusedEverywhere) {
  Writer w;
  ASSERT_NE(nullptr, w.ctx);
  // A copy of a live context with its magic broken.
  tarnm_ctx *bad = static_cast<tarnm_ctx *>(calloc(1, sizeof(tarnm_ctx)));
  ASSERT_NE(nullptr, bad);
  memcpy(bad, w.ctx, sizeof(tarnm_ctx));
  bad->magic = 0x4845494E;
  uint8_t buf[64];
  tarnm_output_dsc dsc = {};
  for (tarnm_ctx *h : {static_cast<tarnm_ctx *>(nullptr), bad}) {
    EXPECT_EQ(-1, tarnm_get_outputbuffer_size(h));
    EXPECT_EQ(-1, tarnm_dump_image_to_outputbuffer(h, buf));
    EXPECT_EQ(-1, tarnm_dump_image_to_file(h, &dsc));
    EXPECT_EQ(-1, tarnm_use_delivered_memory_buffer(h, buf, sizeof buf));
    tarnm_delete(h);  // ignored: must not free the copied heap pointer
  }
  free(bad);
  EXPECT_EQ(32, tarnm_get_outputbuffer_size(w.ctx));
}

TEST(WriterContextTest, HeapGrowthSequence) {
  struct Step {
    uint32_t estimate;
    int32_t rc;
    uint32_t capacity_after;
    const char *warn;
  };
  struct Case {
    const char *name;
    std::vector<Step> steps;
  };
  const char *kTooBig30 = "input image frames are too big. max_image_size = 30000000";
  const Case kCases[] = {
      {"halve, then full, then refuse",
       {{30000000, 0, 15000000, nullptr},
        {30000000, 0, 30000000, nullptr},
        {30000000, -4, 30000000, kTooBig30}}},
      {"below the halving threshold takes the whole estimate",
       {{21946985, 0, 21946985, nullptr}}},
      {"exactly the threshold is halved", {{21946986, 0, 10973493, nullptr}}},
      {"estimate not above the initial heap",
       {{TARNM_INIT_HEAP_SIZE, -4, TARNM_INIT_HEAP_SIZE,
         "input image frames are too big. max_image_size = 10973492"}}},
      {"one byte above the initial heap", {{TARNM_INIT_HEAP_SIZE + 1, 0, 10973493, nullptr}}},
  };
  for (const auto &c : kCases) {
    SCOPED_TRACE(c.name);
    Writer w;
    ASSERT_NE(nullptr, w.ctx);
    for (const auto &s : c.steps) {
      tarnm_state *st = w.st();
      // The file so far must survive every growth.
      st->heap[40] = 0xA5;
      fill_heap(st);
      st->max_image_size = s.estimate;
      tarn_test::LogCapture cap;
      EXPECT_EQ(s.rc, tarnm_reallocate_image_buffer(st));
      EXPECT_EQ(s.capacity_after, capacity(st));
      EXPECT_EQ(0xA5, st->heap[40]);
      EXPECT_TRUE(cap.has(
          "image buffer size is small. reallocate image buffer, caculated max_image_size = " +
              std::to_string(static_cast<int32_t>(s.estimate)),
          "tarnm_util"))
          << cap.dump();
      if (s.warn) {
        EXPECT_TRUE(cap.has(s.warn, "tarnm_util")) << cap.dump();
      }
    }
  }
  // remaining is a signed count: a heap of 2 GiB or more is refused like a
  // failed allocation, and the old heap stays.
  Writer w;
  ASSERT_NE(nullptr, w.ctx);
  tarn_test::LogCapture cap;
  EXPECT_EQ(-5, tarnm_alloc_additional_buffer(w.st(), 0x80000000u));
  EXPECT_TRUE(cap.has("failed to alloc additional buffer. image buffer size : 2147483648",
                      "tarnm_util"));
  EXPECT_TRUE(cap.has("tarnm_reallocate_buffer() failed", "tarnm_util"));
  EXPECT_EQ(32, tarnm_get_outputbuffer_size(w.ctx));
}

TEST(WriterContextTest, DeliveredBuffer) {
  Writer w;
  ASSERT_NE(nullptr, w.ctx);
  uint8_t small[31];
  const struct {
    uint8_t *buf;
    int32_t size, rc;
    const char *line;
  } kRefused[] = {
      {small, 31, -4, "buffer size is insufficient. buffer size : 31, required size : 32"},
      {nullptr, 100, -1, "buffer is NULL"},
      {small, 0, -1, "buffer size is abnormal(0)"},
  };
  for (const auto &c : kRefused) {
    tarn_test::LogCapture cap;
    EXPECT_EQ(c.rc, tarnm_use_delivered_memory_buffer(w.ctx, c.buf, c.size));
    EXPECT_TRUE(cap.has(std::string("tarnm_use_delivered_memory_buffer : ") + c.line, "tarnm"));
    EXPECT_EQ(0u, w.st()->delivered_buffer);
  }

  // Exactly the bytes written: accepted, nothing left to grow into.
  std::vector<uint8_t> buf(64, 0xEE);
  ASSERT_EQ(0, tarnm_use_delivered_memory_buffer(w.ctx, buf.data(), 48));
  tarnm_state *st = w.st();
  EXPECT_EQ(buf.data(), st->heap);
  EXPECT_EQ(16, st->remaining);
  EXPECT_EQ(0, memcmp(buf.data() + 4, "ftyp", 4));
  // A write that does not fit fails without growing or writing past the end.
  st->max_image_size = 50000000;
  EXPECT_EQ(-4, tarnm_reallocate_image_buffer(st));
  EXPECT_EQ(buf.data(), st->heap);
  const uint8_t frame[17] = {};
  EXPECT_EQ(-4, atom_dump_tmap_data(frame, sizeof frame, st));
  EXPECT_EQ(0xEE, buf[48]);
  tarn_test::LogCapture cap;
  EXPECT_EQ(-4, tarnm_atom_meta(st));
  EXPECT_TRUE(cap.has("tarnm_atom_meta : buffer size is insufficient. remaining size : 16, "
                      "required size : 114",
                      "tarnm_atom"))
      << cap.dump();
  EXPECT_EQ(16, st->remaining);
  EXPECT_EQ(0xEE, buf[48]);
}

TEST(WriterContextTest, DeleteReleasesEverythingButTheCallersBuffer) {
  std::vector<uint8_t> delivered(1 << 16, 0);
  const size_t before = live_heap_bytes();
  for (int pass = 0; pass < 2; ++pass) {
    tarnm_ctx *ctx = tarnm_create(&kDefault, nullptr);
    ASSERT_NE(nullptr, ctx);
    tarnm_state *st = tarnm_checked_state(ctx);
    // Fill every list past one block and every kind of private copy.
    const uint8_t hvcc[40] = {1, 2, 3};
    const uint8_t colr[7] = {1, 0, 13, 0, 6, 0, 1};
    st->image_info.color_type = 1;
    st->image_info.color_data = colr;
    st->image_info.color_size = sizeof colr;
    for (uint32_t i = 1; i <= 300; ++i) {
      ASSERT_EQ(0, tarnm_add_element_infe(st, i, TARN_FCC('h', 'v', 'c', '1'), 1));
      ASSERT_EQ(0, tarnm_add_iloc_entry(st, i, 0, 100 * i, 100));
      const uint8_t idx[1] = {1};
      ASSERT_EQ(0, tarnm_add_element_ipma(st, i, 1, idx));
      const uint32_t to[1] = {i};
      ASSERT_EQ(0, tarnm_add_element_itemtyperef(st, 1000, TARN_FCC('d', 'i', 'm', 'g'), 1, to));
    }
    st->assoc_count = 0;
    ASSERT_EQ(0, tarnm_add_hvcc_property(st, hvcc, sizeof hvcc));
    ASSERT_EQ(0, tarnm_add_colr_property(st, colr, sizeof colr));
    if (pass == 1) {
      // Grow once, then hand over the caller's buffer.
      fill_heap(st);
      st->write_ptr -= 1000;
      st->remaining = 1000;
      st->max_image_size = TARNM_INIT_HEAP_SIZE + 100;
      ASSERT_EQ(0, tarnm_reallocate_image_buffer(st));
      st->write_ptr = st->heap + 40;
      st->remaining = static_cast<int32_t>(st->heap_size - 40);
      ASSERT_EQ(0, tarnm_use_delivered_memory_buffer(ctx, delivered.data(),
                                                    static_cast<int32_t>(delivered.size())));
    }
    tarnm_delete(ctx);
    EXPECT_EQ(before, live_heap_bytes()) << "pass " << pass;
  }
  // The caller's buffer is untouched by delete (still readable, still ours).
  EXPECT_EQ(0, memcmp(delivered.data() + 4, "ftyp", 4));
}

TEST(WriterContextTest, FileOutput) {
  Writer w;
  ASSERT_NE(nullptr, w.ctx);
  // The stdio output: a real file, a missing folder, a full device.
  const std::string path = testing::TempDir() + "tarn_writer_out.heic";
  const struct {
    const char *path;
    int32_t rc;
  } kFiles[] = {{path.c_str(), 0}, {"/nonexistent-dir/x.heic", -6}, {"/dev/full", -6}};
  for (const auto &f : kFiles) {
    tarn_test::LogCapture cap;
    tarnm_file_output out;
    ASSERT_EQ(0, tarnm_output_init_file(&out, f.path));
    EXPECT_EQ(f.rc, tarnm_dump_image_to_file(w.ctx, &out.dsc)) << f.path;
    EXPECT_EQ(f.rc != 0, out.failed != 0) << f.path;
    EXPECT_EQ(nullptr, out.file);
    EXPECT_EQ(f.rc != 0, cap.has("failed to write file properly!", "tarnm"));
  }
  EXPECT_EQ(-6, tarnm_dump_image_to_file(w.ctx, nullptr));
  std::vector<uint8_t> back(64);
  FILE *f = fopen(path.c_str(), "rb");
  ASSERT_NE(nullptr, f);
  EXPECT_EQ(32u, fread(back.data(), 1, back.size(), f));
  fclose(f);
  remove(path.c_str());
  EXPECT_EQ(0, memcmp(back.data() + 28, "mdat", 4));
  tarnm_file_output out;
  EXPECT_EQ(-1, tarnm_output_init_file(&out, ""));
  EXPECT_EQ(-1, tarnm_output_init_file(nullptr, "x"));
}

}  // namespace
