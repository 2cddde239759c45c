// Payload writers of the meta children and the raw-struct serializer. Most
// payloads are the concatenated elements of one block list behind a small
// count head; hdlr and pitm are small fixed records described by field
// tables. Every write checks the room left at the output cursor first.
#include <string.h>

#include "common/log.h"
#include "writer/internal.h"

static const char kTag[] = "tarnm_atom";

static const uint32_t kGridRecordSize = 8;

const rawstruct_field rawstruct_hdlr[] = {
    {0, 4, 1, 1},   // pre_defined
    {4, 4, 1, 1},   // handler_type
    {8, 4, 1, 3},   // reserved
    {20, 1, 0, 2},  // empty name and a trailing zero
    {0, 0, 0, 0},
};

const rawstruct_field rawstruct_pitm[] = {
    {0, 2, 1, 1},  // item_ID
    {0, 0, 0, 0},
};

static bool has_room(const tarnm_state *state, uint64_t len) {
  return state->remaining >= 0 && len <= static_cast<uint64_t>(state->remaining);
}

static void put_bytes(tarnm_state *state, const void *src, uint32_t len) {
  if (len) memcpy(state->write_ptr, src, len);
  state->write_ptr += len;
  state->remaining -= static_cast<int32_t>(len);
}

static void put_u16(uint8_t *p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 8);
  p[1] = static_cast<uint8_t>(v);
}

// Copies a sized list; -1 unless every element was written.
static int32_t dump_sized(tarn_mblk *list, tarnm_state *state) {
  const int32_t n = tarn_mblk_dump_size(list, state);
  return n >= 0 && static_cast<uint32_t>(n) == list->elem_count ? 0 : -1;
}

// ---- raw-struct serializer ----

extern "C" {

int32_t tarn_rawstruct_size(const rawstruct_field *table) {
  if (!table) return 0;
  int32_t total = 0;
  for (const rawstruct_field *row = table; row->elm_size; ++row)
    if (row->count >= 1) total += static_cast<int32_t>(row->elm_size * row->count);
  return total;
}

int32_t tarn_rawstruct_conv(void *element, const rawstruct_field *row) {
  if (!element || !row || !row->conv) return 0;
  switch (row->elm_size) {
    case 1:
      break;
    case 2:
      tarn_conv_u16(element);
      break;
    case 4:
      tarn_conv_u32(element);
      break;
    case 8:
      tarn_conv_u64(element);
      break;
    default:
      TARN_LOGW("", "cannot convert struct field(elm_size : %d)",
                static_cast<int32_t>(row->elm_size));
      break;
  }
  return 0;
}

int32_t tarn_rawstruct_iter(void *record, const rawstruct_field *table,
                            tarn_rawstruct_visit_fn visit, void *user) {
  if (!table || !visit) return 0;
  uint8_t *base = static_cast<uint8_t *>(record);
  for (const rawstruct_field *row = table; row->elm_size; ++row) {
    for (uint32_t i = 0; i < row->count; ++i) {
      void *element = base ? base + row->offset + static_cast<size_t>(i) * row->elm_size : nullptr;
      if (visit(element, row, user) != 0) return -1;
    }
  }
  return 0;
}

int32_t tarn_rawstruct_write_iter(void *target, void *record, const rawstruct_field *table,
                                  tarn_rawstruct_write_fn visit, void *user) {
  if (!table || !visit) return 0;
  uint8_t *base = static_cast<uint8_t *>(record);
  for (const rawstruct_field *row = table; row->elm_size; ++row) {
    for (uint32_t i = 0; i < row->count; ++i) {
      void *element = base ? base + row->offset + static_cast<size_t>(i) * row->elm_size : nullptr;
      if (visit(target, element, row, user) != 0) return -1;
    }
  }
  return 0;
}

}  // extern "C"

static int32_t conv_visit(void *element, const rawstruct_field *row, void *) {
  return tarn_rawstruct_conv(element, row);
}

