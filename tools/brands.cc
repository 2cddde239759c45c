#include "brands.h"

#include <cstring>

namespace tarn_cli {
namespace {

constexpr uint8_t kProfileMain = 1;
constexpr uint8_t kProfileMainStillPicture = 3;
constexpr uint8_t kLevel6 = 180;  // level_idc is 30 times the level number

// A four-character code as the writer stores it: its bytes in file order.
uint32_t fourcc(const char code[5]) {
  uint32_t value;
  std::memcpy(&value, code, 4);
  return value;
}

}  // namespace

bool fits_hevc_basic_profile(uint8_t profile_space, uint8_t tier_flag, uint8_t profile_idc, uint8_t level_idc) {
  return profile_space == 0 && tier_flag == 0 &&
         (profile_idc == kProfileMain || profile_idc == kProfileMainStillPicture) && level_idc <= kLevel6;
}

void set_output_brands(tarnm_init_dsc *init, bool all_pictures_hevc_basic) {
  std::memset(init, 0, sizeof *init);
  init->use_custom_brands = 1;
  init->major_brand = fourcc("heic");
  init->minor_version = 0;
  const char *const brands[] = {"mif1", "miaf", "heic", "MiHB"};
  const uint32_t count = all_pictures_hevc_basic ? 4 : 3;
  for (uint32_t i = 0; i < count; ++i) init->compatible_brands[i] = fourcc(brands[i]);
  init->compatible_brand_count = count;
}

}  // namespace tarn_cli
