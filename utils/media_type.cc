// Media-type numbering: four-character codes and audio format tags to the
// library's media types.
//
// Each family is a constant table sorted by the 32-bit code value and
// searched with tarn_bsearch; a static check keeps the order honest when a
// row is added.
#include "tarn/common.h"
#include "tarn/utils.h"

namespace {

struct CodeType {
  int32_t code;
  uint32_t type;
};

// First character in the least significant byte, as the characters stand in
// memory on a little-endian processor.
constexpr int32_t fcc(char a, char b, char c, char d) {
  return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint8_t>(a)) |
                              static_cast<uint32_t>(static_cast<uint8_t>(b)) << 8 |
                              static_cast<uint32_t>(static_cast<uint8_t>(c)) << 16 |
                              static_cast<uint32_t>(static_cast<uint8_t>(d)) << 24);
}

constexpr CodeType kVideo[] = {
    {fcc('R', 'V', '1', '0'), 113},
    {fcc('R', 'V', '2', '0'), 114},
    {fcc('R', 'V', '3', '0'), 115},
    {fcc('R', 'V', '4', '0'), 116},
    {fcc('D', 'X', '5', '0'), 102},
    {fcc('d', 'x', '5', '0'), 102},
    {fcc('V', 'P', '8', '0'), 119},
    {fcc('V', 'P', '9', '0'), 121},
    {fcc('v', 'c', '-', '1'), 118},
    {fcc('a', 'v', '0', '1'), 122},
    {fcc('A', 'V', 'C', '1'), 104},
    {fcc('W', 'V', 'C', '1'), 118},
    {fcc('F', 'L', 'V', '1'), 111},
    {fcc('W', 'M', 'V', '1'), 105},
    {fcc('a', 'v', 'c', '1'), 104},
    {fcc('h', 'v', 'c', '1'), 120},
    {fcc('w', 'v', 'c', '1'), 118},
    {fcc('h', 'e', 'v', '1'), 120},
    {fcc('w', 'm', 'v', '1'), 105},
    {fcc('a', 'p', 'v', '1'), 124},
    {fcc('M', '4', 'S', '2'), 102},
    {fcc('W', 'M', 'V', '2'), 106},
    {fcc('m', '4', 's', '2'), 102},
    {fcc('w', 'm', 'v', '2'), 106},
    {fcc('M', 'P', '4', '3'), 117},
    {fcc('m', 'p', '4', '3'), 117},
    {fcc('H', '2', '6', '3'), 103},
    {fcc('d', '2', '6', '3'), 103},
    {fcc('h', '2', '6', '3'), 103},
    {fcc('s', '2', '6', '3'), 103},
    {fcc('D', 'I', 'V', '3'), 110},
    {fcc('W', 'M', 'V', '3'), 107},
    {fcc('d', 'i', 'v', '3'), 110},
    {fcc('w', 'm', 'v', '3'), 107},
    {fcc('H', '2', '6', '4'), 104},
    {fcc('X', '2', '6', '4'), 104},
    {fcc('h', '2', '6', '4'), 104},
    {fcc('x', '2', '6', '4'), 104},
    {fcc('F', 'M', 'P', '4'), 102},
    {fcc('D', 'I', 'V', '4'), 102},
    {fcc('d', 'i', 'v', '4'), 102},
    {fcc('a', 'v', '1', 'C'), 122},
    {fcc('a', 'v', 'c', 'C'), 104},
    {fcc('h', 'v', 'c', 'C'), 120},
    {fcc('v', 'x', 'h', 'C'), 120},
    {fcc('X', 'V', 'I', 'D'), 102},
    {fcc('M', 'P', '4', 'V'), 102},
    {fcc('D', 'I', 'V', 'X'), 102},
    {fcc('x', 'v', 'i', 'd'), 102},
    {fcc('m', 'p', '4', 'v'), 102},
    {fcc('d', 'i', 'v', 'x'), 102},
};
constexpr CodeType kAudio[] = {
    {1, 300},
    {2, 330},
    {6, 301},
    {7, 302},
    {17, 329},
    {80, 304},
    {85, 305},
    {255, 306},
    {352, 312},
    {353, 312},
    {354, 313},
    {355, 314},
    {8192, 307},
    {8193, 308},
    {61868, 322},
    {157519, 323},
    {fcc('D', 'S', 'D', ' '), 335},
    {fcc('a', 'a', 'c', ' '), 306},
    {fcc('a', 'c', '-', '3'), 307},
    {fcc('e', 'c', '-', '3'), 337},
    {fcc('a', 'c', '-', '4'), 338},
    {fcc('f', 'L', 'a', 'C'), 322},
    {fcc('m', 'p', '4', 'a'), 306},
    {fcc('s', 'a', 'w', 'b'), 310},
    {fcc('e', 'v', 'r', 'c'), 321},
    {fcc('c', 'o', 'o', 'k'), 332},
    {fcc('d', 'q', 'c', 'p'), 311},
    {fcc('s', 'q', 'c', 'p'), 311},
    {fcc('s', 'a', 'm', 'r'), 309},
    {fcc('s', 'i', 'p', 'r'), 331},
    {fcc('O', 'p', 'u', 's'), 334},
};
constexpr CodeType kSubtitle[] = {
    {fcc('S', 'S', 'S', 'A'), 3008},
    {fcc('T', 'X', '3', 'G'), 3006},
    {fcc('S', 'B', 'T', 'L'), 3006},
    {fcc('S', 'A', 'S', 'S'), 3007},
    {fcc('S', 'S', 'R', 'T'), 3000},
    {fcc('t', 'x', '3', 'g'), 3006},
    {fcc('s', 'b', 't', 'l'), 3006},
};

