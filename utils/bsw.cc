// Little-endian bit reader (on the omni_bsr record) and the big-endian bit
// writer.
#include "tarn/utils.h"

namespace {

// An empty buffer points cur one past end so that "is there room" is a plain
// pointer comparison, without forming a pointer before a caller's buffer.
uint8_t kNoRoom[2];  // never written: cur is always past end

inline uint32_t low_bits(uint32_t v, int32_t n) {
  if (n <= 0) return 0;
  return n >= 32 ? v : v & ((uint32_t{1} << n) - 1);
}
inline uint32_t shr(uint32_t v, int32_t s) { return s >= 32 ? 0 : v >> s; }

}  // namespace

extern "C" {

int omni_bsr_le_flush(omni_bsr *bs, int32_t byte_count) {
  int64_t n = bs->cur > bs->end ? 0 : static_cast<int64_t>(bs->end - bs->cur) + 1;
  if (byte_count < n) n = byte_count;
  if (n > 4) n = 4;
  if (n <= 0) {
    bs->code = 0;
    bs->leftbits = 0;
    return -1;
  }
  uint32_t acc = 0;
  for (int64_t i = 0; i < n; ++i) acc |= static_cast<uint32_t>(bs->cur[i]) << (8 * i);
  bs->code = acc;
  bs->leftbits = static_cast<int32_t>(8 * n);
  bs->cur += n;
  return 0;
}

uint32_t omni_bsr_le_read(omni_bsr *bs, int32_t n) {
  if (n < 1) return 0;
  if (n > 32) n = 32;
  if (n <= bs->leftbits) {
    const uint32_t value = low_bits(bs->code, n);
    bs->code = shr(bs->code, n);
    bs->leftbits -= n;
    return value;
  }
  const int32_t k = bs->leftbits > 0 ? bs->leftbits : 0;
  const uint32_t low = low_bits(bs->code, k);
  if (bs->flush(bs, 4) != 0) return 0xFFFFFFFFu;
  const int32_t r = n - k;
  const uint32_t value = low | low_bits(bs->code, r) << k;
  bs->code = shr(bs->code, r);
  bs->leftbits -= r;  // below 0 when the data ended inside this read
  return value;
}

void omni_bsr_le_skip(omni_bsr *bs, int32_t n) {
  if (n <= 0) return;
  if (n >= 32 || n > bs->leftbits) {
    bs->code = 0;
    bs->leftbits = 0;
    return;
  }
  bs->code >>= n;
  bs->leftbits -= n;
}

void omni_bsr_le_skip_to_align8(omni_bsr *bs) {
  if (bs->leftbits <= 0) return;
  const int32_t drop = bs->leftbits % 8;
  bs->code = shr(bs->code, drop);
  bs->leftbits -= drop;
}

void omni_bsw_init(omni_bsw *bw, uint8_t *buffer, uint32_t size, omni_bsw_byte_fn byte_cb) {
  if (!bw) return;
  bw->beg = buffer;
  bw->size = buffer ? size : 0;
  bw->leftbits = 8;
  bw->byte_cb = byte_cb;
  if (!buffer || size == 0) {
    bw->cur = kNoRoom + 1;
    bw->end = kNoRoom;
  } else {
    bw->cur = buffer;
    bw->end = buffer + (size - 1);
  }
}

// Shifts k bits (the top k of w) into the byte at cur; completes the byte
// when it is full.
static void put_bits(omni_bsw *bw, uint32_t w, int32_t k) {
  *bw->cur = static_cast<uint8_t>(static_cast<uint32_t>(*bw->cur) << k | w >> (32 - k));
  bw->leftbits -= k;
  if (bw->leftbits == 0) {
    if (bw->byte_cb) bw->byte_cb(bw);
    ++bw->cur;
    bw->leftbits = 8;
  }
}

int omni_bsw_write1(omni_bsw *bw, uint32_t bit) {
  if (bw->cur > bw->end) return -1;
  put_bits(bw, bit << 31, 1);
  return 0;
}

int omni_bsw_write(omni_bsw *bw, uint32_t value, int32_t n) {
  if (bw->cur > bw->end) return -1;
  if (n == 0) return 0;
  if (n < 0 || n > 32) return -1;
  uint32_t w = n == 32 ? value : value << (32 - n);
  while (n > 0) {
    if (bw->cur > bw->end) return -1;  // the buffer filled part-way
    const int32_t k = n < bw->leftbits ? n : bw->leftbits;
    put_bits(bw, w, k);
    w <<= k;
    n -= k;
  }
  return 0;
}

}  // extern "C"
