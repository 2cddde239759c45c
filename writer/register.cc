// Image registration: one call per image (or grid) creates its items,
// references, shared properties, associations, entity group and the Exif and
// XMP entries that finalisation turns into items.
//
// Everything a caller can get wrong is checked before the first element is
// added, so a refused registration leaves the context as it was and the file
// can still be finished.

#include <stdlib.h>
#include <string.h>

#include "common/log.h"
#include "writer/intake.h"
#include "writer/internal.h"

namespace {

const char kTag[] = "tarnm";

// Limits of one registration.
constexpr uint32_t kMaxGridTiles = 768;
constexpr uint32_t kMaxGridSide = 256;           // rows and columns are stored less one in a byte
constexpr uint32_t kMaxGridOutputSide = 0xFFFF;  // the grid record carries 16-bit sizes
constexpr uint64_t kMaxCodedPixels = 0xC00000;
constexpr uint64_t kMaxGridPixels = 0xC000000;
constexpr uint32_t kMaxBitDepthInfo = 3;
constexpr int32_t kMinHvccSize = 23;
constexpr uint32_t kMaxItemId = 0xFFFF;
// Offset of the item id in an infe element (after size, type, version and
// flags).
constexpr size_t kInfeItemIdOffset = 12;
// A grid's idat piece is its 8-byte ImageGrid record.
constexpr uint32_t kGridRecordSize = 8;
// The Exif item starts with the offset of the TIFF header behind the
// "Exif\0\0" marker of the caller's block.
constexpr uint32_t kExifHeaderSize = 4;
constexpr uint32_t kExifTiffOffset = 6;
// The heap estimate grows by 192 bytes per 16x16 block of pixels, plus a
// fifth for headroom.
constexpr uint32_t kBytesPerBlock = 192;
constexpr double kEstimateMargin = 1.2;

constexpr uint32_t kFccHvc1 = TARN_FCC('h', 'v', 'c', '1');
constexpr uint32_t kFccGrid = TARN_FCC('g', 'r', 'i', 'd');
constexpr uint32_t kFccTmap = TARN_FCC('t', 'm', 'a', 'p');
constexpr uint32_t kFccThmb = TARN_FCC('t', 'h', 'm', 'b');
constexpr uint32_t kFccAuxl = TARN_FCC('a', 'u', 'x', 'l');
constexpr uint32_t kFccDimg = TARN_FCC('d', 'i', 'm', 'g');

void add_estimate(tarnm_state *state, uint32_t blocks_bytes) {
  const double sum = static_cast<double>(state->max_image_size) + blocks_bytes * kEstimateMargin;
  state->max_image_size = sum >= 4294967295.0 ? 0xFFFFFFFFu : static_cast<uint32_t>(sum);
}

void add_estimate_bytes(tarnm_state *state, uint32_t bytes) {
  state->max_image_size =
      bytes > 0xFFFFFFFFu - state->max_image_size ? 0xFFFFFFFFu : state->max_image_size + bytes;
}

bool is_colour_type(uint32_t type) { return type >= 1 && type <= 3; }

// An item described twice makes the file unreadable: refuse ids that an
// earlier registration already used (the grid's tiles included).
bool ids_taken(tarnm_state *state, uint32_t item_id, const tarnm_grid_info *grid) {
  tarn_mblk_iter it;
  for (const uint8_t *e = static_cast<const uint8_t *>(tarn_mblk_elem_first(&state->infe_list, &it));
       e != nullptr; e = static_cast<const uint8_t *>(tarn_mblk_elem_next(&state->infe_list, &it))) {
    const uint32_t id = static_cast<uint32_t>(e[kInfeItemIdOffset] << 8 | e[kInfeItemIdOffset + 1]);
    if (id == item_id || (grid && id >= grid->first_tile_id && id <= grid->last_tile_id)) {
      TARN_LOGW(kTag, "item %u is already registered", id);
      return true;
    }
  }
  return false;
}

// The checks that need no element to be added. Each refusal that has its own
// line logs it here; the caller adds the final line.
bool validate(tarnm_state *state, uint32_t item_id, const tarnm_image_info *info,
              const tarnm_grid_info *grid) {
  if (info->img_type > IMG_TYPE_OTHER || (grid && info->img_type == IMG_TYPE_TMAP)) {
    TARN_LOGW(kTag, "Should not be here. unsupported image type(%d)",
              static_cast<int32_t>(info->img_type));
    return false;
  }
  if (info->bit_depth_info_count > kMaxBitDepthInfo) {
    TARN_LOGW(kTag, "to big bit_depth_info_count(%u)", info->bit_depth_info_count);
    return false;
  }
  if (info->bit_depth_info_count != 0 && info->bit_depth == nullptr) {
    TARN_LOGW(kTag, "bit depth data is missing");
    return false;
  }
  if ((info->exif_size != 0 && info->exif_data == nullptr) ||
      (info->xmp_size != 0 && info->xmp_data == nullptr)) {
    TARN_LOGW(kTag, "metadata pointer is NULL");
    return false;
  }
  if (info->exif_size > TARNM_MAX_CHUNK_SIZE - kExifHeaderSize ||
      info->xmp_size > TARNM_MAX_CHUNK_SIZE) {
    TARN_LOGW(kTag, "metadata is too big. exif size : %u, xmp size : %u", info->exif_size,
              info->xmp_size);
    return false;
  }
  if (info->width == 0 || info->height == 0) {
    TARN_LOGW(kTag, "image size is abnormal(%ux%u)", info->width, info->height);
    return false;
  }
  const int32_t metadata_needed = (info->exif_size != 0) + (info->xmp_size != 0);
  if (state->metadata_count > TARNM_MAX_METADATA - metadata_needed) return false;
  if (item_id > kMaxItemId) {
    TARN_LOGW(kTag, "item id is out of range(%u)", item_id);
    return false;
  }
  const bool grouped = info->img_type == IMG_TYPE_TMAP || info->img_type == IMG_TYPE_STEREO;
  if (grouped && state->group_count >= TARNM_MAX_GROUPS) return false;

  if (grid == nullptr) {
    if (info->img_type == IMG_TYPE_TMAP) {
      if (info->tmap_size != 0 && info->tmap_data == nullptr) {
        TARN_LOGW(kTag, "gain map info is NULL. size : %u", info->tmap_size);
        return false;
      }
      if (info->tmap_size != 0 && (state->item_data_count >= TARNM_MAX_ITEM_DATA ||
                                   info->tmap_size > TARNM_MAX_CHUNK_SIZE - state->idat_size)) {
        return false;
      }
      return !ids_taken(state, item_id, nullptr);
    }
    return static_cast<uint64_t>(info->width) * info->height <= kMaxCodedPixels &&
           !ids_taken(state, item_id, nullptr);
  }

  const uint32_t rows = grid->rows;
  const uint64_t tiles = static_cast<uint64_t>(rows) * grid->columns;
  if (rows == 0 || grid->columns == 0 || tiles > kMaxGridTiles || rows > kMaxGridSide ||
      grid->columns > kMaxGridSide) {
    return false;
  }
  if (grid->grid_item_id != item_id) {
    TARN_LOGW(kTag, "grid item id(%u) differs from item id(%u)", grid->grid_item_id, item_id);
    return false;
  }
  if (grid->last_tile_id < grid->first_tile_id || grid->last_tile_id > kMaxItemId ||
      grid->last_tile_id - grid->first_tile_id + 1 != tiles ||
      (grid->grid_item_id >= grid->first_tile_id && grid->grid_item_id <= grid->last_tile_id)) {
    TARN_LOGW(kTag, "grid tile ids %u..%u do not hold %u x %u tiles apart from grid %u",
              grid->first_tile_id, grid->last_tile_id, rows, grid->columns, grid->grid_item_id);
    return false;
  }
  if (static_cast<uint64_t>(grid->output_width) * grid->output_height > kMaxGridPixels) {
    return false;
  }
  // The tiles must cover the output, and no row or column of tiles may lie
  // wholly outside it.
  const uint64_t cover_w = static_cast<uint64_t>(info->width) * grid->columns;
  const uint64_t cover_h = static_cast<uint64_t>(info->height) * rows;
  if (grid->output_width == 0 || grid->output_height == 0 ||
      grid->output_width > kMaxGridOutputSide || grid->output_height > kMaxGridOutputSide ||
      grid->output_width > cover_w || grid->output_height > cover_h ||
      grid->output_width <= cover_w - info->width || grid->output_height <= cover_h - info->height) {
    TARN_LOGW(kTag, "grid output %ux%u does not match %u x %u tiles of %ux%u", grid->output_width,
              grid->output_height, rows, grid->columns, info->width, info->height);
    return false;
  }
  if (static_cast<uint64_t>(info->width) * info->height > kMaxCodedPixels) return false;
  return state->item_data_count < TARNM_MAX_ITEM_DATA &&
         state->idat_size <= TARNM_MAX_CHUNK_SIZE - kGridRecordSize &&
         !ids_taken(state, item_id, grid);
}

// The hvcC payload of the image, in a temporary buffer the caller frees.
uint8_t *build_hvcc(const tarnm_param_sets *param_sets, int32_t *size) {
  *size = tarnm_get_hvcc_size(param_sets);
  if (*size < kMinHvccSize) {
    TARN_LOGW(kTag, "hvcC data size is abnormal(%d)", *size);
    return nullptr;
  }
  uint8_t *payload = static_cast<uint8_t *>(malloc(static_cast<size_t>(*size)));
  if (payload == nullptr) {
    TARN_LOGW(kTag, "csdData malloc failed. hvccDataSize : %d", *size);
    return nullptr;
  }
  if (tarnm_make_hvcc(param_sets, payload) != 0) {
    TARN_LOGE(kTag, "failed to make hvcC data");
    free(payload);
    return nullptr;
  }
  return payload;
}

void begin_association_set(tarnm_state *state) {
  state->last_property_index = state->property_count;
  state->assoc_count = 0;
}

// clli and auxC are never shared: each takes the next index of its own.
bool take_next_index(tarnm_state *state) {
  if (state->last_property_index >= TARNM_MAX_PROPERTY_INDEX ||
      state->assoc_count >= TARNM_MAX_ASSOC) {
    TARN_LOGW(kTag, "no property index left(%u)", state->last_property_index + 1);
    return false;
  }
  state->last_property_index++;
  state->assoc[state->assoc_count++] = static_cast<uint8_t>(state->last_property_index);
  return true;
}

bool add_reference(tarnm_state *state, uint32_t from, uint32_t type, uint32_t count,
                   const uint32_t *ids, int32_t logged_kind) {
  const int32_t rc = tarnm_add_element_itemtyperef(state, from, type, count, ids);
  if (rc != 0) {
    TARN_LOGD(kTag, "adding item ref info(%d) is failed(%d)", logged_kind, rc);
    return false;
  }
  return true;
}

bool add_colour(tarnm_state *state, const tarnm_image_info *info, bool icc_only) {
  if (info->color_size == 0 || info->color_data == nullptr || !is_colour_type(info->color_type)) {
    return true;
  }
  if (icc_only && info->color_type == 1) return true;
  if (tarnm_add_colr_property(state, info->color_data, info->color_size) != 0) {
    TARN_LOGW(kTag, "tarnm_add_colr_property() failed");
    return false;
  }
  return true;
}

bool add_hvcc(tarnm_state *state, const uint8_t *payload, int32_t size) {
  if (tarnm_add_hvcc_property(state, payload, static_cast<uint32_t>(size)) != 0) {
    TARN_LOGW(kTag, "tarnm_add_hvcc_property() failed");
    return false;
  }
  return true;
}

bool add_ispe(tarnm_state *state, uint32_t width, uint32_t height) {
  if (tarnm_add_ispe_property(state, width, height) != 0) {
    TARN_LOGW(kTag, "tarnm_add_ispe_property() failed");
    return false;
  }
  return true;
}

bool add_irot(tarnm_state *state, uint32_t rotation) {
  if (tarnm_add_irot_property(state, static_cast<int32_t>(rotation)) != 0) {
    TARN_LOGW(kTag, "tarnm_add_irot_property() failed");
    return false;
  }
  return true;
}

// pixi, clli and auxC: the properties both kinds of image end with.
bool add_trailing_properties(tarnm_state *state, const tarnm_image_info *info) {
  if (info->bit_depth_info_count != 0 &&
      tarnm_add_pixi_property(state, info->bit_depth, info->bit_depth_info_count) != 0) {
    TARN_LOGW(kTag, "tarnm_add_pixi_property() failed");
    return false;
  }
  if (info->max_cll != 0 || info->max_pall != 0) {
    if (!take_next_index(state)) return false;
    if (tarnm_add_element_clli(state, info->max_cll, info->max_pall) != 0) return false;
  }
  if (info->aux_type != 0) {
    if (!take_next_index(state)) return false;
    const int32_t rc = tarnm_add_element_auxC(state);
    if (rc != 0) {
      TARN_LOGD(kTag, "adding auxC property is failed(%d)", rc);
      return false;
    }
  }
  return true;
}

bool add_ipma(tarnm_state *state, uint32_t item_id) {
  return tarnm_add_element_ipma(state, item_id, state->assoc_count, state->assoc) == 0;
}

void add_group(tarnm_state *state, uint32_t type, uint32_t first, uint32_t second) {
  tarnm_entity_group &g = state->groups[state->group_count++];
  memset(&g, 0, sizeof g);
  g.type = type;
  g.count = 2;
  g.ids[0] = first;
  g.ids[1] = second;
}

// Exif and XMP are kept aside until the file is finished; their slots were
// checked by validate().
bool keep_metadata(tarnm_state *state, uint32_t item_id, const tarnm_image_info *info) {
  if (info->exif_size != 0) {
    const uint32_t size = info->exif_size + kExifHeaderSize;
    uint8_t *copy = static_cast<uint8_t *>(malloc(size));
    if (copy == nullptr) {
      TARN_LOGW(kTag, "failed to alloc exif data. size : %u", size);
      return false;
    }
    copy[0] = 0;
    copy[1] = 0;
    copy[2] = 0;
    copy[3] = kExifTiffOffset;
    memcpy(copy + kExifHeaderSize, info->exif_data, info->exif_size);
    tarnm_metadata_entry &e = state->metadata[state->metadata_count++];
    e = {TARNM_METADATA_EXIF, item_id, copy, 0, size};
    add_estimate_bytes(state, size);
  }
  if (info->xmp_size != 0) {
    uint8_t *copy = static_cast<uint8_t *>(malloc(info->xmp_size));
    if (copy == nullptr) {
      TARN_LOGW(kTag, "xmp metadata alloc failed. size : %u", info->xmp_size);
      return false;
    }
    memcpy(copy, info->xmp_data, info->xmp_size);
    tarnm_metadata_entry &e = state->metadata[state->metadata_count++];
    e = {TARNM_METADATA_XMP, item_id, copy, 0, info->xmp_size};
    add_estimate_bytes(state, info->xmp_size);
  }
  return true;
}

bool register_single(tarnm_state *state, uint32_t item_id, uint32_t ref_id, tarnm_image_info *info,
                     const uint8_t *hvcc, int32_t hvcc_size) {
  const uint32_t type = info->img_type;
  const bool tmap = type == IMG_TYPE_TMAP;
  begin_association_set(state);
  if (tarnm_add_element_infe(state, item_id, tmap ? kFccTmap : kFccHvc1, info->aux_type == 0) != 0) {
    return false;
  }
  if (tmap) state->tmap_item_id = state->last_item_id;

  const int32_t logged = static_cast<int32_t>(type);
  if (type == IMG_TYPE_THUMBNAIL && !add_reference(state, item_id, kFccThmb, 1, &ref_id, logged)) {
    return false;
  }
  if (type == IMG_TYPE_AUX && !add_reference(state, item_id, kFccAuxl, 1, &ref_id, logged)) {
    return false;
  }
  if (tmap) {
    const uint32_t inputs[2] = {state->primary_item_id, ref_id};
    if (!add_reference(state, item_id, kFccDimg, 2, inputs, logged)) return false;
    if (info->tmap_size != 0) {
      void *copy = malloc(info->tmap_size);
      if (copy == nullptr) {
        TARN_LOGW(kTag, "failed to alloc gain map info");
        return false;
      }
      memcpy(copy, info->tmap_data, info->tmap_size);
      state->item_data[state->item_data_count++] = {TARNM_ITEM_DATA_TMAP, info->tmap_size, copy};
      if (tarnm_put_tonemap_data(state, item_id, info->tmap_size) != 0) return false;
    }
  }

  if (!add_colour(state, info, false)) return false;
  if (tmap) {
    if (info->rotation == 90 || info->rotation == 270) {
      const uint32_t width = info->width;
      info->width = info->height;
      info->height = width;
    }
    info->rotation = 0;
    state->image_info.width = info->width;
    state->image_info.height = info->height;
    state->image_info.rotation = 0;
  } else if (!add_hvcc(state, hvcc, hvcc_size)) {
    return false;
  }
  if (!add_ispe(state, info->width, info->height)) return false;
  if (!tmap) {
    add_estimate(state, (info->height / 16) * (info->width / 16) * kBytesPerBlock);
    if (info->rotation != 0 && !add_irot(state, info->rotation)) return false;
  } else if (!add_irot(state, info->rotation)) {
    return false;
  }
  if (!add_trailing_properties(state, info)) return false;
  if (!add_ipma(state, item_id)) return false;

  if (tmap) add_group(state, TARNM_GROUP_ALTR, item_id, state->primary_item_id);
  if (type == IMG_TYPE_STEREO) add_group(state, TARNM_GROUP_STER, item_id, ref_id);
  return keep_metadata(state, item_id, info);
}

bool register_grid(tarnm_state *state, uint32_t item_id, uint32_t ref_id,
                   const tarnm_image_info *info, const tarnm_grid_info *grid, const uint8_t *hvcc,
                   int32_t hvcc_size) {
  const uint32_t type = info->img_type;
  state->grid_info = *grid;
  for (uint32_t id = grid->first_tile_id; id <= grid->last_tile_id; ++id) {
    if (tarnm_add_element_infe(state, id, kFccHvc1, 0) != 0) return false;
  }
  if (tarnm_add_element_infe(state, grid->grid_item_id, kFccGrid, info->aux_type == 0) != 0) {
    return false;
  }

  tarnm_grid_info *copy = static_cast<tarnm_grid_info *>(malloc(sizeof *copy));
  if (copy == nullptr) {
    TARN_LOGW(kTag, "failed to alloc grid data");
    return false;
  }
  *copy = *grid;
  const int32_t piece = state->item_data_count++;
  state->item_data[piece] = {TARNM_ITEM_DATA_GRID, static_cast<uint32_t>(sizeof *copy), copy};
  // The grid's 8 bytes take their idat place now; its location entry follows
  // its last tile's frame, which may already be here.
  state->idat_size += kGridRecordSize;
  if (tarnm_has_iloc_entry(state, grid->last_tile_id) &&
      tarnm_add_grid_location(state, piece) != 0) {
    return false;
  }

  const uint32_t tile_count = grid->rows * grid->columns;
  uint32_t ids[kMaxGridTiles];
  tarnm_make_iref_grid_item_id_list(ids, tile_count, grid->first_tile_id);
  if (!add_reference(state, item_id, kFccDimg, tile_count, ids, 0)) return false;
  const int32_t logged = static_cast<int32_t>(type);
  if (type == IMG_TYPE_THUMBNAIL && !add_reference(state, item_id, kFccThmb, 1, &ref_id, logged)) {
    return false;
  }
  if (type == IMG_TYPE_AUX && !add_reference(state, item_id, kFccAuxl, 1, &ref_id, logged)) {
    return false;
  }

  // One property set shared by every tile; nclx stays with the grid.
  begin_association_set(state);
  if (!add_colour(state, info, true) || !add_hvcc(state, hvcc, hvcc_size) ||
      !add_ispe(state, info->width, info->height)) {
    return false;
  }
  if (info->rotation != 0 && !add_irot(state, info->rotation)) return false;
  for (uint32_t id = grid->first_tile_id; id <= grid->last_tile_id; ++id) {
    if (!add_ipma(state, id)) return false;
  }

  begin_association_set(state);
  if (!add_colour(state, info, false) ||
      !add_ispe(state, grid->output_width, grid->output_height)) {
    return false;
  }
  add_estimate(state, ((info->height * grid->columns) / 16) * ((info->width * grid->rows) / 16) *
                          kBytesPerBlock);
  if (grid->rotation != 0 && !add_irot(state, grid->rotation)) return false;
  if (!add_trailing_properties(state, info)) return false;
  if (!add_ipma(state, grid->grid_item_id)) return false;

  if (type == IMG_TYPE_STEREO) add_group(state, TARNM_GROUP_STER, item_id, ref_id);
  return keep_metadata(state, item_id, info);
}

}  // namespace

