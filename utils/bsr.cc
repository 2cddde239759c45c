// Big-endian bit reader with a 32-bit cache and a replaceable refill.
//
// The cache holds the next unread bit in its most significant bit and zeros
// below the valid bits, so shifting it left always brings in zeros. A refill
// replaces the cache: every caller takes the old bits out first.
#include "tarn/utils.h"

namespace {

// One byte that is never read: an empty reader points cur one past it and end
// at it, so "bytes left" is 0 without forming a pointer before a caller's
// buffer (or from NULL).
const uint8_t kEmpty[2] = {0, 0};

// Shifts that give 0 for a count of 32 or more (the hardware would not).
inline uint32_t shl(uint32_t v, int32_t s) { return s >= 32 ? 0 : v << s; }
inline uint32_t shr(uint32_t v, int32_t s) { return s >= 32 ? 0 : v >> s; }

// Bytes from cur to end inclusive, 0 once cur has passed end.
inline int64_t bytes_left(const omni_bsr *bs) {
  if (bs->cur > bs->end) return 0;
  return static_cast<int64_t>(bs->end - bs->cur) + 1;
}

inline void clear_cache(omni_bsr *bs) {
  bs->code = 0;
  bs->leftbits = 0;
}

}  // namespace

extern "C" {

void omni_bsr_init(omni_bsr *bs, const uint8_t *data, uint32_t size, omni_bsr_flush_fn flush) {
  if (!bs) return;
  bs->code = 0;
  bs->leftbits = 0;
  bs->beg = data;
  bs->size = data ? size : 0;
  if (!data || size == 0) {
    bs->cur = kEmpty + 1;
    bs->end = kEmpty;
  } else {
    bs->cur = data;
    bs->end = data + (size - 1);
  }
  bs->flush = flush ? flush : omni_bsr_flush;
}

int omni_bsr_flush(omni_bsr *bs, int32_t byte_count) {
  int64_t n = bytes_left(bs);
  if (byte_count < n) n = byte_count;
  if (n > 4) n = 4;  // the cache holds four bytes
  if (n <= 0) {
    clear_cache(bs);
    return -1;
  }
  uint32_t acc = 0;
  for (int64_t i = 0; i < n; ++i) acc = acc << 8 | bs->cur[i];
  bs->code = acc << (32 - 8 * n);
  bs->leftbits = static_cast<int32_t>(8 * n);
  bs->cur += n;
  return 0;
}

int vc_nal_bsr_flush(omni_bsr *bs, int32_t byte_count) {
  constexpr int kNoData = -301;
  int64_t n = bytes_left(bs);
  if (byte_count < n) n = byte_count;
  if (n > 4) n = 4;
  if (n < 1) {
    clear_cache(bs);
    return kNoData;
  }
  int32_t z = bs->zero_run;
  // Fast path: bytes without a 0x00 can hold neither a start code nor the
  // zeros before an emulation-prevention byte (unless a zero run carried over
  // from the last refill meets a 0x03 first).
  const uint8_t *p = bs->cur;
  if (bs->end - p >= static_cast<ptrdiff_t>(n) && (z < 2 || p[0] != 0x03)) {
    bool clean = true;
    uint32_t acc = 0;
    for (int64_t i = 0; i < n; ++i) {
      clean = clean && p[i] != 0x00;
      acc = acc << 8 | p[i];
    }
    if (clean) {
      bs->cur += n;
      bs->zero_run = 0;
      bs->leftbits = static_cast<int32_t>(8 * n);
      bs->code = acc << (32 - 8 * n);
      return 0;
    }
  }
  uint32_t acc = 0;
  int32_t loaded = 0;
  for (;;) {
    if (bs->cur > bs->end) break;  // an emulation-prevention byte was the last one
    uint8_t b = *bs->cur;
    if (z >= 2 && b == 0x03) {
      ++bs->cur;
      if (bs->cur > bs->end) break;
      b = *bs->cur;
      z = 0;
    }
    // A start code (00 00 01 or 00 00 00 01) ends the NAL unit's data; the
    // look-ahead needs five more bytes up to end.
    if (b == 0x00 && bs->end - bs->cur > 4 && bs->cur[1] == 0x00 &&
        (bs->cur[2] == 0x01 || (bs->cur[2] == 0x00 && bs->cur[3] == 0x01))) {
      bs->end = bs->cur - 1;
      break;
    }
    z = b == 0x00 ? z + 1 : 0;
    acc = acc << 8 | b;
    ++loaded;
    ++bs->cur;
    if (loaded == n) break;
  }
  if (loaded == 0) {
    clear_cache(bs);
    return kNoData;
  }
  bs->zero_run = z;
  bs->leftbits = 8 * loaded;
  bs->code = acc << (32 - 8 * loaded);
  return 0;
}

// Takes n bits, refilling once when the cache runs short. False when the
// refill fails (the cache is then empty).
static bool take_bits(omni_bsr *bs, int32_t n, uint32_t *value) {
  if (n < 0 || n > 32) n = n < 0 ? 0 : 32;
  if (n <= bs->leftbits) {
    *value = shr(bs->code, 32 - n);
    bs->code = shl(bs->code, n);
    bs->leftbits -= n;
    return true;
  }
  const uint32_t old = bs->code;
  const int32_t k = bs->leftbits > 0 ? bs->leftbits : 0;
  if (bs->flush(bs, 4) != 0) return false;
  const uint32_t high = shr(old, 32 - n);
  const int32_t r = n - k;
  *value = high | shr(bs->code, 32 - r);
  bs->code = shl(bs->code, r);
  // A refill that brought fewer than r bits (end of data) leaves leftbits
  // negative, so the next read that needs bits fails.
  bs->leftbits -= r;
  return true;
}

uint32_t omni_bsr_read(omni_bsr *bs, int32_t n) {
  uint32_t v;
  return take_bits(bs, n, &v) ? v : 0xFFFFFFFFu;
}

int omni_bsr_read_value(omni_bsr *bs, int32_t n, uint32_t *out) {
  uint32_t v;
  if (!take_bits(bs, n, &v)) return -1;
  if (out) *out = v;
  return 0;
}

uint32_t omni_bsr_read1(omni_bsr *bs) {
  if (bs->leftbits <= 0 && bs->flush(bs, 4) != 0) return 0xFFFFFFFFu;
  const uint32_t bit = bs->code >> 31;
  bs->code <<= 1;
  bs->leftbits -= 1;
  return bit;
}

int omni_bsr_read1_value(omni_bsr *bs, uint8_t *out) {
  const uint32_t bit = omni_bsr_read1(bs);
  if (bit > 1) return -1;
  if (out) *out = static_cast<uint8_t>(bit);
  return 0;
}

// Skip returning whether a needed refill succeeded.
static bool skip_bits(omni_bsr *bs, int32_t n) {
  if (n < 0) return true;
  if (n > 32) n = 32;
  if (n > bs->leftbits) {
    const int32_t k = bs->leftbits > 0 ? bs->leftbits : 0;
    if (bs->flush(bs, 4) != 0) return false;
    n -= k;
  }
  bs->code = shl(bs->code, n);
  bs->leftbits -= n;
  return true;
}

void omni_bsr_skip(omni_bsr *bs, int32_t n) { skip_bits(bs, n); }

uint32_t omni_bsr_peek(omni_bsr *bs, int32_t m) {
  if (m < 1) return 0;
  if (m > 32) m = 32;
  const int32_t had = bs->leftbits;
  const int32_t k = had > 0 ? had : 0;
  if (had < m && (32 - k) / 8 >= 1) {
    const uint32_t old = bs->code;
    if (bs->flush(bs, (32 - k) / 8) == 0) {
      bs->code = old | shr(bs->code, k);
      bs->leftbits += k;
    } else {
      bs->code = old;
      bs->leftbits = had;
    }
  }
  uint32_t value = shr(bs->code, 32 - m);
  const int32_t d = m - bs->leftbits;
  // The last few bits can still sit in the byte at cur when the cache could
  // not take a whole byte more; read it without moving cur.
  if (d > 0 && d <= 8 && bs->cur <= bs->end) value |= static_cast<uint32_t>(*bs->cur) >> (8 - d);
  return value;
}

uint32_t omni_bsr_skip_peek(omni_bsr *bs, int32_t n, int32_t m) {
  if (!skip_bits(bs, n)) return 0;
  if (m < 1) return 0;
  if (m > 32) m = 32;
  if (bs->leftbits >= m) return shr(bs->code, 32 - m);
  return omni_bsr_peek(bs, m);
}

void omni_bsr_skip_to_align8(omni_bsr *bs) {
  if (bs->leftbits <= 0) return;
  const int32_t drop = bs->leftbits % 8;
  bs->code = shl(bs->code, drop);
  bs->leftbits -= drop;
}

uint32_t omni_bsr_clz_in_code(uint32_t word) {
  return word == 0 ? 32u : static_cast<uint32_t>(__builtin_clz(word));
}

}  // extern "C"
