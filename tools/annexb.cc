#include "annexb.h"

namespace tarn_cli {

std::vector<NalUnit> split_annexb(const uint8_t *data, size_t size) {
  std::vector<NalUnit> units;
  size_t i = 0;
  size_t start = SIZE_MAX;  // first byte of the current unit
  while (i + 3 <= size) {
    if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) {
      if (start != SIZE_MAX) {
        size_t end = i;
        // A 4-byte start code's leading zero and trailing_zero_8bits belong
        // to no unit.
        while (end > start && data[end - 1] == 0) --end;
        if (end > start) units.push_back({data + start, end - start});
      }
      i += 3;
      start = i;
      continue;
    }
    ++i;
  }
  if (start != SIZE_MAX && start < size) {
    size_t end = size;
    while (end > start && data[end - 1] == 0) --end;
    if (end > start) units.push_back({data + start, end - start});
  }
  return units;
}

bool split_picture(const std::vector<uint8_t> &stream, CodedPicture *out, const char **why) {
  const std::vector<NalUnit> units = split_annexb(stream.data(), stream.size());
  if (units.empty()) {
    *why = "no start code found (expected an Annex-B HEVC stream)";
    return false;
  }
  for (const NalUnit &unit : units) {
    switch (unit.type()) {
      case kNalVps: out->vps.push_back(unit); break;
      case kNalSps: out->sps.push_back(unit); break;
      case kNalPps: out->pps.push_back(unit); break;
      case kNalAud: case kNalEos: case kNalEob: case kNalFd: break;  // stream framing, not picture data
      default: {
        static const uint8_t kStartCode[4] = {0, 0, 0, 1};
        out->frame.insert(out->frame.end(), kStartCode, kStartCode + 4);
        out->frame.insert(out->frame.end(), unit.data, unit.data + unit.size);
      }
    }
  }
  if (out->vps.empty() || out->sps.empty() || out->pps.empty()) {
    *why = "the stream lacks a VPS, SPS or PPS";
    return false;
  }
  if (out->frame.empty()) {
    *why = "the stream holds parameter sets but no picture data";
    return false;
  }
  return true;
}

}  // namespace tarn_cli
