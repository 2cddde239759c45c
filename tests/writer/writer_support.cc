#include "writer/writer_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "support/files.h"
#include "tarn/io.h"
#include "tarn/reader.h"

namespace tarn_test {

uint32_t be32(const uint8_t *p) {
  return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

Bytes HevcStream::frame() const {
  Bytes out;
  for (const Bytes &u : slices) {
    out.insert(out.end(), {0, 0, 0, 1});
    out.insert(out.end(), u.begin(), u.end());
  }
  return out;
}

tarnm_param_sets HevcStream::param_sets() const {
  tarnm_param_sets ps{};
  auto fill = [](const std::vector<Bytes> &units, int32_t *count, uint32_t *size,
                 const uint8_t **data) {
    *count = int32_t(units.size() < 4 ? units.size() : 4);
    for (size_t i = 0; i < size_t(*count); ++i) {
      size[i] = uint32_t(units[i].size());
      data[i] = units[i].data();
    }
  };
  fill(vps, &ps.vps_count, ps.vps_size, ps.vps_data);
  fill(sps, &ps.sps_count, ps.sps_size, ps.sps_data);
  fill(pps, &ps.pps_count, ps.pps_size, ps.pps_data);
  return ps;
}

bool load_stream(const std::string &name, HevcStream *out) {
  Bytes s;
  if (!read_file(data_path("hevc/" + name), &s)) return false;
  *out = HevcStream();
  // Split at 3-byte start codes; the zero before a 4-byte one is dropped.
  size_t start = 0;
  for (size_t i = 0; i <= s.size(); ++i) {
    const bool code = i + 3 <= s.size() && s[i] == 0 && s[i + 1] == 0 && s[i + 2] == 1;
    if (!code && i < s.size()) continue;
    size_t end = i;
    while (code && end > start && s[end - 1] == 0) --end;
    if (start > 0 && end - start >= 2) {
      Bytes u(s.begin() + long(start), s.begin() + long(end));
      const int type = (u[0] >> 1) & 0x3F;
      (type == 32 ? out->vps : type == 33 ? out->sps : type == 34 ? out->pps : out->slices)
          .push_back(u);
    }
    start = i + 3;
    i += 2;
  }
  return !out->vps.empty() && !out->sps.empty() && !out->pps.empty() && !out->slices.empty();
}

Streams::Streams() {
  ok = load_stream("single512.hevc", &single) && load_stream("thumb128.hevc", &thumb) &&
       load_stream("alpha512.hevc", &alpha) && load_stream("odd302x198.hevc", &odd);
  for (int i = 0; i < 4; ++i) ok = ok && load_stream("tile" + std::to_string(i) + ".hevc", &tiles[i]);
}

const Streams &streams() {
  static const Streams s;
  EXPECT_TRUE(s.ok) << "tests/data/hevc streams are missing";
  return s;
}

Mux::Mux() {
  const tarnm_init_dsc dsc{};
  ctx = tarnm_create(&dsc, nullptr);
  EXPECT_NE(ctx, nullptr);
}

tarnm_image_info Mux::info_for(const HevcStream &s, uint32_t width, uint32_t height) {
  tarnm_image_info info{};
  info.width = width;
  info.height = height;
  info.param_sets = s.param_sets();
  return info;
}

int32_t Mux::image(uint32_t id, uint32_t ref, tarnm_image_info info, const tarnm_grid_info *grid) {
  const tarnm_image_info in = info;
  const int32_t rc = tarnm_set_image_info(ctx, id, ref, &info, grid);
  if (rc != 0) return rc;
  const bool tmap = in.img_type == IMG_TYPE_TMAP;
  Bytes config;
  for (int k = 0; k < 3 && !tmap; ++k) {
    const tarnm_param_sets &p = in.param_sets;
    const int32_t n = k == 0 ? p.vps_count : k == 1 ? p.sps_count : p.pps_count;
    for (int32_t i = 0; i < n; ++i) {
      const uint8_t *d = (k == 0 ? p.vps_data : k == 1 ? p.sps_data : p.pps_data)[i];
      const uint32_t size = (k == 0 ? p.vps_size : k == 1 ? p.sps_size : p.pps_size)[i];
      config.insert(config.end(), {0, 0, 0, 1});
      config.insert(config.end(), d, d + size);
    }
  }
  auto describe = [&](uint32_t item, const char *type, uint32_t w, uint32_t h, uint32_t rot,
                      bool tile) -> ExpectedItem & {
    ExpectedItem &e = expect.items[uint16_t(item)];
    e.type = fcc(type);
    e.hidden = tile || in.aux_type != 0;
    e.width = w;
    e.height = h;
    e.irot = tmap ? 0 : rot ? int32_t(4 - rot / 90) : -1;
    if (in.color_size && in.color_data && in.color_type >= 1 && in.color_type <= 3) {
      if (in.color_type != 1) e.icc.assign(in.color_data, in.color_data + in.color_size);
      e.nclx = in.color_type == 1 && !tile;
    }
    if (std::string(type) != "grid") e.config = config;
    if (!tile) {
      e.aux = in.aux_type;
      if (in.aux_subtype_data) e.aux_subtype.assign(in.aux_subtype_data, in.aux_subtype_data + in.aux_subtype_size);
      e.untyped = (in.bit_depth_info_count != 0) + (in.max_cll != 0 || in.max_pall != 0);
      if (in.exif_size) e.exif.assign(in.exif_data, in.exif_data + in.exif_size);
      if (in.xmp_size) e.xmp.assign(in.xmp_data, in.xmp_data + in.xmp_size);
      if (in.img_type == IMG_TYPE_THUMBNAIL) e.refs[fcc("thmb")] = {uint16_t(ref)};
      if (in.img_type == IMG_TYPE_AUX) e.refs[fcc("auxl")] = {uint16_t(ref)};
      if (in.img_type == IMG_TYPE_STEREO) expect.groups.push_back({fcc("ster"), id, ref});
    }
    return e;
  };
  if (grid == nullptr) {
    const bool swap = tmap && (in.rotation == 90 || in.rotation == 270);
    ExpectedItem &e = describe(id, tmap ? "tmap" : "hvc1", swap ? in.height : in.width,
                               swap ? in.width : in.height, in.rotation, false);
    if (tmap) {
      e.refs[fcc("dimg")] = {expect.primary, uint16_t(ref)};
      if (in.tmap_size > 1) e.tonemap.assign(in.tmap_data + 1, in.tmap_data + in.tmap_size);
      expect.groups.push_back({fcc("altr"), id, expect.primary});
    }
    return rc;
  }
  for (uint32_t t = grid->first_tile_id; t <= grid->last_tile_id; ++t) {
    describe(t, "hvc1", in.width, in.height, in.rotation, true);
  }
  ExpectedItem &g = describe(id, "grid", grid->output_width, grid->output_height, grid->rotation,
                             false);
  g.rows = grid->rows;
  g.columns = grid->columns;
  for (uint32_t t = grid->first_tile_id; t <= grid->last_tile_id; ++t) {
    g.refs[fcc("dimg")].push_back(uint16_t(t));
  }
  return rc;
}

int32_t Mux::frame(uint32_t id, const HevcStream &s) {
  const Bytes f = s.frame();
  const int32_t rc = tarnm_put_frm(ctx, id, f.data(), uint32_t(f.size()));
  if (rc == 0) expect.items[uint16_t(id)].data = f;  // a frame is never empty
  return rc;
}

int32_t Mux::cover(uint32_t id) {
  const int32_t rc = tarnm_set_cover_image(ctx, int32_t(id));
  if (rc == 0) expect.primary = uint16_t(id);
  return rc;
}

Bytes Mux::finish() {
  if (tarnm_stop_muxing(ctx) != 0) return Bytes();
  const int32_t size = tarnm_get_outputbuffer_size(ctx);
  Bytes out(size > 0 ? size_t(size) : 0);
  if (size <= 0 || tarnm_dump_image_to_outputbuffer(ctx, out.data()) != 0) return Bytes();
  return out;
}

// 32-bit boxes back to back in f[begin, end).
std::vector<Span> children(const Bytes &f, size_t begin, size_t end) {
  std::vector<Span> out;
  while (begin <= end && end <= f.size() && end - begin >= 8) {
    const size_t size = be32(&f[begin]);
    if (size < 8 || size > end - begin) break;
    out.push_back({TARN_FCC(f[begin + 4], f[begin + 5], f[begin + 6], f[begin + 7]), begin,
                   begin + size});
    begin += size;
  }
  return out;
}

namespace {

Bytes reader_bytes(void *h, uint16_t id, uint32_t kind) {
  tarnd_item_data d{};
  EXPECT_EQ(tarnd_get_info_item(h, id, kind, &d), 0);
  return d.data ? Bytes(d.data, d.data + d.size) : Bytes();
}

void check_properties(const tarnd_ctx *ctx, uint16_t id, const ExpectedItem &e) {
  std::map<uint32_t, int> seen;
  for (uint32_t i = 0; i < ctx->meta.association_cnt; ++i) {
    const tarnd_association &a = ctx->meta.association_list[i];
    if (a.item_id != id) continue;
    ASSERT_LT(a.property_index, ctx->meta.property_cnt);
    const tarnd_property &p = ctx->meta.properties[a.property_index];
    ++seen[p.type];
    if (p.type == fcc("ispe")) {
      EXPECT_EQ(p.payload.ispe.width, e.width);
      EXPECT_EQ(p.payload.ispe.height, e.height);
    } else if (p.type == fcc("irot")) {
      EXPECT_EQ(int32_t(p.payload.irot.angle), e.irot);
    } else if (p.type == fcc("colr") && !e.icc.empty()) {
      EXPECT_EQ(Bytes(p.payload.colr.icc_data, p.payload.colr.icc_data + p.payload.colr.icc_size),
                e.icc);
    } else if (p.type == fcc("hvcC")) {
      EXPECT_EQ(Bytes(p.payload.hvcC.config_data,
                      p.payload.hvcC.config_data + p.payload.hvcC.config_size),
                e.config);
    } else if (p.type == fcc("auxC")) {
      static const uint32_t kFlags[] = {0, TARND_ITEM_AUX_ALPHA, TARND_ITEM_AUX_DEPTH,
                                        TARND_ITEM_AUX_GAINMAP};
      EXPECT_EQ(p.payload.auxC.aux_flags, kFlags[e.aux & 3]);
      const auto &c = p.payload.auxC;
      EXPECT_EQ(Bytes(c.subtype_data, c.subtype_data + c.subtype_size), e.aux_subtype);
    }
  }
  EXPECT_EQ(seen[fcc("ispe")], 1);
  EXPECT_EQ(seen[fcc("irot")], e.irot >= 0 ? 1 : 0);
  EXPECT_EQ(seen[fcc("colr")], !e.icc.empty() || e.nclx ? 1 : 0);
  EXPECT_EQ(seen[fcc("hvcC")], e.config.empty() ? 0 : 1);
  EXPECT_EQ(seen[fcc("auxC")], e.aux ? 1 : 0);
  EXPECT_EQ(seen[0], e.untyped);
}

}  // namespace

void check_with_reader(const Bytes &file, const Expectation &expect) {
  // ftyp, mdat and meta fill the file exactly. Entity groups straight from
  // the boxes: the reader keeps stereo pairs only.
  const std::vector<Span> top = children(file, 0, file.size());
  ASSERT_EQ(top.size(), 3u);
  ASSERT_EQ(top[1].type, fcc("mdat"));
  ASSERT_EQ(top[2].end, file.size());
  std::vector<std::vector<uint32_t>> groups;
  std::vector<uint32_t> group_ids;
  Span grpl{0, 0, 0};
  for (const Span &s : children(file, top[2].begin + 12, top[2].end)) {
    if (s.type == fcc("grpl")) grpl = s;
  }
  for (const Span &b : children(file, grpl.begin + 8, grpl.end)) {
    std::vector<uint32_t> g = {b.type};
    for (size_t off = b.begin + 20; off + 4 <= b.end; off += 4) g.push_back(be32(&file[off]));
    EXPECT_EQ(be32(&file[b.begin + 16]), g.size() - 1);
    group_ids.push_back(be32(&file[b.begin + 12]));
    groups.push_back(g);
  }
  EXPECT_EQ(groups, expect.groups);

  tarnd_io_dsc io;
  ASSERT_EQ(tarnd_io_init_memory(&io, file.data(), file.size()), 0);
  tarnd_file_info fi{};
  int32_t err = -1;
  void *handle = tarnd_create(&io, 0, &fi, &err);
  ASSERT_NE(handle, nullptr) << "reader error " << err;
  const tarnd_ctx *ctx = static_cast<const tarnd_ctx *>(handle);
  EXPECT_EQ(ctx->primary_item_id, expect.primary);
  const std::set<uint32_t> shown(ctx->displayable_ids, ctx->displayable_ids + ctx->displayable_cnt);
  size_t metadata_items = 0;
  for (const auto &entry : expect.items) {
    const uint16_t id = entry.first;
    const ExpectedItem &e = entry.second;
    SCOPED_TRACE("item " + std::to_string(id));
    metadata_items += !e.exif.empty() + !e.xmp.empty();
    uint32_t slot = 0;
    ASSERT_EQ(tarnd_find_itemIndex(ctx->meta.items, ctx->meta.item_cnt, id, &slot), 0);
    const tarnd_item &item = ctx->meta.items[slot];
    EXPECT_EQ(std::make_pair(item.item_type, shown.count(id) == 0), std::make_pair(e.type, e.hidden));
    std::map<uint32_t, std::vector<uint16_t>> refs;
    for (uint32_t k = 0; k < item.referece_from_cnt && k < TARND_MAX_REFS; ++k) {
      refs[item.ref_type[k]].assign(item.ref_to_ids[k], item.ref_to_ids[k] + item.ref_to_cnt[k]);
    }
    EXPECT_EQ(refs, e.refs);
    check_properties(ctx, id, e);
    if (!e.data.empty()) {
      int32_t size = 0;
      Bytes buf(e.data.size() + 16, 0xEE);
      EXPECT_EQ(tarnd_get_image_frm(handle, id, buf.data(), int32_t(buf.size()), &size), 0);
      EXPECT_EQ(Bytes(buf.begin(), buf.begin() + std::clamp<int32_t>(size, 0, int32_t(buf.size()))), e.data);
    }
    if (e.type == fcc("grid")) {
      tarnd_grid_info g{};
      ASSERT_EQ(tarnd_get_info_item(handle, id, TARND_INFO_GRID, &g), 0);
      EXPECT_EQ(std::vector<uint32_t>({g.rows, g.columns, g.output_width, g.output_height}),
                std::vector<uint32_t>({e.rows, e.columns, e.width, e.height}));
    }
    // Items without tone-map, Exif or XMP bytes get none back.
    EXPECT_EQ(reader_bytes(handle, id, TARND_INFO_TONEMAP), e.tonemap);
    EXPECT_EQ((item.flags & TARND_ITEM_HAS_EXIF) != 0, !e.exif.empty());
    EXPECT_EQ((item.flags & TARND_ITEM_HAS_MIME) != 0, !e.xmp.empty());
    EXPECT_EQ(reader_bytes(handle, id, TARND_INFO_EXIF), e.exif);
    EXPECT_EQ(reader_bytes(handle, id, TARND_INFO_XMP), e.xmp);
  }
  // The writer's own items (Exif, mime, both hidden) and groups take ids
  // above every id in use.
  EXPECT_EQ(ctx->meta.item_cnt, expect.items.size() + metadata_items);
  const uint16_t largest = expect.items.empty() ? 0 : expect.items.rbegin()->first;
  for (uint32_t i = 0; i < ctx->meta.item_cnt; ++i) {
    const tarnd_item &item = ctx->meta.items[i];
    if (expect.items.count(item.item_id)) continue;
    EXPECT_GT(item.item_id, largest);
    EXPECT_TRUE(item.item_type == fcc("Exif") || item.item_type == fcc("mime"));
    EXPECT_EQ(shown.count(item.item_id), 0u);
  }
  uint32_t slot = 0;
  for (size_t i = 0; i < group_ids.size(); ++i) {
    EXPECT_GT(group_ids[i], largest);
    EXPECT_NE(tarnd_find_itemIndex(ctx->meta.items, ctx->meta.item_cnt, group_ids[i], &slot), 0)
        << "group id taken by an item";
  }
  tarnd_delete(handle);
}

}  // namespace tarn_test
