// File-type and item-information boxes: ftyp, hdlr, pitm, iinf, infe.
#include <string.h>

#include "common/log.h"
#include "reader/internal.h"

using namespace tarnd;

namespace {

constexpr uint32_t kFccHeic = TARND_FCC('h', 'e', 'i', 'c');
constexpr uint32_t kFccHeix = TARND_FCC('h', 'e', 'i', 'x');
constexpr uint32_t kFccHevc = TARND_FCC('h', 'e', 'v', 'c');
constexpr uint32_t kFccHevx = TARND_FCC('h', 'e', 'v', 'x');
constexpr uint32_t kFccMif1 = TARND_FCC('m', 'i', 'f', '1');
constexpr uint32_t kFccMsf1 = TARND_FCC('m', 's', 'f', '1');

constexpr uint32_t kBrandStill = 1;
constexpr uint32_t kBrandSequence = 2;

// The header, major brand and minor version take 16 bytes; a shorter ftyp
// classifies nothing.
constexpr uint64_t kMinFtypSize = 16;
// hdlr: pre_defined, handler_type and three reserved words precede the name.
constexpr uint64_t kHdlrFixedSize = 20;
constexpr uint64_t kMaxHandlerName = 255;
// The item table must stay below 4 GiB.
constexpr uint32_t kMaxItemCount = 18512790;
// Every infe child is at least a box header.
constexpr uint64_t kMinChildBoxSize = 8;
constexpr uint32_t kMaxItemId = 0xffff;

bool is_still_brand(uint32_t b) { return b == kFccHeic || b == kFccHeix; }
bool is_sequence_brand(uint32_t b) { return b == kFccHevc || b == kFccHevx; }

}  // namespace

int32_t parser_ftyp(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx) {
  ctx->brand = 0;
  if (box->size < kMinFtypSize) return seek_to(io, handle, box->end) ? 0 : -1;
  uint32_t major, minor;
  if (!read_fcc(io, handle, &major) || !read_fcc(io, handle, &minor)) return -1;
  if (is_still_brand(major) || is_still_brand(minor)) ctx->brand = kBrandStill;
  if (is_sequence_brand(major) || is_sequence_brand(minor)) ctx->brand = kBrandSequence;

  uint64_t pos = 0;
  if (!tell_pos(io, handle, &pos)) return -1;
  const uint64_t count = pos < box->end ? (box->end - pos) / 4 : 0;
  for (uint64_t i = 0; i < count; ++i) {
    uint32_t brand;
    if (!read_fcc(io, handle, &brand)) return -1;
    if (brand == kFccMif1 || is_still_brand(brand)) {
      if (ctx->brand == 0) ctx->brand = kBrandStill;
      break;
    }
    if (brand == kFccMsf1 || is_sequence_brand(brand)) {
      if (ctx->brand == 0) ctx->brand = kBrandSequence;
    }
  }
  return 0;
}

int32_t parser_hdlr(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx) {
  ctx->handler_name[0] = '\0';
  // Too short to hold a name: nothing is read past the box.
  if (box->payload_size < kHdlrFixedSize) return 0;
  if (!skip_by(io, handle, kHdlrFixedSize)) return -1;
  uint64_t n = box->payload_size - kHdlrFixedSize;
  if (n > kMaxHandlerName) n = kMaxHandlerName;
  if (!read_bytes(io, handle, ctx->handler_name, static_cast<uint32_t>(n))) {
    ctx->handler_name[0] = '\0';
    return -1;
  }
  ctx->handler_name[n] = '\0';
  return 0;
}

int32_t parser_pitm(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx) {
  if (box->version == 0) {
    uint16_t id;
    if (!read_u16(io, handle, &id)) return -1;
    ctx->primary_item_id = id;
    return 0;
  }
  uint32_t id;
  if (!read_u32(io, handle, &id)) return -1;
  if (id > kMaxItemId) {
    TARN_LOGW("tarnd_handlers", "%s : item id is too big(%u)", "parser_pitm", id);
    return -1;
  }
  ctx->primary_item_id = static_cast<uint16_t>(id);
  return 0;
}

