// The hvcC property payload (HEVCDecoderConfigurationRecord): a summary of
// the first SPS followed by arrays of the image's VPS, SPS and PPS NAL units.

#include <string.h>

#include "tarn/utils.h"
#include "tarn/writer.h"

namespace {

constexpr int32_t kMaxNalsPerKind = 4;
constexpr int32_t kHvccHeaderSize = 23;
// array_completeness/reserved/NAL_unit_type byte, then numNalus (u16).
constexpr int32_t kArrayHeaderSize = 3;
// Every NAL unit is preceded by its u16 nalUnitLength.
constexpr uint32_t kMaxNalSize = 0xFFFF;
// The SPS must reach past its profile_tier_level head before decoding.
constexpr uint32_t kMinSpsSize = 8;

constexpr uint8_t kNalTypeVps = 32;
constexpr uint8_t kNalTypeSps = 33;
constexpr uint8_t kNalTypePps = 34;

struct NalArray {
  int32_t count;
  const uint32_t *size;
  const uint8_t *const *data;
  uint8_t nal_type;
};

void arrays_of(const tarnm_param_sets *ps, NalArray out[3]) {
  out[0] = {ps->vps_count, ps->vps_size, ps->vps_data, kNalTypeVps};
  out[1] = {ps->sps_count, ps->sps_size, ps->sps_data, kNalTypeSps};
  out[2] = {ps->pps_count, ps->pps_size, ps->pps_data, kNalTypePps};
}

// Size of one array, or -1 for a count outside 0..4 or an oversized unit.
// Sums stay far below 2^31: at most 4 units of 65,535 bytes per array.
int32_t array_size(const NalArray &a) {
  if (a.count < 0 || a.count > kMaxNalsPerKind) return -1;
  if (a.count == 0) return 0;
  int32_t total = kArrayHeaderSize;
  for (int32_t i = 0; i < a.count; ++i) {
    if (a.size[i] > kMaxNalSize) return -1;
    total += 2 + static_cast<int32_t>(a.size[i]);
  }
  return total;
}

// Values no HEVC stream carries; a truncated SPS ends in the reader's end
// value (all ones) in these fields.
bool sps_is_plausible(const tarnm_hevc_sps &sps) {
  return sps.sps_max_sub_layers_minus1 < 7 && sps.general_profile_space == 0 &&
         sps.chroma_format_idc <= 3 && sps.bit_depth_luma_minus8 <= 8 &&
         sps.bit_depth_chroma_minus8 <= 8 && sps.pic_width_in_luma_samples != 0 &&
         sps.pic_height_in_luma_samples != 0 &&
         sps.pic_width_in_luma_samples != 0xFFFFFFFEu &&
         sps.pic_height_in_luma_samples != 0xFFFFFFFEu;
}

void put_u16(uint8_t *p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 8);
  p[1] = static_cast<uint8_t>(v);
}

void put_u32(uint8_t *p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
}

}  // namespace

extern "C" {

int32_t tarnm_get_hvcc_size(const tarnm_param_sets *param_sets) {
  if (param_sets == nullptr) return -1;
  NalArray arrays[3];
  arrays_of(param_sets, arrays);
  int32_t total = kHvccHeaderSize;
  for (const NalArray &a : arrays) {
    const int32_t size = array_size(a);
    if (size < 0) return -1;
    total += size;
  }
  return total;
}

int32_t tarnm_make_hvcc(const tarnm_param_sets *param_sets, uint8_t *out) {
  if (param_sets == nullptr || out == nullptr) return -1;
  const tarnm_param_sets &ps = *param_sets;
  if (tarnm_get_hvcc_size(param_sets) < 0) return -1;
  if (ps.vps_data[0] == nullptr || ps.sps_data[0] == nullptr || ps.pps_data[0] == nullptr ||
      ps.sps_size[0] < kMinSpsSize) {
    return -1;
  }
  NalArray arrays[3];
  arrays_of(param_sets, arrays);
  for (const NalArray &a : arrays) {
    for (int32_t i = 0; i < a.count; ++i) {
      if (a.data[i] == nullptr && a.size[i] != 0) return -1;
    }
  }

  omni_bsr bs;
  memset(&bs, 0, sizeof(bs));
  omni_bsr_init(&bs, ps.sps_data[0] + 2, ps.sps_size[0] - 2, tarnm_hevc_bs_flush);
  bs.zero_run = 0;
  tarnm_hevc_sps sps;
  memset(&sps, 0, sizeof(sps));
  tarnm_hevc_sps_dec(&bs, &sps);
  if (!sps_is_plausible(sps)) return -1;

  out[0] = 1;  // configurationVersion
  out[1] = static_cast<uint8_t>(sps.general_profile_space << 6 | sps.general_tier_flag << 5 |
                                (sps.general_profile_idc & 0x1F));
  put_u32(out + 2, sps.general_profile_compatibility_flags);
  const uint64_t constraints = sps.general_constraint_indicator_flags;
  put_u16(out + 6, static_cast<uint32_t>(constraints >> 32) & 0xFFFF);
  put_u32(out + 8, static_cast<uint32_t>(constraints));
  out[12] = sps.general_level_idc;
  out[13] = 0xF0;  // reserved, min_spatial_segmentation_idc 0
  out[14] = 0x00;
  out[15] = 0xFC;  // reserved, parallelismType 0
  out[16] = static_cast<uint8_t>(0xFC | sps.chroma_format_idc);
  out[17] = static_cast<uint8_t>(0xF8 | sps.bit_depth_luma_minus8);
  out[18] = static_cast<uint8_t>(0xF8 | sps.bit_depth_chroma_minus8);
  out[19] = 0;  // avgFrameRate
  out[20] = 0;
  out[21] = 0x03;  // lengthSizeMinusOne 3: 4-byte lengths before every NAL unit
  uint8_t array_count = 0;
  uint8_t *p = out + kHvccHeaderSize;
  for (const NalArray &a : arrays) {
    if (a.count < 1) continue;
    ++array_count;
    p[0] = a.nal_type;  // array_completeness 0
    put_u16(p + 1, static_cast<uint32_t>(a.count));
    p += kArrayHeaderSize;
    for (int32_t i = 0; i < a.count; ++i) {
      put_u16(p, a.size[i]);
      if (a.size[i] != 0) memcpy(p + 2, a.data[i], a.size[i]);
      p += 2 + a.size[i];
    }
  }
  out[22] = array_count;
  return 0;
}

}  // extern "C"
