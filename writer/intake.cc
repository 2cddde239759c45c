// Frame and metadata intake: coded pictures and item data go straight into
// the mdat payload of the heap, and each gets its location entry.

#include "writer/intake.h"

#include <stddef.h>
#include <string.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "common/log.h"

namespace {

const char kTag[] = "tarnm";
constexpr uint32_t kStartCodeSize = 4;
constexpr uint32_t kGridRecordSize = 8;
constexpr uint16_t kMethodFile = 0;
constexpr uint16_t kMethodIdat = 1;

void put_be32(uint8_t *p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
}

uint16_t item_id_of(const uint8_t *iloc_element) {
  return static_cast<uint16_t>(iloc_element[0] << 8 | iloc_element[1]);
}

// Frames are copied in blocks of 64 bytes, and only the zero bytes of a
// block are looked at as possible start codes: coded slice data holds few
// of them.
constexpr uint32_t kScanBlock = 64;

#if defined(__SSE2__)
// Copies one block to dst and returns its zero bytes (bit k set when byte k
// is zero). Each byte is loaded once for both jobs, and a block without a
// zero byte costs a single mask test.
uint64_t copy_block(uint8_t *dst, const uint8_t *src) {
  const __m128i zero = _mm_setzero_si128();
  __m128i v[kScanBlock / 16];
  __m128i z[kScanBlock / 16];
  for (uint32_t k = 0; k < kScanBlock / 16; ++k) {
    v[k] = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + 16 * k));
    _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + 16 * k), v[k]);
    z[k] = _mm_cmpeq_epi8(v[k], zero);
  }
  const __m128i any = _mm_or_si128(_mm_or_si128(z[0], z[1]), _mm_or_si128(z[2], z[3]));
  if (_mm_movemask_epi8(any) == 0) return 0;
  uint64_t mask = 0;
  for (uint32_t k = 0; k < kScanBlock / 16; ++k) {
    mask |= static_cast<uint64_t>(static_cast<uint32_t>(_mm_movemask_epi8(z[k]))) << (16 * k);
  }
  return mask;
}
#else
uint64_t copy_block(uint8_t *dst, const uint8_t *src) {
  memcpy(dst, src, kScanBlock);
  // The minimum is a loop the compiler vectorises; most blocks stop there.
  uint8_t low = 0xFF;
  for (uint32_t k = 0; k < kScanBlock; ++k) low = src[k] < low ? src[k] : low;
  if (low != 0) return 0;
  uint64_t mask = 0;
  for (uint32_t k = 0; k < kScanBlock; ++k) mask |= static_cast<uint64_t>(src[k] == 0) << k;
  return mask;
}
#endif

// Turns start codes into lengths while the data is copied.
class Converter {
 public:
  Converter(uint8_t *dst, const uint8_t *src, uint32_t size) : dst_(dst), src_(src), size_(size) {}

  // Start codes beginning at the zero bytes of the block at offset block,
  // which is already copied.
  void scan_block(uint32_t block, uint64_t zeros) {
    while (zeros != 0 && converting_) {
      check(block + static_cast<uint32_t>(__builtin_ctzll(zeros)));
      zeros &= zeros - 1;
    }
  }

  // Start codes beginning in src[from, to); the bytes up to to are copied.
  void scan(uint32_t from, uint32_t to) {
    for (uint32_t s = from; s < to && converting_; ++s) check(s);
  }

  // The last unit runs to the end of the data.
  void finish() {
    if (converting_ && size_ - current_ > kStartCodeSize) {
      put_be32(dst_ + current_, size_ - current_ - kStartCodeSize);
    }
  }

 private:
  // Position 0 is the first unit's own start code, whatever it holds.
  void check(uint32_t s) {
    if (s == 0 || size_ - s < kStartCodeSize) return;
    if (src_[s] == 0 && src_[s + 1] == 0 && src_[s + 2] == 0 && src_[s + 3] == 1) next_unit(s);
  }

  // The unit at current_ ends where the next start code begins; an empty
  // unit means this is not a stream of start codes and conversion stops.
  void next_unit(uint32_t end) {
    if (end - current_ <= kStartCodeSize) {
      converting_ = false;
      return;
    }
    put_be32(dst_ + current_, end - current_ - kStartCodeSize);
    current_ = end;
  }

  uint8_t *dst_;
  const uint8_t *src_;
  uint32_t size_;
  uint32_t current_ = 0;
  bool converting_ = true;
};

