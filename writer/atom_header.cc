// Box headers, the two box-size functions, ftyp and the mdat header. One
// rule decides between the 8-byte header and the 16-byte largesize form in
// every size computation: the 16-byte form is used exactly when the box
// written (header, version and flags, payload) would exceed 0xFFFFFFFF, so
// computed sizes always equal written sizes.
#include <string.h>

#include "common/log.h"
#include "writer/internal.h"

static const char kTag[] = "tarnm_atom";

static const uint64_t kMax32 = 0xFFFFFFFFu;
static const uint32_t kBoxHeaderSize = 8;
static const uint32_t kLargeHeaderSize = 16;
static const uint32_t kFullBoxExtra = 4;
static const uint32_t kMaxBrands = 8;

// heic, minor version 0, compatible mif1 and heic.
static const uint8_t atom_ftyp_default[24] = {
    0x00, 0x00, 0x00, 0x18, 'f', 't', 'y', 'p', 'h', 'e', 'i', 'c',
    0x00, 0x00, 0x00, 0x00, 'm', 'i', 'f', '1', 'h', 'e', 'i', 'c'};

static bool has_room(const tarnm_state *state, uint32_t len) {
  return state->remaining >= 0 && len <= static_cast<uint32_t>(state->remaining);
}

static void advance(tarnm_state *state, uint32_t len) {
  state->write_ptr += len;
  state->remaining -= static_cast<int32_t>(len);
}

static void put_u32(uint8_t *p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
}

// Total box size for a payload; body includes version and flags.
static uint64_t box_total(uint64_t payload, bool full_box) {
  const uint64_t body = payload + (full_box ? kFullBoxExtra : 0);
  if (body > kMax32 - kBoxHeaderSize) return body + kLargeHeaderSize;
  return body + kBoxHeaderSize;
}

extern "C" {

uint64_t tarnm_atom_size(uint64_t payload) { return box_total(payload, false); }

uint64_t tarnm_atomf_size(uint64_t payload) { return box_total(payload, true); }

int32_t tarnm_atom_header(tarnm_state *state, uint32_t fcc, uint64_t payload, int32_t full_box,
                          uint8_t version, const uint8_t *flags) {
  if (!state) return -1;
  const uint64_t total = box_total(payload, full_box != 0);
  const bool large = total > kMax32;
  if (!has_room(state, kBoxHeaderSize)) return -4;
  put_u32(state->write_ptr, large ? 1u : static_cast<uint32_t>(total));
  memcpy(state->write_ptr + 4, &fcc, 4);
  advance(state, kBoxHeaderSize);
  if (large) {
    if (!has_room(state, 8)) return -4;
    put_u32(state->write_ptr, static_cast<uint32_t>(total >> 32));
    put_u32(state->write_ptr + 4, static_cast<uint32_t>(total));
    advance(state, 8);
  }
  if (full_box) {
    if (!has_room(state, kFullBoxExtra)) return -4;
    state->write_ptr[0] = version;
    if (flags)
      memcpy(state->write_ptr + 1, flags, 3);
    else
      memset(state->write_ptr + 1, 0, 3);
    advance(state, kFullBoxExtra);
  }
  return 0;
}

int32_t tarnm_atom_ftyp(tarnm_state *state, const tarnm_init_dsc *init_dsc) {
  if (!state) return -1;
  if (!init_dsc) {
    TARN_LOGE(kTag, "invalid argument, init_dsc is NULL");
    return -1;
  }
  uint32_t size = sizeof atom_ftyp_default;
  if (!init_dsc->use_custom_brands) {
    if (!has_room(state, size)) return -4;
    memcpy(state->write_ptr, atom_ftyp_default, size);
  } else {
    const uint32_t brands = init_dsc->compatible_brand_count;
    if (brands > kMaxBrands) {
      TARN_LOGW(kTag, "too many compatible brands(%u)", brands);
      return -1;
    }
    size = 16 + 4 * brands;
    if (!has_room(state, size)) return -4;
    uint8_t *p = state->write_ptr;
    put_u32(p, size);
    memcpy(p + 4, "ftyp", 4);
    // Brands and minor version are stored in file byte order by the caller.
    memcpy(p + 8, &init_dsc->major_brand, 4);
    memcpy(p + 12, &init_dsc->minor_version, 4);
    if (brands) memcpy(p + 16, init_dsc->compatible_brands, 4 * brands);
  }
  state->max_image_size += size;
  advance(state, size);
  return 0;
}

int32_t tarnm_atom_mdat(tarnm_state *state, uint64_t payload) {
  return tarnm_atom_header(state, TARN_FCC('m', 'd', 'a', 't'), payload, 0, 0, nullptr) == 0 ? 0
                                                                                             : -1;
}

}  // extern "C"
