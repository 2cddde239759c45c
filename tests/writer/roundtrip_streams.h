// Test material for the image writer: the x265 streams of tests/data/hevc
// split into their NAL units, parameter sets as the writer takes them, and
// frames in the 4-byte start-code form that tarnm_put_frm expects.
#ifndef TARN_TESTS_WRITER_ROUNDTRIP_STREAMS_H
#define TARN_TESTS_WRITER_ROUNDTRIP_STREAMS_H

#include <cstdint>
#include <string>
#include <vector>

#include "tarn/writer.h"

namespace tarn_test {

using Bytes = std::vector<uint8_t>;

// Splits an Annex-B stream (3- or 4-byte start codes) into bare NAL units.
std::vector<Bytes> split_annexb(const Bytes &stream);

struct HevcStream {
  std::vector<Bytes> vps, sps, pps;
  std::vector<Bytes> slices;  // every other NAL unit, in stream order
  // The coded picture as tarnm_put_frm takes it: 00 00 00 01 before each
  // slice NAL unit.
  Bytes frame() const;
  // Parameter sets pointing into this object (keep it alive while used).
  tarnm_param_sets param_sets() const;
};

// Loads tests/data/hevc/<name>; false when the file is missing or holds no
// VPS, SPS, PPS and slice.
bool load_stream(const std::string &name, HevcStream *out);

// A minimal walk over box structures for checks on written and real files.
struct Box {
  uint32_t type;  // four characters, first in the most significant byte
  size_t offset;  // of the header within the buffer
  size_t header;  // 8 or 16 bytes
  size_t size;    // whole box
};
constexpr uint32_t fourcc(const char (&s)[5]) {
  return uint32_t(uint8_t(s[0])) << 24 | uint32_t(uint8_t(s[1])) << 16 |
         uint32_t(uint8_t(s[2])) << 8 | uint32_t(uint8_t(s[3]));
}
// Boxes lying back to back in buf[begin, end); stops at the first box whose
// size does not fit.
std::vector<Box> child_boxes(const Bytes &buf, size_t begin, size_t end);
// Every hvcC payload found in meta/iprp/ipco of a HEIF file.
std::vector<Bytes> hvcc_payloads(const Bytes &file);

uint32_t be32(const uint8_t *p);
uint16_t be16(const uint8_t *p);

}  // namespace tarn_test

#endif  // TARN_TESTS_WRITER_ROUNDTRIP_STREAMS_H