// Copies a frame while turning each 4-byte start code into the length of the
// NAL unit behind it, in one forward pass. The first 4 bytes are taken as
// the first unit's start code. 3-byte start codes stay inside the unit
// before them.
void copy_converting(uint8_t *dst, const uint8_t *src, uint32_t size) {
  Converter conv(dst, src, size);
  uint32_t i = 0;
  for (; size - i >= kScanBlock; i += kScanBlock) {
    const uint64_t zeros = copy_block(dst + i, src + i);
    // A start code begins with three zero bytes: keep the zeros followed by
    // two more, and those of the block's last two bytes, whose followers are
    // in the next block. Lone zeros and the 00 00 03 of emulation prevention,
    // the kinds coded data holds, are never looked at.
    const uint64_t last_one = uint64_t{1} << (kScanBlock - 1);
    const uint64_t last_two = uint64_t{3} << (kScanBlock - 2);
    const uint64_t runs = zeros & ((zeros >> 1) | last_one) & ((zeros >> 2) | last_two);
    if (runs != 0) conv.scan_block(i, runs);
  }
  memcpy(dst + i, src + i, size - i);
  conv.scan(i, size);
  conv.finish();
}

bool starts_with_start_code(const uint8_t *data, uint32_t size) {
  return size > kStartCodeSize && data[0] == 0 && data[1] == 0 && data[2] == 0 && data[3] == 1;
}

}  // namespace

int32_t tarnm_reserve(tarnm_state *state, uint32_t size, const char *name) {
  if (state->remaining >= 0 && static_cast<uint32_t>(state->remaining) >= size) return 0;
  if (state->delivered_buffer != 1) {
    const int32_t rc = tarnm_reallocate_image_buffer(state);
    if (rc != 0) return rc;
    if (state->remaining >= 0 && static_cast<uint32_t>(state->remaining) >= size) return 0;
  }
  TARN_LOGW(kTag, "%s : buffer size is insufficient. buffer size : %d, required size : %d", name,
            state->remaining, static_cast<int32_t>(size));
  return -4;
}

int32_t tarnm_add_iloc_entry(tarnm_state *state, uint32_t item_id, uint16_t method,
                             uint32_t offset, uint32_t length) {
  // Item id, method and data reference index are stored in file order now;
  // the extent fields are turned when the iloc box is written.
  uint8_t entry[TARNM_ILOC_ELEM_SIZE];
  memset(entry, 0, sizeof entry);
  entry[0] = static_cast<uint8_t>(item_id >> 8);
  entry[1] = static_cast<uint8_t>(item_id);
  entry[2] = static_cast<uint8_t>(method >> 8);
  entry[3] = static_cast<uint8_t>(method);
  const uint16_t extent_count = 1;
  memcpy(entry + offsetof(tarnm_iloc_entry, extent_count), &extent_count, sizeof extent_count);
  memcpy(entry + offsetof(tarnm_iloc_entry, extent_offset), &offset, sizeof offset);
  memcpy(entry + offsetof(tarnm_iloc_entry, extent_length), &length, sizeof length);
  return tarn_mblk_elem_add(&state->iloc_list, entry) == 0 ? 0 : -5;
}

bool tarnm_has_iloc_entry(tarnm_state *state, uint32_t item_id) {
  tarn_mblk_iter it;
  for (const uint8_t *e = static_cast<const uint8_t *>(tarn_mblk_elem_first(&state->iloc_list, &it));
       e != nullptr; e = static_cast<const uint8_t *>(tarn_mblk_elem_next(&state->iloc_list, &it))) {
    if (item_id_of(e) == (item_id & 0xFFFF)) return true;
  }
  return false;
}

uint32_t tarnm_idat_offset_of(const tarnm_state *state, int32_t index) {
  uint32_t offset = 0;
  for (int32_t i = 0; i < index && i < state->item_data_count; ++i) {
    const tarnm_item_data &d = state->item_data[i];
    offset += d.kind == TARNM_ITEM_DATA_GRID ? kGridRecordSize : d.size;
  }
  return offset;
}

int32_t tarnm_add_grid_location(tarnm_state *state, int32_t index) {
  const tarnm_grid_info *grid = static_cast<const tarnm_grid_info *>(state->item_data[index].data);
  return tarnm_add_iloc_entry(state, grid->grid_item_id, kMethodIdat,
                              tarnm_idat_offset_of(state, index), kGridRecordSize);
}

