// Item queries that go back to the source after the model is built: grid
// layouts, Exif/XMP/tone-map bytes (read once and cached per item), the
// coded bytes of an image in start-code form, and the inputs of a derived
// image.
//
// Item data lives either in the file (construction method 0) or inside the
// in-memory idat payload (method 1). Both are read through one small cursor,
// so every path bounds its reads the same way and a read past the data
// comes back short instead of touching memory outside it.

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "common/log.h"
#include "reader/internal.h"
#include "tarn/reader.h"

using namespace tarnd;

namespace {

constexpr const char kTag[] = "tarnd";
constexpr uint32_t kFccDimg = TARND_FCC('d', 'i', 'm', 'g');
constexpr uint32_t kMethodFile = 0;
constexpr uint32_t kMethodIdat = 1;
// Exif item data opens with a 4-byte offset to the TIFF header, which is
// not part of the bytes handed out.
constexpr uint64_t kExifHeaderOffsetSize = 4;
// tmap item data opens with a version byte.
constexpr uint64_t kTonemapVersionSize = 1;
constexpr uint32_t kCacheExif = 2;
constexpr uint32_t kCacheMime = 3;
constexpr uint32_t kCacheTonemap = 5;
// ImageGrid: version, flags, rows - 1, columns - 1, then two sizes of 16 or
// 32 bits.
constexpr uint64_t kGridHeaderSize = 4;
constexpr uint64_t kGridSize16 = 8;
constexpr uint64_t kGridSize32 = 12;
constexpr uint8_t kGridFlagLargeSizes = 0x1;
constexpr uint32_t kStartCodeSize = 4;
constexpr uint8_t kStartCode[kStartCodeSize] = {0, 0, 0, 1};
constexpr uint32_t kMaxNalLengthSize = 4;

tarnd_ctx *context_of(void *handle) {
  if (handle == nullptr) return nullptr;
  uint32_t magic;
  memcpy(&magic, handle, sizeof(magic));
  return magic == TARND_MAGIC ? static_cast<tarnd_ctx *>(handle) : nullptr;
}

tarnd_item *find_item(tarnd_ctx *ctx, int32_t item_id, const char *caller) {
  uint32_t index = 0;
  const uint32_t id = static_cast<uint32_t>(item_id);
  if (tarnd_find_itemIndex(ctx->meta.items, ctx->meta.item_cnt, id, &index) != 0) {
    TARN_LOGW(kTag, "%s : valid index for item(%d) could not be found", caller, item_id);
    return nullptr;
  }
  return &ctx->meta.items[index];
}

uint32_t ref_count(const tarnd_item &item) {
  return item.referece_from_cnt < TARND_MAX_REFS ? item.referece_from_cnt : TARND_MAX_REFS;
}

// Item data in a location the reader cannot serve is refused, never
// answered with a record nothing filled.
bool location_supported(const tarnd_item &item, int32_t item_id, const char *caller) {
  if (item.construction_method == kMethodFile || item.construction_method == kMethodIdat) {
    return true;
  }
  TARN_LOGW(kTag, "%s : data location(%u) of item(%d) is not supported", caller, item.construction_method,
            item_id);
  return false;
}

// A read cursor over one item's data, in the file or inside idat. An item
// kept with several extents (tolerant reading) reads as their
// concatenation: positions count from the start of the first extent's data,
// and each extent is checked against the data on its own.
struct ItemReader {
  const tarnd_io_dsc *io;
  void *handle;
  bool in_idat;
  const uint8_t *idat;  // null when the file has no idat: every read fails
  uint64_t idat_size;
  uint64_t pos;  // inside idat
  const tarnd_extent *extents;  // null for an item with one extent
  uint32_t extent_cnt;
  uint32_t extent;     // current extent
  uint64_t in_extent;  // position inside it
};

ItemReader item_reader(tarnd_ctx *ctx, const tarnd_item &item) {
  ItemReader r = {&ctx->io, ctx->handle, item.construction_method == kMethodIdat, nullptr, 0, 0,
                  item.extents, item.extents != nullptr ? item.extent_cnt : 0, 0, 0};
  if (r.in_idat && ctx->meta.idat != nullptr) {
    r.idat = ctx->meta.idat;
    r.idat_size = ctx->meta.idat_size;
  }
  return r;
}

bool source_seek(ItemReader *r, uint64_t position) {
  if (!r->in_idat) return seek_to(r->io, r->handle, position);
  if (position > r->idat_size) return false;
  r->pos = position;
  return true;
}

bool source_read(ItemReader *r, void *buf, uint32_t n) {
  if (!r->in_idat) return read_bytes(r->io, r->handle, buf, n);
  if (n > r->idat_size - r->pos) return false;
  if (n != 0) memcpy(buf, r->idat + static_cast<size_t>(r->pos), n);
  r->pos += n;
  return true;
}

bool source_skip(ItemReader *r, uint64_t n) {
  if (!r->in_idat) return skip_by(r->io, r->handle, n);
  if (n > r->idat_size - r->pos) return false;
  r->pos += n;
  return true;
}

// Positions the source at the cursor's place in the current extent.
bool enter_extent(ItemReader *r) {
  const tarnd_extent &e = r->extents[r->extent];
  if (r->in_extent > UINT64_MAX - e.offset) return false;
  return source_seek(r, e.offset + r->in_extent);
}

// Moves the extent cursor n bytes on (buf non-null: reading them into buf).
bool extents_advance(ItemReader *r, uint8_t *buf, uint64_t n) {
  while (n != 0) {
    if (r->extent >= r->extent_cnt) return false;
    const tarnd_extent &e = r->extents[r->extent];
    const uint64_t avail = e.length - r->in_extent;
    if (avail == 0) {
      ++r->extent;
      r->in_extent = 0;
      if (r->extent < r->extent_cnt && !enter_extent(r)) return false;
      continue;
    }
    const uint64_t take = n < avail ? n : avail;
    const bool ok = buf != nullptr ? source_read(r, buf, static_cast<uint32_t>(take)) : source_skip(r, take);
    if (!ok) return false;
    if (buf != nullptr) buf += take;
    r->in_extent += take;
    n -= take;
  }
  return true;
}

// Moves to offset + skip of the item's location; false when that lies
// outside the data (a failed seek).
bool reader_seek(ItemReader *r, uint64_t offset, uint64_t skip) {
  if (r->extents != nullptr) {
    r->extent = 0;
    r->in_extent = 0;
    if (!enter_extent(r)) return false;
    return extents_advance(r, nullptr, skip);
  }
  if (skip > UINT64_MAX - offset) return false;
  return source_seek(r, offset + skip);
}

bool reader_read(ItemReader *r, void *buf, uint32_t n) {
  if (r->extents != nullptr) return extents_advance(r, static_cast<uint8_t *>(buf), n);
  return source_read(r, buf, n);
}

bool reader_skip(ItemReader *r, uint64_t n) {
  if (r->extents != nullptr) return extents_advance(r, nullptr, n);
  return source_skip(r, n);
}

// True when n bytes lie between start and the end of the data.
bool source_has(const ItemReader &r, uint64_t start, uint64_t n) {
  uint64_t size = r.idat_size;
  if (!r.in_idat && !source_size(r.io, r.handle, &size)) return false;
  return start <= size && n <= size - start;
}

// True when n bytes can follow the current position, so that a copy is
// never allocated for data the source does not hold.
bool reader_has(const ItemReader &r, uint64_t n) {
  if (r.extents != nullptr) {
    // Every extent still to come must lie inside the data.
    uint64_t held = 0;
    for (uint32_t e = r.extent; e < r.extent_cnt && held < n; ++e) {
      const uint64_t from = e == r.extent ? r.in_extent : 0;
      const tarnd_extent &x = r.extents[e];
      if (from > x.length || from > UINT64_MAX - x.offset || !source_has(r, x.offset + from, x.length - from)) {
        return false;
      }
      held += x.length - from;
    }
    return held >= n;
  }
  if (r.in_idat) return n <= r.idat_size - r.pos;
  uint64_t pos = 0;
  if (!tell_pos(r.io, r.handle, &pos)) return false;
  return source_has(r, pos, n);
}

// Reads n bytes of item data into a new allocation.
// Returns 0, -5 (no memory) or -6 (the data is not all there).
int32_t read_copy(ItemReader *r, uint64_t n, uint8_t **out) {
  // Reads are counted in 32 bits, which also fits size_t on 32-bit targets.
  if (n > UINT32_MAX || !reader_has(*r, n)) return -6;
  uint8_t *copy = static_cast<uint8_t *>(malloc(static_cast<size_t>(n)));
  if (copy == nullptr) return -5;
  if (!reader_read(r, copy, static_cast<uint32_t>(n))) {
    free(copy);
    return -6;
  }
  *out = copy;
  return 0;
}

// ---- grid layout ----

int32_t grid_size_invalid(uint64_t size) {
  TARN_LOGW(kTag, "%s : grid data size is invalid(%llu)", "tarnd_get_info_item",
            static_cast<unsigned long long>(size));
  return -2;
}

int32_t info_grid(tarnd_ctx *ctx, const tarnd_item &item, int32_t item_id, tarnd_grid_info *out) {
  if (item.item_type != kFccGrid) {
    TARN_LOGW(kTag, "%d item is not grid", item_id);
    return -1;
  }
  out->rows = 0;
  out->columns = 0;
  out->output_width = item.view.grid.ispe_width;
  out->output_height = item.view.grid.ispe_height;
  out->rotation = item.view.grid.irot_angle;
  if (!location_supported(item, item_id, "tarnd_get_info_item")) return -2;

  // The layout needs at most the first 12 bytes; those are all that is
  // copied, whatever length the file claims.
  uint8_t data[kGridSize32] = {0};
  uint64_t size = 0;
  if (item.extents != nullptr) {
    ItemReader r = item_reader(ctx, item);
    size = item.length;
    const uint32_t head = size < kGridSize32 ? static_cast<uint32_t>(size) : kGridSize32;
    if (!reader_seek(&r, item.offset, 0)) return -1;
    if (!reader_has(r, size) || !reader_read(&r, data, head)) return -6;
  } else if (item.construction_method == kMethodFile) {
    if (!seek_to(&ctx->io, ctx->handle, item.offset)) return -1;
    size = item.length;
    const uint32_t head = size < kGridSize32 ? static_cast<uint32_t>(size) : kGridSize32;
    if (!read_bytes(&ctx->io, ctx->handle, data, head)) return -6;
    // The rest must still be there, as for any item whose data is read.
    if (size > head && !skip_by(&ctx->io, ctx->handle, size - head)) return -6;
  } else {
    if (ctx->meta.idat == nullptr || item.offset >= ctx->meta.idat_size) {
      TARN_LOGW(kTag, "%s : grid data is abnormal", "tarnd_get_info_item");
      return -2;
    }
    // The layout runs to the end of idat, whatever the item's length says.
    size = ctx->meta.idat_size - item.offset;
    const size_t head = size < kGridSize32 ? static_cast<size_t>(size) : kGridSize32;
    memcpy(data, ctx->meta.idat + static_cast<size_t>(item.offset), head);
  }

  if (size < kGridHeaderSize) return grid_size_invalid(size);
  out->rows = data[2] + 1u;
  out->columns = data[3] + 1u;
  if (data[1] & kGridFlagLargeSizes) {
    if (size < kGridSize32) return grid_size_invalid(size);
    out->output_width = be32_load(data + 4);
    out->output_height = be32_load(data + 8);
  } else {
    if (size < kGridSize16) return grid_size_invalid(size);
    out->output_width = be16_load(data + 4);
    out->output_height = be16_load(data + 6);
  }
  return 0;
}

// ---- Exif and XMP ----

bool refers_to(const tarnd_item &item, uint32_t target) {
  for (uint32_t r = 0; r < ref_count(item); ++r) {
    if (item.ref_to_ids[r] == nullptr) continue;
    for (uint32_t k = 0; k < item.ref_to_cnt[r]; ++k) {
      if (item.ref_to_ids[r][k] == target) return true;
    }
  }
  return false;
}

void set_cached(tarnd_item *meta, uint32_t state, uint8_t *data, uint64_t size, tarnd_item_data *out) {
  meta->view.meta.cache_state = state;
  meta->view.meta.cache_data = data;
  meta->view.meta.cache_size = size;
  out->data = data;
  out->size = static_cast<uint32_t>(size);
}

int32_t info_metadata(tarnd_ctx *ctx, int32_t item_id, bool exif, tarnd_item_data *out) {
  const uint32_t type = exif ? kFccExif : kFccMime;
  const uint32_t cached = exif ? kCacheExif : kCacheMime;
  tarnd_item *meta = nullptr;
  for (uint32_t i = 0; i < ctx->meta.item_cnt && meta == nullptr; ++i) {
    tarnd_item &candidate = ctx->meta.items[i];
    if (candidate.item_type == type && refers_to(candidate, static_cast<uint32_t>(item_id))) {
      meta = &candidate;
    }
  }
  if (meta == nullptr) return 0;

  tarnd_item_cache &cache = meta->view.meta;
  if (cache.cache_state == cached) {
    out->data = cache.cache_data;
    out->size = static_cast<uint32_t>(cache.cache_size);
    return 0;
  }
  uint64_t size = 0;
  if (exif) {
    if (meta->length <= kExifHeaderOffsetSize) {
      out->size = 0;
      cache.cache_state = cached;
      cache.cache_size = 0;
      return 0;
    }
    size = meta->length - kExifHeaderOffsetSize;
  } else {
    size = meta->length & UINT32_MAX;
    if (size == 0) {
      out->size = 0;
      cache.cache_state = cached;
      cache.cache_size = 0;
      return 0;
    }
  }
  if (!location_supported(*meta, meta->item_id, "tarnd_get_info_item")) return -2;
  ItemReader r = item_reader(ctx, *meta);
  if (!reader_seek(&r, meta->offset, exif ? kExifHeaderOffsetSize : 0)) return -1;
  uint8_t *copy = nullptr;
  const int32_t status = read_copy(&r, size, &copy);
  if (status != 0) return status;
  free(cache.cache_data);  // only a cache that was never marked can hold one
  set_cached(meta, cached, copy, size, out);
  return 0;
}

// ---- tone map ----

int32_t tonemap_abnormal() {
  TARN_LOGW(kTag, "%s : Tonemap metadata is abnormal", "tarnd_get_info_item");
  return -2;
}

int32_t info_tonemap(tarnd_ctx *ctx, tarnd_item *item, int32_t item_id, tarnd_item_data *out) {
  if (item->item_type != kFccTmap) return 0;
  tarnd_item_cache &cache = item->view.meta;
  cache.cache_state = kCacheTonemap;
  if (item->length < kTonemapVersionSize + 1) {
    TARN_LOGW(kTag, "Tonemap metadata size is zero");
    out->size = 0;
    return -2;
  }
  const uint64_t size = item->length - kTonemapVersionSize;
  if (cache.cache_data != nullptr) {
    out->data = cache.cache_data;
    out->size = static_cast<uint32_t>(cache.cache_size);
    return 0;
  }
  if (!location_supported(*item, item_id, "tarnd_get_info_item")) return -2;
  if (item->construction_method == kMethodIdat && item->extents == nullptr) {
    // Subtraction form: offset + 1 + size must not pass the end of idat.
    if (ctx->meta.idat == nullptr || size > ctx->meta.idat_size ||
        item->offset >= ctx->meta.idat_size - size || size > UINT32_MAX) {
      return tonemap_abnormal();
    }
  }
  ItemReader r = item_reader(ctx, *item);
  if (!reader_seek(&r, item->offset, kTonemapVersionSize)) return -1;
  uint8_t *copy = nullptr;
  const int32_t status = read_copy(&r, size, &copy);
  if (status != 0) return status;
  set_cached(item, kCacheTonemap, copy, size, out);
  return 0;
}

// ---- frames ----

// Writes the status's out_size and hands the status back.
int32_t frame_result(int32_t *out_size, int32_t size, int32_t status) {
  *out_size = size;
  return status;
}

// Copies a frame whose data needs no conversion (jpeg, or HEVC without a
// known length-prefix width). A buffer that is too small is not an error:
// the caller learns the size it needs.
int32_t copy_plain(ItemReader *r, uint8_t *buf, int32_t buf_size, int32_t n, int32_t *out_size) {
  if (buf == nullptr) return frame_result(out_size, n, 0);
  if (buf_size >= n) {
    if (!reader_read(r, buf, static_cast<uint32_t>(n))) return frame_result(out_size, 0, -6);
    return frame_result(out_size, n, 0);
  }
  if (!reader_skip(r, static_cast<uint32_t>(n))) return frame_result(out_size, 0, -6);
  TARN_LOGW(kTag, "Warning! TOOSMALLBUF: buffer %d bytes, frame size %d bytes", buf_size, n);
  return frame_result(out_size, n, 0);
}

// Rewrites length-prefixed NAL units into start-code form. The output of a
// unit is 4 + its length whatever the prefix width, so the size is only
// known after walking every prefix; a measuring call (no buffer) walks them
// with skips.
int32_t copy_start_codes(ItemReader *r, uint32_t prefix_size, uint8_t *buf, int32_t buf_size, int32_t n,
                         int32_t *out_size) {
  const bool bounded = buf != nullptr || buf_size >= 1;
  const int64_t bound = buf_size;
  int64_t written = 0;
  int64_t remaining = n;
  for (;;) {
    if (bounded && written + kStartCodeSize > bound) return frame_result(out_size, 0, -4);
    if (buf != nullptr) memcpy(buf + written, kStartCode, kStartCodeSize);
    uint8_t prefix[kMaxNalLengthSize];
    if (!reader_read(r, prefix, prefix_size)) return frame_result(out_size, 0, -6);
    remaining -= prefix_size;
    if (remaining < 1) return frame_result(out_size, 0, -3);
    uint32_t nal_size = 0;
    for (uint32_t k = 0; k < prefix_size; ++k) nal_size = nal_size << 8 | prefix[k];
    written += kStartCodeSize;
    // A unit that claims more than the item holds is cut at the item's end.
    const int64_t chunk = nal_size < static_cast<uint64_t>(remaining) ? nal_size : remaining;
    if (bounded && written + chunk > bound) return frame_result(out_size, 0, -4);
    if (buf != nullptr) {
      if (!reader_read(r, buf + written, static_cast<uint32_t>(chunk))) {
        return frame_result(out_size, 0, -6);
      }
    } else if (nal_size != 0 && !reader_skip(r, static_cast<uint64_t>(chunk))) {
      return frame_result(out_size, 0, -6);
    }
    remaining -= chunk;
    written += chunk;
    if (remaining < 1) {
      // written never passes a non-negative int32 bound, and unbounded it
      // is at most n plus 3 bytes per prefix byte.
      if (written > INT32_MAX) return frame_result(out_size, 0, -4);
      return frame_result(out_size, static_cast<int32_t>(written), 0);
    }
  }
}

// Width of the item's NAL length prefixes, 0 for data copied as it stands.
uint32_t nal_prefix_size(const tarnd_ctx *ctx, const tarnd_item &item) {
  if (item.item_type != kFccHvc1 || ctx->meta.properties == nullptr) return 0;
  const int32_t index = item.view.image.hvcC_index;
  if (index < 0 || static_cast<uint32_t>(index) >= ctx->meta.property_cnt) return 0;
  return ctx->meta.properties[index].payload.hvcC.nal_length_size;
}

}  // namespace

