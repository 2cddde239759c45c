// Descriptive properties (ispe, irot, colr, clap, auxC) and ster entity
// groups.
#include <stdlib.h>
#include <string.h>

#include "common/log.h"
#include "reader/internal.h"

using namespace tarnd;

namespace {

constexpr uint32_t kColrTypeSize = 4;
// Colour payloads must hold more than the colour type and stay below 2 GiB.
constexpr uint64_t kMaxColrPayload = 2147483648u;
constexpr size_t kAuxTypeArea = 256;

// Auxiliary-type URNs, compared with their terminating NUL so that a longer
// string that merely begins with one does not match.
const char kUrnAlpha[] = "urn:mpeg:hevc:2015:auxid:1";
const char kUrnDepth[] = "urn:mpeg:hevc:2015:auxid:2";
const char kUrnGainMap[] = "urn:com:orvanta:photo:2024:aux:hdrgainmap";
// Names that tolerant reading also knows: the auxiliary types of the
// MPEG-B colour-information systems (what current encoders write for alpha
// and depth) and the gain map of every iPhone photo since 2020.
const char kUrnAlphaCicp[] = "urn:mpeg:mpegB:cicp:systems:auxiliary:alpha";
const char kUrnDepthCicp[] = "urn:mpeg:mpegB:cicp:systems:auxiliary:depth";
const char kUrnGainMapApple[] = "urn:com:apple:photo:2020:aux:hdrgainmap";
// An ICC profile opens with a 128-byte header; anything shorter is no
// profile.
constexpr uint64_t kIccHeaderSize = 128;

// ster: group_id and num_entities_in_group precede the ids.
constexpr uint64_t kSterFixedSize = 8;

// aux_type is NUL-terminated inside its 256-byte area.
uint32_t tolerant_aux_flag(const char *aux_type) {
  if (strcmp(aux_type, kUrnAlphaCicp) == 0) return TARND_ITEM_AUX_ALPHA;
  if (strcmp(aux_type, kUrnDepthCicp) == 0) return TARND_ITEM_AUX_DEPTH;
  if (strcmp(aux_type, kUrnGainMapApple) == 0) return TARND_ITEM_AUX_GAINMAP;
  return 0;
}

int32_t finish_at_end(const tarnd_io_dsc *io, void *handle, const tarnd_box *box) {
  return seek_to(io, handle, box->end) ? 0 : -1;
}

}  // namespace

int32_t parser_ispe(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx) {
  tarnd_property *slot = claim_property_slot(ctx, box, "parser_ispe");
  if (slot == nullptr) return -1;
  if (!read_u32(io, handle, &slot->payload.ispe.width) ||
      !read_u32(io, handle, &slot->payload.ispe.height))
    return -1;
  ++ctx->meta.property_cnt;
  return 0;
}

int32_t parser_irot(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx) {
  tarnd_property *slot = claim_property_slot(ctx, box, "parser_irot");
  if (slot == nullptr) return -1;
  uint8_t b;
  if (!read_u8(io, handle, &b)) return -1;
  // The other six bits are reserved.
  slot->payload.irot.angle = b & 3u;
  ++ctx->meta.property_cnt;
  return 0;
}

int32_t parser_clap(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx) {
  tarnd_property *slot = claim_property_slot(ctx, box, "parser_clap");
  if (slot == nullptr) return -1;
  int32_t *fields[8] = {&slot->payload.clap.widthN,    &slot->payload.clap.widthD,
                        &slot->payload.clap.heightN,   &slot->payload.clap.heightD,
                        &slot->payload.clap.horizOffN, &slot->payload.clap.horizOffD,
                        &slot->payload.clap.vertOffN,  &slot->payload.clap.vertOffD};
  for (int32_t *field : fields) {
    uint32_t v;
    if (!read_u32(io, handle, &v)) return -1;
    memcpy(field, &v, sizeof(v));
  }
  ++ctx->meta.property_cnt;
  return 0;
}

int32_t parser_colr(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx) {
  tarnd_property *slot = claim_property_slot(ctx, box, "parser_colr");
  if (slot == nullptr) return -1;
  const bool unusable = box->payload_size <= kColrTypeSize || box->payload_size >= kMaxColrPayload;
  if (unusable && !tolerant(ctx)) {
    TARN_LOGW("tarnd_handlers", "color data size is too big %lld",
              static_cast<long long>(box->payload_size));
    return -1;
  }
  uint8_t colour_type[4] = {0, 0, 0, 0};
  const bool typed = box->payload_size >= kColrTypeSize && box->payload_size < kMaxColrPayload;
  if (typed && !read_bytes(io, handle, colour_type, sizeof(colour_type))) return -1;
  // Tolerant reading keeps the colour type, so that a profile kept without
  // its bytes is not taken for nclx.
  if (tolerant(ctx)) slot->payload.colr.unused = TARND_FCC(colour_type[0], colour_type[1], colour_type[2], colour_type[3]);
  const bool icc = memcmp(colour_type, "rICC", 4) == 0 || memcmp(colour_type, "prof", 4) == 0;
  // Edited phone photos carry colr boxes with an empty profile: tolerant
  // reading keeps the slot with no profile, as for nclx, and reads on.
  const bool no_profile = unusable || (icc && box->payload_size - kColrTypeSize < kIccHeaderSize);
  if (no_profile && tolerant(ctx)) {
    TARN_LOGW("tarnd_handlers", "colour profile is empty or too short(%lld bytes); kept without profile",
              static_cast<long long>(box->payload_size >= kColrTypeSize ? box->payload_size - kColrTypeSize : 0));
  }
  if (!icc || (no_profile && tolerant(ctx))) {
    // nclx and other kinds keep their slot without data.
    if (finish_at_end(io, handle, box) != 0) return -1;
    slot->payload.colr.icc_size = 0;
    slot->payload.colr.icc_data = nullptr;
    ++ctx->meta.property_cnt;
    return 0;
  }
  const uint64_t icc_size = box->payload_size - kColrTypeSize;
  uint64_t left = 0;
  // A profile the source does not hold fails like a short read, before it
  // sizes a buffer.
  if (!bytes_left(io, handle, box, &left) || icc_size > left) return -1;
  uint8_t *data = static_cast<uint8_t *>(model_alloc(ctx, static_cast<size_t>(icc_size)));  // below 2 GiB
  if (data == nullptr) {
    TARN_LOGW("tarnd_handlers", "parser_colr failed to alloc item property's data");
    return -1;
  }
  if (!read_bytes(io, handle, data, static_cast<uint32_t>(icc_size))) return -1;
  slot->payload.colr.icc_size = static_cast<uint32_t>(icc_size);
  slot->payload.colr.icc_data = data;
  ++ctx->meta.property_cnt;
  return 0;
}

