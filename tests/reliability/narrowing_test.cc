// Sizes and offsets at and above 4 GiB, which a 32-bit size_t or int would
// cut: these run on 32-bit ARM too. The reader gets a sparse source of
// 4 GiB + 64 KiB that holds real bytes only at its head and at one far
// place, so nothing of that size is ever allocated.
#include <gtest/gtest.h>

#include <vector>

#include "reader/helpers.h"

namespace tarn_test {
namespace {

using namespace bb;

constexpr uint64_t k4G = 0x100000000ull;
constexpr uint64_t kFar = k4G + 0x100;      // where the far bytes lie
constexpr uint64_t kSourceSize = k4G + 0x10000;

struct Sparse {
  Bytes head, far;
  uint64_t pos;
};
Sparse *sp(void *h) { return static_cast<Sparse *>(h); }
uint8_t byte_at(const Sparse *s, uint64_t at) {
  if (at < s->head.size()) return s->head[size_t(at)];
  return at >= kFar && at - kFar < s->far.size() ? s->far[size_t(at - kFar)] : 0;
}
uint32_t sparse_read(void *h, void *buf, uint32_t n) {
  if (n > kSourceSize - sp(h)->pos) return 0;
  for (uint32_t i = 0; i < n; ++i) static_cast<uint8_t *>(buf)[i] = byte_at(sp(h), sp(h)->pos++);
  return n;
}
const tarnd_io_dsc kSparseIo = {
    [](const tarnd_io_dsc *io, int32_t) { return io->caller_data[0]; },
    [](void *) { return int32_t(0); },
    sparse_read,
    nullptr,
    [](void *h, uint64_t *p) { return *p = sp(h)->pos, int32_t(0); },
    [](void *h, uint64_t *p) { return *p > kSourceSize ? -1 : (sp(h)->pos = *p, int32_t(0)); },
    [](void *h, uint64_t *n) { return *n > kSourceSize - sp(h)->pos ? -1 : (sp(h)->pos += *n, int32_t(0)); },
    [](void *, uint64_t *s) { return *s = kSourceSize, int32_t(0); },
    {}};

// ftyp and a meta box of item 1 (type given) whose data lies where iloc
// says, then an mdat with a 64-bit size that runs to the end of the source.
Bytes head_with(const char *type, const Bytes &iloc_body, uint8_t iloc_version) {
  const Bytes meta = fullbox("meta", 0, 0, {hdlr(), fullbox("pitm", 0, 0, {u16(1)}),
      fullbox("iinf", 0, 0, {u16(1), infe(1, type)}), fullbox("iloc", iloc_version, 0, {iloc_body}),
      box("iprp", {box("ipco", {ispe(64, 64)}), fullbox("ipma", 0, 0, {u32(1), u16(1), u8(1), u8(0x81)})})});
  Bytes file = cat({ftyp(), meta});
  return cat({file, u32(1), fourcc("mdat"), u64(kSourceSize - file.size())});
}

// iloc version 0 payload: one item, one extent of the given field sizes.
Bytes v0(uint8_t sizes, const std::vector<Bytes> &extent) {
  return cat({u8(sizes), u8(0), u16(1), u16(1), u16(0), u16(1), cat(extent)});
}

struct Case {
  const char *name;
  const char *type;
  uint8_t iloc_version;
  Bytes iloc;
  Bytes far;
  Bytes expect;  // what the item's query hands out; only the tone map's fails
};

TEST(Narrowing, ReaderOffsetsAndLengthsAbove4GiB) {
  const Bytes jpeg = {0xFF, 0xD8, 0xFF, 0xE0, 1, 2, 3, 4, 0xFF, 0xD9};
  const Bytes grid = {0, 0, 1, 2, 0x0F, 0x00, 0x0B, 0xD0};
  const Case kCases[] = {
      {"64-bit extent offset", "jpeg", 0, v0(0x84, {u64(kFar), u32(10)}), jpeg, jpeg},
      {"64-bit base offset", "jpeg", 1,
       cat({u8(0x44), u8(0x80), u16(1), u16(1), u16(0), u16(0), u64(k4G), u16(1), u32(0x100), u32(10)}), jpeg,
       jpeg},
      {"length 4 GiB + 10 served by its low 32 bits", "jpeg", 0, v0(0x88, {u64(kFar), u64(k4G + 10)}), jpeg,
       jpeg},
      {"length above INT32_MAX", "jpeg", 0, v0(0x48, {u32(0x100), u64(0x80000010)}), jpeg, {}},
      {"grid above 4 GiB", "grid", 0, v0(0x84, {u64(kFar), u32(8)}), grid, {2, 3, 15, 0x0B}},
      // Copied whole, so no part of it may be taken for all of it.
      {"tone map of 4 GiB + 10", "tmap", 0, v0(0x88, {u64(kFar), u64(k4G + 10)}), jpeg, {}},
  };
  for (const Case &c : kCases) {
    SCOPED_TRACE(c.name);
    Sparse src{head_with(c.type, c.iloc, c.iloc_version), c.far, 0};
    tarnd_io_dsc io = kSparseIo;
    io.caller_data[0] = &src;
    int32_t err = 1;
    CtxPtr ctx = open_io(io, &err);
    ASSERT_EQ(err, 0);
    EXPECT_EQ(ctx->mdat_size, kSourceSize - ctx->mdat_offset);
    Bytes got;
    int32_t st;
    if (c.type[0] == 'g') {
      tarnd_grid_info g{};
      st = tarnd_get_info_item(ctx.get(), 1, TARND_INFO_GRID, &g);
      got = {uint8_t(g.rows), uint8_t(g.columns), uint8_t(g.output_width >> 8),
       uint8_t(g.output_height >> 8)};
    } else if (c.type[0] == 't') {
      tarnd_item_data d{};
      st = tarnd_get_info_item(ctx.get(), 1, TARND_INFO_TONEMAP, &d);
      if (st == 0) got.assign(d.data, d.data + d.size);
    } else {
      Bytes buf(64, 0xEE);
      int32_t size = -7;
      st = tarnd_get_image_frm(ctx.get(), 1, buf.data(), int32_t(buf.size()), &size);
      if (size >= 0) got.assign(buf.begin(), buf.begin() + size);
    }
    EXPECT_EQ(st, c.type[0] == 't' ? -6 : 0);
    EXPECT_TRUE(got == c.expect);
  }
}

}  // namespace
}  // namespace tarn_test
