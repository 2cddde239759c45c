// SPS decoding on x265 output and on hand-built parameter sets that reach
// the corners of Exp-Golomb coding, sub-layers and emulation prevention.

#include <gtest/gtest.h>

#include <cstring>

#include "tarn/utils.h"
#include "tarn/writer.h"
#include "writer/roundtrip_streams.h"

namespace {

using tarn_test::Bytes;

tarnm_hevc_sps decode(const Bytes &nal) {
  omni_bsr bs;
  std::memset(&bs, 0, sizeof(bs));
  omni_bsr_init(&bs, nal.data() + 2, uint32_t(nal.size() - 2), tarnm_hevc_bs_flush);
  bs.zero_run = 0;
  tarnm_hevc_sps sps;
  std::memset(&sps, 0, sizeof(sps));
  tarnm_hevc_sps_dec(&bs, &sps);
  return sps;
}

TEST(SpsDecoder, EncoderStreams) {
  struct Case {
    const char *file;
    uint32_t width, height;  // after the conformance window
    uint8_t chroma, luma_minus8, profile_idc, level_idc;
  };
  static const Case kCases[] = {
      {"single512.hevc", 512, 512, 1, 0, 3, 90}, {"tile0.hevc", 256, 256, 1, 0, 3, 60},
      {"tile3.hevc", 256, 256, 1, 0, 3, 60},     {"thumb128.hevc", 128, 128, 1, 0, 3, 30},
      {"alpha512.hevc", 512, 512, 0, 0, 4, 90},  {"image10bit.hevc", 320, 240, 1, 2, 4, 60},
      {"odd302x198.hevc", 302, 198, 1, 0, 3, 60}, {"odd150x90.hevc", 150, 90, 1, 0, 3, 30},
  };
  for (const Case &c : kCases) {
    SCOPED_TRACE(c.file);
    tarn_test::HevcStream s;
    ASSERT_TRUE(tarn_test::load_stream(c.file, &s));
    const tarnm_hevc_sps sps = decode(s.sps[0]);
    const uint32_t sub_w = c.chroma == 1 || c.chroma == 2 ? 2 : 1;
    const uint32_t sub_h = c.chroma == 1 ? 2 : 1;
    EXPECT_EQ(sps.pic_width_in_luma_samples -
                  sub_w * (sps.conf_win_left_offset + sps.conf_win_right_offset),
              c.width);
    EXPECT_EQ(sps.pic_height_in_luma_samples -
                  sub_h * (sps.conf_win_top_offset + sps.conf_win_bottom_offset),
              c.height);
    EXPECT_EQ(sps.pic_width_in_luma_samples % 8, 0u);
    EXPECT_EQ(sps.chroma_format_idc, c.chroma);
    EXPECT_EQ(sps.bit_depth_luma_minus8, c.luma_minus8);
    EXPECT_EQ(sps.bit_depth_chroma_minus8, c.luma_minus8);
    EXPECT_EQ(sps.general_profile_idc, c.profile_idc);
    EXPECT_EQ(sps.general_level_idc, c.level_idc);
    EXPECT_EQ(sps.sps_max_sub_layers_minus1, 0);
  }
}

// MSB-first bit writer producing an SPS NAL unit with emulation prevention.
class SpsBits {
 public:
  void u(uint32_t bits, uint64_t value) {
    for (uint32_t i = bits; i-- > 0;) bits_.push_back(uint8_t(value >> i & 1));
  }
  void ue(uint64_t value) {
    const uint64_t v = value + 1;
    uint32_t len = 0;
    while ((v >> len) > 1) ++len;
    u(len, 0);
    u(len + 1, v);
  }
  Bytes nal() const {
    Bytes rbsp;
    std::vector<uint8_t> bits = bits_;
    bits.push_back(1);  // rbsp_stop_one_bit
    while (bits.size() % 8) bits.push_back(0);
    for (size_t i = 0; i < bits.size(); i += 8) {
      uint8_t b = 0;
      for (size_t j = 0; j < 8; ++j) b = uint8_t(b << 1 | bits[i + j]);
      rbsp.push_back(b);
    }
    Bytes out = {0x42, 0x01};
    int zeros = 0;
    for (uint8_t b : rbsp) {
      if (zeros >= 2 && b <= 3) {
        out.push_back(3);
        zeros = 0;
      }
      out.push_back(b);
      zeros = b == 0 ? zeros + 1 : 0;
    }
    return out;
  }

