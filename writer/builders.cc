// Element builders: infe boxes, reference boxes, entity groups, property
// boxes and ipma entries, each built in final byte form and appended to its
// list, so that writing meta later is a plain copy. Identical properties are
// shared between items: a property is looked up among those already in ipco
// before a new box is built.
#include <stdlib.h>
#include <string.h>

#include "common/log.h"
#include "writer/internal.h"

static const char kTag[] = "tarnm_util";

static const char kXmpContentType[] = "application/rdf+xml";
static const uint32_t kInfeSize = 21;
static const uint32_t kInfeMimeSize = kInfeSize + sizeof kXmpContentType;
static const uint32_t kRefHeadSize = 12;
static const uint32_t kGroupHeadSize = 20;
static const uint32_t kColrHeadSize = 12;
static const uint32_t kMaxPixiChannels = 3;

static const char *const kAuxUrns[] = {
    "none",
    "urn:mpeg:hevc:2015:auxid:1",
    "urn:mpeg:hevc:2015:auxid:2",
    "urn:com:orvanta:photo:2024:aux:hdrgainmap",
};
static const uint32_t kColrTypes[] = {
    TARN_FCC('n', 'c', 'l', 'x'),
    TARN_FCC('r', 'I', 'C', 'C'),
    TARN_FCC('p', 'r', 'o', 'f'),
};

static void put_u16(uint8_t *p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 8);
  p[1] = static_cast<uint8_t>(v);
}

static void put_u32(uint8_t *p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
}

static void put_fcc(uint8_t *p, uint32_t fcc) { memcpy(p, &fcc, 4); }

// Writes the 8-byte plain header of a box of total size `size`.
static void put_header(uint8_t *p, uint32_t size, uint32_t fcc) {
  put_u32(p, size);
  put_fcc(p + 4, fcc);
}

// Appends one property box to ipco and records whether it is essential.
// The essential table has one byte per ipco position.
static int32_t append_property(tarnm_state *state, const uint8_t *box, uint32_t size,
                               uint8_t essential) {
  if (state->property_count >= TARNM_MAX_ASSOC) {
    TARN_LOGW(kTag, "too many properties(%u)", state->property_count);
    return -1;
  }
  if (tarn_mblk_elem_add_with_size(&state->ipco_list, box, static_cast<int32_t>(size)) != 0)
    return -5;
  state->essential[state->property_count] = essential;
  state->property_count++;
  return 0;
}

