// Image queries over the model that tarnd_create built: which item plays a
// role (primary, thumbnail, auxiliary, tone map, gain map, stereo view) and
// what one image item looks like (size, rotation, colour, codec, decoder
// configuration, tiles, crop). Neither query touches the source.

#include <stdint.h>
#include <string.h>

#include "common/log.h"
#include "reader/internal.h"
#include "tarn/reader.h"

using namespace tarnd;

namespace {

constexpr const char kTag[] = "tarnd";
constexpr uint32_t kNoId = 0xFFFFFFFFu;
constexpr uint32_t kFccThmb = TARND_FCC('t', 'h', 'm', 'b');
constexpr uint32_t kFccAuxl = TARND_FCC('a', 'u', 'x', 'l');
constexpr uint32_t kFccDimg = TARND_FCC('d', 'i', 'm', 'g');

// The context behind a caller's handle, or null when the handle is not one.
tarnd_ctx *context_of(void *handle) {
  if (handle == nullptr) return nullptr;
  uint32_t magic;
  memcpy(&magic, handle, sizeof(magic));
  return magic == TARND_MAGIC ? static_cast<tarnd_ctx *>(handle) : nullptr;
}

uint32_t ref_count(const tarnd_item &item) {
  return item.referece_from_cnt < TARND_MAX_REFS ? item.referece_from_cnt : TARND_MAX_REFS;
}

// True when the item has a reference of this type that starts with target.
bool refers_first_to(const tarnd_item &item, uint32_t type, uint32_t target) {
  for (uint32_t r = 0; r < ref_count(item); ++r) {
    if (item.ref_type[r] == type && item.ref_to_cnt[r] != 0 && item.ref_to_ids[r] != nullptr &&
        item.ref_to_ids[r][0] == target) {
      return true;
    }
  }
  return false;
}

// Tone-map search: the first tmap item whose dimg reference starts with the
// base image; with want_gainmap, the second input of that reference instead
// (references with a single input do not answer).
bool find_tonemap(const tarnd_ctx *ctx, uint32_t target, bool want_gainmap, uint32_t *out) {
  for (uint32_t i = 0; i < ctx->meta.item_cnt; ++i) {
    const tarnd_item &item = ctx->meta.items[i];
    if (item.item_type != kFccTmap) continue;
    for (uint32_t r = 0; r < ref_count(item); ++r) {
      if (item.ref_type[r] != kFccDimg || item.ref_to_cnt[r] == 0 || item.ref_to_ids[r] == nullptr ||
          item.ref_to_ids[r][0] != target) {
        continue;
      }
      if (!want_gainmap) {
        *out = item.item_id;
        return true;
      }
      if (item.ref_to_cnt[r] >= 2) {
        *out = item.ref_to_ids[r][1];
        return true;
      }
    }
  }
  return false;
}

bool find_referrer(const tarnd_ctx *ctx, uint32_t type, uint32_t target, uint32_t *out) {
  for (uint32_t i = 0; i < ctx->meta.item_cnt; ++i) {
    if (refers_first_to(ctx->meta.items[i], type, target)) {
      *out = ctx->meta.items[i].item_id;
      return true;
    }
  }
  return false;
}

// Tolerant reading: a gain map stored as an auxiliary image of the base
// (as phones write it) answers when no tone-map item does.
bool find_gainmap_auxiliary(const tarnd_ctx *ctx, uint32_t target, uint32_t *out) {
  for (uint32_t i = 0; i < ctx->meta.item_cnt; ++i) {
    const tarnd_item &item = ctx->meta.items[i];
    if ((item.flags & TARND_ITEM_AUX_GAINMAP) != 0 && refers_first_to(item, kFccAuxl, target)) {
      *out = item.item_id;
      return true;
    }
  }
  return false;
}

bool find_flagged(const tarnd_ctx *ctx, uint32_t flag, uint32_t *out) {
  for (uint32_t i = 0; i < ctx->meta.item_cnt; ++i) {
    if (ctx->meta.items[i].flags & flag) {
      *out = ctx->meta.items[i].item_id;
      return true;
    }
  }
  return false;
}

// A primary that is not an image the caller can show (for example a jpeg
// or an overlay) is answered with the first displayable item instead.
int32_t primary_id(const tarnd_ctx *ctx, uint32_t *out_id) {
  *out_id = ctx->primary_item_id;
  uint32_t index = 0;
  if (ctx->meta.item_cnt == 0 ||
      tarnd_find_itemIndex(ctx->meta.items, ctx->meta.item_cnt, ctx->primary_item_id, &index) != 0 ||
      index >= ctx->meta.item_cnt) {
    return 0;
  }
  const uint32_t type = ctx->meta.items[index].item_type;
  if (type == kFccHvc1 || type == kFccGrid) return 0;
  // Tolerant reading answers what the file names when it is an image other
  // readers show: an overlay or a JPEG.
  if (tolerant(ctx) && (type == kFccIovl || type == kFccJpeg)) return 0;
  if (ctx->displayable_cnt == 0 || ctx->displayable_ids == nullptr) return 0;
  TARN_LOGI(kTag,
            "cover image(%c%c%c%c) is not supported. set cover image to the first displayable "
            "image",
            static_cast<char>(type & 0xFF), static_cast<char>((type >> 8) & 0xFF),
            static_cast<char>((type >> 16) & 0xFF), static_cast<char>(type >> 24));
  *out_id = ctx->displayable_ids[0];
  return 0;
}

// The bound property at index if it exists and has the expected type.
const tarnd_property *bound_property(const tarnd_ctx *ctx, int32_t index, uint32_t type) {
  if (index < 0 || static_cast<uint32_t>(index) >= ctx->meta.property_cnt) return nullptr;
  const tarnd_property *p = &ctx->meta.properties[index];
  return p->type == type ? p : nullptr;
}

void copy_colour(const tarnd_ctx *ctx, int32_t colr_index, tarnd_image_info *info) {
  const tarnd_property *p = bound_property(ctx, colr_index, TARND_FCC('c', 'o', 'l', 'r'));
  if (p == nullptr) return;
  info->icc_data = p->payload.colr.icc_data;
  info->icc_size = p->payload.colr.icc_size;
}

// Derives the display crop from the bound clean aperture. A clap that does
// not convert leaves the caller's crop as it was; the conversion logs why.
void copy_crop(const tarnd_ctx *ctx, uint32_t item_id, int32_t clap_index, bool grid,
               tarnd_image_info *info) {
  const tarnd_property *p = bound_property(ctx, clap_index, TARND_FCC('c', 'l', 'a', 'p'));
  if (p == nullptr) return;
  const int32_t clap[8] = {p->payload.clap.widthN,   p->payload.clap.widthD,    p->payload.clap.heightN,
                           p->payload.clap.heightD,  p->payload.clap.horizOffN, p->payload.clap.horizOffD,
                           p->payload.clap.vertOffN, p->payload.clap.vertOffD};
  if (grid) {
    TARN_LOGI(kTag,
              "[%u]item has clean aperture. width(%d / %d), height(%d / %d), horizOffset(%d / "
              "%d), vertOffset(%d / %d)",
              item_id, clap[0], clap[1], clap[2], clap[3], clap[4], clap[5], clap[6], clap[7]);
  } else {
    TARN_LOGI(kTag,
              "%u item has clean aperture. width(%d / %d), height(%d / %d), horizOffset(%d / "
              "%d), vertOffset(%d / %d)",
              item_id, clap[0], clap[1], clap[2], clap[3], clap[4], clap[5], clap[6], clap[7]);
  }
  tarnd_crop crop = {0, 0, 0, 0};
  if (!tarnd_convert_clean_aperture_to_crop(static_cast<int32_t>(info->width),
                                            static_cast<int32_t>(info->height), clap, &crop)) {
    return;
  }
  info->crop = crop;
  TARN_LOGI(kTag, "display crop info(left : %d, right : %d, top : %d, bottom : %d", crop.left, crop.right,
            crop.top, crop.bottom);
}

}  // namespace

