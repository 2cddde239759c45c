// Annex-B byte streams as the tool reads and writes them: NAL units split at
// 3- or 4-byte start codes, parameter sets told apart from picture data.
#ifndef TARN_TOOLS_ANNEXB_H
#define TARN_TOOLS_ANNEXB_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tarn_cli {

struct NalUnit {
  const uint8_t *data;  // the NAL header's first byte
  size_t size;          // without start code and trailing zero bytes
  unsigned type() const { return size > 0 ? (data[0] >> 1) & 0x3f : 64; }
};

// HEVC NAL unit types the tool treats specially.
constexpr unsigned kNalVps = 32;
constexpr unsigned kNalSps = 33;
constexpr unsigned kNalPps = 34;
constexpr unsigned kNalAud = 35;
constexpr unsigned kNalEos = 36;
constexpr unsigned kNalEob = 37;
constexpr unsigned kNalFd = 38;

// Splits a byte stream into NAL units. Bytes before the first start code
// are ignored; returns an empty list when there is no start code.
std::vector<NalUnit> split_annexb(const uint8_t *data, size_t size);

// One coded picture ready for the writer: its parameter sets (bare NAL
// units) and its other NAL units joined with 4-byte start codes.
struct CodedPicture {
  std::vector<NalUnit> vps, sps, pps;
  std::vector<uint8_t> frame;
};

// Fails (returns false) when the stream lacks a VPS, SPS, PPS or picture data.
bool split_picture(const std::vector<uint8_t> &stream, CodedPicture *out, const char **why);

}  // namespace tarn_cli

#endif  // TARN_TOOLS_ANNEXB_H