extern "C" {

int32_t tarnm_add_element_infe(tarnm_state *state, uint32_t item_id, uint32_t item_type,
                               uint32_t visible) {
  if (!state) return -1;
  if (item_id > 0xFFFF) {
    TARN_LOGW(kTag, "unsupported item id(%u)", item_id);
    return -1;
  }
  if (state->infe_list.elem_count >= TARNM_MAX_LIST_ITEMS) {
    TARN_LOGW(kTag, "too many items(%u)", state->infe_list.elem_count);
    return -1;
  }
  const bool mime = item_type == TARN_FCC('m', 'i', 'm', 'e');
  const uint32_t size = mime ? kInfeMimeSize : kInfeSize;
  uint8_t box[kInfeMimeSize];
  memset(box, 0, sizeof box);
  put_header(box, size, TARN_FCC('i', 'n', 'f', 'e'));
  box[8] = 2;  // version 2: 16-bit item id and a four-character item type
  box[11] = visible ? 0 : 1;  // flag 1 hides the item
  put_u16(box + 12, item_id);
  put_fcc(box + 16, item_type);
  // box[20] is the empty item name.
  if (mime) memcpy(box + 21, kXmpContentType, sizeof kXmpContentType);
  if (tarn_mblk_elem_add_with_size(&state->infe_list, box, static_cast<int32_t>(size)) != 0) {
    TARN_LOGW(kTag, "failed to tarnm_add_element_infe!");
    return -5;
  }
  state->last_item_id = item_id;
  return 0;
}

int32_t tarnm_add_element_itemtyperef(tarnm_state *state, uint32_t from_id, uint32_t ref_type,
                                      uint32_t count, const uint32_t *ids) {
  if (!state || (count && !ids)) return -1;
  if (count > TARNM_MAX_REF_IDS) {
    TARN_LOGW(kTag, "unsupported reference count(%u)", count);
    return -1;
  }
  uint8_t box[TARNM_IREF_ELEM_SIZE];
  const uint32_t size = kRefHeadSize + 2 * count;
  put_header(box, size, ref_type);
  put_u16(box + 8, from_id);
  put_u16(box + 10, count);
  for (uint32_t i = 0; i < count; ++i) put_u16(box + kRefHeadSize + 2 * i, ids[i] & 0xFFFF);
  if (tarn_mblk_elem_add_with_size(&state->iref_list, box, static_cast<int32_t>(size)) != 0)
    return -5;
  return 0;
}

int32_t tarnm_add_element_entity_group(tarnm_state *state, uint32_t group_id, uint32_t count,
                                       const uint32_t *ids, uint32_t grouping_type) {
  if (!state || (count && !ids)) return -1;
  if (count > TARNM_MAX_GROUP_ENTITIES) return -1;
  uint8_t box[kGroupHeadSize + 4 * TARNM_MAX_GROUP_ENTITIES];
  const uint32_t size = kGroupHeadSize + 4 * count;
  put_header(box, size, grouping_type);
  put_u32(box + 8, 0);  // version and flags
  put_u32(box + 12, group_id);
  put_u32(box + 16, count);
  for (uint32_t i = 0; i < count; ++i) put_u32(box + kGroupHeadSize + 4 * i, ids[i]);
  if (tarn_mblk_elem_add_with_size(&state->grpl_list, box, static_cast<int32_t>(size)) != 0)
    return -5;
  return 0;
}

int32_t tarnm_add_element_hvcC(tarnm_state *state, const uint8_t *payload, int32_t size) {
  if (!state) return -1;
  if (size < 0 || (size > 0 && !payload)) {
    TARN_LOGW(kTag, "invalid hvcc data. size : %d", size);
    return -1;
  }
  // A property box must fit one list block.
  if (static_cast<uint32_t>(size) > TARN_MBLK_PAYLOAD_SIZE - 8) {
    TARN_LOGW(kTag, "failed to tarnm_add_element_hvcC!");
    return -5;
  }
  uint8_t box[TARN_MBLK_PAYLOAD_SIZE];
  const uint32_t total = static_cast<uint32_t>(size) + 8;
  put_header(box, total, TARN_FCC('h', 'v', 'c', 'C'));
  if (size) memcpy(box + 8, payload, static_cast<size_t>(size));
  const int32_t rc = append_property(state, box, total, 1);
  if (rc == -5) TARN_LOGW(kTag, "failed to tarnm_add_element_hvcC!");
  return rc;
}

int32_t tarnm_add_element_colr(tarnm_state *state) {
  if (!state) return -1;
  const tarnm_image_info *info = &state->image_info;
  const uint32_t data_size = info->color_size;
  if (data_size > 0xFFFFFFFFu - kColrHeadSize) return -1;
  if (info->color_type < 1 || info->color_type > 3) {
    TARN_LOGW(kTag, "Should not be here. unsupported color type(%d)",
              static_cast<int32_t>(info->color_type));
    return -1;
  }
  if (data_size && !info->color_data) return -1;
  const uint32_t fcc = kColrTypes[info->color_type - 1];
  if (fcc == TARN_FCC('n', 'c', 'l', 'x') && data_size != 7) {
    TARN_LOGW(kTag, "nclx color size is abnormal(%u)", data_size);
    TARN_LOGW(kTag, "failed to tarnm_add_element_colr!");
    return -5;
  }
  if (data_size > TARN_MBLK_PAYLOAD_SIZE - kColrHeadSize) {
    TARN_LOGW(kTag, "failed to tarnm_add_element_colr!");
    return -5;
  }
  uint8_t box[TARN_MBLK_PAYLOAD_SIZE];
  const uint32_t total = kColrHeadSize + data_size;
  put_header(box, total, TARN_FCC('c', 'o', 'l', 'r'));
  put_fcc(box + 8, fcc);
  if (data_size) memcpy(box + kColrHeadSize, info->color_data, data_size);
  if (fcc == TARN_FCC('n', 'c', 'l', 'x')) {
    // The caller gives primaries, transfer and matrix as host-order u16 and
    // a full-range byte; nclx keeps the flag in the top bit.
    uint8_t *p = box + kColrHeadSize;
    for (int i = 0; i < 3; ++i) {
      uint16_t v;
      memcpy(&v, info->color_data + 2 * i, 2);
      put_u16(p + 2 * i, v);
    }
    if (p[6] == 1) p[6] = 0x80;
  }
  const int32_t rc = append_property(state, box, total, 1);
  if (rc == -5) TARN_LOGW(kTag, "failed to tarnm_add_element_colr!");
  return rc;
}

int32_t tarnm_add_element_auxC(tarnm_state *state) {
  if (!state) return -1;
  const tarnm_image_info *info = &state->image_info;
  if (info->aux_type < 1 || info->aux_type > 3) {
    TARN_LOGW(kTag, "unsupported auxiliary image type(%d)", static_cast<int32_t>(info->aux_type));
    return -1;
  }
  const char *urn = kAuxUrns[info->aux_type];
  const uint32_t urn_len = static_cast<uint32_t>(strlen(urn));
  const uint32_t sub = info->aux_subtype_data ? info->aux_subtype_size : 0;
  uint64_t size = static_cast<uint64_t>(urn_len) + 13;
  if (sub) size += 4 + static_cast<uint64_t>(sub);
  if (size > 0x7FFFFFFF) return -1;
  if (size > TARN_MBLK_PAYLOAD_SIZE) {
    TARN_LOGW(kTag, "failed to tarnm_add_element_auxC!");
    return -1;
  }
  uint8_t box[TARN_MBLK_PAYLOAD_SIZE];
  memset(box, 0, static_cast<size_t>(size));
  put_header(box, static_cast<uint32_t>(size), TARN_FCC('a', 'u', 'x', 'C'));
  // version and flags stay 0; the URN keeps its zero byte.
  memcpy(box + 12, urn, urn_len + 1);
  if (sub) {
    uint8_t *p = box + 12 + urn_len + 1;
    put_u32(p, sub);
    memcpy(p + 4, info->aux_subtype_data, sub);
  }
  const int32_t rc = append_property(state, box, static_cast<uint32_t>(size), 1);
  if (rc != 0) {
    TARN_LOGW(kTag, "failed to tarnm_add_element_auxC!");
    return -1;
  }
  return 0;
}

int32_t tarnm_add_element_ispe(tarnm_state *state, uint32_t width, uint32_t height) {
  if (!state) return -1;
  uint8_t box[20];
  put_header(box, sizeof box, TARN_FCC('i', 's', 'p', 'e'));
  put_u32(box + 8, 0);
  put_u32(box + 12, width);
  put_u32(box + 16, height);
  return append_property(state, box, sizeof box, 1);
}

int32_t tarnm_add_element_irot(tarnm_state *state, int32_t angle) {
  if (!state) return -1;
  uint8_t box[9];
  put_header(box, sizeof box, TARN_FCC('i', 'r', 'o', 't'));
  // The caller's angle is clockwise; irot counts anticlockwise quarter turns.
  box[8] = angle == 90 ? 3 : angle == 180 ? 2 : angle == 270 ? 1 : 0;
  return append_property(state, box, sizeof box, 1);
}

int32_t tarnm_add_element_pixi(tarnm_state *state, uint32_t count, const uint8_t *depths) {
  if (!state || (count && !depths)) return -1;
  if (count > kMaxPixiChannels) {
    TARN_LOGW(kTag, "unsupported channel count(%u)", count);
    return -1;
  }
  uint8_t box[13 + kMaxPixiChannels];
  const uint32_t size = 13 + count;
  put_header(box, size, TARN_FCC('p', 'i', 'x', 'i'));
  put_u32(box + 8, 0);
  box[12] = static_cast<uint8_t>(count);
  if (count) memcpy(box + 13, depths, count);
  return append_property(state, box, size, 0);
}

int32_t tarnm_add_element_clli(tarnm_state *state, uint32_t max_cll, uint32_t max_pall) {
  if (!state) return -1;
  uint8_t box[12];
  put_header(box, sizeof box, TARN_FCC('c', 'l', 'l', 'i'));
  put_u16(box + 8, max_cll & 0xFFFF);
  put_u16(box + 10, max_pall & 0xFFFF);
  return append_property(state, box, sizeof box, 0);
}

int32_t tarnm_add_element_ipma(tarnm_state *state, uint32_t item_id, uint32_t count,
                               const uint8_t *indices) {
  if (!state || (count && !indices)) return -1;
  if (count > TARNM_MAX_PROPERTY_INDEX) {
    TARN_LOGW(kTag, "unsupported association count(%u)", count);
    return -1;
  }
  if (item_id > 0xFFFF) {
    TARN_LOGW(kTag, "unsupported item id(%u)", item_id);
    return -1;
  }
  uint8_t entry[3 + TARNM_MAX_PROPERTY_INDEX];
  put_u16(entry, item_id);
  entry[2] = static_cast<uint8_t>(count);
  for (uint32_t i = 0; i < count; ++i) {
    const uint8_t index = indices[i];
    // ipma v0 entries hold a 7-bit index; 0 names no property.
    if (index == 0 || index > TARNM_MAX_PROPERTY_INDEX) {
      TARN_LOGW(kTag, "invalid property index(%u)", index);
      return -1;
    }
    entry[3 + i] = static_cast<uint8_t>(index | (state->essential[index - 1] == 1 ? 0x80 : 0));
  }
  if (tarn_mblk_elem_add_with_size(&state->ipma_list, entry, static_cast<int32_t>(3 + count)) != 0)
    return -5;
  return 0;
}

}  // extern "C"