extern "C" {

int32_t tarnm_set_image_info(tarnm_ctx *handle, uint32_t item_id, uint32_t ref_id,
                             tarnm_image_info *info, const tarnm_grid_info *grid) {
  tarnm_state *state = handle != nullptr ? &handle->state : nullptr;
  bool ok = state != nullptr && info != nullptr && validate(state, item_id, info, grid);
  uint8_t *hvcc = nullptr;
  int32_t hvcc_size = 0;
  if (ok && info->img_type != IMG_TYPE_TMAP) {
    hvcc = build_hvcc(&info->param_sets, &hvcc_size);
    ok = hvcc != nullptr;
  }
  if (ok) {
    state->image_info = *info;
    ok = grid == nullptr ? register_single(state, item_id, ref_id, info, hvcc, hvcc_size)
                         : register_grid(state, item_id, ref_id, info, grid, hvcc, hvcc_size);
  }
  free(hvcc);
  if (!ok) {
    TARN_LOGW(kTag, "failed to set image info!");
    return -1;
  }
  return 0;
}

int32_t tarnm_set_cover_image(tarnm_ctx *handle, int32_t img_id) {
  if (img_id < 0) {
    TARN_LOGW(kTag, "img_id is invalid : %d", img_id);
    return -1;
  }
  if (handle == nullptr) {
    TARN_LOGW(kTag, "TARNM is NULL");
    return -1;
  }
  handle->state.primary_item_id = static_cast<uint32_t>(img_id);
  return 0;
}

int32_t tarnm_put_tonemap_data(tarnm_state *state, uint32_t item_id, uint32_t size) {
  if (state == nullptr) return -1;
  if (size == 0) {
    TARN_LOGE(kTag, "size of tmap item data is zero");
    return -1;
  }
  if (size > 0xFFFFFFFFu - state->idat_size) return -1;
  if (tarnm_add_iloc_entry(state, item_id, 1, state->idat_size, size) != 0) return -5;
  state->idat_size += size;
  return 0;
}

void tarnm_make_iref_grid_item_id_list(uint32_t *ids, uint32_t count, uint32_t first_id) {
  if (ids == nullptr) return;
  for (uint32_t i = 0; i < count; ++i) ids[i] = first_id + i;
}

}  // extern "C"
