// Item-location boxes: iloc, idat, mdat, dref.
#include "common/log.h"
#include "reader/internal.h"

using namespace tarnd;

namespace {

// The item table must stay below 4 GiB.
constexpr uint32_t kMaxItemCount = 18512790;
// An iloc entry holds at least an item id, a data reference index and an
// extent count of two bytes each.
constexpr uint64_t kMinIlocEntrySize = 6;
constexpr uint32_t kMaxItemId = 0xffff;
// idat is held in memory whole; larger ones are refused.
constexpr uint64_t kMaxIdatSize = 67108864;

struct IlocLayout {
  uint32_t offset_size;
  uint32_t length_size;
  uint32_t base_offset_size;
  uint32_t index_size;
  bool wide_ids;            // version 2: 32-bit item count and ids
  bool has_construction;    // versions 1 and 2
};

template <class Source>
bool read_item_id(Source &src, bool wide, uint32_t *id) {
  if (wide) return src.u32(id);
  uint16_t id16;
  if (!src.u16(&id16)) return false;
  *id = id16;
  return true;
}

// Bytes that read_sized takes for a field of this width.
uint32_t field_bytes(uint32_t width) { return width == 4 || width == 8 ? width : 0; }

// Reads one entry after its item id and stores its location in *item.
// Strict reading keeps only the last extent; tolerant reading keeps every
// extent of an item that has several, so its data is served whole. An entry
// without extents has no data.
template <class Source>
bool read_entry(Source &src, const tarnd_box *box, const IlocLayout &l, tarnd_ctx *ctx, tarnd_item *item) {
  const bool keep_extents = tolerant(ctx);
  uint16_t method = 0, data_ref, extent_cnt;
  if (l.has_construction && !src.u16(&method)) return false;
  if (!src.u16(&data_ref)) return false;
  uint64_t base = 0;
  if (!src.sized(l.base_offset_size, &base)) return false;
  if (!src.u16(&extent_cnt)) return false;
  uint64_t offset = 0, length = 0;
  // With every extent field zero bytes wide, extents occupy no bytes and
  // all read as 0: a hostile count of 65,535 per entry would otherwise spin
  // without consuming the box.
  const uint32_t extent_bytes = field_bytes(l.index_size) + field_bytes(l.offset_size) + field_bytes(l.length_size);
  if (extent_bytes == 0) extent_cnt = extent_cnt != 0 ? 1 : 0;
  tarnd_extent *extents = nullptr;
  uint64_t left = 0;
  // The extents must be in the box before they size the list; a list that
  // cannot be kept leaves the item with its last extent, as strictly read.
  if (keep_extents && extent_cnt > 1 && src.left(box, &left) && extent_cnt <= left / extent_bytes) {
    extents = static_cast<tarnd_extent *>(model_alloc(ctx, extent_cnt * sizeof(tarnd_extent)));
    if (extents == nullptr) TARN_LOGW("tarnd_handlers", "failed to alloc item extents");
  }
  uint64_t total = 0;
  for (uint32_t e = 0; e < extent_cnt; ++e) {
    uint64_t index;
    if (!src.sized(l.index_size, &index) || !src.sized(l.offset_size, &offset) ||
        !src.sized(l.length_size, &length)) {
      return false;
    }
    if (extents != nullptr && length > UINT64_MAX - total) {
      extents = nullptr;  // a sum that does not fit: no item holds that much
    }
    if (extents != nullptr) {
      extents[e].offset = base + offset;
      extents[e].length = length;
      total += length;
    }
  }
  if (l.has_construction) item->construction_method = method & 0xfu;
  item->extents = extents;  // an item listed again keeps only its last entry
  item->extent_cnt = extents != nullptr ? extent_cnt : 0;
  // Wrapping is harmless here: every later read checks offset and length
  // against the data it serves.
  if (extents != nullptr) {
    item->offset = extents[0].offset;
    item->length = total;
    return true;
  }
  item->offset = extent_cnt != 0 ? base + offset : 0;
  item->length = extent_cnt != 0 ? length : 0;
  return true;
}

template <class Source>
int32_t parse_iloc(Source &src, const tarnd_box *box, tarnd_ctx *ctx) {
  uint8_t sizes[2];
  if (!src.bytes(sizes, 2)) return -1;
  IlocLayout layout;
  layout.offset_size = sizes[0] >> 4;
  layout.length_size = sizes[0] & 0xfu;
  layout.base_offset_size = sizes[1] >> 4;
  layout.has_construction = box->version == 1 || box->version == 2;
  // The index size shares its nibble with a reserved field in version 0.
  layout.index_size = layout.has_construction ? (sizes[1] & 0xfu) : 0;
  layout.wide_ids = box->version == 2;

  uint32_t count;
  if (!read_item_id(src, layout.wide_ids, &count)) return -1;
  uint64_t left = 0;
  if (!src.left(box, &left)) return -1;
  if (count == 0 || count > kMaxItemCount || count > left / kMinIlocEntrySize) {
    TARN_LOGW("tarnd_handlers", "%s : item count is abnormal(%u)", "parser_iloc", count);
    return -1;
  }
  tarnd_meta *meta = &ctx->meta;
  if (meta->item_cnt != 0) {
    if (meta->item_cnt < count)
      TARN_LOGW("tarnd_handlers", "Warning! item count of iloc is more than it of iinf!");
    else if (meta->item_cnt > count)
      TARN_LOGW("tarnd_handlers", "Warning! item count of iloc is less than it of iinf!");
  } else {
    meta->item_cnt = count;
  }
  if (!create_item_tables(ctx)) return -1;
  meta->infe_index = 0;

  for (uint32_t i = 0; i < count; ++i) {
    uint32_t id;
    if (!read_item_id(src, layout.wide_ids, &id)) return -1;
    if (id > kMaxItemId) {
      TARN_LOGW("tarnd_handlers", "%s : item id is too big(%u)", "parser_iloc", id);
      return -1;
    }
    if (meta->infe_index >= meta->item_cnt) {
      TARN_LOGW("tarnd_handlers", "items are more than item count(%u)", meta->item_cnt);
      return -1;
    }
    tarnd_item *item = claim_item_slot(ctx, id, "parser_iloc");
    if (item == nullptr) return -1;
    if (!read_entry(src, box, layout, ctx, item)) return -1;
    ++meta->infe_index;
  }
  return 0;
}

}  // namespace

