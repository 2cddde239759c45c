// Image-buffer helpers: plane counts of colour formats and integer base-2
// logarithms.
#include "tarn/utils.h"

namespace {

struct FormatPlanes {
  int32_t format;
  uint32_t planes;
};

// Sorted by format code.
constexpr FormatPlanes kPlanes[] = {
    {1, 3},   {4, 3},   {6, 2},   {7, 2},   {200, 1}, {201, 1}, {210, 1}, {211, 1},
    {300, 1}, {301, 1}, {400, 1}, {401, 1}, {500, 1}, {501, 1}, {502, 1}, {503, 1},
    {600, 3}, {601, 2},
};

}  // namespace

extern "C" {

uint32_t omni_imgb_get_plane_count(int32_t format) {
  for (const FormatPlanes &f : kPlanes)
    if (f.format == format) return f.planes;
  return 0;
}

int32_t omni_floor_log2(uint32_t v) { return 31 - static_cast<int32_t>(omni_bsr_clz_in_code(v)); }

int32_t omni_ceil_log2(uint32_t v) {
  if (v == 0) return 0;
  const int32_t floor_log = omni_floor_log2(v);
  return (v & (v - 1)) == 0 ? floor_log : floor_log + 1;
}

void omni_imgb_dump(const void *imgb) { (void)imgb; }

}  // extern "C"
