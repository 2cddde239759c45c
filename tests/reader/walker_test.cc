// Box walker: header sizes, nesting, unknown boxes, trailers and the stray
// boxes inside ipco, on files built with the box builder.
#include <gtest/gtest.h>

#include <cstring>

#include "common/log.h"
#include "reader/model_fixtures.h"
#include "reader/open_helpers.h"
#include "support/log_capture.h"

namespace tarn_test {
namespace {

using namespace bb;

Bytes many_unknown(size_t n) {
  Bytes out;
  for (size_t i = 0; i < n; ++i) append(&out, box("zzzz"));
  return out;
}

struct WalkCase {
  const char *name;
  Bytes bytes;
  int32_t err;
  const char *log;  // expected line with tag "tarnd_parse", or null
};

TEST(Walker, HeaderAndStructureCases) {
  const Bytes valid = fx::valid_file();
  const WalkCase kCases[] = {
      {"valid file", valid, 0, nullptr},
      {"32-bit size below 8 before meta", cat({fx::ftyp(), u32(4), fourcc("free"), valid}), -2,
       "size of 32bit atom is too small"},
      {"32-bit size below 8 after the tables", cat({valid, u32(7), fourcc("free"), zeros(8)}), 0,
       "size of 32bit atom is too small"},
      {"64-bit size 15", cat({fx::ftyp(), u32(1), fourcc("free"), u64(15), valid}), -2,
       "size of 64bit atom is too small"},
      {"64-bit size wrapping the position", cat({fx::ftyp(), u32(1), fourcc("free"), u64(~0ull)}),
       -2, "atom size is too big(18446744073709551615)"},
      {"full box smaller than its header", cat({fx::ftyp(), box_sized(8, "meta"), valid}), -2,
       "size of 32bit atom is too small"},
      {"8193 unknown boxes pass", cat({many_unknown(8193), valid}), 0, nullptr},
      {"8194 unknown boxes stop", cat({many_unknown(8194), valid}), -2,
       "Too much unknown atom (8194)"},
      {"trld past the source", cat({valid, box_sized(100, "trld", {zeros(8)})}), 0,
       "trld size is not matched"},
      {"fewer than 8 trailing bytes", cat({valid, zeros(7)}), 0, nullptr},
      {"size 0 runs to the end", cat({valid, u32(0), fourcc("free"), zeros(30)}), 0, nullptr},
      {"largesize boxes", cat({fx::ftyp(), box_large("free", {zeros(4)}), valid}), 0, nullptr},
      {"infe inside ipco takes a slot",
       fx::file({fx::iinf({fx::infe(1, "hvc1")}), fx::iloc1(1, 0, 8),
                 fx::iprp({fx::infe(9, "hvc1"), fx::hvcC()}, fx::ipma1(1, {2}))}),
       0, "box type : 1701211753 is in ipco box"},
  };
  for (const WalkCase &c : kCases) {
    LogCapture cap;
    int32_t err = 1;
    CtxPtr ctx = open_memory(c.bytes, &err);
    EXPECT_EQ(err, c.err) << c.name << "\n" << cap.dump();
    EXPECT_EQ(ctx != nullptr, c.err == 0) << c.name;
    if (c.log != nullptr) {
      EXPECT_TRUE(cap.has(c.log, "tarnd_parse")) << c.name << "\n" << cap.dump();
    }
  }
}

TEST(Walker, StrayInfeInsideIpcoKeepsPropertyIndexes) {
  CtxPtr ctx = open_memory(fx::file({fx::iinf({fx::infe(1, "hvc1")}), fx::iloc1(1, 0, 8),
                                     fx::iprp({fx::infe(9, "hvc1"), fx::hvcC()},
                                              fx::ipma1(1, {2}))}),
                           nullptr);
  ASSERT_NE(ctx, nullptr);
  EXPECT_EQ(ctx->meta.item_cnt, 1u);  // the stray infe made no item
  EXPECT_EQ(ctx->meta.property_cnt, 2);
  EXPECT_EQ(ctx->meta.items[0].view.image.hvcC_index, 1);
}

TEST(Walker, ChildRunningPastTheSourceResumesAtItsContainerEnd) {
  // The meta ends inside the source; its last child claims far more. The
  // walk resumes at the end of meta and still finds mdat.
  Bytes meta = fullbox("meta", 0, 0,
                       {fx::iinf({fx::infe(1, "hvc1")}), fx::iloc1(1, 0, 8), fx::default_iprp(),
                        box_sized(0x7fffffff, "free")});
  Bytes bytes = cat({fx::ftyp(), meta, box("mdat", {zeros(8)})});
  CtxPtr ctx = open_memory(bytes, nullptr);
  ASSERT_NE(ctx, nullptr);
  EXPECT_EQ(ctx->mdat_found, 1);
  EXPECT_EQ(ctx->mdat_offset, fx::ftyp().size() + meta.size());
}

TEST(Walker, LargeMdatIsLocatedNotRead) {
  // A 2 GiB mdat announced by a 64-bit size but absent from the source.
  Bytes bytes = cat({fx::valid_file(), u32(1), fourcc("mdat"), u64(2147483648ull + 16)});
  CtxPtr ctx = open_memory(bytes, nullptr);
  ASSERT_NE(ctx, nullptr);
  EXPECT_EQ(ctx->mdat_size, 2147483648ull + 16);
  EXPECT_EQ(ctx->mdat_offset, fx::valid_file().size());
}

TEST(Walker, HandlerTableIsSortedAndComplete) {
  const tarnd_handler *rows = tarnd_handlers();
  ASSERT_EQ(tarnd_handlers_cnt(), 33);
  for (int32_t i = 1; i < tarnd_handlers_cnt(); ++i) EXPECT_LT(rows[i - 1].fcc, rows[i].fcc) << i;
  for (int32_t i = 0; i < tarnd_handlers_cnt(); ++i) {
    const void *found = tarn_bsearch(rows, tarnd_handlers_cnt(), sizeof(tarnd_handler),
                                     &rows[i].fcc, tarnd_grammar_compare, nullptr);
    EXPECT_EQ(found, &rows[i]) << i;
  }
  EXPECT_EQ(tarnd_search_fcc(fcc("iprp"), tarnd_handlers_containr_fcc(), 4), 3);
  EXPECT_EQ(tarnd_search_fcc(fcc("iref"), tarnd_handlers_containr_fcc(), 4), -1);
  EXPECT_EQ(tarnd_search_fcc(fcc("meta"), tarnd_handlers_containr_fcc(), 0), -1);
}

}  // namespace
}  // namespace tarn_test
