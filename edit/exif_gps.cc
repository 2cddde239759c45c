// Removing the GPS data from an Exif block without disturbing anything else:
// the GPS IFD pointer leaves IFD0 and the GPS IFD's bytes are zeroed. Every
// offset comes from the block itself, so each one is checked against the
// block before it is followed, and nothing is changed until all checks pass.
#include <cstring>

#include "tarn/edit.h"

namespace {

constexpr uint16_t kGpsIfdTag = 0x8825;
constexpr uint32_t kTiffHeaderSize = 8;
constexpr uint32_t kIfdEntrySize = 12;
constexpr uint8_t kExifMarker[6] = {'E', 'x', 'i', 'f', 0, 0};

// A bounded view of the TIFF stream in its own byte order.
struct Tiff {
  uint8_t *p;
  uint32_t size;
  bool little;
  bool u16(uint32_t at, uint16_t *v) const {
    if (size < 2 || at > size - 2) return false;
    *v = little ? uint16_t(p[at] | p[at + 1] << 8) : uint16_t(p[at] << 8 | p[at + 1]);
    return true;
  }
  bool u32(uint32_t at, uint32_t *v) const {
    if (size < 4 || at > size - 4) return false;
    *v = little ? uint32_t(p[at]) | uint32_t(p[at + 1]) << 8 | uint32_t(p[at + 2]) << 16 | uint32_t(p[at + 3]) << 24
                : uint32_t(p[at]) << 24 | uint32_t(p[at + 1]) << 16 | uint32_t(p[at + 2]) << 8 | uint32_t(p[at + 3]);
    return true;
  }
};

// Bytes per value of each TIFF field type (1 to 13); unknown types count as
// bytes so that their values are still bounded.
uint32_t type_size(uint16_t type) {
  static const uint8_t kSizes[14] = {1, 1, 1, 2, 4, 8, 1, 1, 2, 4, 8, 4, 8, 4};
  return type < 14 ? kSizes[type] : 1;
}

struct Range {
  uint32_t begin, end;
};

bool overlaps(Range a, Range b) { return a.begin < b.end && b.begin < a.end; }

// The byte range of an IFD: count, entries and next-IFD offset.
bool ifd_range(const Tiff &t, uint32_t at, Range *r, uint16_t *count) {
  if (!t.u16(at, count)) return false;
  const uint32_t table = 2 + uint32_t(*count) * kIfdEntrySize + 4;
  if (table > t.size - at) return false;
  *r = {at, at + table};
  return true;
}

}  // namespace

extern "C" int32_t tarn_edit_strip_gps(uint8_t *data, uint32_t size) {
  if (data == nullptr) return -1;
  uint32_t base = 0;
  if (size >= sizeof kExifMarker && std::memcmp(data, kExifMarker, sizeof kExifMarker) == 0) base = sizeof kExifMarker;
  Tiff t{data + base, size - base, false};
  if (t.size < kTiffHeaderSize) return -1;
  if (t.p[0] == 'I' && t.p[1] == 'I') {
    t.little = true;
  } else if (!(t.p[0] == 'M' && t.p[1] == 'M')) {
    return -1;
  }
  uint16_t magic = 0;
  uint32_t ifd0 = 0;
  if (!t.u16(2, &magic) || magic != 42 || !t.u32(4, &ifd0) || ifd0 < kTiffHeaderSize) return -1;
  Range ifd0_range;
  uint16_t count = 0;
  if (!ifd_range(t, ifd0, &ifd0_range, &count)) return -1;

  uint32_t entry = 0, gps = 0;
  bool found = false;
  for (uint32_t i = 0; i < count && !found; ++i) {
    uint16_t tag = 0;
    entry = ifd0 + 2 + i * kIfdEntrySize;
    t.u16(entry, &tag);
    if (tag == kGpsIfdTag) found = t.u32(entry + 8, &gps);
  }
  if (!found) return 0;

  // Everything to zero: the GPS IFD itself and each out-of-line value. None
  // of it may touch the header or IFD0, which stay in use. The first pass
  // only checks; the second clears.
  const Range header{0, kTiffHeaderSize};
  Range gps_range;
  uint16_t gps_count = 0;
  if (gps < kTiffHeaderSize || !ifd_range(t, gps, &gps_range, &gps_count) || overlaps(gps_range, header) ||
      overlaps(gps_range, ifd0_range))
    return -1;
  for (int pass = 0; pass < 2; ++pass) {
    for (uint32_t i = 0; i < gps_count; ++i) {
      const uint32_t at = gps + 2 + i * kIfdEntrySize;
      uint16_t type = 0;
      uint32_t values = 0, offset = 0;
      t.u16(at + 2, &type);
      t.u32(at + 4, &values);
      t.u32(at + 8, &offset);
      const uint64_t bytes = uint64_t(values) * type_size(type);
      if (bytes <= 4) continue;  // the value sits in the entry
      if (pass == 1) {
        std::memset(t.p + offset, 0, size_t(bytes));
        continue;
      }
      if (offset > t.size || bytes > t.size - offset) return -1;
      const Range value{offset, offset + uint32_t(bytes)};
      if (overlaps(value, header) || overlaps(value, ifd0_range)) return -1;
    }
  }
  std::memset(t.p + gps_range.begin, 0, gps_range.end - gps_range.begin);
  // The entries after the pointer and the next-IFD offset move up one slot;
  // the slot freed at the end of the table is cleared.
  std::memmove(t.p + entry, t.p + entry + kIfdEntrySize, ifd0_range.end - entry - kIfdEntrySize);
  std::memset(t.p + ifd0_range.end - kIfdEntrySize, 0, kIfdEntrySize);
  const uint16_t left = uint16_t(count - 1);
  t.p[ifd0] = t.little ? uint8_t(left) : uint8_t(left >> 8);
  t.p[ifd0 + 1] = t.little ? uint8_t(left >> 8) : uint8_t(left);
  return 1;
}
