// HEVC sequence parameter set decoding: the head of seq_parameter_set_rbsp()
// up to bit_depth_chroma_minus8, which is all the hvcC record needs.

#include "tarn/utils.h"
#include "tarn/writer.h"

namespace {

// sub_layer_* arrays hold at most 7 sub-layers (sps_max_sub_layers_minus1
// is a 3-bit field, and 7 itself is not a valid value).
constexpr uint32_t kMaxSubLayers = 7;
// The value every ue(v) element takes when the data has ended.
constexpr uint32_t kUeFailure = 0xFFFFFFFEu;

uint32_t read_bits(omni_bsr *bs, int32_t n) { return omni_bsr_read(bs, n); }

// Exp-Golomb ue(v), decoded on the reader's cache: count the leading zeros
// (refilling once when the cache holds nothing but zeros), then read the rest
// of the codeword. A codeword of 16 or more leading zeros needs more than 32
// bits, so it is read in two pieces; one whose value cannot fit 32 bits
// decodes as the end value.
uint32_t read_ue(omni_bsr *bs) {
  if (bs->code & 0x80000000u) {
    bs->code <<= 1;
    bs->leftbits -= 1;
    return 0;
  }
  uint32_t zeros_dropped = 0;
  if (bs->code == 0) {
    // The refill replaces the cache, so the zeros it held are consumed here.
    zeros_dropped = bs->leftbits > 0 ? static_cast<uint32_t>(bs->leftbits) : 0;
    if (bs->flush(bs, 4) != 0) return kUeFailure;
  }
  const uint32_t lz = omni_bsr_clz_in_code(bs->code);
  const uint32_t leading = lz + zeros_dropped;
  if (leading == 0) {
    bs->code <<= 1;
    bs->leftbits -= 1;
    return 0;
  }
  if (lz >= 32 || leading > 31) return kUeFailure;
  const uint32_t rest = 2 * lz + zeros_dropped + 1;
  if (rest <= 32) {
    const uint32_t v = read_bits(bs, static_cast<int32_t>(rest));
    return v == 0 ? 0 : v - 1;
  }
  // Two pieces: the remaining zeros with the marker bit, then the information
  // bits, as many as there were leading zeros.
  const uint32_t marker = read_bits(bs, static_cast<int32_t>(lz + 1));
  if (marker != 1) return kUeFailure;
  const uint32_t info = read_bits(bs, static_cast<int32_t>(leading));
  if (info == 0xFFFFFFFFu) return kUeFailure;
  return ((1u << leading) - 1) + info;
}

void decode_profile_tier_level(omni_bsr *bs, tarnm_hevc_sps *sps) {
  sps->general_profile_space = static_cast<uint8_t>(read_bits(bs, 2));
  sps->general_tier_flag = static_cast<uint8_t>(omni_bsr_read1(bs));
  sps->general_profile_idc = static_cast<uint8_t>(read_bits(bs, 5));
  sps->general_profile_compatibility_flags = read_bits(bs, 32);
  const uint64_t first = read_bits(bs, 32);
  const uint64_t second = read_bits(bs, 16);
  sps->general_constraint_indicator_flags = first << 16 | second;
  sps->general_level_idc = static_cast<uint8_t>(read_bits(bs, 8));

  uint32_t sub_layers = sps->sps_max_sub_layers_minus1;
  if (sub_layers > kMaxSubLayers) sub_layers = kMaxSubLayers;
  for (uint32_t i = 0; i < sub_layers; ++i) {
    sps->sub_layer_profile_present_flag[i] = static_cast<uint8_t>(omni_bsr_read1(bs));
    sps->sub_layer_level_present_flag[i] = static_cast<uint8_t>(omni_bsr_read1(bs));
  }
  if (sub_layers > 0) {
    for (uint32_t i = sub_layers; i < 8; ++i) read_bits(bs, 2);  // reserved_zero_2bits
  }
  for (uint32_t i = 0; i < sub_layers; ++i) {
    if (sps->sub_layer_profile_present_flag[i] == 1) {
      sps->sub_layer_profile_space[i] = static_cast<uint8_t>(read_bits(bs, 2));
      sps->sub_layer_tier_flag[i] = static_cast<uint8_t>(omni_bsr_read1(bs));
      sps->sub_layer_profile_idc[i] = static_cast<uint8_t>(read_bits(bs, 5));
      for (uint32_t j = 0; j < 32; ++j) {
        sps->sub_layer_profile_compatibility_flag[i][j] = static_cast<uint8_t>(omni_bsr_read1(bs));
      }
      sps->sub_layer_progressive_source_flag[i] = static_cast<uint8_t>(omni_bsr_read1(bs));
      sps->sub_layer_interlaced_source_flag[i] = static_cast<uint8_t>(omni_bsr_read1(bs));
      sps->sub_layer_non_packed_constraint_flag[i] = static_cast<uint8_t>(omni_bsr_read1(bs));
      sps->sub_layer_frame_only_constraint_flag[i] = static_cast<uint8_t>(omni_bsr_read1(bs));
      // The remaining 44 reserved and constraint bits are not kept.
      read_bits(bs, 16);
      read_bits(bs, 16);
      read_bits(bs, 12);
    }
    if (sps->sub_layer_level_present_flag[i] == 1) {
      sps->sub_layer_level_idc[i] = static_cast<uint8_t>(read_bits(bs, 8));
    }
  }
}

}  // namespace

extern "C" {

int tarnm_hevc_bs_flush(struct omni_bsr *bs, int32_t byte_count) {
  return vc_nal_bsr_flush(bs, byte_count) == 0 ? 0 : -1;
}

void tarnm_hevc_sps_dec(struct omni_bsr *bs, tarnm_hevc_sps *sps) {
  if (bs == nullptr || sps == nullptr) return;
  sps->sps_video_parameter_set_id = static_cast<uint8_t>(read_bits(bs, 4));
  sps->sps_max_sub_layers_minus1 = static_cast<uint8_t>(read_bits(bs, 3));
  sps->sps_temporal_id_nesting_flag = static_cast<uint8_t>(omni_bsr_read1(bs));
  decode_profile_tier_level(bs, sps);
  sps->sps_seq_parameter_set_id = static_cast<uint8_t>(read_ue(bs));
  sps->chroma_format_idc = static_cast<uint8_t>(read_ue(bs));
  if (sps->chroma_format_idc == 3) {
    sps->separate_colour_plane_flag = static_cast<uint8_t>(omni_bsr_read1(bs));
  }
  sps->pic_width_in_luma_samples = read_ue(bs);
  sps->pic_height_in_luma_samples = read_ue(bs);
  sps->conformance_window_flag = static_cast<uint16_t>(omni_bsr_read1(bs));
  if (sps->conformance_window_flag == 1) {
    sps->conf_win_left_offset = static_cast<uint16_t>(read_ue(bs));
    sps->conf_win_right_offset = static_cast<uint16_t>(read_ue(bs));
    sps->conf_win_top_offset = static_cast<uint16_t>(read_ue(bs));
    sps->conf_win_bottom_offset = static_cast<uint16_t>(read_ue(bs));
  }
  sps->bit_depth_luma_minus8 = static_cast<uint8_t>(read_ue(bs));
  sps->bit_depth_chroma_minus8 = static_cast<uint8_t>(read_ue(bs));
}

}  // extern "C"