 private:
  std::vector<uint8_t> bits_;
};

struct SpsFields {
  uint32_t sub_layers_minus1;
  uint32_t profile_present, level_present;  // bit i for sub-layer i
  uint32_t compat;
  uint64_t constraints;
  uint32_t level;
  uint64_t sps_id, chroma, width, height;
  bool conf;
  uint64_t conf_l, conf_r, conf_t, conf_b;
  uint64_t luma, chroma_depth;
};

Bytes make_sps(const SpsFields &s) {
  SpsBits b;
  b.u(4, 0);
  b.u(3, s.sub_layers_minus1);
  b.u(1, 1);
  b.u(2, 0);
  b.u(1, 0);
  b.u(5, 1);
  b.u(32, s.compat);
  b.u(48, s.constraints);
  b.u(8, s.level);
  for (uint32_t i = 0; i < s.sub_layers_minus1; ++i) {
    b.u(1, s.profile_present >> i & 1);
    b.u(1, s.level_present >> i & 1);
  }
  if (s.sub_layers_minus1 > 0) {
    for (uint32_t i = s.sub_layers_minus1; i < 8; ++i) b.u(2, 0);
  }
  for (uint32_t i = 0; i < s.sub_layers_minus1; ++i) {
    if (s.profile_present >> i & 1) {
      b.u(2, 1);
      b.u(1, 1);
      b.u(5, 2 + i);
      b.u(32, 0xA5A5A5A5u);
      b.u(4, 0xA);
      b.u(44, 0);
    }
    if (s.level_present >> i & 1) b.u(8, 30 + i);
  }
  b.ue(s.sps_id);
  b.ue(s.chroma);
  if (s.chroma == 3) b.u(1, 1);
  b.ue(s.width);
  b.ue(s.height);
  b.u(1, s.conf);
  if (s.conf) {
    b.ue(s.conf_l);
    b.ue(s.conf_r);
    b.ue(s.conf_t);
    b.ue(s.conf_b);
  }
  b.ue(s.luma);
  b.ue(s.chroma_depth);
  b.ue(4);  // log2_max_pic_order_cnt_lsb_minus4, beyond what is decoded
  return b.nal();
}

TEST(SpsDecoder, BuiltParameterSets) {
  struct Case {
    const char *name;
    SpsFields fields;
    uint32_t expect_width;  // what the decoder reports for width
  };
  static const Case kCases[] = {
      {"smallest codes", {0, 0, 0, 0x60000000, 0x900000000000, 93, 0, 1, 0, 1, false, 0, 0, 0, 0, 0, 0}, 0},
      {"codes 1 and 2", {0, 0, 0, 0x60000000, 0x900000000000, 93, 1, 2, 2, 3, false, 0, 0, 0, 0, 0, 0}, 2},
      {"4032x3024", {0, 0, 0, 0x60000000, 0x900000000000, 150, 0, 1, 4032, 3024, false, 0, 0, 0, 0, 0, 0}, 4032},
      {"conformance window", {0, 0, 0, 0x60000000, 0x900000000000, 90, 0, 1, 304, 200, true, 0, 1, 0, 1, 2, 2}, 304},
      {"4:4:4 with colour plane flag", {0, 0, 0, 0x08000000, 0, 120, 5, 3, 640, 480, false, 0, 0, 0, 0, 4, 4}, 640},
      {"one sub-layer without flags", {1, 0, 0, 0x40000000, 0x900000000000, 90, 0, 1, 1920, 1080, false, 0, 0, 0, 0, 0, 0}, 1920},
      {"six sub-layers, all flags", {6, 0x3F, 0x3F, 0x40000000, 0x900000000000, 90, 0, 1, 64, 64, false, 0, 0, 0, 0, 0, 0}, 64},
      {"sub-layers, mixed flags", {3, 0x5, 0x2, 0x40000000, 0x900000000000, 90, 15, 1, 96, 96, false, 0, 0, 0, 0, 1, 3}, 96},
      {"zero bytes force emulation prevention", {0, 0, 0, 0, 0, 0, 0, 1, 16, 16, false, 0, 0, 0, 0, 0, 0}, 16},
      {"15 leading zeros", {0, 0, 0, 0x60000000, 0, 90, 0, 1, 65534, 8, false, 0, 0, 0, 0, 0, 0}, 65534},
      {"16 leading zeros", {0, 0, 0, 0x60000000, 0, 90, 0, 1, 65535, 8, false, 0, 0, 0, 0, 0, 0}, 65535},
      {"24 leading zeros", {0, 0, 0, 0x60000000, 0, 90, 0, 1, 20000000, 8, false, 0, 0, 0, 0, 0, 0}, 20000000},
      {"31 leading zeros", {0, 0, 0, 0x60000000, 0, 90, 0, 1, 0xFFFFFFFEu, 8, false, 0, 0, 0, 0, 0, 0}, 0xFFFFFFFEu},
      {"32 leading zeros", {0, 0, 0, 0x60000000, 0, 90, 0, 1, 0xFFFFFFFFull, 8, false, 0, 0, 0, 0, 0, 0}, 0xFFFFFFFEu},
  };
  for (const Case &c : kCases) {
    SCOPED_TRACE(c.name);
    const Bytes nal = make_sps(c.fields);
    const tarnm_hevc_sps sps = decode(nal);
    EXPECT_EQ(sps.sps_max_sub_layers_minus1, c.fields.sub_layers_minus1);
    EXPECT_EQ(sps.general_profile_compatibility_flags, c.fields.compat);
    EXPECT_EQ(sps.general_constraint_indicator_flags, c.fields.constraints);
    EXPECT_EQ(sps.general_level_idc, c.fields.level);
    for (uint32_t i = 0; i < c.fields.sub_layers_minus1; ++i) {
      EXPECT_EQ(sps.sub_layer_profile_present_flag[i], c.fields.profile_present >> i & 1);
      EXPECT_EQ(sps.sub_layer_level_present_flag[i], c.fields.level_present >> i & 1);
      if (c.fields.profile_present >> i & 1) {
        EXPECT_EQ(sps.sub_layer_profile_idc[i], 2 + i);
        EXPECT_EQ(sps.sub_layer_profile_compatibility_flag[i][0], 1);
        EXPECT_EQ(sps.sub_layer_profile_compatibility_flag[i][1], 0);
        EXPECT_EQ(sps.sub_layer_frame_only_constraint_flag[i], 0);
        EXPECT_EQ(sps.sub_layer_progressive_source_flag[i], 1);
      }
      if (c.fields.level_present >> i & 1) {
        EXPECT_EQ(sps.sub_layer_level_idc[i], 30 + i);
      }
    }
    EXPECT_EQ(sps.sps_seq_parameter_set_id, c.fields.sps_id);
    EXPECT_EQ(sps.chroma_format_idc, c.fields.chroma);
    EXPECT_EQ(sps.separate_colour_plane_flag, c.fields.chroma == 3 ? 1 : 0);
    EXPECT_EQ(sps.pic_width_in_luma_samples, c.expect_width);
    if (c.fields.width < 0xFFFFFFFFull) {
      EXPECT_EQ(sps.pic_height_in_luma_samples, c.fields.height);
      EXPECT_EQ(sps.conformance_window_flag, c.fields.conf ? 1 : 0);
      EXPECT_EQ(sps.conf_win_right_offset, c.fields.conf_r);
      EXPECT_EQ(sps.conf_win_bottom_offset, c.fields.conf_b);
      EXPECT_EQ(sps.bit_depth_luma_minus8, c.fields.luma);
      EXPECT_EQ(sps.bit_depth_chroma_minus8, c.fields.chroma_depth);
    }
  }
  // The all-zero flags case only tests something if the NAL unit really
  // carries an emulation-prevention byte.
  const Bytes zeros = make_sps(kCases[8].fields);
  bool has_epb = false;
  for (size_t i = 2; i + 2 < zeros.size(); ++i) {
    has_epb |= zeros[i] == 0 && zeros[i + 1] == 0 && zeros[i + 2] == 3;
  }
  EXPECT_TRUE(has_epb);
}

// The hvcC builder refuses an SPS that decodes to values no stream has.
TEST(SpsDecoder, ImpossibleValuesRefusedByHvccBuilder) {
  struct Case {
    const char *name;
    SpsFields fields;
    int32_t expect;
  };
  static const Case kCases[] = {
      {"plausible", {0, 0, 0, 0x60000000, 0, 90, 0, 1, 64, 64, false, 0, 0, 0, 0, 2, 2}, 0},
      {"chroma format 4", {0, 0, 0, 0x60000000, 0, 90, 0, 4, 64, 64, false, 0, 0, 0, 0, 0, 0}, -1},
      {"17-bit luma", {0, 0, 0, 0x60000000, 0, 90, 0, 1, 64, 64, false, 0, 0, 0, 0, 9, 0}, -1},
      {"17-bit chroma", {0, 0, 0, 0x60000000, 0, 90, 0, 1, 64, 64, false, 0, 0, 0, 0, 0, 9}, -1},
      {"8 sub-layers", {7, 0, 0, 0x60000000, 0, 90, 0, 1, 64, 64, false, 0, 0, 0, 0, 0, 0}, -1},
      {"zero width", {0, 0, 0, 0x60000000, 0, 90, 0, 1, 0, 64, false, 0, 0, 0, 0, 0, 0}, -1},
  };
  static const uint8_t kVps[] = {0x40, 0x01, 0x0C, 0x01}, kPps[] = {0x44, 0x01, 0xC1};
  for (const Case &c : kCases) {
    SCOPED_TRACE(c.name);
    const Bytes sps = make_sps(c.fields);
    tarnm_param_sets ps{};
    ps.vps_count = ps.sps_count = ps.pps_count = 1;
    ps.vps_size[0] = sizeof kVps;
    ps.vps_data[0] = kVps;
    ps.sps_size[0] = uint32_t(sps.size());
    ps.sps_data[0] = sps.data();
    ps.pps_size[0] = sizeof kPps;
    ps.pps_data[0] = kPps;
    Bytes out(size_t(tarnm_get_hvcc_size(&ps)), 0);
    EXPECT_EQ(tarnm_make_hvcc(&ps, out.data()), c.expect);
  }
}

// A parameter set cut anywhere decodes without reading past its end (the
// sanitizer build checks the reads); the cut value lands in the end value.
TEST(SpsDecoder, TruncatedEverywhere) {
  tarn_test::HevcStream s;
  ASSERT_TRUE(tarn_test::load_stream("odd302x198.hevc", &s));
  const Bytes &full = s.sps[0];
  for (size_t len = 2; len < full.size(); ++len) {
    Bytes cut(full.begin(), full.begin() + long(len));
    cut.shrink_to_fit();
    const tarnm_hevc_sps sps = decode(cut);
    if (len < 15) {
      EXPECT_EQ(sps.bit_depth_chroma_minus8, 0xFE) << len;
    }
  }
}

}  // namespace
