// HDR10+ metadata from T.35 SEI payloads: real x265 streams carrying
// metadata from a JSON description (tests/data/hdr10plus, confirmed by
// ffprobe when generated), refused headers, and cut or corrupted payloads.
#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "support/files.h"
#include "tarn/utils.h"

namespace {

using FieldMap = std::map<std::string, uint32_t>;

// The escaped bytes of the first T.35 SEI payload (payload type 4) of the
// first prefix SEI NAL unit in a start-code stream; empty when there is none.
std::vector<uint8_t> first_t35_payload(const std::vector<uint8_t> &s) {
  for (size_t i = 0; i + 5 < s.size(); ++i) {
    if (s[i] != 0 || s[i + 1] != 0 || s[i + 2] != 1 || ((s[i + 3] >> 1) & 0x3F) != 39) continue;
    // Map every payload byte (emulation prevention removed) to its offset.
    std::vector<size_t> at;
    std::vector<uint8_t> rbsp;
    int zeros = 0;
    for (size_t k = i + 5; k < s.size(); ++k) {
      if (zeros >= 2 && s[k] == 1) break;  // next start code
      if (zeros >= 2 && s[k] == 3) {
        zeros = 0;
        continue;
      }
      zeros = s[k] == 0 ? zeros + 1 : 0;
      rbsp.push_back(s[k]);
      at.push_back(k);
    }
    size_t pos = 0;
    uint32_t type = 0, size = 0;
    while (pos < rbsp.size() && rbsp[pos] == 0xFF) type += rbsp[pos++];
    if (pos >= rbsp.size()) return {};
    type += rbsp[pos++];
    while (pos < rbsp.size() && rbsp[pos] == 0xFF) size += rbsp[pos++];
    if (pos >= rbsp.size()) return {};
    size += rbsp[pos++];
    if (type != 4 || size == 0 || size > rbsp.size() - pos) return {};
    return std::vector<uint8_t>(s.begin() + static_cast<std::ptrdiff_t>(at[pos]),
                                s.begin() + static_cast<std::ptrdiff_t>(at[pos + size - 1] + 1));
  }
  return {};
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
  P(application_version); P(num_windows); P(window_upper_left_corner_x);
  P(window_upper_left_corner_y); P(window_lower_right_corner_x); P(window_lower_right_corner_y);
  P(center_of_ellipse_x); P(center_of_ellipse_y); P(rotation_angle);
  P(semimajor_axis_internal_ellipse); P(semimajor_axis_external_ellipse);
  P(semiminor_axis_external_ellipse); P(overlap_process_option);
  P(targeted_system_display_maximum_luminance);
  P(targeted_system_display_actual_peak_luminance_flag);
  P(num_rows_targeted_system_display_actual_peak_luminance);
  P(num_cols_targeted_system_display_actual_peak_luminance);
  P(targeted_system_display_actual_peak_luminance); P(maxscl); P(average_maxrgb);
  P(num_distribution_maxrgb_percentiles); P(distribution_maxrgb_percentages);
  P(distribution_maxrgb_percentiles); P(fraction_bright_pixels);
  P(mastering_display_actual_peak_luminance_flag);
  P(num_rows_mastering_display_actual_peak_luminance);
  P(num_cols_mastering_display_actual_peak_luminance);
  P(mastering_display_actual_peak_luminance); P(tone_mapping_flag); P(knee_point_x);
  P(knee_point_y); P(num_bezier_curve_anchors); P(bezier_curve_anchors);
  P(color_saturation_mapping_flag); P(color_saturation_weight);
#undef P
  return f;
}

FieldMap read_expect(const std::string &path) {
  FieldMap f;
  std::ifstream in(path);
  std::string name;
  uint32_t value;
  while (in >> name >> value) f[name] = value;
  return f;
}

TEST(SeiT35, DecodesGeneratedStreamsAsTheirJson) {
  for (const char *name : {"one_window", "three_windows", "zero_runs"}) {
    std::vector<uint8_t> stream;
    ASSERT_TRUE(tarn_test::read_file(tarn_test::data_path(std::string("hdr10plus/") + name + ".hevc"), &stream)) << name;
    const FieldMap want = read_expect(tarn_test::data_path(std::string("hdr10plus/") + name + ".expect"));
    ASSERT_GT(want.size(), 10u) << name;
    const std::vector<uint8_t> payload = first_t35_payload(stream);
    ASSERT_FALSE(payload.empty()) << name;
    int escapes = 0;
    for (size_t i = 2; i < payload.size(); ++i)
      escapes += payload[i - 2] == 0 && payload[i - 1] == 0 && payload[i] == 3;
    EXPECT_GE(escapes, std::string(name) == "zero_runs" ? 10 : 0) << name;

    omni_sei_t35 m{};
    ASSERT_EQ(omni_vc_parse_sei_t35_metadata(payload.data(), static_cast<uint32_t>(payload.size()), &m), 0) << name;
    EXPECT_EQ(m.valid, 1);
    EXPECT_EQ(m.itu_t_t35_country_code, 0xB5);
    EXPECT_EQ(m.itu_t_t35_terminal_provider_code, 0x3C);
    EXPECT_EQ(m.itu_t_t35_terminal_provider_oriented_code, 1);
    EXPECT_EQ(m.application_identifier, 4);
    const FieldMap got = dump(m);
    for (const auto &w : want) EXPECT_TRUE(got.count(w.first)) << name << ": no field " << w.first;
    for (const auto &g : got) {
      const auto it = want.find(g.first);
      EXPECT_EQ(g.second, it == want.end() ? 0u : it->second) << name << ": " << g.first;
    }
  }
}

TEST(SeiT35, RefusesOtherPayloads) {
  struct Case {
    const char *name;
    std::vector<uint8_t> bytes;
    int32_t result;
    uint8_t country, app_id, version;
  } const kCases[] = {
      {"version 1", {0xB5, 0x00, 0x3C, 0x00, 0x01, 0x04, 0x01, 0x00}, 0, 0xB5, 4, 1},
      {"version 0", {0xB5, 0x00, 0x3C, 0x00, 0x01, 0x04, 0x00, 0x40}, 0, 0xB5, 4, 0},
      {"version 2", {0xB5, 0x00, 0x3C, 0x00, 0x01, 0x04, 0x02, 0x40}, -105, 0xB5, 4, 2},
      {"country code", {0xB4, 0x00, 0x3C, 0x00, 0x01, 0x04, 0x01}, -105, 0xB4, 0, 0},
      {"provider code", {0xB5, 0x00, 0x3B, 0x00, 0x01, 0x04, 0x01}, -105, 0xB5, 0, 0},
      {"provider oriented code", {0xB5, 0x00, 0x3C, 0x00, 0x02, 0x04, 0x01}, -105, 0xB5, 0, 0},
      {"application 5", {0xB5, 0x00, 0x3C, 0x00, 0x01, 0x05, 0x01}, -105, 0xB5, 5, 0},
      {"header only, no version", {0xB5, 0x00, 0x3C, 0x00, 0x01, 0x04}, -105, 0xB5, 4, 0xFF},
      {"empty", {}, -105, 0xFF, 0, 0},
  };
  for (const auto &c : kCases) {
    std::vector<uint8_t> exact(c.bytes);
    omni_sei_t35 m{};
    m.valid = 7;
    EXPECT_EQ(omni_vc_parse_sei_t35_metadata(exact.empty() ? nullptr : exact.data(),
                                             static_cast<uint32_t>(exact.size()), &m),
              c.result)
        << c.name;
    EXPECT_EQ(m.valid, c.result == 0 ? 1 : 0) << c.name;
    EXPECT_EQ(m.itu_t_t35_country_code, c.country) << c.name;  // read fields keep their values
    EXPECT_EQ(m.application_identifier, c.app_id) << c.name;
    EXPECT_EQ(m.application_version, c.version) << c.name;
  }
  const uint8_t ok[] = {0xB5, 0x00, 0x3C, 0x00, 0x01, 0x04, 0x01};
  EXPECT_EQ(omni_vc_parse_sei_t35_metadata(ok, sizeof ok, nullptr), -105);
}

TEST(SeiT35, CutAndCorruptedPayloadsStayInside) {
  std::vector<uint8_t> stream;
  ASSERT_TRUE(tarn_test::read_file(tarn_test::data_path("hdr10plus/three_windows.hevc"), &stream));
  const std::vector<uint8_t> full = first_t35_payload(stream);
  ASSERT_FALSE(full.empty());
  omni_sei_t35 whole{};
  ASSERT_EQ(omni_vc_parse_sei_t35_metadata(full.data(), static_cast<uint32_t>(full.size()), &whole), 0);
  // Every cut: exact-size copies, so AddressSanitizer sees any read past
  // the data. The header needs 7 bytes; after it, a short payload is not
  // detected and parses with the reader's end values, counts kept in range.
  for (size_t cut = 0; cut < full.size(); ++cut) {
    std::vector<uint8_t> part(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(cut));
    omni_sei_t35 m{};
    const int32_t r = omni_vc_parse_sei_t35_metadata(part.empty() ? nullptr : part.data(),
                                                     static_cast<uint32_t>(cut), &m);
    EXPECT_EQ(r, cut >= 7 ? 0 : -105) << cut;
    EXPECT_LE(m.num_windows, 3) << cut;
    if (cut >= 7) {
      EXPECT_EQ(m.num_windows, whole.num_windows) << cut;
    }
    for (int w = 0; w < 3; ++w) {
      EXPECT_LT(m.num_distribution_maxrgb_percentiles[w], 16) << cut;
      EXPECT_LT(m.num_bezier_curve_anchors[w], 16) << cut;
    }
  }
  // Random corruption anywhere after the header, including fake start codes.
  std::mt19937 rng(5);
  for (int round = 0; round < 2000; ++round) {
    std::vector<uint8_t> bad(full);
    const int flips = 1 + static_cast<int>(rng() % 8);
    for (int i = 0; i < flips; ++i) {
      const size_t at = 7 + rng() % (bad.size() - 7);
      bad[at] = rng() % 4 == 0 ? 0x00 : static_cast<uint8_t>(rng());
    }
    omni_sei_t35 m{};
    EXPECT_EQ(omni_vc_parse_sei_t35_metadata(bad.data(), static_cast<uint32_t>(bad.size()), &m), 0);
    EXPECT_LE(m.num_rows_targeted_system_display_actual_peak_luminance, 31);
  }
}

}  // namespace
