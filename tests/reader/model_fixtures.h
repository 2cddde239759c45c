// Small HEIF files built box by box for the reader's malformed-input tables:
// one hvc1 item with hvcC and ispe, whose boxes a case replaces or extends.
#ifndef TARN_TESTS_READER_MODEL_FIXTURES_H
#define TARN_TESTS_READER_MODEL_FIXTURES_H

#include "support/box_builder.h"

namespace tarn_test {
namespace fx {

using bb::Bytes;

inline Bytes ftyp() {
  using namespace bb;
  return box("ftyp", {fourcc("heic"), u32(0), fourcc("mif1"), fourcc("heic")});
}
inline Bytes hdlr() {
  using namespace bb;
  return fullbox("hdlr", 0, 0, {u32(0), fourcc("pict"), zeros(12), str("")});
}
inline Bytes infe(uint16_t id, const char *type, uint32_t flags = 0) {
  using namespace bb;
  return fullbox("infe", 2, flags, {u16(id), u16(0), fourcc(type), str("")});
}
inline Bytes iinf(std::initializer_list<Bytes> entries) {
  using namespace bb;
  std::vector<Bytes> parts{u16(static_cast<uint16_t>(entries.size()))};
  parts.insert(parts.end(), entries.begin(), entries.end());
  return fullbox("iinf", 0, 0, parts);
}
// iloc version 0 with 4-byte offsets and lengths, one extent per item.
inline Bytes iloc1(uint16_t id, uint32_t offset, uint32_t length) {
  using namespace bb;
  return fullbox("iloc", 0, 0, {u8(0x44), u8(0), u16(1), u16(id), u16(0), u16(1), u32(offset),
                                u32(length)});
}
// hvcC with one VPS, SPS and PPS of the given sizes, 4-byte NAL lengths.
inline Bytes hvcC(uint16_t vps = 24, uint16_t sps = 40, uint16_t pps = 7) {
  using namespace bb;
  auto array = [](uint8_t type, uint16_t len) {
    Bytes nal = zeros(len);
    nal[0] = static_cast<uint8_t>(type << 1);
    return cat({u8(type), u16(1), u16(len), nal});
  };
  return box("hvcC", {u8(1), zeros(20), u8(0xf3), u8(3), array(32, vps), array(33, sps),
                      array(34, pps)});
}
inline Bytes ispe(uint32_t w, uint32_t h) {
  using namespace bb;
  return fullbox("ispe", 0, 0, {u32(w), u32(h)});
}
// ipma version 0, one entry for item id with the given 1-based indexes.
inline Bytes ipma1(uint16_t id, std::initializer_list<uint8_t> indexes) {
  using namespace bb;
  std::vector<Bytes> parts{u32(1), u16(id), u8(static_cast<uint8_t>(indexes.size()))};
  for (uint8_t i : indexes) parts.push_back(u8(i));
  return fullbox("ipma", 0, 0, parts);
}
inline Bytes iprp(std::initializer_list<Bytes> props, const Bytes &ipma) {
  using namespace bb;
  return box("iprp", {box("ipco", std::vector<Bytes>(props)), ipma});
}
inline Bytes default_iprp() { return iprp({hvcC(), ispe(64, 48)}, ipma1(1, {0x81, 2})); }

// ftyp, a meta box holding children, then an 8-byte mdat payload.
inline Bytes file(const std::vector<Bytes> &meta_children) {
  using namespace bb;
  return cat({ftyp(), fullbox("meta", 0, 0, meta_children), box("mdat", {zeros(8)})});
}
// The whole valid file with extra boxes appended inside meta.
inline Bytes valid_file(std::initializer_list<Bytes> extra = {}) {
  using namespace bb;
  std::vector<Bytes> children{hdlr(), fullbox("pitm", 0, 0, {u16(1)}), iinf({infe(1, "hvc1")}),
                              iloc1(1, 0, 8), default_iprp()};
  children.insert(children.end(), extra.begin(), extra.end());
  return file(children);
}

}  // namespace fx
}  // namespace tarn_test

#endif  // TARN_TESTS_READER_MODEL_FIXTURES_H
