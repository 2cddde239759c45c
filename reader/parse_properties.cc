// Property container and associations: ipco, ipma, and the property kinds
// that only keep their place.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "common/log.h"
#include "reader/internal.h"

using namespace tarnd;

namespace {

// Every property is at least a box header.
constexpr uint64_t kMinPropertySize = 8;
// Above this the property table would not fit 32 bits.
constexpr uint64_t kMaxIpcoPayload = 858993463;
// property_cnt is 16 bits wide, and ipma indexes stop at 15 bits anyway.
constexpr uint64_t kMaxPropertySlots = 0xffff;
// Each ipma entry takes at least an item id and an association count.
constexpr uint64_t kMinIpmaEntrySize = 3;
constexpr uint64_t kMaxAssociations = 536870912;

}  // namespace

int32_t parser_ipco(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx) {
  tarnd_meta *meta = &ctx->meta;
  if (meta->properties != nullptr) {
    // Property indexes in ipma name one table; a second one would be ambiguous.
    TARN_LOGW("tarnd_handlers", "%s : duplicated ipco box", "parser_ipco");
    return -1;
  }
  if (box->payload_size < kMinPropertySize || box->payload_size > kMaxIpcoPayload) {
    TARN_LOGW("tarnd_handlers", "%s : invalid item property count(%llu)", "parser_ipco",
              static_cast<unsigned long long>(box->payload_size / kMinPropertySize));
    return -1;
  }
  // Slots only for the children the source really holds.
  uint64_t left = 0;
  if (!bytes_left(io, handle, box, &left)) return -1;
  uint64_t capacity = (left < box->payload_size ? left : box->payload_size) / kMinPropertySize;
  if (capacity > kMaxPropertySlots) capacity = kMaxPropertySlots;
  meta->properties = static_cast<tarnd_property *>(
      model_calloc(ctx, static_cast<size_t>(capacity != 0 ? capacity : 1), sizeof(tarnd_property)));
  if (meta->properties == nullptr) {
    TARN_LOGW("tarnd_handlers", "failed to alloc item properties");
    return -1;
  }
  meta->property_capacity = static_cast<uint32_t>(capacity);
  meta->property_cnt = 0;
  return 0;
}

int32_t parser_unknown_property(const tarnd_io_dsc *io, void *handle, const tarnd_box *box,
                                tarnd_ctx *ctx) {
  tarnd_meta *meta = &ctx->meta;
  if (meta->properties == nullptr) {
    TARN_LOGE("tarnd_handlers", "%s : abnormal file. maybe ipco box does not exist.",
              "parser_unknown_property");
    return -1;
  }
  if (meta->property_cnt >= meta->property_capacity) {
    TARN_LOGE("tarnd_handlers", "%s : abnormal file. abnormal property exist.",
              "parser_unknown_property");
    return -1;
  }
  ++meta->property_cnt;
  return seek_to(io, handle, box->end) ? 0 : -1;
}

namespace {

template <class Source>
int32_t parse_ipma(Source &src, const tarnd_box *box, tarnd_ctx *ctx) {
  tarnd_meta *meta = &ctx->meta;
  uint32_t entry_cnt;
  if (!src.u32(&entry_cnt)) return -1;

  if (kMinIpmaEntrySize * entry_cnt >= box->payload_size) {
    TARN_LOGW("tarnd_handlers", "atom data size is abnormal. atom data size : %lld, entry_cnt : %zu",
              static_cast<long long>(box->payload_size), static_cast<size_t>(entry_cnt));
    return -1;
  }
  // No box can hold more associations than bytes beyond its entries' fixed
  // parts, nor more than the source still holds.
  uint64_t left = 0;
  if (!src.left(box, &left)) return -1;
  uint64_t capacity = box->payload_size - kMinIpmaEntrySize * entry_cnt;
  if (capacity > left) capacity = left;
  if (capacity >= kMaxAssociations) {
    TARN_LOGW("tarnd_handlers", "entry count is %u. cannot support", entry_cnt);
    return -1;
  }
  // A later ipma is merged: its associations follow those already stored.
  const uint32_t stored_before = meta->association_cnt;
  const uint64_t total = stored_before + capacity;
  // The table's byte size must also fit a 32-bit size_t.
  if (total >= kMaxAssociations || total > SIZE_MAX / sizeof(tarnd_association)) {
    TARN_LOGW("tarnd_handlers", "entry count is %u. cannot support", entry_cnt);
    return -1;
  }
  tarnd_association *table = static_cast<tarnd_association *>(
      model_alloc(ctx, static_cast<size_t>(total != 0 ? total : 1) * sizeof(tarnd_association)));
  if (table == nullptr) {
    TARN_LOGW("tarnd_handlers", "failed to alloc association table");
    return -1;
  }
  if (stored_before != 0) memcpy(table, meta->association_list, stored_before * sizeof(tarnd_association));
  meta->association_list = table;

  const bool wide_ids = box->version != 0;
  const bool wide_index = (box->flags & 0xffu) == 1;
  uint32_t stored = stored_before;
  for (uint32_t e = 0; e < entry_cnt; ++e) {
    uint32_t item_id;
    if (wide_ids) {
      if (!src.u32(&item_id)) return -1;
    } else {
      uint16_t id16;
      if (!src.u16(&id16)) return -1;
      item_id = id16;
    }
    uint8_t assoc_cnt;
    if (!src.u8(&assoc_cnt)) return -1;
    for (uint32_t a = 0; a < assoc_cnt; ++a) {
      uint32_t index;
      if (wide_index) {
        uint16_t v;
        if (!src.u16(&v)) return -1;
        index = v & 0x7fffu;
      } else {
        uint8_t v;
        if (!src.u8(&v)) return -1;
        index = v & 0x7fu;
      }
      // Index 0 means "no property"; the essential bit is dropped.
      if (index == 0) continue;
      if (stored >= total) {
        TARN_LOGW("tarnd_handlers", "file has abnormal property association data");
        return -1;
      }
      table[stored].item_id = item_id;
      table[stored].property_index = static_cast<uint16_t>(index - 1);
      ++stored;
    }
  }
  meta->association_cnt = stored;
  return 0;
}

}  // namespace

int32_t parser_ipma(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx) {
  return with_source(io, handle, [&](auto &src) { return parse_ipma(src, box, ctx); });
}
