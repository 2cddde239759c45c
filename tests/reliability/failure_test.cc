// The writer and the reader under failure: every allocation of a file with
// every kind of item and property failing in turn (written, then read back
// through every query). Nothing may leak, crash or write outside a buffer; a
// failure that is absorbed must not change the result.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "reader/internal.h"
#include "support/alloc_hook.h"
#include "support/box_builder.h"
#include "support/files.h"
#include "tarn/edit.h"
#include "tarn/io.h"
#include "tarn/reader.h"
#include "tarn/utils.h"
#include "tarn/writer.h"
#include "writer/writer_support.h"

namespace tarn_test {
namespace {

// One x265 picture, its frame converted once so that writing allocates
// nothing in the test itself.
struct Stream {
  HevcStream units;
  Bytes frame;
  tarnm_param_sets sets() const { return units.param_sets(); }
};
bool load(const char *name, Stream *s) {
  return load_stream(name, &s->units) && !(s->frame = s->units.frame()).empty();
}

struct Inputs {
  Stream tiles[4], thumb;
  Bytes exif = {'E', 'x', 'i', 'f', 0, 0, 'M', 'M', 0, 42, 0, 0, 0, 8, 0, 0, 0, 0, 0, 0};
  std::string xmp = "<x:xmpmeta xmlns:x=\"adobe:ns:meta/\"/>";
  bool ok = load("tile0.hevc", &tiles[0]) && load("tile1.hevc", &tiles[1]) &&
            load("tile2.hevc", &tiles[2]) && load("tile3.hevc", &tiles[3]) &&
            load("thumb128.hevc", &thumb);
};
const Inputs &inputs() {
  static const Inputs in;
  return in;
}

// An ICC display profile of 3,880 bytes: with it the grid's clli property is
// the one that opens a second block of the property list, so that clli's
// failure is among the allocations failed below.
constexpr uint32_t kIccSize = 3880;
const uint8_t *icc() {
  static uint8_t b[kIccSize] = {0, 0, kIccSize >> 8, kIccSize & 0xFF, 0, 0, 0, 0, 0x02, 0x10, 0, 0,
                                'm', 'n', 't', 'r', 'R', 'G', 'B', ' ', 'X', 'Y', 'Z', ' '};
  return b;
}
const uint8_t kNclx[7] = {1, 0, 13, 0, 6, 0, 1};
const uint8_t kDepths[3] = {8, 8, 8};
const uint8_t kTonemap[20] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19};

// A 2x2 grid (item 5 over tiles 1-4, rotated, with ICC, pixi, clli, Exif and
// XMP), a thumbnail with nclx (6), an alpha plane (7) and a tone map (8).
// Returns the first
// failing status; the context, if any, is left in *out. Allocates nothing
// itself, so that every allocation counted is the library's.
int32_t write_file(tarnm_ctx **out) {
  const Inputs &in = inputs();
  tarnm_init_dsc dsc{};
  int32_t rc = -1;
  *out = tarnm_create(&dsc, &rc);
  if (*out == nullptr) return rc;
  tarnm_image_info grid{};
  grid.width = grid.height = 256;
  grid.rotation = 90;
  grid.param_sets = in.tiles[0].sets();
  grid.color_type = 3, grid.color_data = icc(), grid.color_size = kIccSize;
  grid.bit_depth = kDepths, grid.bit_depth_info_count = 3;
  grid.max_cll = 1000, grid.max_pall = 400;
  grid.exif_data = in.exif.data(), grid.exif_size = uint32_t(in.exif.size());
  grid.xmp_data = reinterpret_cast<const uint8_t *>(in.xmp.data()), grid.xmp_size = uint32_t(in.xmp.size());
  const tarnm_grid_info layout{512, 512, 2, 2, 1, 4, 5, 0};
  tarnm_image_info thumb{};
  thumb.img_type = IMG_TYPE_THUMBNAIL;
  thumb.width = thumb.height = 128;
  thumb.param_sets = in.thumb.sets();
  thumb.color_type = 1, thumb.color_data = kNclx, thumb.color_size = 7;
  tarnm_image_info alpha = thumb;
  alpha.img_type = IMG_TYPE_AUX, alpha.aux_type = 1;
  alpha.color_type = 0, alpha.color_data = nullptr, alpha.color_size = 0;
  tarnm_image_info tmap{};
  tmap.img_type = IMG_TYPE_TMAP;
  tmap.width = tmap.height = 512;
  tmap.tmap_data = kTonemap, tmap.tmap_size = sizeof kTonemap;
  if ((rc = tarnm_set_image_info(*out, 5, 0, &grid, &layout)) != 0) return rc;
  if ((rc = tarnm_set_image_info(*out, 6, 5, &thumb, nullptr)) != 0) return rc;
  if ((rc = tarnm_set_image_info(*out, 7, 5, &alpha, nullptr)) != 0) return rc;
  // The tone map's inputs are the cover image and the gain map as they stand
  // when it is registered: the cover comes first, or its reference names 0.
  if ((rc = tarnm_set_cover_image(*out, 5)) != 0) return rc;
  if ((rc = tarnm_set_image_info(*out, 8, 5, &tmap, nullptr)) != 0) return rc;
  for (uint32_t t = 0; t < 4; ++t) {
    const Bytes &f = in.tiles[t].frame;
    if ((rc = tarnm_put_frm(*out, t + 1, f.data(), uint32_t(f.size()))) != 0) return rc;
  }
  for (uint32_t id : {6u, 7u}) {
    if ((rc = tarnm_put_frm(*out, id, in.thumb.frame.data(), uint32_t(in.thumb.frame.size()))) != 0) return rc;
  }
  return tarnm_stop_muxing(*out);
}

[[maybe_unused]] Bytes reference_file() {
  tarnm_ctx *w = nullptr;
  Bytes file;
  if (write_file(&w) == 0) {
    file.resize(size_t(tarnm_get_outputbuffer_size(w)));
    tarnm_dump_image_to_outputbuffer(w, file.data());
  }
  tarnm_delete(w);
  return file;
}

// Every answer the reader gives about a file: the status of each query and a
// digest of what it wrote. Filled without allocating.
struct Answers {
  int32_t create = 1;
  long open_allocations = 0;
  int32_t status[96];
  uint64_t digest[96];
  int n = 0;
};
void note(Answers *a, int32_t status, const void *p, size_t size, uint64_t h = 1469598103934665603ull) {
  for (size_t i = 0; i < size; ++i) h = (h ^ static_cast<const uint8_t *>(p)[i]) * 1099511628211ull;
  a->status[a->n] = status;
  a->digest[a->n++] = h;
}
uint8_t g_frame[1 << 20];

[[maybe_unused]] void ask_everything(const Bytes &file, uint32_t mode, Answers *a) {
  tarnd_io_dsc io;
  tarnd_io_init_memory(&io, file.data(), file.size());
  tarnd_file_info fi;
  void *h = tarnd_create_with_flags(&io, mode, &fi, &a->create);
#if defined(TARN_TEST_ALLOC_HOOK)
  a->open_allocations = g_count;
#endif
  if (h == nullptr) return;
  for (uint32_t role = TARND_ID_PRIMARY; role <= TARND_ID_STEREO_RIGHT; ++role) {
    uint32_t id = 0;
    note(a, tarnd_get_image_id(h, role, TARND_ID_REF_PRIMARY, &id), &id, sizeof id);
  }
  for (int32_t item = 1; item <= 9; ++item) {
    tarnd_image_info ii{};
    int32_t s = tarnd_get_info_image(h, item, &ii);
    note(a, s, &ii.width, 3 * sizeof(uint32_t), ii.flags ^ ii.tile_cnt ^ uint64_t(ii.codec) << 32);
    note(a, s, ii.icc_data, ii.icc_size);
    note(a, s, ii.config_data, ii.config_size);
    int32_t size = 0;
    s = tarnd_get_image_frm(h, item, g_frame, sizeof g_frame, &size);
    note(a, s, g_frame, size_t(size > 0 ? size : 0));
    tarnd_grid_info g{};
    note(a, tarnd_get_info_item(h, item, TARND_INFO_GRID, &g), &g, sizeof g);
    for (uint32_t kind : {TARND_INFO_EXIF, TARND_INFO_XMP, TARND_INFO_TONEMAP}) {
      tarnd_item_data d{};
      s = tarnd_get_info_item(h, item, kind, &d);
      note(a, s, d.data, d.size);
    }
    uint32_t refs[8] = {};
    note(a, tarnd_get_list_referenceto(h, item, refs, 8), refs, sizeof refs);
  }
  tarnd_delete(h);
}

TEST(WriterAllocFailure, EveryAllocationOfARoundTripFailsCleanly) {
#if !defined(TARN_TEST_ALLOC_HOOK)
  GTEST_SKIP() << "allocator wrapping needs glibc without sanitizers";
#else
  ASSERT_TRUE(inputs().ok);
  const Bytes ref = reference_file();
  ASSERT_FALSE(ref.empty());
  Bytes out(ref.size() + 64);
  long fail_at = 0;
  for (;; ++fail_at) {
    g_count = 0, g_live = 0, g_fail_at = fail_at, g_armed = true;
    tarnm_ctx *w = nullptr;
    const int32_t rc = write_file(&w);
    const int32_t size = rc == 0 ? tarnm_get_outputbuffer_size(w) : -1;
    const bool fits = size > 0 && size_t(size) <= out.size();
    if (fits) tarnm_dump_image_to_outputbuffer(w, out.data());
    tarnm_delete(w);
    const bool reached = g_count > fail_at;
    g_armed = false;
    SCOPED_TRACE("failing allocation " + std::to_string(fail_at));
    EXPECT_EQ(g_live, 0);
    EXPECT_TRUE(rc == 0 || (rc <= -1 && rc >= -6)) << rc;
    // A failure that was absorbed must still give the very same file.
    if (rc == 0) {
      EXPECT_TRUE(fits && Bytes(out.begin(), out.begin() + size) == ref);
    }
    if (!reached) break;
  }
  // Create, registration, the element lists and the metadata copies all
  // allocate: a hook that saw few calls is not wired in.
  EXPECT_GT(fail_at, 10);
#endif
}

// Opening and every query of the file above, of real files (a grid with
// idat, a stereo pair, an alpha plane) and of two built ones, with each
// allocation failing in turn.
// Nothing leaks or crashes; a failure inside the open may cost a box the
// reader would also skip when malformed (an iref, an idat), but once open,
// every query answers as without the failure or fails with a negative status
// where it would have succeeded.
TEST(ReaderAllocFailure, EveryAllocationOfOpenAndQueriesFailsCleanly) {
#if !defined(TARN_TEST_ALLOC_HOOK)
  GTEST_SKIP() << "allocator wrapping needs glibc without sanitizers";
#else
  ASSERT_TRUE(inputs().ok);
  std::vector<std::pair<std::string, Bytes>> files = {{"written", reference_file()}};
  for (const char *name : {"nokia/grid_960x640.heic", "nokia/stereo_1200x800.heic", "synthetic/LA_8__29x100.heif"}) {
    if (corpus_dir().empty()) break;
    files.emplace_back(name, Bytes());
    ASSERT_TRUE(read_file(corpus_dir() + "/" + name, &files.back().second)) << name;
  }
  for (const char *name : {"auxC_alpha_with_subtype", "containers_nested_deeper_than_real_files"}) {
    files.emplace_back(name, Bytes());  // an auxC subtype, containers past the stack's inline nodes
    ASSERT_TRUE(read_file(regression_path(name), &files.back().second)) << name;
  }
  // Then again with every model piece in a block of its own, so that each
  // caller of the model's storage sees its piece fail.
  for (const bool per_piece : {false, true}) for (const auto &f : files)
    for (const uint32_t mode : {TARND_READ_STRICT, TARND_READ_TOLERANT}) {
    tarnd::g_model_block_per_piece = per_piece;
    const Bytes &file = f.second;
    static Answers ref, got;
    ref = Answers();
    ask_everything(file, mode, &ref);
    ASSERT_EQ(ref.create, 0) << f.first;
    long fail_at = 0;
    for (;; ++fail_at) {
      got = Answers();
      g_count = 0, g_live = 0, g_fail_at = fail_at, g_armed = true;
      ask_everything(file, mode, &got);
      const bool reached = g_count > fail_at;
      g_armed = false;
      SCOPED_TRACE(f.first + ", mode " + std::to_string(mode) + (per_piece ? ", a block per piece" : "") +
                   ", failing allocation " + std::to_string(fail_at));
      EXPECT_EQ(g_live, 0);
      if (got.create != 0) {
        EXPECT_TRUE(got.create == -2 || got.create == -5 || got.create == -6) << got.create;
      } else if (fail_at >= got.open_allocations) {
        ASSERT_EQ(got.n, ref.n);
        for (int i = 0; i < ref.n; ++i) {
          if (got.status[i] == ref.status[i]) {
            EXPECT_EQ(got.digest[i], ref.digest[i]) << "query " << i;
          } else {
            EXPECT_LT(got.status[i], 0) << "query " << i;
          }
        }
      }
      if (!reached) break;
    }
    // At least the source and the context (which holds the first model
    // block) were failed.
    EXPECT_GT(fail_at, 1) << f.first;
  }
  tarnd::g_model_block_per_piece = false;
  // A 48-tile phone photo opens in either mode with a handful of
  // allocations, none per tile or per box: the context, the source and the
  // model's blocks.
  Bytes photo;
  if (!corpus_dir().empty() && read_file(corpus_dir() + "/phones/iphone8plus_grid_thumb_exif.heic", &photo)) {
    for (const uint32_t mode : {TARND_READ_STRICT, TARND_READ_TOLERANT}) {
      static Answers a;
      a = Answers();
      g_count = 0, g_live = 0, g_fail_at = -1, g_armed = true;
      ask_everything(photo, mode, &a);
      g_armed = false;
      EXPECT_EQ(a.create, 0);
      EXPECT_LE(a.open_allocations, 4) << "mode " << mode;
    }
  }
#endif
}

// The allocations that neither test above reaches: the file source, the id
// index of a tolerant open of more than 64 items out of order, a model
// block of its own, a writer list's block index, the container stack,
// aligned memory and the SEI parser's bit reader. Each one, failed in turn,
// is refused cleanly and leaks nothing.
TEST(OtherAllocFailure, EachIsRefusedCleanly) {
#if !defined(TARN_TEST_ALLOC_HOOK)
  GTEST_SKIP() << "allocator wrapping needs glibc without sanitizers";
#else
  static const std::string path = regression_path("mode_65_items_descending");
  static tarn_mblk list;
  ASSERT_EQ(tarn_mblk_ctor(&list, TARN_MBLK_PAYLOAD_SIZE / 2), 0);
  const Bytes elem(TARN_MBLK_PAYLOAD_SIZE / 2, 7);
  for (int i = 0; i < 4; ++i) ASSERT_EQ(tarn_mblk_elem_add(&list, elem.data()), 0);
  static omni_sei_t35 sei;
  const std::pair<const char *, int32_t (*)()> kCalls[] = {
      {"tolerant open from a file", [] {
         tarnd_io_dsc io;
         tarnd_file_info fi;
         int32_t err = 1;
         tarnd_io_init_file(&io, path.c_str());
         tarnd_delete(tarnd_create_with_flags(&io, TARND_READ_TOLERANT, &fi, &err));
         return err; }},
      {"an idat and an auxC larger than any model block", [] {  // which take blocks of their own
         static const Bytes file = [] {
           bb::File f;
           const Bytes subtype = bb::cat({bb::u32(300 << 10), bb::zeros(300 << 10)});
           f.ipco = bb::cat({bb::hvcc(), bb::ispe(64, 64),
                             bb::fullbox("auxC", 0, 0, {bb::str("urn:mpeg:hevc:2015:auxid:1"), subtype})});
           f.ipma_box = bb::ipma({{1, 0x81, 0x82, 0x83}});
           f.iloc_version = 1;
           f.locs = {{1, 0, 10, 1}};
           f.more = bb::box("idat", {bb::kFrame, bb::zeros(300 << 10)});
           return f.build();
         }();
         tarnd_io_dsc io;
         tarnd_file_info fi;
         int32_t err = 1;
         tarnd_io_init_memory(&io, file.data(), file.size());
         void *h = tarnd_create_with_flags(&io, TARND_READ_STRICT, &fi, &err);
         int32_t size = 0;  // an open without its idat serves no frame
         const int32_t rc = h == nullptr ? err : tarnd_get_image_frm(h, 1, nullptr, 0, &size);
         tarnd_delete(h);
         return rc; }},
      {"lossless edit", [] {  // of a file with every kind of image, turned and without GPS
         static const Bytes file = reference_file();
         static uint8_t written[1 << 20];
         static size_t length;
         tarnm_output_dsc out = {[](tarnm_output_dsc *, int32_t) -> void * { return length = 0, written; },
                                 [](void *) {}, nullptr, [](void *, const void *data, size_t n) -> size_t {
                                   if (n > sizeof written - length) return 0;
                                   memcpy(written + length, data, n);
                                   return length += n, n;
                                 }};
         tarnd_io_dsc io;
         tarnd_io_init_memory(&io, file.data(), file.size());
         tarn_edit_options options = {};
         options.flags = TARN_EDIT_STRIP_GPS | TARN_EDIT_SET_ROTATION;
         options.rotation = 180;
         return tarn_edit(&io, &out, &options); }},
      {"block index", [] {  // built once per list, so released after each build
         const int32_t rc = tarn_mblk_upd_meta(&list, [](const void *) { return 1u; });
         free(list.meta_array);
         list.meta_array = nullptr;
         return rc; }},
      {"aligned memory", [] {
         void *p = omni_malloc_align32(100), *q = omni_malloc_fast_align32(100);
         omni_mfree_align32(p), omni_mfree_fast_align32(q);
         return int32_t(p == nullptr) + int32_t(q == nullptr); }},
      {"container stack", [] {  // pushes that succeeded are all freed, one by one or at once
         tarnd_cstack stack;
         tarnd_cstack_init(&stack);
         const tarnd_cstack_node node = {nullptr, 64};
         int32_t rc = 0;
         for (int i = 0; i < 3; ++i) rc |= tarnd_cstack_push(&stack, &node);
         tarnd_cstack_pop(&stack);
         tarnd_cstack_deinit(&stack);
         return rc | int32_t(stack != nullptr); }},
      {"SEI parser", [] {
         const uint8_t t35[] = {0xB5, 0, 0x3C, 0, 1, 4, 1};
         return omni_vc_parse_sei_t35_metadata(t35, sizeof t35, &sei); }},
  };
  for (const auto &call : kCalls) {
    ASSERT_EQ(call.second(), 0) << call.first;
    for (long fail_at = 0;; ++fail_at) {
      g_count = 0, g_live = 0, g_fail_at = fail_at, g_armed = true;
      const int32_t rc = call.second();
      const bool reached = g_count > fail_at;
      g_armed = false;
      SCOPED_TRACE(std::string(call.first) + ", failing allocation " + std::to_string(fail_at));
      EXPECT_EQ(g_live, 0);
      if (!reached) break;
      EXPECT_NE(rc, 0);
    }
  }
  tarn_mblk_dtor(&list);
#endif
}

}  // namespace
}  // namespace tarn_test
