// Item references: the thmb, cdsc, dimg and auxl children of iref.
#include "common/log.h"
#include "reader/internal.h"

using namespace tarnd;

namespace {

constexpr uint32_t kFccDimg = TARND_FCC('d', 'i', 'm', 'g');
constexpr uint32_t kFccCdsc = TARND_FCC('c', 'd', 's', 'c');
constexpr uint32_t kFccAuxl = TARND_FCC('a', 'u', 'x', 'l');
constexpr uint32_t kMaxItemId = 0xffff;

// iref version 1 widens every item id to 32 bits.
bool read_ref_id(const tarnd_io_dsc *io, void *handle, bool wide, uint32_t *id) {
  if (wide) {
    if (!read_u32(io, handle, id)) return false;
    if (*id > kMaxItemId) {
      TARN_LOGW("tarnd_handlers", "%s : item id is too big(%u)", "parser_single_iref", *id);
      return false;
    }
    return true;
  }
  uint16_t id16;
  if (!read_u16(io, handle, &id16)) return false;
  *id = id16;
  return true;
}

// The bit a reference sets on each to-item, by reference and from-item type.
uint32_t to_item_flag(uint32_t ref_type, uint32_t from_type) {
  if (ref_type == kFccCdsc && from_type == kFccExif) return TARND_ITEM_HAS_EXIF;
  if (ref_type == kFccCdsc && from_type == kFccMime) return TARND_ITEM_HAS_MIME;
  if (ref_type == kFccAuxl && from_type == kFccHvc1) return TARND_ITEM_HAS_AUX;
  return 0;
}

}  // namespace

int32_t parser_single_iref(const tarnd_io_dsc *io, void *handle, const tarnd_box *box,
                           tarnd_ctx *ctx) {
  tarnd_meta *meta = &ctx->meta;
  const bool wide = ctx->iref_version != 0;
  uint32_t from_id;
  if (!read_ref_id(io, handle, wide, &from_id)) return -1;
  uint32_t from_slot;
  if (!find_item_slot(ctx, from_id, &from_slot)) {
    TARN_LOGW("tarnd_handlers", "%s : valid index for from_item(%d) could not be found",
              "parser_single_iref", static_cast<int>(from_id));
    return -1;
  }
  tarnd_item *from = &meta->items[from_slot];
  if (from->referece_from_cnt >= TARND_MAX_REFS) {
    TARN_LOGI("tarnd_handlers", "too many referece_from_cnt. ignore reference");
    return seek_to(io, handle, box->end) ? 0 : -1;
  }
  const uint32_t k = from->referece_from_cnt;
  from->ref_type[k] = box->type;
  uint16_t count;
  if (!read_u16(io, handle, &count)) return -1;
  from->ref_to_cnt[k] = count;
  if (count == 0) {
    TARN_LOGI("tarnd_handlers", "reference count of %d item is zero", static_cast<int>(from_id));
    return 0;
  }
  // The ids must be in the box before they size the list.
  // The ids' width is 2 or 4 bytes: shifts, not a 64-bit division per box.
  uint64_t left = 0;
  if (!bytes_left(io, handle, box, &left) || count > (wide ? left >> 2 : left >> 1)) {
    from->ref_to_cnt[k] = 0;
    return -1;
  }
  uint16_t *ids = static_cast<uint16_t *>(model_calloc(ctx, count, sizeof(uint16_t)));
  if (ids == nullptr) {
    from->ref_to_cnt[k] = 0;
    TARN_LOGW("tarnd_handlers", "failed to alloc reference list");
    return -1;
  }
  // The list belongs to slot k from here on, even if the box fails below
  // (the slot is then not counted for queries).
  from->ref_to_ids[k] = ids;
  if (box->type == kFccDimg) {
    if (from->item_type == kFccGrid) from->flags |= TARND_ITEM_GRID;
    else if (from->item_type == kFccIovl) from->flags |= TARND_ITEM_OVERLAY;
  }
  const uint32_t flag = to_item_flag(box->type, from->item_type);
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t to_id;
    if (!read_ref_id(io, handle, wide, &to_id)) return -1;
    ids[i] = static_cast<uint16_t>(to_id);
    uint32_t to_slot;
    if (!find_item_slot(ctx, to_id, &to_slot)) {
      TARN_LOGW("tarnd_handlers", "%s : valid index for to_item(%d) could not be found",
                "parser_single_iref", static_cast<int>(to_id));
      return -1;
    }
    meta->items[to_slot].flags |= flag;
  }
  ++from->referece_from_cnt;
  return 0;
}
