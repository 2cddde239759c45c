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
// true one unless given). File is a whole small file of ftyp, meta and
// mdat whose pieces a test replaces.
#ifndef TARN_TESTS_BOX_BUILDER_H
#define TARN_TESTS_BOX_BUILDER_H

#include <cstdint>
#include <string>
#include <utility>
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

// One item location; off is relative to the mdat payload for method 0.
struct Loc {
  uint16_t id;
  uint32_t off, len;
  uint16_t method;
};

inline Bytes clap(const std::vector<int32_t> &v) {
  Bytes b;
  for (int32_t x : v) append(&b, u32(static_cast<uint32_t>(x)));
  return box("clap", {b});
}
inline Bytes iref(const Bytes &refs, uint8_t version = 0) { return fullbox("iref", version, 0, {refs}); }
// ipma version 0: one entry per item, 1-byte indices.
inline Bytes ipma(const std::vector<std::vector<uint8_t>> &entries) {
  Bytes b = u32(static_cast<uint32_t>(entries.size()));
  for (const auto &e : entries) {
    append(&b, cat({u16(e[0]), u8(static_cast<uint8_t>(e.size() - 1))}));
    b.insert(b.end(), e.begin() + 1, e.end());
  }
  return fullbox("ipma", 0, 0, {b});
}

// One 6-byte NAL unit behind a 4-byte length.
inline const Bytes kFrame = {0, 0, 0, 6, 0x26, 0x01, 0xaf, 0x10, 0x20, 0x30};

// ftyp, meta, mdat. Item 1 is a 64x64 hvc1 image holding kFrame; a case
// replaces the piece it breaks.
struct File {
  Bytes ftyp = bb::ftyp();
  Bytes head;  // between ftyp and meta
  Bytes hdlr = bb::hdlr();
  Bytes pitm = fullbox("pitm", 0, 0, {u16(1)});
  std::vector<Bytes> infes = {infe(1, "hvc1")};
  Bytes iinf;  // built from infes unless set
  std::vector<Loc> locs = {{1, 0, 10, 0}};
  uint8_t iloc_version = 0;
  Bytes iloc;                                        // built from locs unless set
  std::vector<std::pair<uint32_t, uint32_t>> split;  // item 1's extents (offset, length) when set
  Bytes ipco = cat({hvcc(), ispe(64, 64)});
  Bytes ipma_box = ipma({{1, 0x81, 0x82}});
  Bytes iprp;  // built from ipco and ipma_box unless set
  Bytes more;  // after iprp: iref, idat, grpl
  Bytes mdat = kFrame;
  Bytes tail;  // after mdat

  Bytes meta(uint32_t base) const {
    Bytes loc = iloc;
    if (loc.empty()) {
      const bool wide = iloc_version == 2;
      loc = cat({u8(0x44), u8(0), wide ? u32(uint32_t(locs.size())) : u16(uint16_t(locs.size()))});
      for (const Loc &l : locs) {
        const auto &ext =
            l.id == 1 && !split.empty() ? split : std::vector<std::pair<uint32_t, uint32_t>>{{l.off, l.len}};
        append(&loc, cat({wide ? u32(l.id) : u16(l.id), iloc_version ? u16(l.method) : Bytes{}, u16(0),
                          u16(uint16_t(ext.size()))}));
        for (const auto &e : ext) {
          append(&loc, cat({u32(l.method ? e.first : base + e.first), u32(e.second)}));
        }
      }
      loc = fullbox("iloc", iloc_version, 0, {loc});
    }
    const Bytes info = iinf.empty() ? fullbox("iinf", 0, 0, {u16(uint16_t(infes.size())), cat(infes)}) : iinf;
    const Bytes props = iprp.empty() ? box("iprp", {box("ipco", {ipco}), ipma_box}) : iprp;
    return fullbox("meta", 0, 0, {hdlr, pitm, info, loc, props, more});
  }
  Bytes build() const {
    const uint32_t base = uint32_t(ftyp.size() + head.size() + meta(0).size() + 8);
    return cat({ftyp, head, meta(base), box("mdat", {mdat}), tail});
  }
};

}  // namespace bb
}  // namespace tarn_test

#endif  // TARN_TESTS_BOX_BUILDER_H
