// Real files cut short, and the input sources at their ends (allocation
// failure: tests/reliability/failure_test.cc).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

#include "fuzz/fuzz_common.h"
#include "reader/helpers.h"

namespace tarn_test {
namespace {

// A grid with idat, the 48-tile phone photo with Exif, alpha, XMP, Exif and XMP.
const char *const kFiles[] = {"nokia/grid_960x640.heic", "phones/iphone8plus_grid_thumb_exif.heic",
                              "synthetic/LA_8__29x100.heif", "synthetic/L_xmp.heif",
                              "phones/sony_mono_exif_xmp.heic"};

TEST(Robustness, TruncatedRealFilesOpenOrFailCleanly) {
  TARN_REQUIRE_CORPUS();
  for (const char *name : kFiles) {
    std::vector<uint8_t> whole;
    ASSERT_TRUE(read_file(corpus_dir() + "/" + name, &whole)) << name;
    CtxPtr full = open_memory(whole, nullptr);
    ASSERT_NE(full, nullptr) << name;
    // Every cut up to the mdat payload (where all parsing happens), then 60
    // cuts through the coded data.
    const size_t dense_end = size_t(full->mdat_offset) + 64, stride = std::max<size_t>(1, whole.size() / 60);
    for (size_t n = 0; n < whole.size(); n += n < dense_end ? 1 : stride) {
      SCOPED_TRACE(std::string(name) + " cut at " + std::to_string(n));
      // Each prefix in its own exact-size block, so ASan sees any overread.
      const std::vector<uint8_t> prefix(whole.begin(), whole.begin() + long(n));
      for (const uint32_t mode : {TARND_READ_STRICT, TARND_READ_TOLERANT}) {
        int32_t err = 1;
        CtxPtr ctx = open_memory(prefix, &err, mode);
        ASSERT_TRUE(err == 0 || err == -2) << err;
        ASSERT_EQ(ctx != nullptr, err == 0);
        ASSERT_TRUE(ctx != nullptr || n < dense_end);  // a whole meta keeps the model
      }
      tarn_fuzz::exercise_reader(prefix.data(), prefix.size());  // every query of every item
    }
  }
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
    io.close(h);
  }
  EXPECT_EQ(tarnd_io_init_memory(nullptr, data.data(), 1), -1);
  EXPECT_EQ(tarnd_io_init_file(&ios[1], nullptr), -1);
  std::remove(path.c_str());
}

}  // namespace
}  // namespace tarn_test