int32_t parser_iloc(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx) {
  return with_source(io, handle, [&](auto &src) { return parse_iloc(src, box, ctx); });
}

int32_t parser_idat(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx) {
  uint64_t left = 0;
  if (!bytes_left(io, handle, box, &left)) return -1;
  uint8_t *data = nullptr;
  if (box->size <= kMaxIdatSize) {
    // A payload the source does not hold fails like a short read, before it
    // sizes a buffer.
    if (box->payload_size > left) return -1;
    data = static_cast<uint8_t *>(model_alloc(ctx, static_cast<size_t>(box->payload_size)));
  }
  if (data == nullptr) {
    TARN_LOGW("tarnd_handlers", "parser_idat failed to alloc idat(alloc size : %llu)",
              static_cast<unsigned long long>(box->payload_size));
    return -1;
  }
  if (!read_bytes(io, handle, data, static_cast<uint32_t>(box->payload_size))) return -1;
  ctx->meta.idat = data;
  ctx->meta.idat_size = box->payload_size;
  return 0;
}

int32_t parser_mdat(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx) {
  (void)io;
  (void)handle;
  ctx->mdat_found = 1;
  ctx->mdat_offset = box->start;
  ctx->mdat_size = box->size;
  return 0;
}

int32_t parser_dref(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx) {
  (void)ctx;
  // Every item is taken to live in this file.
  return seek_to(io, handle, box->end) ? 0 : -1;
}