constexpr CodeType kDrm[] = {
    {fcc('D', 'I', 'V', 'X'), 1100},
    {fcc('d', 'i', 'v', 'x'), 1100},
};

template <size_t N>
constexpr bool sorted(const CodeType (&table)[N]) {
  for (size_t i = 1; i < N; ++i)
    if (table[i - 1].code >= table[i].code) return false;
  return true;
}
static_assert(sorted(kVideo) && sorted(kAudio) && sorted(kSubtitle) && sorted(kDrm),
              "media-type tables must be sorted by code without duplicates");

int32_t compare_code(const void *key, const void *element, void *) {
  const int32_t k = *static_cast<const int32_t *>(key);
  const int32_t e = static_cast<const CodeType *>(element)->code;
  return k > e ? 1 : (k < e ? -1 : 0);
}

template <size_t N>
uint32_t lookup(const CodeType (&table)[N], int32_t code, uint32_t unknown) {
  const void *hit = tarn_bsearch(table, static_cast<int32_t>(N), sizeof(CodeType), &code,
                                 compare_code, nullptr);
  return hit ? static_cast<const CodeType *>(hit)->type : unknown;
}

}  // namespace

extern "C" {

uint32_t omni_fcc2mt_vid(int32_t code) { return lookup(kVideo, code, OMNI_MT_VIDEO_UNKNOWN); }
uint32_t omni_fcc2mt_aud(int32_t code) { return lookup(kAudio, code, OMNI_MT_AUDIO_UNKNOWN); }
uint32_t omni_fcc2mt_drm(int32_t code) { return lookup(kDrm, code, OMNI_MT_DRM_UNKNOWN); }
uint32_t omni_fcc2mt_sub(int32_t code) { return lookup(kSubtitle, code, OMNI_MT_SUBTITLE_UNKNOWN); }

uint32_t omni_fcc2mt(int32_t code) {
  // Audio first: small integers are WAVE format tags. "DIVX" is answered by
  // the video table, so a DRM type never comes back from here.
  const uint32_t audio = omni_fcc2mt_aud(code);
  if (audio != OMNI_MT_AUDIO_UNKNOWN) return audio;
  const uint32_t video = omni_fcc2mt_vid(code);
  if (video != OMNI_MT_VIDEO_UNKNOWN) return video;
  return omni_fcc2mt_sub(code);
}

}  // extern "C"
