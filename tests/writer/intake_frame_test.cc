// Frame and metadata intake: start codes turned into lengths in place,
// refusals that leave nothing behind, a delivered buffer that runs full, and
// the finishing steps that depend on what came in.

#include <gtest/gtest.h>

#include <cstring>

#include "support/log_capture.h"
#include "writer/intake.h"
#include "writer/roundtrip_scenarios.h"

namespace {

using tarn_test::Bytes;
using tarn_test::Mux;

// The bytes the writer stored for the last chunk of size n.
Bytes stored(const Mux &mux, size_t n) {
  const tarnm_state &s = mux.ctx()->state;
  return Bytes(s.write_ptr - n, s.write_ptr);
}

TEST(IntakeConversion, StartCodesBecomeLengths) {
  Bytes hundred = {0, 0, 0, 1};
  hundred.resize(104, 0x55);
  Bytes hundred_stored = hundred;
  hundred_stored[3] = 100;
  // Units of 58, 70 and 10 bytes: the second start code straddles the end
  // of the first 64-byte block, the third lies inside the third block.
  Bytes blocks, blocks_stored;
  for (uint8_t len : {58, 70, 10}) {
    blocks.insert(blocks.end(), {0, 0, 0, 1});
    blocks_stored.insert(blocks_stored.end(), {0, 0, 0, len});
    blocks.insert(blocks.end(), len, 0x66);
    blocks_stored.insert(blocks_stored.end(), len, 0x66);
  }
  struct Case {
    const char *name;
    Bytes in, out;
  };
  const Case kCases[] = {
      {"two units", {0, 0, 0, 1, 0x40, 1, 0x0C, 0, 0, 0, 1, 0x42, 1},
       {0, 0, 0, 3, 0x40, 1, 0x0C, 0, 0, 0, 2, 0x42, 1}},
      {"one unit of 100 bytes", hundred, hundred_stored},
      {"start codes across blocks", blocks, blocks_stored},
      {"3-byte start code stays inside", {0, 0, 0, 1, 0x26, 0, 0, 1, 0x28, 7},
       {0, 0, 0, 6, 0x26, 0, 0, 1, 0x28, 7}},
      {"start code at the very end is a unit of its own", {0, 0, 0, 1, 0x26, 9, 0, 0, 0, 1},
       {0, 0, 0, 2, 0x26, 9, 0, 0, 0, 1}},
      {"empty unit stops the conversion", {0, 0, 0, 1, 0, 0, 0, 1, 0x26, 0, 0, 0, 1, 0x28},
       {0, 0, 0, 1, 0, 0, 0, 1, 0x26, 0, 0, 0, 1, 0x28}},
      {"zeros before a start code belong to the unit", {0, 0, 0, 1, 0x26, 0, 0, 0, 0, 1, 0x28},
       {0, 0, 0, 2, 0x26, 0, 0, 0, 0, 1, 0x28}},
  };
  for (const Case &c : kCases) {
    SCOPED_TRACE(c.name);
    Mux mux;
    ASSERT_EQ(tarnm_put_frm(mux.ctx(), 1, c.in.data(), uint32_t(c.in.size())), 0);
    EXPECT_EQ(stored(mux, c.in.size()), c.out);
  }
}

// A frame cut at every length is stored without reading past its end
// (checked by the sanitizer build) and with its length entry intact.
TEST(IntakeConversion, TruncatedFrames) {
  tarn_test::HevcStream s;
  ASSERT_TRUE(tarn_test::load_stream("thumb128.hevc", &s));
  Bytes frame;
  for (const Bytes *u : {&s.vps[0], &s.sps[0], &s.pps[0], &s.slices[0]}) {
    frame.insert(frame.end(), {0, 0, 0, 1});
    frame.insert(frame.end(), u->begin(), u->end());
  }
  Mux mux;
  for (size_t len = 5; len <= frame.size(); len += 7) {
    Bytes cut(frame.begin(), frame.begin() + long(len));
    cut.shrink_to_fit();
    ASSERT_EQ(tarnm_put_frm(mux.ctx(), 1, cut.data(), uint32_t(len)), 0);
    const Bytes out = stored(mux, len);
    EXPECT_EQ(tarn_test::be32(out.data()), len < 4 + s.vps[0].size() ? len - 4 : s.vps[0].size());
  }
}

TEST(Intake, RefusalsLeaveNothingBehind) {
  static const uint8_t kNoStartCode[] = {0x40, 1, 0x0C, 1, 0xFF, 0xFF};
  static const uint8_t kThreeByte[] = {0, 0, 1, 0x40, 1, 0x0C};
  static const uint8_t kTiny[] = {0, 0, 0, 1};
  struct Case {
    const char *name;
    const uint8_t *data;
    uint32_t size;
    const char *line;
  };
  const Case kCases[] = {
      {"no start code", kNoStartCode, sizeof kNoStartCode,
       "frame of item 1 does not start with a start code"},
      {"3-byte start code", kThreeByte, sizeof kThreeByte,
       "frame of item 1 does not start with a start code"},
      {"start code alone", kTiny, sizeof kTiny, "frame of item 1 does not start with a start code"},
      {"null data", nullptr, 8, "invalid frame of item 1. size : 8"},
      {"size 0", kThreeByte, 0, "invalid frame of item 1. size : 0"},
      {"size above 2^31 - 1", kThreeByte, 0x80000000u, "invalid frame of item 1. size : 2147483648"},
  };
  for (const Case &c : kCases) {
    SCOPED_TRACE(c.name);
    Mux mux;
    const int32_t before = tarnm_get_outputbuffer_size(mux.ctx());
    tarn_test::LogCapture cap;
    EXPECT_EQ(tarnm_put_frm(mux.ctx(), 1, c.data, c.size), -1);
    EXPECT_TRUE(cap.has(c.line, "tarnm")) << cap.dump();
    EXPECT_EQ(tarnm_get_outputbuffer_size(mux.ctx()), before);
    EXPECT_EQ(mux.ctx()->state.iloc_list.elem_count, 0u);
  }
  // A frame under a grid's own id, then a grid whose tile never arrives:
  // both refused, and the file still finishes once the tile is there.
  tarn_test::HevcStream t;
  ASSERT_TRUE(tarn_test::load_stream("tile0.hevc", &t));
  Mux grid_mux;
  const tarnm_grid_info g{512, 512, 2, 2, 1, 4, 5, 0};
  ASSERT_EQ(grid_mux.image(5, 0, Mux::info_for(t, 256, 256), &g), 0);
  ASSERT_EQ(grid_mux.cover(5), 0);
  tarn_test::LogCapture grid_cap;
  EXPECT_EQ(grid_mux.frame(5, t), -1);
  EXPECT_TRUE(grid_cap.has("item 5 is a grid and takes no frame", "tarnm"));
  for (uint32_t id : {1u, 2u, 4u}) ASSERT_EQ(grid_mux.frame(id, t), 0);
  EXPECT_EQ(tarnm_stop_muxing(grid_mux.ctx()), -3);
  EXPECT_TRUE(grid_cap.has("grid 5 misses the frame of tile 3", "tarnm")) << grid_cap.dump();
  ASSERT_EQ(grid_mux.frame(3, t), 0);
  tarn_test::check_with_reader(grid_mux.finish(), grid_mux.expect);

  Mux mux;
  tarn_test::LogCapture cap;
  uint32_t offset = 77;
  EXPECT_EQ(tarnm_put_metadata(mux.ctx(), 3, kTiny, 0, &offset), -1);
  EXPECT_TRUE(cap.has("metadata size is zero", "tarnm"));
  EXPECT_EQ(offset, 77u);
  EXPECT_EQ(tarnm_put_frm(nullptr, 1, kTiny, 4), -1);
}

// With a delivered buffer exactly as large as the file so far, nothing more
// fits: frames, raw data and the metadata items of finishing are refused.
TEST(Intake, DeliveredBufferRunsFull) {
  tarn_test::HevcStream s;
  ASSERT_TRUE(tarn_test::load_stream("thumb128.hevc", &s));
  static const uint8_t kXmp[] = "<x:xmpmeta/>";
  Mux mux;
  tarnm_image_info i = Mux::info_for(s, 128, 128);
  i.xmp_data = kXmp;
  i.xmp_size = sizeof kXmp;
  ASSERT_EQ(mux.image(1, 0, i), 0);
  ASSERT_EQ(mux.frame(1, s), 0);
  const int32_t used = tarnm_get_outputbuffer_size(mux.ctx());
  Bytes buffer(size_t(used), 0);
  ASSERT_EQ(tarnm_use_delivered_memory_buffer(mux.ctx(), buffer.data(), used), 0);
  tarn_test::LogCapture cap;
  const Bytes frame = s.frame();
  EXPECT_EQ(tarnm_put_frm(mux.ctx(), 2, frame.data(), uint32_t(frame.size())), -4);
  const std::string line = "tarn_chunk_dump : buffer size is insufficient. buffer size : 0, "
                           "required size : " + std::to_string(frame.size());
  EXPECT_TRUE(cap.has(line, "tarnm")) << cap.dump();
  uint32_t offset = 0;
  EXPECT_EQ(tarnm_put_metadata(mux.ctx(), 3, kXmp, sizeof kXmp, &offset), -4);
  EXPECT_EQ(mux.ctx()->state.iloc_list.elem_count, 1u);
  EXPECT_EQ(tarnm_stop_muxing(mux.ctx()), -3);
  EXPECT_TRUE(cap.has("failed to stop properly!", "tarnm"));
}

TEST(Finalise, OneImageLayoutAndMetadataOffsets) {
  tarn_test::HevcStream s;
  ASSERT_TRUE(tarn_test::load_stream("single512.hevc", &s));
  static const uint8_t kExif[] = {'E', 'x', 'i', 'f', 0, 0, 'M', 'M', 0, 42, 0, 0, 0, 8};
  static const uint8_t kXmp[] = "<x:xmpmeta/>";
  Mux mux;
  tarnm_image_info i = Mux::info_for(s, 512, 512);
  i.exif_data = kExif;
  i.exif_size = sizeof kExif;
  i.xmp_data = kXmp;
  i.xmp_size = sizeof kXmp;
  ASSERT_EQ(mux.image(1, 0, i), 0);
  ASSERT_EQ(mux.frame(1, s), 0);
  ASSERT_EQ(mux.cover(1), 0);
  uint32_t offset = 0;
  tarn_test::LogCapture cap;
  EXPECT_EQ(tarnm_get_metadata_offset(mux.ctx(), 7, 1, &offset), -1);
  EXPECT_TRUE(cap.has("7 image has no XMP metadata", "tarnm"));
  const Bytes file = mux.finish();
  ASSERT_FALSE(file.empty());
  const auto top = tarn_test::child_boxes(file, 0, file.size());
  ASSERT_EQ(top.size(), 3u);
  EXPECT_EQ(top[1].size, 8 + s.frame().size() + 4 + sizeof kExif + sizeof kXmp);
  EXPECT_EQ(top[0].size + top[1].size + top[2].size, file.size());
  ASSERT_EQ(tarnm_get_metadata_offset(mux.ctx(), 1, 0, &offset), 0);
  ASSERT_LE(offset + 4 + sizeof kExif, file.size());
  EXPECT_EQ(Bytes(file.begin() + offset, file.begin() + offset + 8),
            Bytes({0, 0, 0, 6, 'E', 'x', 'i', 'f'}));
  ASSERT_EQ(tarnm_get_metadata_offset(mux.ctx(), 1, 1, &offset), 0);
  EXPECT_EQ(std::memcmp(&file[offset], kXmp, sizeof kXmp), 0);
  tarn_test::check_with_reader(file, mux.expect);
  // Finishing twice would describe everything twice.
  EXPECT_EQ(tarnm_stop_muxing(mux.ctx()), -3);
  EXPECT_EQ(tarnm_stop_muxing(nullptr), -1);
}

}  // namespace
