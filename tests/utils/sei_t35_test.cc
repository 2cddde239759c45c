// HDR10+ metadata from T.35 SEI payloads: real x265 streams carrying
// metadata from a JSON description (tests/data/hdr10plus, confirmed by
// ffprobe when generated), refused headers and cut payloads.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>

#include "support/files.h"
#include "tarn/utils.h"

namespace {

using Bytes = std::vector<uint8_t>;
using FieldMap = std::map<std::string, uint32_t>;

// The escaped T.35 payload in a generated stream, up to the next start code
// (the SEI trailing bits after it do not matter to the parser).
Bytes t35_payload(const std::string &name) {
  Bytes s;
  if (!tarn_test::read_file(tarn_test::data_path("hdr10plus/" + name + ".hevc"), &s)) return {};
  const uint8_t kHeader[] = {0xB5, 0, 0x3C, 0, 1, 4}, kStart[] = {0, 0, 1};
  const auto from = std::search(s.begin(), s.end(), kHeader, kHeader + 6);
  return Bytes(from, std::search(from, s.end(), kStart, kStart + 3));
}

// Every metadata field under the generator's names: scalar, [i] or [i][j].
void put(FieldMap *f, const std::string &name, uint32_t v) { (*f)[name] = v; }
template <typename T, size_t N>
void put(FieldMap *f, const std::string &name, const T (&a)[N]) {
  for (size_t i = 0; i < N; ++i) put(f, name + "[" + std::to_string(i) + "]", a[i]);
}

FieldMap dump(const omni_sei_t35 &m) {
  FieldMap f;
#define P(field) put(&f, #field, m.field)
  P(application_version), P(num_windows), P(window_upper_left_corner_x), P(window_upper_left_corner_y);
  P(window_lower_right_corner_x), P(window_lower_right_corner_y), P(center_of_ellipse_x);
  P(center_of_ellipse_y), P(rotation_angle), P(semimajor_axis_internal_ellipse);
  P(semimajor_axis_external_ellipse), P(semiminor_axis_external_ellipse), P(overlap_process_option);
  P(targeted_system_display_maximum_luminance), P(targeted_system_display_actual_peak_luminance_flag);
  P(num_rows_targeted_system_display_actual_peak_luminance);
  P(num_cols_targeted_system_display_actual_peak_luminance);
  P(targeted_system_display_actual_peak_luminance), P(maxscl), P(average_maxrgb);
  P(num_distribution_maxrgb_percentiles), P(distribution_maxrgb_percentages);
  P(distribution_maxrgb_percentiles), P(fraction_bright_pixels);
  P(mastering_display_actual_peak_luminance_flag), P(num_rows_mastering_display_actual_peak_luminance);
  P(num_cols_mastering_display_actual_peak_luminance), P(mastering_display_actual_peak_luminance);
  P(tone_mapping_flag), P(knee_point_x), P(knee_point_y), P(num_bezier_curve_anchors);
  P(bezier_curve_anchors), P(color_saturation_mapping_flag), P(color_saturation_weight);
#undef P
  return f;
}

// The payloads are exact-size vectors, so AddressSanitizer sees any read past them.
int32_t parse(const Bytes &b, omni_sei_t35 *m) {
  return omni_vc_parse_sei_t35_metadata(b.empty() ? nullptr : b.data(), static_cast<uint32_t>(b.size()), m);
}

TEST(SeiT35, DecodesGeneratedStreamsAsTheirJson) {
  for (const std::string name : {"one_window", "three_windows", "zero_runs"}) {
    SCOPED_TRACE(name);
    FieldMap want = dump(omni_sei_t35{});  // fields the JSON leaves out are 0
    std::ifstream in(tarn_test::data_path("hdr10plus/" + name + ".expect"));
    std::string field;
    uint32_t value;
    while (in >> field >> value) want[field] = value;  // an unknown name makes the maps differ
    omni_sei_t35 m{};
    ASSERT_EQ(parse(t35_payload(name), &m), 0);
    EXPECT_EQ(dump(m), want);
  }
}

// Other T.35 payloads (each header field changed in turn, version 0 still
// ST 2094-40) and every cut of a real one: the header needs 7 bytes; after it
// a short payload is not detected and parses with the reader's all-ones end
// values, so every count is at its largest and must stay inside the record.
TEST(SeiT35, RefusesOtherHeadersAndCutsStayInside) {
  const Bytes full = t35_payload("three_windows");
  ASSERT_GT(full.size(), 7u);
  const std::pair<size_t, uint8_t> kHeaders[] = {{0, 0xB4}, {2, 0x3B}, {4, 2}, {5, 5}, {6, 2}, {6, 0}};
  for (const auto &h : kHeaders) {
    Bytes other(full);
    other[h.first] = h.second;
    omni_sei_t35 m{};
    m.valid = 7;
    EXPECT_EQ(parse(other, &m), h.second == 0 ? 0 : -105) << h.first;
    EXPECT_EQ(m.valid, h.second == 0 ? 1 : 0) << h.first;
    // Fields read before a refusal keep their values.
    EXPECT_EQ(m.application_version, h.first == 6 ? h.second : 0) << h.first;
  }
  EXPECT_EQ(parse(full, nullptr), -105);
  for (size_t cut = 0; cut < full.size(); ++cut) {
    omni_sei_t35 m{};
    EXPECT_EQ(parse(Bytes(full.begin(), full.begin() + ptrdiff_t(cut)), &m), cut >= 7 ? 0 : -105) << cut;
    EXPECT_EQ(m.num_windows, cut >= 7 ? 3 : 0) << cut;
    for (int w = 0; w < 3; ++w) {
      EXPECT_LT(m.num_distribution_maxrgb_percentiles[w], 16) << cut;
      EXPECT_LT(m.num_bezier_curve_anchors[w], 16) << cut;
    }
  }
}

}  // namespace
