// Real files read through a source that fails at each call in turn, and the
// input sources at their ends (allocation failure:
// tests/reliability/failure_test.cc; files cut short: the malformed table,
// the corpus's truncated file and the fuzz replay).
#include <gtest/gtest.h>

#include <cstdio>

#include "fuzz/fuzz_common.h"
#include "reader/helpers.h"
#include "reader/internal.h"

namespace tarn_test {
namespace {

// A grid with idat, the 48-tile phone photo with Exif, alpha, XMP, Exif and XMP.
const char *const kFiles[] = {"nokia/grid_960x640.heic", "phones/iphone8plus_grid_thumb_exif.heic",
                              "synthetic/LA_8__29x100.heif", "synthetic/L_xmp.heif",
                              "phones/sony_mono_exif_xmp.heic"};

// A source of which one call, counting every callback, fails: once, or from
// then on.
tarnd_io_dsc g_memory;
long g_calls, g_fail_at;
bool g_sticky;
bool fails() { return g_sticky ? g_calls++ >= g_fail_at : g_calls++ == g_fail_at; }
tarnd_io_dsc failing_once(const std::vector<uint8_t> &file) {
  tarnd_io_init_memory(&g_memory, file.data(), file.size());
  tarnd_io_dsc io = g_memory;
  io.read = [](void *h, void *b, uint32_t n) { return fails() ? 0u : g_memory.read(h, b, n); };
  io.tell = [](void *h, uint64_t *p) -> int32_t { return fails() ? -1 : g_memory.tell(h, p); };
  io.seek = [](void *h, uint64_t *p) -> int32_t { return fails() ? -1 : g_memory.seek(h, p); };
  io.skip = [](void *h, uint64_t *n) -> int32_t { return fails() ? -1 : g_memory.skip(h, n); };
  io.get_size = [](void *h, uint64_t *n) -> int32_t { return fails() ? -1 : g_memory.get_size(h, n); };
  return io;
}
// A read, tell, seek or skip that fails in the middle of the walk fails the
// open; it never leaves a model other than the file's.
TEST(Robustness, ACallThatFailsFailsTheOpen) {
  TARN_REQUIRE_CORPUS();
  for (const char *name : kFiles) {
    std::vector<uint8_t> file;
    ASSERT_TRUE(read_file(corpus_dir() + "/" + name, &file)) << name;
    for (const uint32_t mode : {TARND_READ_STRICT, TARND_READ_TOLERANT}) {
      g_calls = 0, g_fail_at = -1;
      int32_t err = 1;
      const CtxPtr whole = open_io(failing_once(file), &err, mode);
      ASSERT_NE(whole, nullptr) << name;
      const std::string want = tarn_fuzz::model_of(whole.get());
      for (long calls = g_calls, k = 0; k < calls; ++k) {
        SCOPED_TRACE(std::string(name) + " failing call " + std::to_string(k) + " of " + std::to_string(calls));
        std::string got[2];
        for (const bool sticky : {false, true}) {
          g_calls = 0, g_fail_at = k, g_sticky = sticky;
          const CtxPtr ctx = open_io(failing_once(file), &err, mode);
          got[sticky] = ctx ? tarn_fuzz::model_of(ctx.get()) : std::to_string(err);
        }
        g_sticky = false;
        EXPECT_EQ(got[0], got[1]);
      }
    }
  }
}

// A caller's copy of the handler table is searched where the library's own
// is hashed: both walks leave the same model.
TEST(Robustness, ACopiedHandlerTableWalksAsTheOwnOne) {
  TARN_REQUIRE_CORPUS();
  const std::vector<tarnd_handler> rows(tarnd_handlers(), tarnd_handlers() + tarnd_handlers_cnt());
  const std::string containers(tarnd_handlers_containr_fcc(), 4 * size_t(tarnd_handlers_containr_fcc_cnt()));
  for (const char *name : kFiles) {
    std::vector<uint8_t> file;
    ASSERT_TRUE(read_file(corpus_dir() + "/" + name, &file)) << name;
    std::string models[2];
    for (const bool copied : {false, true}) {
      tarnd_io_dsc io;
      tarnd_io_init_memory(&io, file.data(), file.size());
      CtxPtr ctx(tarnd::model_create_context());
      ASSERT_NE(ctx, nullptr);
      ctx->magic = TARND_MAGIC, ctx->self = ctx.get(), ctx->io = io, ctx->handle = io.open(&io, 0);
      EXPECT_EQ(tarnd_parse(copied ? rows.data() : tarnd_handlers(), tarnd_handlers_cnt(),
                            copied ? containers.data() : tarnd_handlers_containr_fcc(),
                            tarnd_handlers_containr_fcc_cnt(), &io, ctx->handle, ctx.get()),
                1) << name;
      models[copied] = tarn_fuzz::model_of(ctx.get());
    }
    EXPECT_EQ(models[0], models[1]) << name;
  }
}

// The open containers that end at or before the source's position are
// popped, innermost first; a source that cannot tell pops none.
TEST(Robustness, ContainersEndWhereTheSourceStands) {
  const std::vector<uint8_t> data(100, 0);
  tarnd_io_dsc io;
  tarnd_io_init_memory(&io, data.data(), data.size());
  void *h = io.open(&io, 0);
  uint64_t at = 50;
  ASSERT_TRUE(h != nullptr && io.seek(h, &at) == 0);
  tarnd_cstack stack;
  tarnd_cstack_init(&stack);
  for (const uint64_t end : {100u, 50u, 40u}) {
    const tarnd_cstack_node node = {nullptr, end};
    ASSERT_EQ(tarnd_cstack_push(&stack, &node), 0);
  }
  tarnd_io_dsc blind = io;
  blind.tell = [](void *, uint64_t *) { return int32_t(-1); };
  EXPECT_EQ(tarnd_parse_containr_end(&blind, h, &stack), -1);
  EXPECT_EQ(tarnd_cstack_top(&stack)->end, 40u);
  EXPECT_EQ(tarnd_parse_containr_end(&io, h, &stack), 0);
  EXPECT_EQ(tarnd_cstack_top(&stack)->end, 100u);
  at = 100;
  io.seek(h, &at);
  EXPECT_EQ(tarnd_parse_containr_end(&io, h, &stack), 0);
  EXPECT_EQ(tarnd_cstack_top(&stack), nullptr);
  tarnd_cstack_deinit(&stack);
  io.close(h);
}

TEST(Robustness, InputSourcesRefuseMovesPastTheEnd) {
  const std::string path = testing::TempDir() + "/tarn_io_source_test.bin";
  const std::vector<uint8_t> data = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  FILE *f = fopen(path.c_str(), "wb");
  ASSERT_TRUE(f != nullptr && fwrite(data.data(), 1, data.size(), f) == data.size());
  fclose(f);
  tarnd_io_dsc ios[2];
  ASSERT_EQ(tarnd_io_init_memory(&ios[0], data.data(), data.size()), 0);
  ASSERT_EQ(tarnd_io_init_file(&ios[1], path.c_str()), 0);
  for (const tarnd_io_dsc &io : ios) {
    void *h = io.open(&io, 0);
    ASSERT_NE(h, nullptr);
    auto call = [&](int32_t (*fn)(void *, uint64_t *), uint64_t v) { return fn(h, &v) == 0 ? v : 99; };
    EXPECT_EQ(call(io.get_size, 0), 10u);
    EXPECT_EQ(call(io.seek, 10), 10u);  // the end itself is a valid position
    EXPECT_EQ(call(io.seek, 11), 99u);
    EXPECT_EQ(call(io.seek, 4), 4u);
    EXPECT_EQ(call(io.skip, 7), 99u);  // would pass the end
    EXPECT_EQ(call(io.skip, 2), 2u);
    uint8_t buf[16];
    EXPECT_EQ(io.read(h, buf, 16), 4u);  // short read at the end
    EXPECT_EQ(buf[0], 7);
    EXPECT_EQ(call(io.tell, 0), 10u);
    EXPECT_EQ(call(io.skip, 0), 0u);  // a skip may end at the end
    io.close(h);
  }
  EXPECT_EQ(tarnd_io_init_memory(nullptr, data.data(), 1), -1);
  EXPECT_EQ(tarnd_io_init_file(&ios[1], nullptr), -1);
  std::remove(path.c_str());
}

}  // namespace
}  // namespace tarn_test
