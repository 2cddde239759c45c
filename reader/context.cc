// Reader context: open, property binding, close, and item lookup.
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "common/log.h"
#include "reader/internal.h"

namespace tarnd {

namespace {

constexpr uint32_t kFccHvcC = TARND_FCC('h', 'v', 'c', 'C');
constexpr uint32_t kFccAuxC = TARND_FCC('a', 'u', 'x', 'C');
constexpr uint32_t kFccIspe = TARND_FCC('i', 's', 'p', 'e');
constexpr uint32_t kFccClap = TARND_FCC('c', 'l', 'a', 'p');
constexpr uint32_t kFccColr = TARND_FCC('c', 'o', 'l', 'r');
constexpr uint32_t kFccIrot = TARND_FCC('i', 'r', 'o', 't');

bool is_image_type(uint32_t type) { return type == kFccHvc1 || type == kFccJpeg; }

// Binds one property to one item. A later association of the same kind
// overwrites an earlier one; auxiliary bits accumulate.
void bind_property(tarnd_item *item, const tarnd_property *prop, uint16_t index, bool overlay_as_grid) {
  const uint32_t itype = item->item_type;
  const bool image = is_image_type(itype);
  // Tolerant reading describes an overlay (a derived image like a grid) by
  // its own size, rotation, colour and crop.
  const bool grid = itype == kFccGrid || (overlay_as_grid && itype == kFccIovl);
  switch (prop->type) {
    case kFccHvcC:
      if (itype == kFccHvc1) item->view.image.hvcC_index = index;
      break;
    case kFccAuxC:
      item->flags |= prop->payload.auxC.aux_flags;
      break;
    case kFccIspe:
      if (image) {
        item->view.image.ispe_width = prop->payload.ispe.width;
        item->view.image.ispe_height = prop->payload.ispe.height;
      } else if (grid) {
        item->view.grid.ispe_width = prop->payload.ispe.width;
        item->view.grid.ispe_height = prop->payload.ispe.height;
      }
      break;
    case kFccClap:
      if (image) item->view.image.clap_index = index;
      else if (grid) item->view.grid.clap_index = index;
      break;
    case kFccColr:
      if (image) item->view.image.colr_index = index;
      else if (grid) item->view.grid.colr_index = index;
      break;
    case kFccIrot:
      if (image) item->view.image.irot_angle = prop->payload.irot.angle & 0xffu;
      else if (grid) item->view.grid.irot_angle = prop->payload.irot.angle & 0xffu;
      break;
    default:
      break;
  }
}

// The slot of id among the first taken slots while their ids increase
// (most files, and strict reading's whenever the walk asks), and among all
// slots once the open finds them in increasing order.
inline bool find_sorted_slot(const tarnd_item *items, uint32_t taken, uint32_t id, uint32_t *slot) {
  if (taken == 0 || id < items[0].item_id || id > items[taken - 1].item_id) return false;
  // Ids numbered from the first slot's id, as most files number them.
  const uint32_t d = id - items[0].item_id;
  if (d < taken && items[d].item_id == id) {
    *slot = d;
    return true;
  }
  uint32_t lo = 0, hi = taken;
  while (lo < hi) {
    const uint32_t mid = lo + (hi - lo) / 2;
    if (items[mid].item_id < id) {
      lo = mid + 1;
    } else {
      hi = mid;
    }
  }
  if (lo < taken && items[lo].item_id == id) {
    *slot = lo;
    return true;
  }
  return false;
}

bool ids_increase(const tarnd_meta *meta) {
  for (uint32_t i = 1; i < meta->item_cnt; ++i) {
    if (meta->items[i - 1].item_id >= meta->items[i].item_id) return false;
  }
  return true;
}

// The slot tarnd_find_itemIndex gives, with its log line. When the ids
// increase through the table (as infe boxes must number them) the only slot
// holding an id is found directly or by binary search, so a file whose
// associations name ids it lacks costs log n per association instead of a
// full scan.
// tarnd_find_itemIndex's line for an id the sorted slots lack (none below
// the first id, as there).
[[gnu::noinline]] bool missing_sorted_id(const tarnd_meta *meta, uint32_t id) {
  if (id >= meta->items[0].item_id)
    TARN_LOGI("tarn_util", "itemIndex could not be found. item_id : %d, item_cnt : %u",
              static_cast<int>(id), meta->item_cnt);
  return false;
}

bool find_slot(const tarnd_meta *meta, bool increasing, uint32_t id, uint32_t *slot) {
  if (!increasing || meta->item_cnt == 0) {
    return tarnd_find_itemIndex(meta->items, meta->item_cnt, id, slot) == 0;
  }
  return find_sorted_slot(meta->items, meta->item_cnt, id, slot) || missing_sorted_id(meta, id);
}

void bind_properties(tarnd_ctx *ctx) {
  tarnd_meta *meta = &ctx->meta;
  const bool increasing = ids_increase(meta);
  for (uint32_t i = 0; i < meta->association_cnt; ++i) {
    const tarnd_association *assoc = &meta->association_list[i];
    uint32_t slot;
    if (!find_slot(meta, increasing, assoc->item_id, &slot)) continue;
    if (assoc->property_index >= meta->property_cnt) continue;
    bind_property(&meta->items[slot], &meta->properties[assoc->property_index],
                  assoc->property_index, tolerant(ctx));
  }
}

void mark_stereo_pairs(tarnd_ctx *ctx) {
  tarnd_meta *meta = &ctx->meta;
  for (uint32_t g = 0; g < meta->group_cnt && g < TARND_MAX_GROUPS; ++g) {
    const tarnd_group *group = &meta->groups[g];
    if (group->grouping_type != kFccSter || group->entityCount < 2) continue;
    uint32_t slot;
    if (tarnd_find_itemIndex(meta->items, meta->item_cnt, group->entityIDList[0], &slot) == 0)
      meta->items[slot].flags |= TARND_ITEM_STEREO_LEFT;
    if (tarnd_find_itemIndex(meta->items, meta->item_cnt, group->entityIDList[1], &slot) == 0)
      meta->items[slot].flags |= TARND_ITEM_STEREO_RIGHT;
  }
}

// The id table spreads ids by multiplication so that consecutive and
// strided ids alike land apart; ids are 16-bit, so 2^17 entries (twice the
// most distinct ids) is the largest table ever needed.
constexpr uint32_t kMaxSlotTable = 1u << 17;
constexpr uint32_t kMinSlotTable = 16;
// Up to this many items a scan of the taken slots is cheaper than building
// the table (and costs no allocation, so small files open as fast as in
// strict mode).
constexpr uint32_t kScanItems = 64;

uint32_t slot_hash(uint32_t id, uint32_t mask) { return ((id * 0x9E3779B1u) >> 15) & mask; }

bool create_slot_index(tarnd_ctx *ctx) {
  uint32_t entries = kMinSlotTable;
  while (entries < kMaxSlotTable && entries / 2 < ctx->meta.item_cnt) entries *= 2;
  ctx->item_slots = static_cast<uint32_t *>(calloc(entries, sizeof(uint32_t)));
  if (ctx->item_slots == nullptr) {
    TARN_LOGW("tarnd_handlers", "failed to alloc item table");
    return false;
  }
  ctx->item_slot_mask = entries - 1;
  return true;
}

void insert_slot(tarnd_ctx *ctx, uint32_t id, uint32_t slot) {
  uint32_t h = slot_hash(id, ctx->item_slot_mask);
  while (ctx->item_slots[h] != 0) h = (h + 1) & ctx->item_slot_mask;
  ctx->item_slots[h] = slot + 1;
}

// The slot an id took during a tolerant walk once the ids stopped
// increasing: through the id table, or a scan of the taken slots when
// there are few.
bool find_unordered_slot(const tarnd_ctx *ctx, uint32_t id, uint32_t *slot) {
  const tarnd_item *items = ctx->meta.items;
  if (ctx->item_slots == nullptr) {
    for (uint32_t i = 0; i < ctx->item_slots_taken; ++i) {
      if (items[i].item_id == id) {
        *slot = i;
        return true;
      }
    }
    return false;
  }
  for (uint32_t h = slot_hash(id, ctx->item_slot_mask);; h = (h + 1) & ctx->item_slot_mask) {
    const uint32_t entry = ctx->item_slots[h];
    if (entry == 0) return false;
    if (items[entry - 1].item_id == id) {
      *slot = entry - 1;
      return true;
    }
  }
}

inline bool find_taken_slot(const tarnd_ctx *ctx, uint32_t id, uint32_t *slot) {
  if (!ctx->item_slots_unordered) return find_sorted_slot(ctx->meta.items, ctx->item_slots_taken, id, slot);
  return find_unordered_slot(ctx, id, slot);
}

// Records that slot took id. The first id below its predecessor ends the
// sorted run; larger tables then get the id table, filled with every slot
// taken so far.
bool note_taken_slot(tarnd_ctx *ctx, uint32_t id, uint32_t slot) {
  const tarnd_item *items = ctx->meta.items;
  if (!ctx->item_slots_unordered) {
    if (slot == 0 || id > items[slot - 1].item_id) return true;
    ctx->item_slots_unordered = 1;
    if (ctx->meta.item_cnt <= kScanItems) return true;
    if (!create_slot_index(ctx)) return false;
    for (uint32_t i = 0; i <= slot; ++i) insert_slot(ctx, items[i].item_id, i);
    return true;
  }
  if (ctx->item_slots != nullptr) insert_slot(ctx, id, slot);
  return true;
}

// Tolerant reading leaves the items in the order the file first named them.
// Once the walk is over they are put in id order, so that every later
// lookup (the binding below, the queries, tarnd_find_itemIndex in callers)
// finds every id. Untaken slots go last. Files already in order cost one
// pass; files in reverse order one reversal.
void order_items_by_id(tarnd_ctx *ctx) {
  if (!ctx->item_slots_unordered) return;
  tarnd_meta *meta = &ctx->meta;
  tarnd_item *items = meta->items;
  const uint32_t n = meta->item_cnt;
  if (items == nullptr || n < 2) return;
  auto before = [](const tarnd_item &a, const tarnd_item &b) {
    if (a.item_id == 0 || b.item_id == 0) return b.item_id == 0 && a.item_id != 0;
    return a.item_id < b.item_id;
  };
  uint32_t taken = 0;
  while (taken < n && items[taken].item_id != 0) ++taken;
  bool ascending = true, descending = true;
  for (uint32_t i = 1; i < taken; ++i) {
    if (items[i - 1].item_id >= items[i].item_id) ascending = false;
    if (items[i - 1].item_id <= items[i].item_id) descending = false;
  }
  bool rest_empty = true;
  for (uint32_t i = taken; i < n && rest_empty; ++i) rest_empty = items[i].item_id == 0;
  if (rest_empty && ascending) return;
  if (rest_empty && descending) {
    std::reverse(items, items + taken);
    return;
  }
  std::stable_sort(items, items + n, before);
}

}  // namespace

void release_model(tarnd_ctx *ctx) {
  tarnd_meta *meta = &ctx->meta;
  // The query caches are the only pieces of the model outside its blocks.
  if (meta->items != nullptr) {
    for (uint32_t i = 0; i < meta->item_cnt; ++i) {
      tarnd_item *item = &meta->items[i];
      const uint32_t t = item->item_type;
      if (t == kFccExif || t == kFccMime || t == kFccTmap) free(item->view.meta.cache_data);
    }
  }
  free(ctx->item_slots);
  model_release(ctx);
}

bool create_item_tables(tarnd_ctx *ctx) {
  tarnd_meta *meta = &ctx->meta;
  if (meta->items == nullptr) {
    meta->items = static_cast<tarnd_item *>(model_calloc(ctx, meta->item_cnt, sizeof(tarnd_item)));
    if (meta->items == nullptr) {
      TARN_LOGW("tarnd_handlers", "failed to alloc item table");
      return false;
    }
    meta->last_item_id = -1;
  }
  if (ctx->displayable_ids == nullptr) {
    ctx->displayable_ids = static_cast<uint32_t *>(model_calloc(ctx, meta->item_cnt, sizeof(uint32_t)));
    if (ctx->displayable_ids == nullptr) {
      TARN_LOGW("tarnd_handlers", "failed to alloc displayable image table");
      return false;
    }
  }
  return true;
}

namespace {

[[gnu::noinline]] bool find_item_slot_unsorted(const tarnd_ctx *ctx, uint32_t id, uint32_t *slot) {
  if (ctx->item_slots_unordered && tolerant(ctx) && find_unordered_slot(ctx, id, slot)) return true;
  // Ids the table never took (0, the id of untaken slots) are looked up as
  // strict reading looks them up.
  return tarnd_find_itemIndex(ctx->meta.items, ctx->meta.item_cnt, id, slot) == 0;
}

}  // namespace

bool find_item_slot(const tarnd_ctx *ctx, uint32_t id, uint32_t *slot) {
  const tarnd_meta *meta = &ctx->meta;
  const uint32_t taken = ctx->item_slots_taken;
  // Both modes answer from the taken slots while the walk found their ids
  // increasing (every well-formed file), by the same search: with no
  // untaken slot among them and no id 0 (the ids strictly increase from a
  // non-zero first one), a miss there is a miss in the whole table.
  if (!ctx->item_slots_unordered && taken != 0 && id != 0 && meta->items[0].item_id != 0) {
    return find_sorted_slot(meta->items, taken, id, slot) || missing_sorted_id(meta, id);
  }
  return find_item_slot_unsorted(ctx, id, slot);
}

tarnd_item *claim_item_slot(tarnd_ctx *ctx, uint32_t id, const char *parser) {
  tarnd_meta *meta = &ctx->meta;
  // The running slot already holding id (iloc and iinf listing the items in
  // the same order): in both modes, while the taken ids increase they are
  // unique, so it is the slot any search below would find.
  tarnd_item *item = &meta->items[meta->infe_index];
  if (item->item_id == id && id != 0 && !ctx->item_slots_unordered) return item;
  uint32_t slot;
  if (tolerant(ctx)) {
    // Any order: the slot already holding id, else the next untaken one.
    // With every slot taken (an id 0 takes one, yet reads as untaken), the
    // slot is chosen as strict reading chooses it.
    if (find_taken_slot(ctx, id, &slot)) return &meta->items[slot];
    if (ctx->item_slots_taken < meta->item_cnt) {
      slot = ctx->item_slots_taken;
      meta->items[slot].item_id = static_cast<uint16_t>(id);
      if (!note_taken_slot(ctx, id, slot)) {
        meta->items[slot].item_id = 0;
        return nullptr;
      }
      ++ctx->item_slots_taken;
      return &meta->items[slot];
    }
    // Every slot taken, one of them by id 0, which reads as untaken: the id
    // takes it over, as strict reading hands an untaken slot to the next
    // entry. No worse than the scan strict reading makes here.
    for (uint32_t i = 0; i < meta->item_cnt; ++i) {
      if (meta->items[i].item_id != 0) continue;
      meta->items[i].item_id = static_cast<uint16_t>(id);
      ctx->item_slots_unordered = 1;
      if (ctx->item_slots != nullptr) insert_slot(ctx, id, i);
      return &meta->items[i];
    }
  }
  if (item->item_id == 0) {
    // Strict reading takes slots in entry order, so the taken ones stay the
    // first ones; the lookups above use them while their ids increase.
    slot = meta->infe_index;
    const uint32_t taken = ctx->item_slots_taken;
    if (slot != taken || (slot != 0 && id <= meta->items[slot - 1].item_id)) ctx->item_slots_unordered = 1;
    if (slot == taken) ++ctx->item_slots_taken;
    item->item_id = static_cast<uint16_t>(id);
    return item;
  }
  if (!find_item_slot(ctx, id, &slot)) {
    TARN_LOGW("tarnd_handlers", "%s : valid index for item(%d) could not be found", parser,
              static_cast<int>(id));
    return nullptr;
  }
  return &meta->items[slot];
}

tarnd_property *claim_property_slot(tarnd_ctx *ctx, const tarnd_box *box, const char *parser) {
  tarnd_meta *meta = &ctx->meta;
  if (meta->properties == nullptr) {
    TARN_LOGE("tarnd_handlers", "%s : abnormal file. maybe ipco box does not exist.", parser);
    return nullptr;
  }
  if (meta->property_cnt >= meta->property_capacity) {
    TARN_LOGE("tarnd_handlers", "%s : abnormal file. abnormal property exist.", parser);
    return nullptr;
  }
  tarnd_property *slot = &meta->properties[meta->property_cnt];
  slot->type = box->type;
  return slot;
}

}  // namespace tarnd