static int32_t write_visit(void *target, void *element, const rawstruct_field *row, void *) {
  tarnm_state *state = static_cast<tarnm_state *>(target);
  if (!element || !has_room(state, row->elm_size)) return -1;
  put_bytes(state, element, row->elm_size);
  return 0;
}

extern "C" {

int32_t tarn_rawstruct_bigend(void *record, const rawstruct_field *table) {
  tarn_rawstruct_iter(record, table, conv_visit, nullptr);
  return 0;
}

int32_t tarn_rawstruct_mwrite(tarnm_state *state, void *record, const rawstruct_field *table) {
  if (!state) return -1;
  tarn_rawstruct_bigend(record, table);
  return tarn_rawstruct_write_iter(state, record, table, write_visit, nullptr) == 0 ? 0 : -1;
}

}  // extern "C"

// ---- template routines ----

int32_t atom_data_hdlr(void *scratch, const void *, tarnm_state *) {
  if (!scratch) return -1;
  // "pict" as a big-endian number; the serializer turns it into the bytes.
  const uint32_t pict = 0x70696374;
  memcpy(static_cast<uint8_t *>(scratch) + 4, &pict, 4);
  return 0;
}

int32_t atom_data_pitm(void *scratch, const void *, tarnm_state *state) {
  if (!scratch || !state) return -1;
  const uint16_t id = static_cast<uint16_t>(state->primary_item_id & 0xFFFF);
  memcpy(scratch, &id, 2);
  return 0;
}

int32_t atom_dump_rawstruct(void *scratch, const void *arg, tarnm_state *state) {
  return tarn_rawstruct_mwrite(state, scratch, static_cast<const rawstruct_field *>(arg));
}

uint64_t atom_size_rawstruct(const void *arg, tarnm_state *) {
  if (!arg) return 0;
  return static_cast<uint64_t>(tarn_rawstruct_size(static_cast<const rawstruct_field *>(arg)));
}

uint64_t atom_size_iinf(const void *, tarnm_state *state) {
  return tarn_mblk_total_datasize(&state->infe_list) + 2;
}

int32_t atom_dump_iinf(void *, const void *, tarnm_state *state) {
  if (!has_room(state, 2)) return -4;
  uint8_t head[2];
  put_u16(head, state->infe_list.elem_count);
  put_bytes(state, head, sizeof head);
  return dump_sized(&state->infe_list, state);
}

uint64_t atom_size_ipco(const void *, tarnm_state *state) {
  return tarn_mblk_total_datasize(&state->ipco_list);
}

int32_t atom_dump_ipco(void *, const void *, tarnm_state *state) {
  return dump_sized(&state->ipco_list, state);
}

uint64_t atom_size_ipma(const void *, tarnm_state *state) {
  return tarn_mblk_total_datasize(&state->ipma_list) + 4;
}

int32_t atom_dump_ipma(void *, const void *, tarnm_state *state) {
  if (!has_room(state, 4)) return -4;
  const uint32_t n = state->ipma_list.elem_count;
  const uint8_t head[4] = {static_cast<uint8_t>(n >> 24), static_cast<uint8_t>(n >> 16),
                           static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)};
  put_bytes(state, head, sizeof head);
  return dump_sized(&state->ipma_list, state);
}

uint64_t atom_size_iloc(const void *, tarnm_state *state) {
  return 4 + static_cast<uint64_t>(TARNM_ILOC_ELEM_SIZE) * state->iloc_list.elem_count;
}

int32_t atom_dump_iloc(void *, const void *, tarnm_state *state) {
  if (!has_room(state, 4)) return -4;
  // offset_size 4, length_size 4; base_offset_size 0, index_size 0.
  uint8_t head[4] = {0x44, 0x00, 0, 0};
  put_u16(head + 2, state->iloc_list.elem_count);
  put_bytes(state, head, sizeof head);
  tarn_mblk_iter it;
  for (uint8_t *e = static_cast<uint8_t *>(tarn_mblk_elem_first(&state->iloc_list, &it)); e;
       e = static_cast<uint8_t *>(tarn_mblk_elem_next(&state->iloc_list, &it))) {
    tarn_conv_u16(e + offsetof(tarnm_iloc_entry, extent_count));
    tarn_conv_u32(e + offsetof(tarnm_iloc_entry, extent_offset));
    tarn_conv_u32(e + offsetof(tarnm_iloc_entry, extent_length));
  }
  const int32_t n = tarn_mblk_dump(&state->iloc_list, state);
  return n >= 0 && static_cast<uint32_t>(n) == state->iloc_list.elem_count ? 0 : -1;
}