extern "C" {

int32_t tarnd_get_image_id(void *handle, uint32_t type, uint32_t ref_id, uint32_t *out_id) {
  const tarnd_ctx *ctx = context_of(handle);
  if (ctx == nullptr || out_id == nullptr) return -1;
  if (type == TARND_ID_PRIMARY) return primary_id(ctx, out_id);
  if (type < TARND_ID_THUMBNAIL || type > TARND_ID_STEREO_RIGHT) return 0;

  const uint32_t target = ref_id == TARND_ID_REF_PRIMARY ? ctx->primary_item_id : ref_id;
  uint32_t answer = kNoId;
  bool found = false;
  if (ctx->meta.items != nullptr) {
    switch (type) {
      case TARND_ID_THUMBNAIL:
        found = find_referrer(ctx, kFccThmb, target, &answer);
        break;
      case TARND_ID_AUXILIARY:
        found = find_referrer(ctx, kFccAuxl, target, &answer);
        break;
      case TARND_ID_TONEMAP:
        found = find_tonemap(ctx, target, false, &answer);
        break;
      case TARND_ID_GAINMAP:
        found = find_tonemap(ctx, target, true, &answer) ||
                (tolerant(ctx) && find_gainmap_auxiliary(ctx, target, &answer));
        break;
      case TARND_ID_STEREO_LEFT:
        found = find_flagged(ctx, TARND_ITEM_STEREO_LEFT, &answer);
        break;
      default:
        found = find_flagged(ctx, TARND_ITEM_STEREO_RIGHT, &answer);
        break;
    }
  }
  *out_id = found ? answer : kNoId;
  return found ? 0 : -1;
}

int32_t tarnd_get_info_image(void *handle, int32_t item_id, tarnd_image_info *info) {
  const tarnd_ctx *ctx = context_of(handle);
  if (ctx == nullptr || info == nullptr) return -1;
  uint32_t index = 0;
  const uint32_t id = static_cast<uint32_t>(item_id);
  if (tarnd_find_itemIndex(ctx->meta.items, ctx->meta.item_cnt, id, &index) != 0 ||
      index >= ctx->meta.item_cnt) {
    TARN_LOGW(kTag, "%s : valid index for item(%d) could not be found", "tarnd_get_info_image", item_id);
    return -1;
  }
  const tarnd_item &item = ctx->meta.items[index];
  const bool has_properties = ctx->meta.properties != nullptr;

  if (item.item_type == kFccHvc1) {
    const tarnd_item_image &view = item.view.image;
    info->width = view.ispe_width;
    info->height = view.ispe_height;
    info->rotation = view.irot_angle;
    info->codec = TARND_CODEC_HEVC;
    if (!has_properties) {
      info->config_size = 0;
      info->config_data = nullptr;
    } else {
      const tarnd_property *hvcc = bound_property(ctx, view.hvcC_index, TARND_FCC('h', 'v', 'c', 'C'));
      if (hvcc != nullptr) {
        info->config_size = hvcc->payload.hvcC.config_size;
        info->config_data = hvcc->payload.hvcC.config_data;
      }
      copy_colour(ctx, view.colr_index, info);
      copy_crop(ctx, item.item_id, view.clap_index, false, info);
    }
  } else if (item.item_type == kFccGrid || (item.item_type == kFccIovl && tolerant(ctx))) {
    const tarnd_item_grid &view = item.view.grid;
    info->width = view.ispe_width;
    info->height = view.ispe_height;
    info->rotation = view.irot_angle;
    info->codec = TARND_CODEC_GRID;
    info->config_size = 0;
    info->config_data = nullptr;
    if (has_properties) {
      copy_colour(ctx, view.colr_index, info);
      copy_crop(ctx, item.item_id, view.clap_index, true, info);
    }
  } else if (item.item_type == kFccJpeg) {
    info->width = item.view.image.ispe_width;
    info->height = item.view.image.ispe_height;
    info->rotation = item.view.image.irot_angle;
    info->codec = TARND_CODEC_JPEG;
    info->config_size = 0;
    info->config_data = nullptr;
  }

  for (uint32_t r = 0; r < ref_count(item); ++r) {
    if (item.ref_type[r] == kFccDimg) {
      info->tile_cnt = item.ref_to_cnt[r];
      break;
    }
  }
  info->flags = item.flags;
  return 0;
}

}  // extern "C"