using namespace tarnd;

int32_t tarnd_find_itemIndex(const tarnd_item *items, uint32_t item_cnt, uint32_t item_id,
                             uint32_t *index) {
  if (items == nullptr || item_cnt == 0) return -1;
  if (item_id < items[0].item_id) return -1;
  // Most files number their items from 1 in slot order.
  if (item_id >= 1 && item_id < item_cnt && items[item_id - 1].item_id == item_id) {
    *index = item_id - 1;
    return 0;
  }
  // Others number them consecutively from the first slot's id.
  if (item_id >= item_cnt) {
    const uint32_t d = item_id - items[0].item_id;
    if (d < item_cnt && items[d].item_id == item_id) {
      *index = d;
      return 0;
    }
  }
  for (uint32_t i = 0; i < item_cnt; ++i) {
    if (items[i].item_id == item_id) {
      *index = i;
      return 0;
    }
  }
  TARN_LOGI("tarn_util", "itemIndex could not be found. item_id : %d, item_cnt : %u",
            static_cast<int>(item_id), item_cnt);
  return -1;
}

void *tarnd_create(const tarnd_io_dsc *io, uint32_t reserved, tarnd_file_info *file_info,
                   int32_t *err) {
  (void)reserved;
  return tarnd_create_with_flags(io, TARND_READ_STRICT, file_info, err);
}