uint64_t atom_size_idat(const void *, tarnm_state *state) {
  uint64_t total = 0;
  for (int32_t i = 0; i < state->item_data_count; ++i) {
    const tarnm_item_data &d = state->item_data[i];
    if (d.kind == TARNM_ITEM_DATA_GRID)
      total += kGridRecordSize;
    else if (d.kind == TARNM_ITEM_DATA_TMAP)
      total += d.size;
  }
  return total;
}

int32_t atom_dump_grid(const tarnm_grid_info *grid, tarnm_state *state) {
  if (!grid || !state) return -1;
  if (!has_room(state, kGridRecordSize)) {
    TARN_LOGW(kTag, "%s : buffer size is insufficient. remaining size : %d", "atom_dump_grid",
              state->remaining);
    return -4;
  }
  // version 0, flags 0 (16-bit dimensions), rows and columns less one.
  uint8_t rec[kGridRecordSize];
  rec[0] = 0;
  rec[1] = 0;
  rec[2] = static_cast<uint8_t>((grid->rows & 0xFF) - 1);
  rec[3] = static_cast<uint8_t>((grid->columns & 0xFF) - 1);
  put_u16(rec + 4, grid->output_width & 0xFFFF);
  put_u16(rec + 6, grid->output_height & 0xFFFF);
  put_bytes(state, rec, sizeof rec);
  return 0;
}

int32_t atom_dump_tmap_data(const uint8_t *data, uint32_t length, tarnm_state *state) {
  if (!state || (length && !data)) return -1;
  if (!has_room(state, length)) {
    TARN_LOGW(kTag, "%s : buffer size is insufficient. remaining size : %d", "atom_dump_tmap_data",
              state->remaining);
    return -4;
  }
  put_bytes(state, data, length);
  return 0;
}

int32_t atom_dump_idat(void *, const void *, tarnm_state *state) {
  for (int32_t i = 0; i < state->item_data_count; ++i) {
    const tarnm_item_data &d = state->item_data[i];
    if (d.kind == TARNM_ITEM_DATA_GRID) {
      // The stored copy is a whole tarnm_grid_info; anything shorter is not
      // one.
      if (!d.data || d.size < sizeof(tarnm_grid_info)) return -1;
      const int32_t rc = atom_dump_grid(static_cast<const tarnm_grid_info *>(d.data), state);
      if (rc != 0) return rc;
    } else if (d.kind == TARNM_ITEM_DATA_TMAP) {
      if (!has_room(state, d.size)) {
        TARN_LOGW(kTag, "%s : buffer size is insufficient. remaining size : %d", "atom_dump_idat",
                  state->remaining);
        return -4;
      }
      if (d.size && !d.data) return -1;
      put_bytes(state, d.data, d.size);
    } else {
      TARN_LOGW(kTag, "unsupported item data type(%u)", d.kind);
      return -2;
    }
  }
  return 0;
}

uint64_t atom_size_iref(const void *, tarnm_state *state) {
  return tarn_mblk_total_datasize(&state->iref_list);
}

int32_t atom_dump_iref(void *, const void *, tarnm_state *state) {
  return dump_sized(&state->iref_list, state);
}

uint64_t atom_size_grpl(const void *, tarnm_state *state) {
  return tarn_mblk_total_datasize(&state->grpl_list);
}

int32_t atom_dump_grpl(void *, const void *, tarnm_state *state) {
  return dump_sized(&state->grpl_list, state);
}
