// A small builder for HEIF test files, so that a malformed case reads as a
// few lines instead of a hex blob:
//
//   using namespace tarn_test::bb;
//   Bytes file = cat({ftyp(), fullbox("meta", 0, 0, {hdlr(), fullbox("pitm", 0, 0, {u16(1)}), ...})});
//
// Fields are big-endian; str() appends the terminating NUL, raw() does not.
// box()/fullbox() prefix the parts with their true 32-bit size (and version
// and 24-bit flags); box_sized() writes a given size field instead, for boxes
// that lie about their length, and box_large() size 1 and a 64-bit size (the
// true one unless given).
#ifndef TARN_TESTS_BOX_BUILDER_H
#define TARN_TESTS_BOX_BUILDER_H

#include <cstdint>
#include <string>
#include <vector>

namespace tarn_test {
namespace bb {

using Bytes = std::vector<uint8_t>;

inline Bytes be(uint64_t v, int n) {
  Bytes out(size_t(n), 0);
  for (int i = n - 1; i >= 0; --i, v >>= 8) out[size_t(i)] = uint8_t(v);
  return out;
}
inline Bytes u8(uint8_t v) { return Bytes{v}; }
inline Bytes u16(uint16_t v) { return be(v, 2); }
inline Bytes u32(uint32_t v) { return be(v, 4); }
inline Bytes u64(uint64_t v) { return be(v, 8); }
inline Bytes raw(const std::string &s) { return Bytes(s.begin(), s.end()); }
inline Bytes fourcc(const char *code) {
  Bytes b = raw(std::string(code).substr(0, 4));
  b.resize(4, 0);
  return b;
}
inline Bytes str(const std::string &s) { return raw(s + '\0'); }
inline Bytes zeros(size_t n) { return Bytes(n, 0); }
inline void append(Bytes *b, const Bytes &other) { b->insert(b->end(), other.begin(), other.end()); }
inline Bytes cat(const std::vector<Bytes> &parts) {
  Bytes out;
  for (const Bytes &p : parts) append(&out, p);
  return out;
}

inline Bytes box_sized(uint32_t size32, const char *type, const std::vector<Bytes> &parts = {}) {
  return cat({u32(size32), fourcc(type), cat(parts)});
}
inline Bytes box(const char *type, const std::vector<Bytes> &parts = {}) {
  const Bytes body = cat(parts);
  return box_sized(uint32_t(body.size() + 8), type, {body});
}
inline Bytes fullbox(const char *type, uint8_t version, uint32_t flags, const std::vector<Bytes> &parts = {}) {
  return box(type, {u8(version), be(flags, 3), cat(parts)});
}
inline Bytes box_large(const char *type, const std::vector<Bytes> &parts = {}, uint64_t size64 = 0) {
  const Bytes body = cat(parts);
  return cat({u32(1), fourcc(type), u64(size64 != 0 ? size64 : body.size() + 16), body});
}

// The pieces every small test file has.
inline Bytes ftyp() { return box("ftyp", {fourcc("heic"), u32(0), fourcc("mif1"), fourcc("heic")}); }
inline Bytes hdlr() { return fullbox("hdlr", 0, 0, {u32(0), fourcc("pict"), zeros(12), str("")}); }
inline Bytes infe(uint16_t id, const char *type, uint32_t flags = 0) {
  return fullbox("infe", 2, flags, {u16(id), u16(0), fourcc(type), str("")});
}
inline Bytes ispe(uint32_t w, uint32_t h) { return fullbox("ispe", 0, 0, {u32(w), u32(h)}); }
// hvcC with the given arrays and NAL length prefixes of length_size bytes.
inline Bytes hvcc(const Bytes &arrays = {}, uint8_t array_cnt = 0, uint8_t length_size = 4) {
  return box("hvcC", {zeros(21), u8(uint8_t(0xFC | (length_size - 1))), u8(array_cnt), arrays});
}
// A reference box: from, the count (the ids' own unless given), the ids.
inline Bytes ref(const char *type, uint16_t from, const std::vector<uint16_t> &to, int count = -1) {
  Bytes b = cat({u16(from), u16(uint16_t(count < 0 ? to.size() : size_t(count)))});
  for (uint16_t t : to) append(&b, u16(t));
  return box(type, {b});
}

}  // namespace bb
}  // namespace tarn_test

#endif  // TARN_TESTS_BOX_BUILDER_H