extern "C" {

int32_t tarnd_get_info_item(void *handle, int32_t item_id, uint32_t kind, void *out) {
  tarnd_ctx *ctx = context_of(handle);
  if (ctx == nullptr || out == nullptr) return -1;
  tarnd_item *item = find_item(ctx, item_id, "tarnd_get_info_item");
  if (item == nullptr) return -1;
  switch (kind) {
    case TARND_INFO_GRID:
      return info_grid(ctx, *item, item_id, static_cast<tarnd_grid_info *>(out));
    case TARND_INFO_EXIF:
      return info_metadata(ctx, item_id, true, static_cast<tarnd_item_data *>(out));
    case TARND_INFO_XMP:
      return info_metadata(ctx, item_id, false, static_cast<tarnd_item_data *>(out));
    case TARND_INFO_TONEMAP:
      return info_tonemap(ctx, item, item_id, static_cast<tarnd_item_data *>(out));
    default:
      return -2;
  }
}

int32_t tarnd_get_image_frm(void *handle, int32_t item_id, uint8_t *buf, int32_t buf_size,
                            int32_t *out_size) {
  tarnd_ctx *ctx = context_of(handle);
  if (ctx == nullptr || out_size == nullptr) return -1;
  const tarnd_item *item = find_item(ctx, item_id, "tarnd_get_image_frm");
  if (item == nullptr) {
    *out_size = 0;
    return -1;
  }
  if (item->item_type != kFccHvc1 && item->item_type != kFccJpeg) return -1;
  const uint32_t prefix_size = nal_prefix_size(ctx, *item);
  if (prefix_size > kMaxNalLengthSize || !location_supported(*item, item_id, "tarnd_get_image_frm")) {
    *out_size = 0;
    return -2;
  }
  ItemReader r = item_reader(ctx, *item);
  if (!reader_seek(&r, item->offset, 0)) return -1;
  // Frames are addressed with 32-bit sizes: the low 32 bits of the length.
  const int32_t n = static_cast<int32_t>(static_cast<uint32_t>(item->length & UINT32_MAX));
  if (n < 1) return 0;
  if (prefix_size == 0) return copy_plain(&r, buf, buf_size, n, out_size);
  return copy_start_codes(&r, prefix_size, buf, buf_size, n, out_size);
}

int32_t tarnd_get_list_referenceto(void *handle, int32_t item_id, uint32_t *out_ids, uint32_t count) {
  tarnd_ctx *ctx = context_of(handle);
  if (ctx == nullptr || out_ids == nullptr) return -1;
  const tarnd_item *item = find_item(ctx, item_id, "tarnd_get_list_referenceto");
  if (item == nullptr) return -1;
  if (item->referece_from_cnt == 0) {
    TARN_LOGW(kTag, "%s : item reference info is abnormal", "tarnd_get_list_referenceto");
    return -1;
  }
  for (uint32_t r = 0; r < ref_count(*item); ++r) {
    if (item->ref_type[r] != kFccDimg) continue;
    const uint32_t n = count < item->ref_to_cnt[r] ? count : item->ref_to_cnt[r];
    for (uint32_t k = 0; k < n && item->ref_to_ids[r] != nullptr; ++k) {
      out_ids[k] = item->ref_to_ids[r][k];
    }
    return 0;
  }
  return 0;
}

}  // extern "C"