int32_t tarn_chunk_dump(tarnm_state *state, const uint8_t *data, int32_t size, int32_t raw) {
  if (state == nullptr || data == nullptr || size < 1) return -1;
  const uint32_t length = static_cast<uint32_t>(size);
  const int32_t rc = tarnm_reserve(state, length, "tarn_chunk_dump");
  if (rc != 0) return rc;
  if (raw) {
    memcpy(state->write_ptr, data, length);
  } else {
    copy_converting(state->write_ptr, data, length);
  }
  state->write_ptr += length;
  state->remaining -= size;
  state->mdat_size += length;
  return 0;
}

extern "C" {

int32_t tarnm_put_frm(tarnm_ctx *handle, uint32_t item_id, const uint8_t *data, uint32_t size) {
  if (handle == nullptr || data == nullptr || size == 0 || size > TARNM_MAX_CHUNK_SIZE) {
    TARN_LOGW(kTag, "invalid frame of item %u. size : %u", item_id, size);
    return -1;
  }
  if (!starts_with_start_code(data, size)) {
    TARN_LOGW(kTag, "frame of item %u does not start with a start code", item_id);
    return -1;
  }
  tarnm_state *state = &handle->state;
  // A grid's data is its record in idat; a frame under its id would give the
  // grid a second location.
  for (int32_t i = 0; i < state->item_data_count; ++i) {
    const tarnm_item_data &d = state->item_data[i];
    if (d.kind == TARNM_ITEM_DATA_GRID &&
        static_cast<const tarnm_grid_info *>(d.data)->grid_item_id == item_id) {
      TARN_LOGW(kTag, "item %u is a grid and takes no frame", item_id);
      return -1;
    }
  }
  // Room first, so that a refused frame leaves no location entry behind.
  int32_t rc = tarnm_reserve(state, size, "tarn_chunk_dump");
  if (rc != 0) return rc;
  const uint32_t offset = static_cast<uint32_t>(state->write_ptr - state->heap);
  if (tarnm_add_iloc_entry(state, item_id, kMethodFile, offset, size) != 0) return -5;
  for (int32_t i = 0; i < state->item_data_count; ++i) {
    const tarnm_item_data &d = state->item_data[i];
    if (d.kind != TARNM_ITEM_DATA_GRID) continue;
    const tarnm_grid_info *grid = static_cast<const tarnm_grid_info *>(d.data);
    if (grid->last_tile_id == item_id && !tarnm_has_iloc_entry(state, grid->grid_item_id) &&
        tarnm_add_grid_location(state, i) != 0) {
      return -5;
    }
  }
  return tarn_chunk_dump(state, data, static_cast<int32_t>(size), 0);
}

int32_t tarnm_put_metadata(tarnm_ctx *handle, uint32_t item_id, const uint8_t *data, uint32_t size,
                           uint32_t *offset) {
  if (size == 0) {
    TARN_LOGE(kTag, "metadata size is zero");
    return -1;
  }
  if (handle == nullptr || data == nullptr || size > TARNM_MAX_CHUNK_SIZE) return -1;
  tarnm_state *state = &handle->state;
  int32_t rc = tarnm_reserve(state, size, "tarn_chunk_dump");
  if (rc != 0) return rc;
  const uint32_t at = static_cast<uint32_t>(state->write_ptr - state->heap);
  if (tarnm_add_iloc_entry(state, item_id, kMethodFile, at, size) != 0) return -5;
  if (offset != nullptr) *offset = at;
  return tarn_chunk_dump(state, data, static_cast<int32_t>(size), 1);
}

int32_t tarnm_get_metadata_offset(tarnm_ctx *handle, int32_t img_id, uint32_t type,
                                  uint32_t *offset) {
  if (handle == nullptr || offset == nullptr) return -1;
  const tarnm_state *state = &handle->state;
  for (int32_t i = 0; i < state->metadata_count; ++i) {
    const tarnm_metadata_entry &e = state->metadata[i];
    if (e.type == type && e.item_id == static_cast<uint32_t>(img_id)) {
      *offset = e.offset;
      return 0;
    }
  }
  TARN_LOGI(kTag, "%d image has no %s metadata", img_id, type != 0 ? "XMP" : "EXIF");
  return -1;
}

}  // extern "C"
