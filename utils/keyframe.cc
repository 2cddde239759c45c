// Key-frame detection from the first picture or NAL headers of one coded
// frame. Every test reads only inside the frame: a header that would need a
// byte at or past the end answers "not a key frame".
#include "tarn/utils.h"

namespace {

// Media types with a key-frame rule.
enum : uint32_t {
  kMpeg4Part2 = 102,
  kH263 = 103,
  kAvc = 104,
  kWmv1 = 105,
  kWmv2 = 106,
  kDiv3 = 110,
  kFlv1 = 111,
  kVp8 = 119,
  kHevc = 120,
  kVp9 = 121,
};

constexpr int kUndecided = -1;

inline bool start_code_at(const uint8_t *d, int32_t i) {
  return d[i] == 0x00 && d[i + 1] == 0x00 && d[i + 2] == 0x01;
}

// AVC: slices decide (IDR 5 yes, non-IDR 1 no); parameter sets, SEI and the
// like are stepped over.
int32_t avc_key(const uint8_t *d, int32_t size) {
  if (size < 4) return 0;
  for (int32_t i = 0; i <= size - 4; ++i) {
    if (!start_code_at(d, i)) continue;
    const int type = d[i + 3] & 0x1F;
    if (type == 1) return 0;
    if (type == 5) return 1;
  }
  return 0;
}

// HEVC: IRAP pictures (BLA, IDR, CRA: types 16..21) are key frames, the
// other VCL types 0..9 are not; non-VCL units are stepped over.
int32_t hevc_key(const uint8_t *d, int32_t size) {
  if (size < 4) return 0;
  for (int32_t i = 0; i <= size - 4; ++i) {
    if (!start_code_at(d, i)) continue;
    const int type = (d[i + 3] >> 1) & 0x3F;
    if (type >= 16 && type <= 21) return 1;
    if (type <= 9) return 0;
  }
  return 0;
}

// Short-header (H.263-style) picture header at i, p = the PTYPE byte.
// kUndecided when the header carries an extended type.
int short_header_picture(const uint8_t *d, int32_t i) {
  if ((d[i + 3] & 3) != 2) return 0;
  const uint8_t p = d[i + 4];
  if ((p & 0x1C) == 0x1C) return kUndecided;
  return (p & 0x02) == 0 ? 1 : 0;
}

int32_t mpeg4_key(const uint8_t *d, int32_t size) {
  if (size < 5) return 0;
  for (int32_t i = 0; i <= size - 5; ++i) {
    if (d[i] != 0 || d[i + 1] != 0) continue;
    const uint8_t b = d[i + 2];
    if (b >= 0x80 && b <= 0x83) {
      const int r = short_header_picture(d, i);
      if (r != kUndecided) return r;
    } else if (b == 0x01 && d[i + 3] == 0xB6) {
      return d[i + 4] < 0x40 ? 1 : 0;  // vop_coding_type 0: intra
    }
  }
  return 0;
}

int32_t h263_key(const uint8_t *d, int32_t size) {
  if (size < 7) return 0;
  for (int32_t i = 0; i <= size - 7; ++i) {
    if (d[i] != 0 || d[i + 1] != 0) continue;
    const uint8_t b = d[i + 2];
    if (b >> 2 == 0x21) {
      // FLV1 picture: the picture-type bits sit after a size field whose
      // width depends on s.
      const int s = (d[i + 4] >> 7) | ((d[i + 3] & 3) << 1);
      const int32_t at = s == 1 ? i + 8 : (s == 0 ? i + 6 : i + 4);
      if (at >= size) return 0;
      return (d[at] & 0x60) == 0 ? 1 : 0;
    }
    if (b >> 2 == 0x20) {
      if ((d[i + 3] & 3) != 2) return 0;
      const uint8_t p = d[i + 4];
      if ((p & 0x1C) != 0x1C) return (p & 0x02) == 0 ? 1 : 0;
      // Extended PTYPE.
      const uint8_t q = d[i + 5];
      const int u = ((p & 3) << 1) | (q >> 7);
      if (u != 1) return (q & 0x70) == 0 ? 1 : 0;
      if (i + 7 >= size) return 0;
      return (d[i + 7] & 0x1C) == 0 ? 1 : 0;
    }
  }
  return 0;
}

}  // namespace

extern "C" int32_t omni_is_vkeyfrm(uint32_t media_type, const uint8_t *data, int32_t size) {
  if (!data || size < 1) return 0;
  switch (media_type) {
    case kAvc:
      return avc_key(data, size);
    case kHevc:
      return hevc_key(data, size);
    case kMpeg4Part2:
      return mpeg4_key(data, size);
    case kH263:
    case kFlv1:
      return h263_key(data, size);
    case kWmv1:
    case kDiv3:
      return data[0] < 0x40 ? 1 : 0;
    case kWmv2:
      return (data[0] & 0x80) == 0 ? 1 : 0;
    case kVp8:
      // The key-frame start code follows the 3-byte frame tag.
      return size >= 6 && data[3] == 0x9D && data[4] == 0x01 && data[5] == 0x2A ? 1 : 0;
    case kVp9:
      if ((data[0] & 0x08) == 0) return (data[0] & 0x04) == 0 ? 1 : 0;
      return size >= 2 && (data[1] & 0x80) == 0 ? 1 : 0;
    default:
      return 0;
  }
}