int32_t parser_auxC(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx) {
  tarnd_property *slot = claim_property_slot(ctx, box, "parser_auxC");
  if (slot == nullptr) return -1;
  char aux_type[kAuxTypeArea];
  memset(aux_type, 0, sizeof(aux_type));
  size_t used = 0;
  bool terminated = false;
  while (used < kAuxTypeArea) {
    if (used >= box->payload_size) {
      TARN_LOGW("tarnd_handlers", "aux data is abnormal");
      if (finish_at_end(io, handle, box) != 0) return -1;
      slot->payload.auxC.aux_flags = 0;
      ++ctx->meta.property_cnt;
      return 0;
    }
    uint8_t c;
    if (!read_u8(io, handle, &c)) return -1;
    aux_type[used++] = static_cast<char>(c);
    if (c == 0) {
      terminated = true;
      break;
    }
  }
  uint32_t flag = 0;
  if (terminated) {
    if (memcmp(aux_type, kUrnAlpha, sizeof(kUrnAlpha)) == 0) flag = TARND_ITEM_AUX_ALPHA;
    else if (memcmp(aux_type, kUrnDepth, sizeof(kUrnDepth)) == 0) flag = TARND_ITEM_AUX_DEPTH;
    else if (memcmp(aux_type, kUrnGainMap, sizeof(kUrnGainMap)) == 0) flag = TARND_ITEM_AUX_GAINMAP;
    else if (tolerant(ctx)) flag = tolerant_aux_flag(aux_type);
  }
  slot->payload.auxC.aux_flags = flag;
  if (flag != TARND_ITEM_AUX_ALPHA && flag != TARND_ITEM_AUX_DEPTH) {
    // The gain map and unknown types carry no subtype we use.
    if (finish_at_end(io, handle, box) != 0) return -1;
    ++ctx->meta.property_cnt;
    return 0;
  }
  slot->payload.auxC.subtype_size = 0;
  slot->payload.auxC.subtype_data = nullptr;
  if (box->payload_size >= static_cast<uint64_t>(used) + 4) {
    uint32_t subtype_size;
    if (!read_u32(io, handle, &subtype_size)) return -1;
    if (subtype_size != 0) {
      uint64_t left = 0;
      if (!bytes_left(io, handle, box, &left) || subtype_size > left) return -1;
      uint8_t *data = static_cast<uint8_t *>(model_alloc(ctx, subtype_size));
      if (data == nullptr) return -1;
      if (!read_bytes(io, handle, data, subtype_size)) return -1;
      slot->payload.auxC.subtype_data = data;
    }
    slot->payload.auxC.subtype_size = subtype_size;
  }
  ++ctx->meta.property_cnt;
  return 0;
}

int32_t parser_ster(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx) {
  tarnd_meta *meta = &ctx->meta;
  if (box->payload_size < kSterFixedSize) {
    TARN_LOGI("tarnd_handlers", "ster atom is too small size %llu",
              static_cast<unsigned long long>(box->size));
    return finish_at_end(io, handle, box);
  }
  if (meta->group_cnt >= TARND_MAX_GROUPS) {
    TARN_LOGI("tarnd_handlers", "too many group count");
    return finish_at_end(io, handle, box);
  }
  tarnd_group *group = &meta->groups[meta->group_cnt];
  if (!read_u32(io, handle, &group->group_id) || !read_u32(io, handle, &group->entityCount))
    return -1;
  group->grouping_type = kFccSter;
  const uint64_t needed = kSterFixedSize + 4 * static_cast<uint64_t>(group->entityCount);
  if (box->payload_size < needed) {
    TARN_LOGI("tarnd_handlers", "ster atom is too small size(%llu), entityCount(%u)",
              static_cast<unsigned long long>(box->size), group->entityCount);
    return finish_at_end(io, handle, box);
  }
  // Ids the source does not hold fail like a short read, before they size
  // the list.
  uint64_t left = 0;
  if (!bytes_left(io, handle, box, &left) || group->entityCount > left / 4) {
    TARN_LOGW("tarnd_handlers", "failed to read entity ID List");
    return -1;
  }
  // Counted, so that a 32-bit size_t cannot wrap the size.
  uint32_t *ids = static_cast<uint32_t *>(model_calloc(ctx, group->entityCount, sizeof(uint32_t)));
  if (ids == nullptr) {
    TARN_LOGW("tarnd_handlers", "parser_ster failed to alloc entityIDList");
    return -1;
  }
  for (uint32_t i = 0; i < group->entityCount; ++i) {
    if (!read_u32(io, handle, &ids[i])) {
      TARN_LOGW("tarnd_handlers", "failed to read entity ID List");
      return -1;
    }
  }
  group->entityIDList = ids;
  ++meta->group_cnt;
  return 0;
}
