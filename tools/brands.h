// The file-type brands of every HEIC file that the tool writes.
#ifndef TARN_TOOLS_BRANDS_H
#define TARN_TOOLS_BRANDS_H

#include <cstdint>

#include "tarn/writer.h"

namespace tarn_cli {

// True when a picture coded with this HEVC profile, tier and level may be
// stored under the MIAF HEVC basic profile: Main or Main Still Picture, Main
// tier, level 6 or lower (8-bit 4:2:0 only).
bool fits_hevc_basic_profile(uint8_t profile_space, uint8_t tier_flag, uint8_t profile_idc, uint8_t level_idc);

// Sets init to write major brand "heic" with the compatible brands "mif1"
// (HEIF image items), "miaf" (the MIAF constraints the writer's files meet)
// and "heic", plus "MiHB" when every picture of the file fits the HEVC basic
// profile. The library's built-in ftyp lacks "miaf", so the tool always
// writes its own.
void set_output_brands(tarnm_init_dsc *init, bool all_pictures_hevc_basic);

}  // namespace tarn_cli

#endif  // TARN_TOOLS_BRANDS_H
