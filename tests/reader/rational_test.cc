// Fraction toolkit and clean-aperture crop: exact results and overflow
// refusals; a refused fraction operation leaves its operand as it was.
#include <gtest/gtest.h>

#include <tuple>

#include "support/log_capture.h"
#include "tarn/reader.h"

namespace {

TEST(Rational, FractionOperationsAndOverflow) {
  EXPECT_EQ(calculateGreatestCommonDivisor(-12, 18), 6);
  EXPECT_EQ(calculateGreatestCommonDivisor(5, 0), 5);
  EXPECT_EQ(calculateGreatestCommonDivisor(INT32_MIN, INT32_MIN), 2147483648LL);
  EXPECT_TRUE(overflowsInt32(2147483648LL));
  EXPECT_FALSE(overflowsInt32(-2147483648LL));
  // Degenerate fractions must not trap (INT32_MIN / -1, zero denominator).
  tarnd_fraction min = {INT32_MIN, -1}, zero = {5, 0};
  EXPECT_TRUE(tarnd_fraction_isInteger(&min) && !tarnd_fraction_isInteger(&zero));
  EXPECT_EQ(tarnd_fraction_getInt32(&min), INT32_MAX);
  EXPECT_EQ(tarnd_fraction_getInt32(&zero), 0);
  EXPECT_EQ(tarnd_fraction_commonDenominator(nullptr, &zero), 0);
  tarnd_fraction centre = {0, 0};  // the centre of an odd extent is a half
  tarnd_fraction_calculateCenter(&centre, 5);
  EXPECT_TRUE(centre.n == 5 && centre.d == 2);

  enum Op { kSimplify, kAdd, kSubtract, kCommon };
  // clang-format off
  struct Case { const char *name; Op op; tarnd_fraction f, g; int32_t ok; tarnd_fraction want; };  // want: f after
  const Case kCases[] = {
      {"sign stays on denominator", kSimplify, {6, -4}, {0, 0}, 1, {3, -2}},
      {"min over min", kSimplify, {INT32_MIN, INT32_MIN}, {0, 0}, 1, {-1, -1}},
      {"third plus sixth", kAdd, {1, 3}, {1, 6}, 1, {1, 2}},
      {"sum overflows", kAdd, {INT32_MAX, 1}, {1, 1}, 0, {INT32_MAX, 1}},
      {"difference overflows", kSubtract, {INT32_MIN, 1}, {1, 1}, 0, {INT32_MIN, 1}},
      {"denominator product overflows", kAdd, {1, 65537}, {1, 65539}, 0, {1, 65537}},
      {"numerator product overflows", kCommon, {2000000000, 3}, {1, 2}, 0, {2000000000, 3}},
      {"common denominator", kCommon, {1, 4}, {1, 6}, 1, {6, 24}},
      {"denominators already equal", kCommon, {1, 2}, {3, 2}, 1, {1, 2}},
  };
  // clang-format on
  for (const auto &c : kCases) {
    tarnd_fraction f = c.f, g = c.g;
    int32_t ok = 1;
    if (c.op == kSimplify) tarnd_fraction_simplify(&f);
    if (c.op == kAdd) ok = tarnd_fraction_add(&f, g);
    if (c.op == kSubtract) ok = tarnd_fraction_subtract(&f, g);
    if (c.op == kCommon) ok = tarnd_fraction_commonDenominator(&f, &g);
    EXPECT_EQ(std::make_tuple(ok, f.n, f.d), std::make_tuple(c.ok, c.want.n, c.want.d)) << c.name;
  }
}

TEST(Rational, CleanApertureToCrop) {
  // crop: {-1...} where the clap is refused.
  // clang-format off
  struct Case { const char *name; int32_t width, height; int32_t clap[8]; tarnd_crop crop; };
  const Case kCases[] = {
      {"centred", 4032, 3024, {4000, 1, 3000, 1, 0, 1, 0, 1}, {16, 12, 4016, 3012}},
      {"half-pixel offset, whole edge", 4033, 3024, {4000, 1, 3000, 1, 1, 2, 0, 1}, {17, 12, 4017, 3012}},
      {"reducible fractions", 100, 100, {40, 2, 60, 3, -20, 4, 10, 2}, {35, 45, 55, 65}},
      {"negative offset to corner", 64, 64, {16, 1, 16, 1, -48, 2, -48, 2}, {0, 0, 16, 16}},
      {"offset to the far corner", 64, 64, {32, 1, 32, 1, 16, 1, 16, 1}, {32, 32, 64, 64}},
      {"offset past the left edge", 64, 64, {16, 1, 16, 1, -25, 1, 0, 1}, {-1, -1, -1, -1}},
      {"offset in thirds past the left edge", 64, 64, {16, 1, 16, 1, -75, 3, 0, 1}, {-1, -1, -1, -1}},
      {"half-pixel left edge", 4033, 3024, {4000, 1, 3000, 1, 0, 1, 0, 1}, {-1, -1, -1, -1}},
      {"fractional width", 4032, 3024, {4001, 2, 3000, 1, 0, 1, 0, 1}, {-1, -1, -1, -1}},
      {"zero width denominator", 4032, 3024, {4000, 0, 3000, 1, 0, 1, 0, 1}, {-1, -1, -1, -1}},
      {"zero height denominator", 4032, 3024, {4000, 1, 3000, 0, 0, 1, 0, 1}, {-1, -1, -1, -1}},
      {"wider than image", 4032, 3024, {5000, 1, 3000, 1, 0, 1, 0, 1}, {-1, -1, -1, -1}},
      {"past right edge", 4032, 3024, {100, 1, 100, 1, 2000, 1, 0, 1}, {-1, -1, -1, -1}},
      {"offset sum overflows", 4032, 3024, {4000, 1, 3000, 1, INT32_MAX, 1, 0, 1}, {-1, -1, -1, -1}},
      {"offset denominators do not meet", 4033, 3024, {4000, 1, 3000, 1, 1, 2147483647, 0, 1}, {-1, -1, -1, -1}},
      {"right edge overflows", INT32_MAX - 1, 3024, {INT32_MAX - 1, 1, 3000, 1, 1073741824, 1, 0, 1},
       {-1, -1, -1, -1}},
  };
  // clang-format on
  for (const auto &c : kCases) {
    SCOPED_TRACE(c.name);
    tarn_test::LogCapture cap;  // a refusal says why; an accepted crop logs nothing
    tarnd_crop crop = {-1, -1, -1, -1};
    const bool refused = c.crop.left < 0;
    EXPECT_EQ(tarnd_convert_clean_aperture_to_crop(c.width, c.height, c.clap, &crop), refused ? 0 : 1);
    if (!refused) { EXPECT_EQ(memcmp(&crop, &c.crop, sizeof(crop)), 0) << crop.left << "," << crop.top; }
    EXPECT_EQ(cap.lines().empty(), !refused) << cap.dump();
  }
  // A refusal names the first check that fails: a negative size is bad data,
  // a zero one a bad resolution.
  const struct { int32_t clap[8]; const char *line; } kWhy[] = {
      {{4000, 1, -3000, 1, 0, 1, 0, 1}, "clap data is abnormal"},
      {{0, 1, 3000, 1, 0, 1, 0, 1}, "clap resolution is abnormal(0 x 3000)"},
      {{4000, 1, 0, 1, 0, 1, 0, 1}, "clap resolution is abnormal(4000 x 0)"},
  };
  for (const auto &w : kWhy) {
    tarn_test::LogCapture cap;
    tarnd_crop crop;
    EXPECT_EQ(tarnd_convert_clean_aperture_to_crop(4032, 3024, w.clap, &crop), 0);
    EXPECT_TRUE(cap.has(w.line)) << cap.dump();
  }
  tarnd_crop crop;
  EXPECT_EQ(tarnd_convert_clean_aperture_to_crop(64, 64, nullptr, &crop), 0);
}

}  // namespace