void *tarnd_create_with_flags(const tarnd_io_dsc *io, uint32_t flags, tarnd_file_info *file_info,
                              int32_t *err) {
  if ((flags & ~TARND_READ_TOLERANT) != 0) {
    if (err != nullptr) *err = -1;
    return nullptr;
  }
  if (io == nullptr || file_info == nullptr || io->open == nullptr) {
    if (err != nullptr) *err = -6;
    return nullptr;
  }
  void *handle = io->open(io, 0);
  if (handle == nullptr) {
    TARN_LOGE("tarnd", " file open failed");
    if (err != nullptr) *err = -6;
    return nullptr;
  }
  tarnd_ctx *ctx = model_create_context();
  if (ctx == nullptr) {
    if (io->close != nullptr) io->close(handle);
    if (err != nullptr) *err = -5;
    return nullptr;
  }
  ctx->magic = TARND_MAGIC;
  ctx->self = ctx;
  ctx->io = *io;
  ctx->handle = handle;
  ctx->read_flags = flags;

  const char *failure = nullptr;
  if (tarnd_parse(tarnd_handlers(), tarnd_handlers_cnt(), tarnd_handlers_containr_fcc(),
                  tarnd_handlers_containr_fcc_cnt(), io, handle, ctx) != 1) {
    failure = "tarnd_parse() failed";
  } else if (ctx->meta.items == nullptr) {
    failure = "ctx->meta.items is NULL";
  } else if (ctx->meta.properties == nullptr) {
    failure = "ctx->meta.properties is NULL";
  } else if (ctx->meta.association_list == nullptr) {
    failure = "ctx->meta.association_list is NULL";
  }
  if (failure != nullptr) {
    TARN_LOGE("tarnd", "%s", failure);
    tarnd_delete(ctx);
    if (err != nullptr) *err = -2;
    return nullptr;
  }

  if (tolerant(ctx)) {
    order_items_by_id(ctx);
    free(ctx->item_slots);
    ctx->item_slots = nullptr;
  }
  bind_properties(ctx);
  mark_stereo_pairs(ctx);
  file_info->brand = ctx->brand;
  file_info->reserved = 0;
  if (err != nullptr) *err = 0;
  return ctx->self;
}

void tarnd_delete(void *handle) {
  if (handle == nullptr) return;
  uint32_t magic;
  memcpy(&magic, handle, sizeof(magic));
  if (magic != TARND_MAGIC) return;
  tarnd_ctx *ctx = static_cast<tarnd_ctx *>(handle);
  if (ctx->handle != nullptr && ctx->io.close != nullptr) ctx->io.close(ctx->handle);
  release_model(ctx);
  memset(ctx, 0, sizeof(*ctx));
  free(ctx);
}
