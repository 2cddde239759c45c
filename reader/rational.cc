// Exact rational arithmetic for clean apertures, and the conversion of a
// clean aperture into an integer crop rectangle.
//
// A clean aperture is a rational width and height centred at a rational
// offset from the image centre. Every intermediate value is formed in 64 bits
// and must come back into the 32-bit range; an aperture whose edges do not
// fall on whole pixels is refused rather than rounded, so a display never
// shows a crop the file did not describe.

#include <stdint.h>

#include "common/log.h"
#include "tarn/reader.h"

namespace {

constexpr const char kTag[] = "tarnd_clean_aperture";

// Index of each value in the clap array, in box order.
enum ClapField {
  kWidthN = 0,
  kWidthD,
  kHeightN,
  kHeightD,
  kHorizOffN,
  kHorizOffD,
  kVertOffN,
  kVertOffD,
};

uint64_t magnitude(int64_t v) {
  // Two's complement negation in unsigned arithmetic also covers INT64_MIN.
  return v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
}

bool is_negative(const tarnd_fraction &f) { return f.n != 0 && ((f.n < 0) != (f.d < 0)); }

// Below this magnitude every step of the fraction arithmetic stays far
// inside 32 bits for offsets in whole or half pixels.
constexpr int32_t kDirectEdgeBound = 1 << 27;

// One edge of the crop: centre + offset - extent / 2, which must be a
// non-negative whole number.
bool crop_edge(int32_t image_extent, int32_t off_n, int32_t off_d, int32_t aperture_extent, int32_t *edge) {
  // Whole and half-pixel offsets (what encoders write) are answered in half
  // pixels without the divisions of the fraction toolkit. Within the bound
  // no step of the toolkit can overflow, so both ways accept and refuse the
  // same apertures with the same edges.
  if ((off_d == 1 || off_d == 2) && image_extent > -kDirectEdgeBound && image_extent < kDirectEdgeBound &&
      off_n > -kDirectEdgeBound && off_n < kDirectEdgeBound && aperture_extent < kDirectEdgeBound) {
    const int32_t twice = image_extent + (off_d == 1 ? 2 * off_n : off_n) - aperture_extent;
    if (twice < 0 || (twice & 1) != 0) {
      TARN_LOGW(kTag, "crop area is abnormal");
      return false;
    }
    *edge = twice / 2;
    return true;
  }
  tarnd_fraction pos;
  tarnd_fraction offset;
  tarnd_fraction half_aperture;
  tarnd_fraction_calculateCenter(&pos, image_extent);
  tarnd_fraction_create(&offset, off_n, off_d);
  tarnd_fraction_create(&half_aperture, aperture_extent, 2);
  if (!tarnd_fraction_add(&pos, offset) || !tarnd_fraction_subtract(&pos, half_aperture) ||
      is_negative(pos) || !tarnd_fraction_isInteger(&pos)) {
    TARN_LOGW(kTag, "crop area is abnormal");
    return false;
  }
  *edge = tarnd_fraction_getInt32(&pos);
  return true;
}

}  // namespace

