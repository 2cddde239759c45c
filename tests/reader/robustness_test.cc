// Open must give a status or a handle for any prefix of a real file, for the
// corpus's broken files, and the two input sources must agree at their ends.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "common/log.h"
#include "reader/open_helpers.h"
#include "support/files.h"
#include "support/log_capture.h"

namespace tarn_test {
namespace {

// Three files of different writers: a 2x2 grid with idat, the 48-tile phone
// photo, and a small synthetic file with alpha.
const char *const kTruncated[] = {"nokia/grid_960x640.heic",
                                  "phones/iphone8plus_grid_thumb_exif.heic",
                                  "synthetic/LA_8__29x100.heif"};

TEST(Robustness, EveryPrefixOfRealFilesOpensOrFailsCleanly) {
  TARN_REQUIRE_CORPUS();
  for (const char *name : kTruncated) {
    std::vector<uint8_t> bytes;
    ASSERT_TRUE(read_file(corpus_dir() + "/" + name, &bytes)) << name;
    int32_t full_err = 1;
    ASSERT_NE(open_memory(bytes, &full_err), nullptr) << name;
    // Every offset up to the mdat payload (where all parsing happens), then a
    // sparse stride through the coded data, where every cut behaves alike.
    CtxPtr whole = open_memory(bytes, &full_err);
    const size_t dense_end = static_cast<size_t>(whole->mdat_offset) + 64;
    for (size_t n = 0; n < bytes.size(); n += n < dense_end ? 1 : 4099) {
      // Each prefix in its own exact-size block, so ASan sees any overread.
      std::vector<uint8_t> prefix(bytes.begin(), bytes.begin() + static_cast<long>(n));
      prefix.shrink_to_fit();
      int32_t err = 1;
      CtxPtr ctx = open_memory(prefix, &err);
      ASSERT_TRUE(err == 0 || err == -2) << name << " at " << n << ": " << err;
      ASSERT_EQ(ctx != nullptr, err == 0) << name << " at " << n;
      // With the whole meta box present, cutting the coded data keeps the model.
      if (n >= dense_end) {
        ASSERT_NE(ctx, nullptr) << name << " at " << n;
      }
    }
  }
}

TEST(Robustness, BrokenCorpusFiles) {
  TARN_REQUIRE_CORPUS();
  struct Case {
    const char *file;
    int32_t err;
    const char *log;  // tag "tarnd"
  };
  const Case kCases[] = {
      {"empty.heic", -2, "ctx->meta.items is NULL"},
      {"corrupted.heic", -2, "ctx->meta.items is NULL"},
      // Only the model is read: a bad id deeper in the data does not matter.
      {"invalid_id.heic", 0, nullptr},
      // Cut inside mdat, after a complete meta.
      {"truncated.heic", 0, nullptr},
  };
  for (const Case &c : kCases) {
    const std::string path = corpus_dir() + "/broken/" + c.file;
    for (int source = 0; source < 2; ++source) {
      LogCapture cap;
      int32_t err = 1;
      std::vector<uint8_t> bytes;
      ASSERT_TRUE(read_file(path, &bytes)) << c.file;
      CtxPtr ctx = source == 0 ? open_memory(bytes, &err) : open_path(path, &err);
      EXPECT_EQ(err, c.err) << c.file << " source " << source;
      if (c.log != nullptr) {
        EXPECT_TRUE(cap.has(c.log, "tarnd")) << c.file << "\n" << cap.dump();
      }
    }
  }
}

TEST(Robustness, InputSourcesRefuseMovesPastTheEnd) {
  const std::string path = testing::TempDir() + "/tarn_io_source_test.bin";
  const std::vector<uint8_t> data = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  FILE *f = fopen(path.c_str(), "wb");
  ASSERT_NE(f, nullptr);
  fwrite(data.data(), 1, data.size(), f);
  fclose(f);

  tarnd_io_dsc ios[2];
  ASSERT_EQ(tarnd_io_init_memory(&ios[0], data.data(), data.size()), 0);
  ASSERT_EQ(tarnd_io_init_file(&ios[1], path.c_str()), 0);
  for (const tarnd_io_dsc &io : ios) {
    void *h = io.open(&io, 0);
    ASSERT_NE(h, nullptr);
    uint64_t v = 0;
    uint8_t buf[16];
    EXPECT_EQ(io.get_size(h, &v), 0);
    EXPECT_EQ(v, 10u);
    v = 10;
    EXPECT_EQ(io.seek(h, &v), 0);  // the end itself is a valid position
    v = 11;
    EXPECT_NE(io.seek(h, &v), 0);
    v = 4;
    EXPECT_EQ(io.seek(h, &v), 0);
    v = 7;
    EXPECT_NE(io.skip(h, &v), 0);  // would pass the end
    v = 2;
    EXPECT_EQ(io.skip(h, &v), 0);
    EXPECT_EQ(io.read(h, buf, 16), 4u);  // short read at the end
    EXPECT_EQ(buf[0], 7);
    EXPECT_EQ(io.tell(h, &v), 0);
    EXPECT_EQ(v, 10u);
    io.close(h);
  }
  EXPECT_EQ(tarnd_io_init_memory(nullptr, data.data(), 1), -1);
  EXPECT_EQ(tarnd_io_init_file(&ios[1], nullptr), -1);
  const std::string absent = path + ".absent";  // must outlive the open
  tarnd_io_init_file(&ios[1], absent.c_str());
  LogCapture cap;
  tarnd_file_info info;
  int32_t err = 0;
  EXPECT_EQ(tarnd_create(&ios[1], 0, &info, &err), nullptr);
  EXPECT_EQ(err, -6);
  EXPECT_TRUE(cap.has(" file open failed", "tarnd"));
  std::remove(path.c_str());
}

TEST(Robustness, FindItemIndexFastPathsAndScan) {
  tarnd_item from1[3] = {}, from100[3] = {};
  for (uint16_t i = 0; i < 3; ++i) {
    from1[i].item_id = static_cast<uint16_t>(i + 1);
    from100[i].item_id = static_cast<uint16_t>(i + 100);
  }
  from100[1].item_id = 101;
  struct Case {
    const tarnd_item *items;
    uint32_t id;
    int32_t result;
    uint32_t index;
  };
  const Case kCases[] = {{from1, 2, 0, 1},    {from1, 3, 0, 2},     {from1, 4, -1, 0},
                         {from100, 102, 0, 2}, {from100, 101, 0, 1}, {from100, 99, -1, 0},
                         {from1, 65537, -1, 0}};
  for (const Case &c : kCases) {
    uint32_t index = 77;
    EXPECT_EQ(tarnd_find_itemIndex(c.items, 3, c.id, &index), c.result) << c.id;
    EXPECT_EQ(index, c.result == 0 ? c.index : 77u) << c.id;
  }
  EXPECT_EQ(tarnd_find_itemIndex(nullptr, 3, 1, nullptr), -1);
}

}  // namespace
}  // namespace tarn_test
