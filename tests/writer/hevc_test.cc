// SPS decoding and the hvcC record: hand-built parameter sets reaching the
// corners of Exp-Golomb coding, sub-layers and emulation prevention, and the
// parameter sets the record refuses. Real encoders' records are rebuilt by
// every edit round trip of the corpus.
#include <gtest/gtest.h>

#include <algorithm>

#include "tarn/utils.h"
#include "writer/writer_support.h"

namespace {

using tarn_test::Bytes;
using tarn_test::HevcStream;

tarnm_hevc_sps decode(const Bytes &nal) {
  omni_bsr bs{};
  omni_bsr_init(&bs, nal.data() + 2, uint32_t(nal.size() - 2), tarnm_hevc_bs_flush);
  tarnm_hevc_sps sps{};
  tarnm_hevc_sps_dec(&bs, &sps);
  return sps;
}

tarnm_param_sets one_each(const Bytes &vps, const Bytes &sps, const Bytes &pps) {
  const HevcStream s{{vps}, {sps}, {pps}, {}};
  tarnm_param_sets ps = s.param_sets();
  ps.vps_data[0] = vps.data();  // s is gone: point at the callers' units
  ps.sps_data[0] = sps.data();
  ps.pps_data[0] = pps.data();
  return ps;
}

// MSB-first bits of an SPS; nal() adds the stop bit, the NAL header and
// emulation prevention.
struct SpsBits {
  std::vector<uint8_t> bits;
  void u(uint32_t n, uint64_t v) {
    while (n-- > 0) bits.push_back(uint8_t(v >> n & 1));
  }
  void ue(uint64_t value) {
    uint32_t len = 0;
    while (((value + 1) >> len) > 1) ++len;
    u(len, 0);
    u(len + 1, value + 1);
  }
  Bytes nal() const {
    std::vector<uint8_t> b = bits;
    b.push_back(1);
    while (b.size() % 8) b.push_back(0);
    Bytes out = {0x42, 0x01};
    int zeros = 0;
    for (size_t i = 0; i < b.size(); i += 8) {
      uint8_t byte = 0;
      for (size_t j = 0; j < 8; ++j) byte = uint8_t(byte << 1 | b[i + j]);
      if (zeros >= 2 && byte <= 3) out.push_back(3), zeros = 0;
      out.push_back(byte);
      zeros = byte == 0 ? zeros + 1 : 0;
    }
    return out;
  }
};

struct SpsFields {
  uint32_t sub_layers_minus1, profile_present, level_present;  // bit i: sub-layer i
  uint32_t compat;
  uint64_t constraints;
  uint32_t level;
  uint64_t sps_id, chroma, width, height, conf_r, conf_b, luma, chroma_depth;
};

Bytes make_sps(const SpsFields &s) {
  SpsBits b;
  b.u(4, 0), b.u(3, s.sub_layers_minus1), b.u(1, 1);
  b.u(2, 0), b.u(1, 0), b.u(5, 1), b.u(32, s.compat), b.u(48, s.constraints), b.u(8, s.level);
  for (uint32_t i = 0; i < s.sub_layers_minus1; ++i) {
    b.u(1, s.profile_present >> i & 1), b.u(1, s.level_present >> i & 1);
  }
  for (uint32_t i = s.sub_layers_minus1; i < 8 && s.sub_layers_minus1 > 0; ++i) b.u(2, 0);
  for (uint32_t i = 0; i < s.sub_layers_minus1; ++i) {
    if (s.profile_present >> i & 1) b.u(3, 3), b.u(5, 2 + i), b.u(32, 0xA5A5A5A5u), b.u(48, 0xAull << 44);
    if (s.level_present >> i & 1) b.u(8, 30 + i);
  }
  b.ue(s.sps_id), b.ue(s.chroma);
  if (s.chroma == 3) b.u(1, 1);
  b.ue(s.width), b.ue(s.height);
  const bool conf = s.conf_r || s.conf_b;
  b.u(1, conf);
  if (conf) b.ue(0), b.ue(s.conf_r), b.ue(0), b.ue(s.conf_b);
  b.ue(s.luma), b.ue(s.chroma_depth), b.ue(4);
  return b.nal();
}

TEST(SpsDecoder, BuiltParameterSets) {
  const struct {
    const char *name;
    SpsFields f;
    uint32_t width;  // as decoded
  } kCases[] = {
      {"smallest codes", {0, 0, 0, 0x60000000, 0x900000000000, 93, 0, 1, 0, 1, 0, 0, 0, 0}, 0},
      {"conformance window", {0, 0, 0, 0x60000000, 0x900000000000, 90, 0, 1, 304, 200, 1, 1, 2, 2}, 304},
      {"4:4:4, colour plane flag", {0, 0, 0, 0x08000000, 0, 120, 5, 3, 640, 480, 0, 0, 4, 4}, 640},
      {"one sub-layer, no flags", {1, 0, 0, 0x40000000, 0x900000000000, 90, 0, 1, 1920, 1080, 0, 0, 0, 0}, 1920},
      {"six sub-layers, all flags", {6, 0x3F, 0x3F, 0x40000000, 0x900000000000, 90, 0, 1, 64, 64, 0, 0, 0, 0}, 64},
      {"sub-layers, mixed flags", {3, 0x5, 0x2, 0x40000000, 0x900000000000, 90, 15, 1, 96, 96, 0, 0, 1, 3}, 96},
      {"zeros force emulation prevention", {0, 0, 0, 0, 0, 0, 0, 1, 16, 16, 0, 0, 0, 0}, 16},
      {"15 leading zeros", {0, 0, 0, 0x60000000, 0, 90, 0, 1, 65534, 8, 0, 0, 0, 0}, 65534},
      {"16 leading zeros", {0, 0, 0, 0x60000000, 0, 90, 0, 1, 65535, 8, 0, 0, 0, 0}, 65535},
      {"24 leading zeros", {0, 0, 0, 0x60000000, 0, 90, 0, 1, 20000000, 8, 0, 0, 0, 0}, 20000000},
      {"31 leading zeros", {0, 0, 0, 0x60000000, 0, 90, 0, 1, 0xFFFFFFFEu, 8, 0, 0, 0, 0}, 0xFFFFFFFEu},
      {"32 leading zeros", {0, 0, 0, 0x60000000, 0, 90, 0, 1, 0xFFFFFFFFull, 8, 0, 0, 0, 0}, 0xFFFFFFFEu},
  };
  for (const auto &c : kCases) {
    SCOPED_TRACE(c.name);
    const SpsFields &f = c.f;
    const Bytes nal = make_sps(f);
    const tarnm_hevc_sps p = decode(nal);
    EXPECT_EQ(std::vector<uint64_t>({p.sps_max_sub_layers_minus1, p.general_profile_compatibility_flags,
                                     p.general_constraint_indicator_flags, p.general_level_idc,
                                     p.sps_seq_parameter_set_id, p.chroma_format_idc,
                                     p.separate_colour_plane_flag, p.pic_width_in_luma_samples}),
              std::vector<uint64_t>({f.sub_layers_minus1, f.compat, f.constraints, f.level, f.sps_id,
                                     f.chroma, f.chroma == 3, c.width}));
    for (uint32_t i = 0; i < f.sub_layers_minus1; ++i) {
      const uint32_t prof = f.profile_present >> i & 1, lev = f.level_present >> i & 1;
      EXPECT_EQ(std::vector<uint32_t>({p.sub_layer_profile_present_flag[i], p.sub_layer_level_present_flag[i]}),
                std::vector<uint32_t>({prof, lev}));
      if (prof) {
        EXPECT_EQ(std::vector<uint32_t>({p.sub_layer_profile_idc[i],
                                         p.sub_layer_profile_compatibility_flag[i][0],
                                         p.sub_layer_profile_compatibility_flag[i][1],
                                         p.sub_layer_progressive_source_flag[i],
                                         p.sub_layer_frame_only_constraint_flag[i]}),
                  std::vector<uint32_t>({2 + i, 1, 0, 1, 0}));
      }
      EXPECT_EQ(p.sub_layer_level_idc[i], lev ? 30 + i : 0u);
    }
    if (f.width < 0xFFFFFFFFull) {
      EXPECT_EQ(std::vector<uint64_t>({p.pic_height_in_luma_samples, p.conf_win_right_offset,
                                       p.conf_win_bottom_offset, p.bit_depth_luma_minus8,
                                       p.bit_depth_chroma_minus8}),
                std::vector<uint64_t>({f.height, f.conf_r, f.conf_b, f.luma, f.chroma_depth}));
    }
  }
  const Bytes zeros = make_sps(kCases[6].f);  // really carries a 00 00 03
  static const uint8_t kEpb[3] = {0, 0, 3};
  EXPECT_NE(std::search(zeros.begin(), zeros.end(), kEpb, kEpb + 3), zeros.end());
  tarnm_hevc_sps none{};  // a missing reader or result is ignored
  omni_bsr empty{};
  tarnm_hevc_sps_dec(nullptr, &none);
  tarnm_hevc_sps_dec(&empty, nullptr);
}

TEST(HvccBuilder, Refusals) {
  const HevcStream &s = tarn_test::streams().single;
  const Bytes vps(24, 0x40), pps(8, 0x44), huge(65536, 0x44);
  using P = tarnm_param_sets;
  static const Bytes *g_huge;
  g_huge = &huge;
  const struct {
    const char *name;
    void (*mutate)(P *ps);
  } kRefusals[] = {
      {"VPS count 5", [](P *ps) { ps->vps_count = 5; }},
      {"SPS count -1", [](P *ps) { ps->sps_count = -1; }},
      {"PPS count -1", [](P *ps) { ps->pps_count = -1; }},
      {"no VPS", [](P *ps) { ps->vps_data[0] = nullptr; }},
      {"no SPS", [](P *ps) { ps->sps_data[0] = nullptr; }},
      {"no PPS", [](P *ps) { ps->pps_data[0] = nullptr; }},
      {"SPS of 7 bytes", [](P *ps) { ps->sps_size[0] = 7; }},
      {"SPS cut after its profile", [](P *ps) { ps->sps_size[0] = 15; }},
      {"PPS of 65536 bytes", [](P *ps) { ps->pps_size[0] = 65536, ps->pps_data[0] = g_huge->data(); }},
      {"second PPS missing", [](P *ps) { ps->pps_count = 2, ps->pps_size[1] = 4; }},
  };
  for (const auto &c : kRefusals) {
    SCOPED_TRACE(c.name);
    tarnm_param_sets ps = one_each(vps, s.sps[0], pps);
    c.mutate(&ps);
    Bytes out(200000, 0xEE);
    EXPECT_EQ(tarnm_make_hvcc(&ps, out.data()), -1);
    EXPECT_EQ(out[0], 0xEE);  // nothing written
  }
  EXPECT_EQ(tarnm_get_hvcc_size(nullptr), -1);
  // Four units of one kind are the most an array takes.
  const tarnm_param_sets one = one_each(vps, s.sps[0], pps);
  tarnm_param_sets four = one;
  four.pps_count = 4;
  for (int k = 1; k < 4; ++k) {
    four.pps_size[k] = uint32_t(pps.size());
    four.pps_data[k] = pps.data();
  }
  EXPECT_EQ(tarnm_get_hvcc_size(&one), 23 + 3 * (3 + 2) + 24 + int32_t(s.sps[0].size()) + 8);
  EXPECT_EQ(tarnm_get_hvcc_size(&four), tarnm_get_hvcc_size(&one) + 3 * (2 + 8));
  tarnm_param_sets widest = one;  // a unit of 65,535 bytes still fits its length field
  widest.pps_size[0] = 65535;
  widest.pps_data[0] = huge.data();
  EXPECT_EQ(tarnm_get_hvcc_size(&widest), tarnm_get_hvcc_size(&one) + 65535 - 8);
  Bytes record(256);
  EXPECT_EQ(tarnm_make_hvcc(&four, record.data()), 0);
  EXPECT_EQ(tarnm_make_hvcc(nullptr, record.data()), -1);
  EXPECT_EQ(tarnm_make_hvcc(&four, nullptr), -1);
  // An SPS that decodes to values no stream has.
  const struct {
    const char *name;
    SpsFields f;
    int32_t rc;
  } kImpossible[] = {
      {"4:4:4", {0, 0, 0, 0x60000000, 0, 90, 0, 3, 64, 64, 0, 0, 0, 0}, 0},
      {"chroma format 4", {0, 0, 0, 0x60000000, 0, 90, 0, 4, 64, 64, 0, 0, 0, 0}, -1},
      {"16-bit luma and chroma", {0, 0, 0, 0x60000000, 0, 90, 0, 1, 64, 64, 0, 0, 8, 8}, 0},
      {"17-bit luma", {0, 0, 0, 0x60000000, 0, 90, 0, 1, 64, 64, 0, 0, 9, 0}, -1},
      {"17-bit chroma", {0, 0, 0, 0x60000000, 0, 90, 0, 1, 64, 64, 0, 0, 0, 9}, -1},
      {"8 sub-layers", {7, 0, 0, 0x60000000, 0, 90, 0, 1, 64, 64, 0, 0, 0, 0}, -1},
      {"zero width", {0, 0, 0, 0x60000000, 0, 90, 0, 1, 0, 64, 0, 0, 0, 0}, -1},
  };
  const Bytes short_vps = {0x40, 0x01, 0x0C, 0x01}, short_pps = {0x44, 0x01, 0xC1};
  for (const auto &c : kImpossible) {
    const Bytes sps = make_sps(c.f);
    const tarnm_param_sets ps = one_each(short_vps, sps, short_pps);
    Bytes out(size_t(tarnm_get_hvcc_size(&ps)), 0);
    EXPECT_EQ(tarnm_make_hvcc(&ps, out.data()), c.rc) << c.name;
  }
}

}  // namespace
