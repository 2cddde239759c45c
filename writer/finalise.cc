// Finalisation: the kept Exif and XMP become items of their own, the entity
// groups become grpl boxes, the meta box is appended behind mdat and the mdat
// size is patched. After it the heap from its base to the write position is
// the whole file.

#include <string.h>

#include "common/log.h"
#include "writer/intake.h"
#include "writer/internal.h"

namespace {

const char kTag[] = "tarnm";
constexpr uint32_t kMaxItemId = 0xFFFF;
constexpr uint32_t kMdatHeaderSize = 8;
// Offset of the item id in an infe element (after size, type, version and
// flags).
constexpr size_t kInfeItemIdOffset = 12;

constexpr uint32_t kFccExif = TARN_FCC('E', 'x', 'i', 'f');
constexpr uint32_t kFccMime = TARN_FCC('m', 'i', 'm', 'e');
constexpr uint32_t kFccCdsc = TARN_FCC('c', 'd', 's', 'c');
constexpr uint32_t kFccAltr = TARN_FCC('a', 'l', 't', 'r');
constexpr uint32_t kFccSter = TARN_FCC('s', 't', 'e', 'r');

uint32_t be32(const uint8_t *p) {
  return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
         static_cast<uint32_t>(p[2]) << 8 | p[3];
}

void put_be32(uint8_t *p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
}

// Item ids are the caller's and come in any order: new ids start above the
// largest one that an item description, a location or the primary item uses.
uint32_t largest_item_id(tarnm_state *state) {
  uint32_t largest = state->primary_item_id & kMaxItemId;
  tarn_mblk_iter it;
  for (const uint8_t *e = static_cast<const uint8_t *>(tarn_mblk_elem_first(&state->infe_list, &it));
       e != nullptr; e = static_cast<const uint8_t *>(tarn_mblk_elem_next(&state->infe_list, &it))) {
    const uint32_t id = static_cast<uint32_t>(e[kInfeItemIdOffset] << 8 | e[kInfeItemIdOffset + 1]);
    if (id > largest) largest = id;
  }
  for (const uint8_t *e = static_cast<const uint8_t *>(tarn_mblk_elem_first(&state->iloc_list, &it));
       e != nullptr; e = static_cast<const uint8_t *>(tarn_mblk_elem_next(&state->iloc_list, &it))) {
    const uint32_t id = static_cast<uint32_t>(e[0] << 8 | e[1]);
    if (id > largest) largest = id;
  }
  return largest;
}

// A grid whose tiles did not all arrive would point at items without data.
bool grids_complete(tarnm_state *state) {
  for (int32_t i = 0; i < state->item_data_count; ++i) {
    const tarnm_item_data &d = state->item_data[i];
    if (d.kind != TARNM_ITEM_DATA_GRID) continue;
    const tarnm_grid_info *grid = static_cast<const tarnm_grid_info *>(d.data);
    for (uint32_t id = grid->first_tile_id; id <= grid->last_tile_id; ++id) {
      if (!tarnm_has_iloc_entry(state, id)) {
        TARN_LOGW(kTag, "grid %u misses the frame of tile %u", grid->grid_item_id, id);
        return false;
      }
    }
  }
  return true;
}

bool next_id(tarnm_state *state) {
  if (state->last_item_id >= kMaxItemId) {
    TARN_LOGW(kTag, "no item id left above %u", state->last_item_id);
    return false;
  }
  state->last_item_id++;
  return true;
}

bool write_metadata_items(tarnm_state *state) {
  for (int32_t i = 0; i < state->metadata_count; ++i) {
    tarnm_metadata_entry &e = state->metadata[i];
    if (e.type != TARNM_METADATA_EXIF && e.type != TARNM_METADATA_XMP) {
      TARN_LOGW(kTag, "unsupported item type : %d", static_cast<int32_t>(e.type));
      return false;
    }
    if (!next_id(state)) return false;
    const uint32_t id = state->last_item_id;
    const uint32_t type = e.type == TARNM_METADATA_EXIF ? kFccExif : kFccMime;
    if (tarnm_add_element_infe(state, id, type, 0) != 0) return false;
    if (tarnm_add_element_itemtyperef(state, id, kFccCdsc, 1, &e.item_id) != 0) return false;
    if (e.size == 0 || e.data == nullptr) {
      TARN_LOGE(kTag, "metadata size is zero");
      return false;
    }
    if (e.size > TARNM_MAX_CHUNK_SIZE || tarnm_reserve(state, e.size, "tarn_chunk_dump") != 0) {
      return false;
    }
    const uint32_t offset = static_cast<uint32_t>(state->write_ptr - state->heap);
    if (tarnm_add_iloc_entry(state, id, 0, offset, e.size) != 0) return false;
    tarn_chunk_dump(state, e.data, static_cast<int32_t>(e.size), 1);  // the room is reserved above
    e.offset = offset;
  }
  return true;
}

bool write_groups(tarnm_state *state) {
  for (int32_t i = 0; i < state->group_count; ++i) {
    const tarnm_entity_group &g = state->groups[i];
    if (g.type != TARNM_GROUP_ALTR && g.type != TARNM_GROUP_STER) continue;
    if (!next_id(state)) return false;
    const uint32_t grouping = g.type == TARNM_GROUP_ALTR ? kFccAltr : kFccSter;
    if (tarnm_add_element_entity_group(state, state->last_item_id, g.count, g.ids, grouping) != 0) {
      return false;
    }
  }
  return true;
}

bool finish(tarnm_state *state) {
  // The mdat size stays 0 until the file is finished; finishing twice would
  // add every item again and turn the location entries twice.
  if (state->heap == nullptr || be32(state->heap + state->mdat_offset) != 0) {
    TARN_LOGW(kTag, "the file is already finished");
    return false;
  }
  if (!grids_complete(state)) return false;
  state->last_item_id = largest_item_id(state);
  if (!write_metadata_items(state) || !write_groups(state)) return false;
  if (tarnm_atom_meta(state) != 0) return false;
  // mdat holds no more than the heap, which stays below 2 GiB.
  put_be32(state->heap + state->mdat_offset, state->mdat_size + kMdatHeaderSize);
  return true;
}

}  // namespace

extern "C" {

int32_t tarnm_stop_muxing(tarnm_ctx *handle) {
  tarnm_state *state = tarnm_checked_state(handle);
  if (state == nullptr) return -1;
  if (!finish(state)) {
    TARN_LOGE(kTag, "failed to stop properly!");
    return -3;
  }
  return 0;
}

}  // extern "C"