// ---- shared properties ----

// Appends an index to the association set of the item being registered.
static int32_t push_assoc(tarnm_state *state, uint8_t index) {
  if (state->assoc_count >= TARNM_MAX_ASSOC) {
    TARN_LOGW(kTag, "too many associations(%u)", state->assoc_count);
    return -1;
  }
  state->assoc[state->assoc_count++] = index;
  return 0;
}

// Checks that one more distinct property fits its table and the 7-bit index,
// and returns that index.
static int32_t next_index(tarnm_state *state, int32_t table_count, const char *kind) {
  if (table_count >= TARNM_MAX_PROPS) {
    TARN_LOGW(kTag, "too many %s properties(%d)", kind, table_count);
    return -1;
  }
  if (state->last_property_index >= TARNM_MAX_PROPERTY_INDEX) {
    TARN_LOGW(kTag, "property index out of range(%u)", state->last_property_index + 1);
    return -1;
  }
  if (state->assoc_count >= TARNM_MAX_ASSOC) {
    TARN_LOGW(kTag, "too many associations(%u)", state->assoc_count);
    return -1;
  }
  return static_cast<int32_t>(state->last_property_index + 1);
}

static bool same_bytes(const tarnm_blob_prop &p, const uint8_t *data, uint32_t len) {
  return p.size == len && (len == 0 || memcmp(p.data, data, len) == 0);
}

