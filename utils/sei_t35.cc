// HDR10+ dynamic metadata (ST 2094-40) from a T.35 registered user-data SEI
// payload, read through the NAL-aware bit reader so that emulation-prevention
// bytes drop out.
#include <stdlib.h>

#include "tarn/utils.h"

namespace {

constexpr int32_t kFailed = -105;
constexpr uint32_t kCountryUs = 0xB5;
constexpr uint32_t kProviderSmpte = 0x003C;
constexpr uint32_t kProviderOriented = 0x0001;
constexpr uint32_t kApplication2094_40 = 4;
constexpr uint32_t kMaxApplicationVersion = 1;

// Reads an n-bit field. A read past the end gives the reader's all-ones end
// value; keeping only the field's n bits means no count can exceed what its
// width allows, so every count stays within the record's arrays.
template <typename T>
T field(omni_bsr *bs, int32_t n) {
  const uint32_t v = omni_bsr_read(bs, n);
  return static_cast<T>(n >= 32 ? v : v & ((uint32_t{1} << n) - 1));
}

void read_peak_matrix(omni_bsr *bs, uint8_t *rows, uint8_t *cols,
                      uint8_t (*matrix)[OMNI_SEI_T35_MAX_PEAK]) {
  *rows = field<uint8_t>(bs, 5);
  *cols = field<uint8_t>(bs, 5);
  for (int r = 0; r < *rows; ++r)
    for (int c = 0; c < *cols; ++c) matrix[r][c] = field<uint8_t>(bs, 4);
}

bool parse(omni_bsr *bs, omni_sei_t35 *m) {
  m->itu_t_t35_country_code = field<uint8_t>(bs, 8);
  if (m->itu_t_t35_country_code != kCountryUs) return false;
  m->itu_t_t35_terminal_provider_code = field<uint16_t>(bs, 16);
  if (m->itu_t_t35_terminal_provider_code != kProviderSmpte) return false;
  m->itu_t_t35_terminal_provider_oriented_code = field<uint16_t>(bs, 16);
  if (m->itu_t_t35_terminal_provider_oriented_code != kProviderOriented) return false;
  m->application_identifier = field<uint8_t>(bs, 8);
  if (m->application_identifier != kApplication2094_40) return false;
  m->application_version = field<uint8_t>(bs, 8);
  if (m->application_version > kMaxApplicationVersion) return false;
  m->num_windows = field<uint8_t>(bs, 2);
  const int windows = m->num_windows;

  // Window 0 is the whole picture: only the extra windows carry geometry.
  for (int w = 1; w < windows; ++w) {
    m->window_upper_left_corner_x[w] = field<uint16_t>(bs, 16);
    m->window_upper_left_corner_y[w] = field<uint16_t>(bs, 16);
    m->window_lower_right_corner_x[w] = field<uint16_t>(bs, 16);
    m->window_lower_right_corner_y[w] = field<uint16_t>(bs, 16);
    m->center_of_ellipse_x[w] = field<uint16_t>(bs, 16);
    m->center_of_ellipse_y[w] = field<uint16_t>(bs, 16);
    m->rotation_angle[w] = field<uint8_t>(bs, 8);
    m->semimajor_axis_internal_ellipse[w] = field<uint16_t>(bs, 16);
    m->semimajor_axis_external_ellipse[w] = field<uint16_t>(bs, 16);
    m->semiminor_axis_external_ellipse[w] = field<uint16_t>(bs, 16);
    m->overlap_process_option[w] = field<uint8_t>(bs, 1);
  }

  m->targeted_system_display_maximum_luminance = field<uint32_t>(bs, 27);
  m->targeted_system_display_actual_peak_luminance_flag = field<uint8_t>(bs, 1);
  if (m->targeted_system_display_actual_peak_luminance_flag)
    read_peak_matrix(bs, &m->num_rows_targeted_system_display_actual_peak_luminance,
                     &m->num_cols_targeted_system_display_actual_peak_luminance,
                     m->targeted_system_display_actual_peak_luminance);

  for (int w = 0; w < windows; ++w) {
    for (int c = 0; c < 3; ++c) m->maxscl[w][c] = field<uint32_t>(bs, 17);
    m->average_maxrgb[w] = field<uint32_t>(bs, 17);
    m->num_distribution_maxrgb_percentiles[w] = field<uint8_t>(bs, 4);
    for (int i = 0; i < m->num_distribution_maxrgb_percentiles[w]; ++i) {
      m->distribution_maxrgb_percentages[w][i] = field<uint8_t>(bs, 7);
      m->distribution_maxrgb_percentiles[w][i] = field<uint32_t>(bs, 17);
    }
    m->fraction_bright_pixels[w] = field<uint16_t>(bs, 10);
  }

  m->mastering_display_actual_peak_luminance_flag = field<uint8_t>(bs, 1);
  if (m->mastering_display_actual_peak_luminance_flag)
    read_peak_matrix(bs, &m->num_rows_mastering_display_actual_peak_luminance,
                     &m->num_cols_mastering_display_actual_peak_luminance,
                     m->mastering_display_actual_peak_luminance);

  for (int w = 0; w < windows; ++w) {
    m->tone_mapping_flag[w] = field<uint8_t>(bs, 1);
    if (m->tone_mapping_flag[w]) {
      m->knee_point_x[w] = field<uint16_t>(bs, 12);
      m->knee_point_y[w] = field<uint16_t>(bs, 12);
      m->num_bezier_curve_anchors[w] = field<uint16_t>(bs, 4);
      for (int i = 0; i < m->num_bezier_curve_anchors[w]; ++i)
        m->bezier_curve_anchors[w][i] = field<uint16_t>(bs, 10);
    }
    m->color_saturation_mapping_flag[w] = field<uint8_t>(bs, 1);
    if (m->color_saturation_mapping_flag[w]) m->color_saturation_weight[w] = field<uint8_t>(bs, 6);
  }
  return true;
}

}  // namespace

extern "C" int32_t omni_vc_parse_sei_t35_metadata(const uint8_t *data, uint32_t size,
                                                  omni_sei_t35 *out) {
  if (!out) return kFailed;
  omni_bsr *bs = static_cast<omni_bsr *>(calloc(1, sizeof(omni_bsr)));
  if (!bs) {
    out->valid = 0;
    return kFailed;
  }
  omni_bsr_init(bs, data, size, vc_nal_bsr_flush);
  const bool ok = parse(bs, out);
  free(bs);
  out->valid = ok ? 1 : 0;
  return ok ? 0 : kFailed;
}