extern "C" {

int64_t calculateGreatestCommonDivisor(int64_t a, int64_t b) {
  uint64_t x = magnitude(a);
  uint64_t y = magnitude(b);
  while (y != 0) {
    const uint64_t r = x % y;
    x = y;
    y = r;
  }
  // Only gcd(INT64_MIN, 0) or gcd(INT64_MIN, INT64_MIN) reaches 2^63; the
  // toolkit only ever passes 32-bit values.
  return static_cast<int64_t>(x);
}

int32_t overflowsInt32(int64_t x) { return (x < INT32_MIN || x > INT32_MAX) ? 1 : 0; }

void tarnd_fraction_create(tarnd_fraction *f, int32_t n, int32_t d) {
  if (f == nullptr) return;
  f->n = n;
  f->d = d;
}

void tarnd_fraction_simplify(tarnd_fraction *f) {
  if (f == nullptr) return;
  const int64_t g = calculateGreatestCommonDivisor(f->n, f->d);
  if (g > 1) {
    // g divides both, so each quotient has a smaller magnitude than the
    // 32-bit value it came from (INT32_MIN / 2^31 is -1).
    f->d = static_cast<int32_t>(static_cast<int64_t>(f->d) / g);
    f->n = static_cast<int32_t>(static_cast<int64_t>(f->n) / g);
  }
}

void tarnd_fraction_calculateCenter(tarnd_fraction *f, int32_t v) {
  if (f == nullptr) return;
  if (v % 2 == 0) {
    f->n = v / 2;
    f->d = 1;
  } else {
    f->n = v;
    f->d = 2;
  }
}

int32_t tarnd_fraction_commonDenominator(tarnd_fraction *a, tarnd_fraction *b) {
  if (a == nullptr || b == nullptr) return 0;
  tarnd_fraction_simplify(a);
  tarnd_fraction_simplify(b);
  if (a->d == b->d) return 1;
  const int64_t an = static_cast<int64_t>(a->n) * b->d;
  const int64_t d = static_cast<int64_t>(a->d) * b->d;
  const int64_t bn = static_cast<int64_t>(b->n) * a->d;
  if (overflowsInt32(an) || overflowsInt32(d) || overflowsInt32(bn)) return 0;
  a->n = static_cast<int32_t>(an);
  b->n = static_cast<int32_t>(bn);
  a->d = static_cast<int32_t>(d);
  b->d = static_cast<int32_t>(d);
  return 1;
}

int32_t tarnd_fraction_add(tarnd_fraction *f, tarnd_fraction g) {
  if (f == nullptr || !tarnd_fraction_commonDenominator(f, &g)) return 0;
  const int64_t sum = static_cast<int64_t>(f->n) + g.n;
  if (overflowsInt32(sum)) return 0;
  f->n = static_cast<int32_t>(sum);
  tarnd_fraction_simplify(f);
  return 1;
}

int32_t tarnd_fraction_subtract(tarnd_fraction *f, tarnd_fraction g) {
  if (f == nullptr || !tarnd_fraction_commonDenominator(f, &g)) return 0;
  const int64_t diff = static_cast<int64_t>(f->n) - g.n;
  if (overflowsInt32(diff)) return 0;
  f->n = static_cast<int32_t>(diff);
  tarnd_fraction_simplify(f);
  return 1;
}

int32_t tarnd_fraction_isInteger(const tarnd_fraction *f) {
  if (f == nullptr || f->d == 0) return 0;
  // 64-bit remainder: INT32_MIN % -1 would trap in 32 bits.
  return (static_cast<int64_t>(f->n) % f->d) == 0 ? 1 : 0;
}

int32_t tarnd_fraction_getInt32(const tarnd_fraction *f) {
  if (f == nullptr || f->d == 0) return 0;
  const int64_t q = static_cast<int64_t>(f->n) / f->d;
  // Only INT32_MIN / -1 leaves the range; saturate instead of wrapping.
  return q > INT32_MAX ? INT32_MAX : static_cast<int32_t>(q);
}

int32_t tarnd_convert_clean_aperture_to_crop(int32_t width, int32_t height, const int32_t clap[8],
                                             tarnd_crop *crop) {
  if (clap == nullptr || crop == nullptr) return 0;
  if (clap[kWidthD] < 1 || clap[kHeightD] < 1 || clap[kHorizOffD] < 1 || clap[kVertOffD] < 1 ||
      clap[kWidthN] < 0 || clap[kHeightN] < 0) {
    TARN_LOGW(kTag, "clap data is abnormal");
    return 0;
  }
  if (clap[kWidthN] % clap[kWidthD] != 0 || clap[kHeightN] % clap[kHeightD] != 0) {
    TARN_LOGW(kTag, "clap data is abnormal");
    return 0;
  }
  const int32_t clap_width = clap[kWidthN] / clap[kWidthD];
  const int32_t clap_height = clap[kHeightN] / clap[kHeightD];
  if (clap_width == 0 || clap_height == 0) {
    TARN_LOGW(kTag, "clap resolution is abnormal(%d x %d)", clap_width, clap_height);
    return 0;
  }

  int32_t left = 0;
  int32_t top = 0;
  if (!crop_edge(width, clap[kHorizOffN], clap[kHorizOffD], clap_width, &left)) return 0;
  if (!crop_edge(height, clap[kVertOffN], clap[kVertOffD], clap_height, &top)) return 0;
  crop->left = left;
  crop->top = top;

  if (left > INT32_MAX - clap_width || top > INT32_MAX - clap_height) {
    TARN_LOGW(kTag, "clap info is abnormal. left(%d), top(%d), clap_width(%d), clap_heigt(%d)", left, top,
              clap_width, clap_height);
    return 0;
  }
  crop->right = left + clap_width;
  crop->bottom = top + clap_height;
  if (crop->right > width || crop->bottom > height) {
    TARN_LOGW(kTag,
              "clap info is abnormal. resolution(%d x %d), left(%d), top(%d), clap_width(%d), "
              "clap_heigt(%d)",
              width, height, left, top, clap_width, clap_height);
    return 0;
  }
  return 1;
}

}  // extern "C"