static int32_t find_blob(const tarnm_blob_prop *props, int32_t count, const uint8_t *data,
                         uint32_t len) {
  if (len && !data) return -1;
  for (int32_t i = 0; i < count; ++i)
    if (same_bytes(props[i], data, len)) return props[i].index;
  return -1;
}

// Adds a private copy of a byte key to a blob table under a new index.
static int32_t add_blob(tarnm_state *state, tarnm_blob_prop *props, int32_t *count,
                        const uint8_t *data, uint32_t size, const char *kind,
                        const char *malloc_line) {
  const int32_t index = next_index(state, *count, kind);
  if (index < 0) return -1;
  uint8_t *copy = nullptr;
  if (size) {
    copy = static_cast<uint8_t *>(malloc(size));
    if (!copy) {
      TARN_LOGW(kTag, "%s", malloc_line);
      return -5;
    }
    memcpy(copy, data, size);
  }
  tarnm_blob_prop *p = &props[*count];
  p->size = size;
  p->data = copy;
  p->index = static_cast<uint8_t>(index);
  state->assoc[state->assoc_count++] = static_cast<uint8_t>(index);
  state->last_property_index++;
  (*count)++;
  return 0;
}

extern "C" {

int32_t tarnm_get_irot_property_index(const tarnm_state *state, int32_t angle) {
  if (!state) return -1;
  for (int32_t i = 0; i < state->irot_count; ++i)
    if (state->irot_props[i].angle == angle) return state->irot_props[i].index;
  return -1;
}

int32_t tarnm_get_ispe_property_index(const tarnm_state *state, uint32_t width, uint32_t height) {
  if (!state) return -1;
  for (int32_t i = 0; i < state->ispe_count; ++i)
    if (state->ispe_props[i].width == width && state->ispe_props[i].height == height)
      return state->ispe_props[i].index;
  return -1;
}

int32_t tarnm_get_pixi_property_index(const tarnm_state *state, const uint8_t *data,
                                      uint32_t len) {
  if (!state || len > kMaxPixiChannels || (len && !data)) return -1;
  for (int32_t i = 0; i < state->pixi_count; ++i) {
    const tarnm_pixi_prop &p = state->pixi_props[i];
    if (p.count == len && (len == 0 || memcmp(p.depth, data, len) == 0)) return p.index;
  }
  return -1;
}

int32_t tarnm_get_colr_property_index(const tarnm_state *state, const uint8_t *data,
                                      uint32_t len) {
  if (!state) return -1;
  return find_blob(state->colr_props, state->colr_count, data, len);
}

int32_t tarnm_get_hvcc_property_index(const tarnm_state *state, const uint8_t *data,
                                      uint32_t len) {
  if (!state) return -1;
  return find_blob(state->hvcc_props, state->hvcc_count, data, len);
}

int32_t tarnm_add_colr_property(tarnm_state *state, const uint8_t *data, uint32_t size) {
  if (!state || (size && !data)) return -1;
  const int32_t found = tarnm_get_colr_property_index(state, data, size);
  if (found > 0) return push_assoc(state, static_cast<uint8_t>(found));
  const int32_t rc = add_blob(state, state->colr_props, &state->colr_count, data, size, "colr",
                              "color_data malloc failed");
  if (rc != 0) return rc;
  if (tarnm_add_element_colr(state) != 0) {
    TARN_LOGW(kTag, "adding color element failed");
    return -1;
  }
  return 0;
}

int32_t tarnm_add_hvcc_property(tarnm_state *state, const uint8_t *data, uint32_t size) {
  if (!state || (size && !data) || size > 0x7FFFFFFF) return -1;
  const int32_t found = tarnm_get_hvcc_property_index(state, data, size);
  if (found > 0) return push_assoc(state, static_cast<uint8_t>(found));
  const int32_t rc = add_blob(state, state->hvcc_props, &state->hvcc_count, data, size, "hvcC",
                              "csd_data malloc failed");
  if (rc != 0) return rc;
  if (tarnm_add_element_hvcC(state, data, static_cast<int32_t>(size)) != 0) {
    TARN_LOGW(kTag, "adding codec specific data element failed");
    return -1;
  }
  return 0;
}

int32_t tarnm_add_ispe_property(tarnm_state *state, uint32_t width, uint32_t height) {
  if (!state) return -1;
  const int32_t found = tarnm_get_ispe_property_index(state, width, height);
  if (found > 0) return push_assoc(state, static_cast<uint8_t>(found));
  const int32_t index = next_index(state, state->ispe_count, "ispe");
  if (index < 0) return -1;
  tarnm_ispe_prop *p = &state->ispe_props[state->ispe_count++];
  p->width = width;
  p->height = height;
  p->index = static_cast<uint8_t>(index);
  state->assoc[state->assoc_count++] = p->index;
  state->last_property_index++;
  if (tarnm_add_element_ispe(state, width, height) != 0) {
    TARN_LOGW(kTag, "adding ressolution data element failed");
    return -1;
  }
  return 0;
}

int32_t tarnm_add_irot_property(tarnm_state *state, int32_t angle) {
  if (!state) return -1;
  const int32_t found = tarnm_get_irot_property_index(state, angle);
  if (found > 0) return push_assoc(state, static_cast<uint8_t>(found));
  const int32_t index = next_index(state, state->irot_count, "irot");
  if (index < 0) return -1;
  tarnm_irot_prop *p = &state->irot_props[state->irot_count++];
  p->angle = angle;
  p->index = static_cast<uint8_t>(index);
  state->assoc[state->assoc_count++] = p->index;
  state->last_property_index++;
  if (tarnm_add_element_irot(state, angle) != 0) {
    TARN_LOGW(kTag, "adding rotation element failed");
    return -1;
  }
  return 0;
}

int32_t tarnm_add_pixi_property(tarnm_state *state, const uint8_t *depths, uint32_t count) {
  if (!state || (count && !depths)) return -1;
  if (count > kMaxPixiChannels) {
    TARN_LOGW(kTag, "unsupported channel count(%u)", count);
    return -1;
  }
  const int32_t found = tarnm_get_pixi_property_index(state, depths, count);
  if (found > 0) return push_assoc(state, static_cast<uint8_t>(found));
  const int32_t index = next_index(state, state->pixi_count, "pixi");
  if (index < 0) return -1;
  tarnm_pixi_prop *p = &state->pixi_props[state->pixi_count++];
  p->count = count;
  memset(p->depth, 0, sizeof p->depth);
  if (count) memcpy(p->depth, depths, count);
  p->index = static_cast<uint8_t>(index);
  state->assoc[state->assoc_count++] = p->index;
  state->last_property_index++;
  if (tarnm_add_element_pixi(state, count, depths) != 0) {
    TARN_LOGW(kTag, "adding bit depth element failed");
    return -1;
  }
  return 0;
}

}  // extern "C"
