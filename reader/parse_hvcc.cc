// HEVC decoder configuration (hvcC): the NAL length width and the parameter
// sets rewritten as one start-code stream (every VPS, then SPS, then PPS).
#include <stdlib.h>
#include <string.h>

#include "common/log.h"
#include "reader/internal.h"

using namespace tarnd;

namespace {

constexpr uint8_t kNalVps = 32;
constexpr uint8_t kNalSps = 33;
constexpr uint8_t kNalPps = 34;
// configurationVersion through avgFrameRate precede lengthSizeMinusOne.
constexpr uint64_t kFixedFieldsSize = 21;
constexpr uint8_t kStartCode[4] = {0, 0, 0, 1};
constexpr uint32_t kMaxArrays = 255;  // numOfArrays is one byte

// One parameter-set array found by the measuring pass.
struct ParamArray {
  uint8_t nal_type;
  uint16_t nal_cnt;
  uint64_t start;  // just after numNalus
};

bool is_param_set(uint8_t t) { return t == kNalVps || t == kNalSps || t == kNalPps; }

// Copies the NAL units of one array after start codes. *used grows by what
// was written; nothing is written past size.
template <class Source>
bool copy_array(Source &src, const ParamArray &a, uint8_t *buf, uint64_t size, uint64_t *used) {
  if (!src.seek(a.start)) return false;
  for (uint32_t n = 0; n < a.nal_cnt; ++n) {
    uint16_t len;
    if (size - *used < sizeof(kStartCode)) return false;
    memcpy(buf + *used, kStartCode, sizeof(kStartCode));
    *used += sizeof(kStartCode);
    if (!src.u16(&len)) return false;
    if (len > size - *used) return false;
    if (!src.bytes(buf + *used, len)) return false;
    *used += len;
  }
  return true;
}

template <class Source>
int32_t parse_hvcC(Source &src, tarnd_ctx *ctx, tarnd_property *slot) {
  uint8_t length_byte, array_cnt;
  if (!src.skip(kFixedFieldsSize) || !src.u8(&length_byte)) return -1;
  if (!src.u8(&array_cnt)) return -1;

  // Measuring pass: remember where every parameter-set array starts.
  ParamArray arrays[kMaxArrays];
  uint32_t found = 0;
  uint64_t total = 0;
  for (uint32_t i = 0; i < array_cnt; ++i) {
    uint8_t type_byte;
    uint16_t nal_cnt;
    if (!src.u8(&type_byte) || !src.u16(&nal_cnt)) return -1;
    const uint8_t nal_type = type_byte & 0x3fu;
    const bool keep = is_param_set(nal_type);
    if (keep) {
      arrays[found].nal_type = nal_type;
      arrays[found].nal_cnt = nal_cnt;
      if (!src.tell(&arrays[found].start)) return -1;
      ++found;
    }
    for (uint32_t n = 0; n < nal_cnt; ++n) {
      uint16_t len;
      if (!src.u16(&len) || !src.skip(len)) return -1;
      if (keep) total += static_cast<uint64_t>(len) + sizeof(kStartCode);
    }
  }
  if (total > UINT32_MAX || total > SIZE_MAX) {
    TARN_LOGE("tarnd_handlers", "HEVC NAL data is abnormal");
    return -1;
  }
  // A source whose skip runs past its end must not size the buffer.
  uint64_t pos = 0, size = 0;
  if (!src.tell(&pos) || !src.size(&size)) return -1;
  if (pos > size) return -1;

  uint8_t *buf = static_cast<uint8_t *>(model_alloc(ctx, static_cast<size_t>(total)));
  if (buf == nullptr) return -1;
  uint64_t used = 0;
  const uint8_t order[3] = {kNalVps, kNalSps, kNalPps};
  for (uint8_t kind : order) {
    for (uint32_t i = 0; i < found; ++i) {
      if (arrays[i].nal_type != kind) continue;
      if (!copy_array(src, arrays[i], buf, total, &used)) return -1;
    }
  }
  slot->payload.hvcC.nal_length_size = (length_byte & 3u) + 1;
  slot->payload.hvcC.config_size = static_cast<uint32_t>(used);
  slot->payload.hvcC.config_data = buf;
  ++ctx->meta.property_cnt;
  return 0;
}

}  // namespace

int32_t parser_hvcC(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx) {
  tarnd_property *slot = claim_property_slot(ctx, box, "parser_hvcC");
  if (slot == nullptr) return -1;
  return with_source(io, handle, [&](auto &src) { return parse_hvcC(src, ctx, slot); });
}