int32_t parser_iinf(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx) {
  uint32_t count;
  if (box->version == 0) {
    uint16_t c16;
    if (!read_u16(io, handle, &c16)) return -1;
    count = c16;
  } else if (!read_u32(io, handle, &count)) {
    return -1;
  }
  uint64_t left = 0;
  if (!bytes_left(io, handle, box, &left)) return -1;
  // Each item needs an infe box in what follows; a count the box cannot
  // hold never sizes the tables.
  if (count < 1 || count > kMaxItemCount || count > left / kMinChildBoxSize) {
    TARN_LOGW("tarnd_handlers", "%s : item count is abnormal(%u)", "parser_iinf", count);
    return -1;
  }
  tarnd_meta *meta = &ctx->meta;
  if (meta->item_cnt != 0) {
    if (count > meta->item_cnt)
      TARN_LOGW("tarnd_handlers", "Warning! item count of iinf is more than it of iloc!");
    else if (count < meta->item_cnt)
      TARN_LOGW("tarnd_handlers", "Warning! item count of iinf is less than it of iloc!");
  } else {
    meta->item_cnt = count;
  }
  if (!create_item_tables(ctx)) return -1;
  meta->infe_index = 0;
  return 0;
}

namespace {

template <class Source>
int32_t parse_infe(Source &src, const tarnd_box *box, tarnd_ctx *ctx) {
  tarnd_meta *meta = &ctx->meta;
  if (meta->infe_index >= meta->item_cnt) return -1;
  if (meta->items == nullptr) {
    TARN_LOGE("tarnd_handlers", "item list is null");
    return -1;
  }
  uint32_t id;
  if (box->version == 3) {
    if (!src.u32(&id)) return -1;
    if (id > kMaxItemId) {
      TARN_LOGW("tarnd_handlers", "%s : item id is too big(%u)", "parser_infe", id);
      return -1;
    }
  } else {
    uint16_t id16;
    if (!src.u16(&id16)) return -1;
    id = id16;
  }
  // Tolerant reading takes ids in any order: the id table finds each one.
  if (!tolerant(ctx) && static_cast<int32_t>(id) <= meta->last_item_id) {
    TARN_LOGE("tarnd_handlers", "item_ID does not increase. previous(%d), current(%d)",
              meta->last_item_id, static_cast<int>(id));
    return -1;
  }
  meta->last_item_id = static_cast<int32_t>(id);

  if ((box->flags & 1u) == 0) {
    if (ctx->displayable_ids == nullptr) {
      TARN_LOGE("tarnd_handlers", "abnormal file. maybe iinf box does not exist.");
      return -1;
    }
    if (ctx->displayable_cnt >= meta->item_cnt) {
      TARN_LOGE("tarnd_handlers", "abnormal file. images(%u) are more than item count(%u)",
                ctx->displayable_cnt, meta->item_cnt);
      return -1;
    }
    ctx->displayable_ids[ctx->displayable_cnt++] = id;
  }

  tarnd_item *item = claim_item_slot(ctx, id, "parser_infe");
  if (item == nullptr) return -1;
  uint16_t protection_index;
  if (!src.u16(&protection_index)) return -1;

  // Versions 2 and 3 name the item type; 3 only widens the id.
  if (box->version == 2 || box->version == 3) {
    if (item->item_type != 0) {
      TARN_LOGE("tarnd_handlers", "duplicated item(type : %u). abnormal file", item->item_type);
      return -1;
    }
    if (!src.fcc(&item->item_type)) return -1;
    if (item->item_type == kFccHvc1 || item->item_type == kFccJpeg) {
      item->view.image.colr_index = -1;
      item->view.image.hvcC_index = -1;
      item->view.image.clap_index = -1;
    } else if (item->item_type == kFccGrid || (item->item_type == kFccIovl && tolerant(ctx))) {
      item->view.grid.colr_index = -1;
      item->view.grid.clap_index = -1;
    }
  }
  ++meta->infe_index;
  return src.seek(box->end) ? 0 : -1;
}

}  // namespace

int32_t parser_infe(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx) {
  return with_source(io, handle, [&](auto &src) { return parse_infe(src, box, ctx); });
}
