#include "writer/roundtrip_scenarios.h"

#include <gtest/gtest.h>

#include <cstring>

#include "support/files.h"
#include "tarn/io.h"
#include "tarn/reader.h"

namespace tarn_test {

namespace {

// Reader four-character codes: first character in the lowest byte.
uint32_t le(uint32_t fcc) {
  return (fcc >> 24) | ((fcc >> 8) & 0xFF00) | ((fcc << 8) & 0xFF0000) | (fcc << 24);
}

int32_t irot_of(uint32_t clockwise) {
  switch (clockwise) {
    case 90: return 3;
    case 180: return 2;
    case 270: return 1;
    default: return 0;
  }
}

Bytes config_of(const tarnm_param_sets &ps) {
  Bytes out;
  auto add = [&](int32_t count, const uint32_t *size, const uint8_t *const *data) {
    for (int32_t i = 0; i < count; ++i) {
      out.insert(out.end(), {0, 0, 0, 1});
      out.insert(out.end(), data[i], data[i] + size[i]);
    }
  };
  add(ps.vps_count, ps.vps_size, ps.vps_data);
  add(ps.sps_count, ps.sps_size, ps.sps_data);
  add(ps.pps_count, ps.pps_size, ps.pps_data);
  return out;
}

void set_colour(ExpectedItem *item, const tarnm_image_info &info, bool icc_only) {
  if (info.color_size == 0 || info.color_data == nullptr || info.color_type < 1 ||
      info.color_type > 3) {
    return;
  }
  if (info.color_type == 1) {
    item->nclx = !icc_only;
  } else {
    item->icc.assign(info.color_data, info.color_data + info.color_size);
  }
}

}  // namespace

Mux::Mux() {
  tarnm_init_dsc dsc{};
  int32_t err = -1;
  ctx_ = tarnm_create(&dsc, &err);
  EXPECT_NE(ctx_, nullptr);
  EXPECT_EQ(err, 0);
}

Mux::~Mux() { tarnm_delete(ctx_); }

tarnm_image_info Mux::info_for(const HevcStream &s, uint32_t width, uint32_t height) {
  tarnm_image_info info{};
  info.width = width;
  info.height = height;
  info.param_sets = s.param_sets();
  return info;
}

int32_t Mux::image(uint32_t id, uint32_t ref, tarnm_image_info info, const tarnm_grid_info *grid) {
  const tarnm_image_info given = info;
  const int32_t rc = tarnm_set_image_info(ctx_, id, ref, &info, grid);
  if (rc != 0) return rc;
  auto &items = expect.items;
  auto add_meta = [&](ExpectedItem *item) {
    if (given.exif_size) item->exif.assign(given.exif_data, given.exif_data + given.exif_size);
    if (given.xmp_size) item->xmp.assign(given.xmp_data, given.xmp_data + given.xmp_size);
  };
  if (grid == nullptr) {
    ExpectedItem &item = items[uint16_t(id)];
    item.id = uint16_t(id);
    const bool tmap = given.img_type == IMG_TYPE_TMAP;
    item.type = tmap ? fourcc("tmap") : fourcc("hvc1");
    item.hidden = given.aux_type != 0;
    item.has_ispe = true;
    const bool swap = tmap && (given.rotation == 90 || given.rotation == 270);
    item.width = swap ? given.height : given.width;
    item.height = swap ? given.width : given.height;
    item.irot = tmap ? 0 : given.rotation ? irot_of(given.rotation) : -1;
    set_colour(&item, given, false);
    if (!tmap) item.config = config_of(given.param_sets);
    item.aux_urn_kind = given.aux_type;
    switch (given.img_type) {
      case IMG_TYPE_THUMBNAIL: item.refs[fourcc("thmb")] = {uint16_t(ref)}; break;
      case IMG_TYPE_AUX: item.refs[fourcc("auxl")] = {uint16_t(ref)}; break;
      case IMG_TYPE_TMAP:
        item.refs[fourcc("dimg")] = {expect.primary, uint16_t(ref)};
        if (given.tmap_size > 1) item.tonemap.assign(given.tmap_data + 1, given.tmap_data + given.tmap_size);
        expect.groups.push_back({fourcc("altr"), {id, expect.primary}});
        break;
      case IMG_TYPE_STEREO: expect.groups.push_back({fourcc("ster"), {id, ref}}); break;
      default: break;
    }
    add_meta(&item);
    return rc;
  }
  for (uint32_t t = grid->first_tile_id; t <= grid->last_tile_id; ++t) {
    ExpectedItem &tile = items[uint16_t(t)];
    tile.id = uint16_t(t);
    tile.type = fourcc("hvc1");
    tile.hidden = true;
    tile.has_ispe = true;
    tile.width = given.width;
    tile.height = given.height;
    tile.irot = given.rotation ? irot_of(given.rotation) : -1;
    set_colour(&tile, given, true);
    tile.config = config_of(given.param_sets);
  }
  ExpectedItem &g = items[uint16_t(id)];
  g.id = uint16_t(id);
  g.type = fourcc("grid");
  g.hidden = given.aux_type != 0;
  g.has_ispe = true;
  g.width = grid->output_width;
  g.height = grid->output_height;
  g.irot = grid->rotation ? irot_of(grid->rotation) : -1;
  set_colour(&g, given, false);
  g.aux_urn_kind = given.aux_type;
  g.rows = grid->rows;
  g.columns = grid->columns;
  g.output_width = grid->output_width;
  g.output_height = grid->output_height;
  std::vector<uint16_t> &tiles = g.refs[fourcc("dimg")];
  for (uint32_t t = grid->first_tile_id; t <= grid->last_tile_id; ++t) tiles.push_back(uint16_t(t));
  if (given.img_type == IMG_TYPE_THUMBNAIL) g.refs[fourcc("thmb")] = {uint16_t(ref)};
  if (given.img_type == IMG_TYPE_AUX) g.refs[fourcc("auxl")] = {uint16_t(ref)};
  if (given.img_type == IMG_TYPE_STEREO) expect.groups.push_back({fourcc("ster"), {id, ref}});
  add_meta(&g);
  return rc;
}

int32_t Mux::frame(uint32_t id, const HevcStream &s) {
  const Bytes f = s.frame();
  const int32_t rc = tarnm_put_frm(ctx_, id, f.data(), uint32_t(f.size()));
  if (rc == 0) {
    expect.items[uint16_t(id)].has_data = true;
    expect.items[uint16_t(id)].data = f;
  }
  return rc;
}

int32_t Mux::cover(uint32_t id) {
  const int32_t rc = tarnm_set_cover_image(ctx_, int32_t(id));
  if (rc == 0) expect.primary = uint16_t(id);
  return rc;
}

Bytes Mux::finish() {
  if (tarnm_stop_muxing(ctx_) != 0) return Bytes();
  const int32_t size = tarnm_get_outputbuffer_size(ctx_);
  if (size <= 0) return Bytes();
  Bytes out(size_t(size), 0);
  if (tarnm_dump_image_to_outputbuffer(ctx_, out.data()) != 0) return Bytes();
  return out;
}

// ---- the file's own boxes: infe flags and entity groups ----

namespace {

struct InfeSeen {
  uint32_t type;
  bool hidden;
};

struct GroupSeen {
  uint32_t type;
  uint32_t id;
  std::vector<uint32_t> ids;
};

const Box *find_box(const std::vector<Box> &boxes, const char (&type)[5]) {
  for (const Box &b : boxes) {
    if (b.type == fourcc(type)) return &b;
  }
  return nullptr;
}

void read_meta(const Bytes &f, std::map<uint16_t, InfeSeen> *infes, std::vector<GroupSeen> *groups) {
  const auto top = child_boxes(f, 0, f.size());
  ASSERT_GE(top.size(), 3u);
  EXPECT_EQ(top[0].type, fourcc("ftyp"));
  EXPECT_EQ(top[1].type, fourcc("mdat"));
  EXPECT_EQ(top[2].type, fourcc("meta"));
  EXPECT_EQ(top.back().offset + top.back().size, f.size());
  const Box *meta = find_box(top, "meta");
  ASSERT_NE(meta, nullptr);
  const auto in_meta = child_boxes(f, meta->offset + 12, meta->offset + meta->size);
  const Box *iinf = find_box(in_meta, "iinf");
  ASSERT_NE(iinf, nullptr);
  for (const Box &b : child_boxes(f, iinf->offset + 14, iinf->offset + iinf->size)) {
    ASSERT_EQ(b.type, fourcc("infe"));
    ASSERT_GE(b.size, 21u);
    const uint8_t *p = &f[b.offset];
    const uint16_t id = be16(p + 12);
    EXPECT_EQ(infes->count(id), 0u) << "item " << id << " described twice";
    (*infes)[id] = {be32(p + 16), (p[11] & 1) != 0};
  }
  const Box *grpl = find_box(in_meta, "grpl");
  if (grpl == nullptr) return;
  for (const Box &b : child_boxes(f, grpl->offset + 8, grpl->offset + grpl->size)) {
    ASSERT_GE(b.size, 20u);
    const uint8_t *p = &f[b.offset];
    const uint32_t n = be32(p + 16);
    ASSERT_EQ(b.size, 20 + 4 * size_t(n));
    GroupSeen g{b.type, be32(p + 12), {}};
    for (uint32_t i = 0; i < n; ++i) g.ids.push_back(be32(p + 20 + 4 * i));
    groups->push_back(g);
  }
}

void check_properties(const tarnd_ctx *ctx, const ExpectedItem &e) {
  bool ispe = false, irot = false, colr = false, hvcc = false, auxc = false;
  for (uint32_t i = 0; i < ctx->meta.association_cnt; ++i) {
    const tarnd_association &a = ctx->meta.association_list[i];
    if (a.item_id != e.id) continue;
    ASSERT_LT(a.property_index, ctx->meta.property_cnt);
    const tarnd_property &p = ctx->meta.properties[a.property_index];
    if (p.type == le(fourcc("ispe"))) {
      ispe = true;
      EXPECT_EQ(p.payload.ispe.width, e.width);
      EXPECT_EQ(p.payload.ispe.height, e.height);
    } else if (p.type == le(fourcc("irot"))) {
      irot = true;
      EXPECT_EQ(int32_t(p.payload.irot.angle), e.irot);
    } else if (p.type == le(fourcc("colr"))) {
      colr = true;
      if (!e.icc.empty()) {
        ASSERT_EQ(p.payload.colr.icc_size, e.icc.size());
        EXPECT_EQ(Bytes(p.payload.colr.icc_data, p.payload.colr.icc_data + p.payload.colr.icc_size),
                  e.icc);
      }
    } else if (p.type == le(fourcc("hvcC"))) {
      hvcc = true;
      EXPECT_EQ(p.payload.hvcC.nal_length_size, 4u);
      EXPECT_EQ(Bytes(p.payload.hvcC.config_data,
                      p.payload.hvcC.config_data + p.payload.hvcC.config_size),
                e.config);
    } else if (p.type == le(fourcc("auxC"))) {
      auxc = true;
      static const uint32_t kFlags[] = {0, TARND_ITEM_AUX_ALPHA, TARND_ITEM_AUX_DEPTH,
                                        TARND_ITEM_AUX_GAINMAP};
      EXPECT_EQ(p.payload.auxC.aux_flags, kFlags[e.aux_urn_kind & 3]);
    }
  }
  EXPECT_EQ(ispe, e.has_ispe);
  EXPECT_EQ(irot, e.irot >= 0);
  EXPECT_EQ(colr, !e.icc.empty() || e.nclx);
  EXPECT_EQ(hvcc, !e.config.empty());
  EXPECT_EQ(auxc, e.aux_urn_kind != 0);
}

Bytes frame_of(void *handle, uint16_t id) {
  int32_t size = 0;
  EXPECT_EQ(tarnd_get_image_frm(handle, id, nullptr, 0, &size), 0);
  if (size <= 0) return Bytes();
  Bytes buf(size_t(size), 0xEE);
  int32_t written = 0;
  EXPECT_EQ(tarnd_get_image_frm(handle, id, buf.data(), size, &written), 0);
  buf.resize(size_t(written > 0 ? written : 0));
  return buf;
}

Bytes item_bytes(void *handle, uint16_t id, uint32_t kind) {
  tarnd_item_data d{};
  EXPECT_EQ(tarnd_get_info_item(handle, id, kind, &d), 0);
  return d.data ? Bytes(d.data, d.data + d.size) : Bytes();
}

}  // namespace

void check_with_reader(const Bytes &file, const Expectation &expect) {
  ASSERT_FALSE(file.empty());
  std::map<uint16_t, InfeSeen> infes;
  std::vector<GroupSeen> groups;
  read_meta(file, &infes, &groups);

  tarnd_io_dsc io;
  ASSERT_EQ(tarnd_io_init_memory(&io, file.data(), file.size()), 0);
  tarnd_file_info fi{};
  int32_t err = -1;
  void *handle = tarnd_create(&io, 0, &fi, &err);
  ASSERT_NE(handle, nullptr) << "reader error " << err;
  const tarnd_ctx *ctx = static_cast<const tarnd_ctx *>(handle);
  EXPECT_EQ(ctx->primary_item_id, expect.primary);

  size_t metadata_items = 0;
  for (const auto &entry : expect.items) {
    const ExpectedItem &e = entry.second;
    SCOPED_TRACE("item " + std::to_string(e.id));
    metadata_items += !e.exif.empty() + !e.xmp.empty();
    ASSERT_EQ(infes.count(e.id), 1u);
    EXPECT_EQ(infes[e.id].type, e.type);
    EXPECT_EQ(infes[e.id].hidden, e.hidden);
    uint32_t slot = 0;
    ASSERT_EQ(tarnd_find_itemIndex(ctx->meta.items, ctx->meta.item_cnt, e.id, &slot), 0);
    const tarnd_item &item = ctx->meta.items[slot];
    EXPECT_EQ(item.item_type, le(e.type));
    // References from this item, each type once.
    EXPECT_EQ(size_t(item.referece_from_cnt), e.refs.size());
    for (const auto &ref : e.refs) {
      bool found = false;
      for (uint32_t k = 0; k < item.referece_from_cnt && k < TARND_MAX_REFS; ++k) {
        if (item.ref_type[k] != le(ref.first)) continue;
        found = true;
        ASSERT_EQ(item.ref_to_cnt[k], ref.second.size());
        EXPECT_EQ(std::vector<uint16_t>(item.ref_to_ids[k], item.ref_to_ids[k] + item.ref_to_cnt[k]),
                  ref.second);
      }
      EXPECT_TRUE(found) << "reference type " << std::hex << ref.first;
    }
    check_properties(ctx, e);
    if (e.type == fourcc("hvc1")) {
      EXPECT_EQ(item.construction_method, 0u);
      if (e.has_data) {
        EXPECT_EQ(frame_of(handle, e.id), e.data);
      }
    }
    if (e.type == fourcc("grid")) {
      EXPECT_EQ(item.construction_method, 1u);
      tarnd_grid_info g{};
      ASSERT_EQ(tarnd_get_info_item(handle, e.id, TARND_INFO_GRID, &g), 0);
      EXPECT_EQ(g.rows, e.rows);
      EXPECT_EQ(g.columns, e.columns);
      EXPECT_EQ(g.output_width, e.output_width);
      EXPECT_EQ(g.output_height, e.output_height);
    }
    if (e.type == fourcc("tmap") && !e.tonemap.empty()) {
      EXPECT_EQ(item_bytes(handle, e.id, TARND_INFO_TONEMAP), e.tonemap);
    }
    EXPECT_EQ((item.flags & TARND_ITEM_HAS_EXIF) != 0, !e.exif.empty());
    EXPECT_EQ((item.flags & TARND_ITEM_HAS_MIME) != 0, !e.xmp.empty());
    if (!e.exif.empty()) {
      EXPECT_EQ(item_bytes(handle, e.id, TARND_INFO_EXIF), e.exif);
    }
    if (!e.xmp.empty()) {
      EXPECT_EQ(item_bytes(handle, e.id, TARND_INFO_XMP), e.xmp);
    }
  }
  // Exif and mime items are the only ones the writer adds of its own, with
  // ids above every id in use.
  EXPECT_EQ(infes.size(), expect.items.size() + metadata_items);
  EXPECT_EQ(ctx->meta.item_cnt, expect.items.size() + metadata_items);
  const uint16_t largest = expect.items.empty() ? 0 : expect.items.rbegin()->first;
  for (const auto &seen : infes) {
    if (expect.items.count(seen.first)) continue;
    EXPECT_GT(seen.first, largest);
    EXPECT_TRUE(seen.second.type == fourcc("Exif") || seen.second.type == fourcc("mime"));
    EXPECT_TRUE(seen.second.hidden);
  }

  ASSERT_EQ(groups.size(), expect.groups.size());
  for (size_t i = 0; i < groups.size(); ++i) {
    EXPECT_EQ(groups[i].type, expect.groups[i].type);
    EXPECT_EQ(groups[i].ids, expect.groups[i].ids);
    EXPECT_EQ(infes.count(uint16_t(groups[i].id)), 0u) << "group id taken by an item";
    for (size_t j = 0; j < i; ++j) EXPECT_NE(groups[i].id, groups[j].id);
  }
  tarnd_delete(handle);
}

// ---- scenarios ----

namespace {

struct Streams {
  HevcStream single, tiles[4], thumb, alpha, odd;
  bool ok = false;
};

const Streams &streams() {
  static Streams s;
  static bool loaded = false;
  if (!loaded) {
    loaded = true;
    s.ok = load_stream("single512.hevc", &s.single) && load_stream("thumb128.hevc", &s.thumb) &&
           load_stream("alpha512.hevc", &s.alpha) && load_stream("odd302x198.hevc", &s.odd);
    for (int i = 0; i < 4; ++i) {
      s.ok = s.ok && load_stream("tile" + std::to_string(i) + ".hevc", &s.tiles[i]);
    }
  }
  return s;
}

#define STEP(call)                       \
  do {                                   \
    const int32_t rc_ = (call);          \
    EXPECT_EQ(rc_, 0) << #call;          \
    if (rc_ != 0) return false;          \
  } while (0)

// A 2x2 grid of the four tiles as items first..first+3 and grid_id.
int32_t grid(Mux *m, uint32_t grid_id, uint32_t first, uint32_t type, uint32_t ref,
             uint32_t out_w = 512, uint32_t out_h = 512, const tarnm_image_info *base = nullptr) {
  tarnm_image_info info = base ? *base : Mux::info_for(streams().tiles[0], 256, 256);
  info.param_sets = streams().tiles[0].param_sets();
  info.width = info.height = 256;
  info.img_type = type;
  const tarnm_grid_info g{out_w, out_h, 2, 2, first, first + 3, uint16_t(grid_id), 0};
  return m->image(grid_id, ref, info, &g);
}

bool put_tiles(Mux *m, uint32_t first, int from = 0, int to = 4) {
  for (int i = from; i < to; ++i) STEP(m->frame(first + uint32_t(i), streams().tiles[i]));
  return true;
}

bool single(Mux *m) {
  const Streams &s = streams();
  STEP(m->image(1, 0, Mux::info_for(s.single, 512, 512)));
  STEP(m->frame(1, s.single));
  STEP(m->cover(1));
  m->expect.source_png = "src512.png";
  return true;
}

bool grid_of_tiles(Mux *m) {
  STEP(grid(m, 5, 1, IMG_TYPE_MAIN, 0));
  if (!put_tiles(m, 1)) return false;
  STEP(m->cover(5));
  m->expect.source_png = "src512.png";
  return true;
}

// All tiles arrive before their grid is registered.
bool grid_with_thumbnail(Mux *m) {
  const Streams &s = streams();
  STEP(m->cover(10));
  if (!put_tiles(m, 1)) return false;
  STEP(grid(m, 10, 1, IMG_TYPE_MAIN, 0));
  tarnm_image_info t = Mux::info_for(s.thumb, 128, 128);
  t.img_type = IMG_TYPE_THUMBNAIL;
  STEP(m->image(11, 10, t));
  STEP(m->frame(11, s.thumb));
  m->expect.source_png = "src512.png";
  return true;
}

bool auxiliary(Mux *m, uint32_t aux_type) {
  const Streams &s = streams();
  STEP(m->image(1, 0, Mux::info_for(s.single, 512, 512)));
  tarnm_image_info a = Mux::info_for(s.alpha, 512, 512);
  a.img_type = IMG_TYPE_AUX;
  a.aux_type = aux_type;
  STEP(m->image(2, 1, a));
  STEP(m->frame(1, s.single));
  STEP(m->frame(2, s.alpha));
  STEP(m->cover(1));
  m->expect.source_png = "src512.png";
  return true;
}

bool alpha(Mux *m) { return auxiliary(m, 1); }
bool depth(Mux *m) { return auxiliary(m, 2); }

const uint8_t kTonemap[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19};

bool gain_map(Mux *m) {
  const Streams &s = streams();
  STEP(m->cover(1));
  STEP(m->image(1, 0, Mux::info_for(s.single, 512, 512)));
  tarnm_image_info g = Mux::info_for(s.thumb, 128, 128);
  g.img_type = IMG_TYPE_AUX;
  g.aux_type = 3;
  STEP(m->image(2, 1, g));
  tarnm_image_info t{};
  t.img_type = IMG_TYPE_TMAP;
  t.width = 302;
  t.height = 198;
  t.rotation = 90;
  t.tmap_data = kTonemap;
  t.tmap_size = sizeof kTonemap;
  STEP(m->image(3, 2, t));
  STEP(m->frame(1, s.single));
  STEP(m->frame(2, s.thumb));
  m->expect.source_png = "src512.png";
  return true;
}

bool rotation(Mux *m) {
  const Streams &s = streams();
  tarnm_image_info i = Mux::info_for(s.odd, 302, 198);
  i.rotation = 90;
  STEP(m->image(1, 0, i));
  STEP(m->frame(1, s.odd));
  STEP(m->cover(1));
  m->expect.source_png = "src302x198.png";
  return true;
}

Bytes icc_profile() {
  Bytes icc;
  if (read_file("/usr/share/color/icc/ghostscript/srgb.icc", &icc)) return icc;
  icc.assign(200, 0);  // a profile-shaped blob when no real one is installed
  icc[3] = 200;
  std::memcpy(&icc[36], "acsp", 4);
  return icc;
}

bool icc_colour(Mux *m) {
  const Streams &s = streams();
  static const Bytes icc = icc_profile();
  // An ICC profile on a single image and on a grid (tiles share it), and
  // nclx on a second image.
  tarnm_image_info i = Mux::info_for(s.single, 512, 512);
  i.color_type = 3;
  i.color_data = icc.data();
  i.color_size = uint32_t(icc.size());
  STEP(m->image(1, 0, i));
  STEP(grid(m, 20, 10, IMG_TYPE_OTHER, 0, 512, 512, &i));
  static const uint16_t nclx_words[3] = {1, 13, 6};
  uint8_t nclx[7];
  std::memcpy(nclx, nclx_words, 6);
  nclx[6] = 1;
  tarnm_image_info n = Mux::info_for(s.thumb, 128, 128);
  n.color_type = 1;
  n.color_data = nclx;
  n.color_size = 7;
  STEP(m->image(30, 0, n));
  STEP(m->frame(1, s.single));
  if (!put_tiles(m, 10)) return false;
  STEP(m->frame(30, s.thumb));
  STEP(m->cover(1));
  m->expect.source_png = "src512.png";
  return true;
}

// A TIFF block with Make, Model and Orientation in IFD0, behind the
// "Exif\0\0" marker.
Bytes exif_block() {
  Bytes b = {'E', 'x', 'i', 'f', 0, 0, 'M', 'M', 0, 42, 0, 0, 0, 8, 0, 3};
  auto u16 = [&](uint32_t v) { b.insert(b.end(), {uint8_t(v >> 8), uint8_t(v)}); };
  auto u32 = [&](uint32_t v) { u16(v >> 16); u16(v & 0xFFFF); };
  // Tag, type (2 ASCII, 3 SHORT), count, value or offset from the TIFF header.
  u16(0x010F); u16(2); u32(8); u32(50);  // Make
  u16(0x0110); u16(2); u32(8); u32(58);  // Model
  u16(0x0112); u16(3); u32(1); u32(6u << 16);  // Orientation 6
  u32(0);  // no next IFD
  for (const char *s : {"TarnCam", "Model 7"}) b.insert(b.end(), s, s + 8);
  return b;
}

const char kXmp[] =
    "<?xpacket begin=\"\xEF\xBB\xBF\" id=\"W5M0MpCehiHzreSzNTczkc9d\"?>"
    "<x:xmpmeta xmlns:x=\"adobe:ns:meta/\"><rdf:RDF "
    "xmlns:rdf=\"http://www.w3.org/1999/02/22-rdf-syntax-ns#\"><rdf:Description rdf:about=\"\" "
    "xmlns:xmp=\"http://ns.adobe.com/xap/1.0/\" xmp:CreatorTool=\"libtarn round trip\"/>"
    "</rdf:RDF></x:xmpmeta><?xpacket end=\"w\"?>";

bool exif_and_xmp(Mux *m) {
  const Streams &s = streams();
  static const Bytes exif = exif_block();
  tarnm_image_info i = Mux::info_for(s.single, 512, 512);
  i.exif_data = exif.data();
  i.exif_size = uint32_t(exif.size());
  i.xmp_data = reinterpret_cast<const uint8_t *>(kXmp);
  i.xmp_size = uint32_t(sizeof kXmp - 1);
  STEP(m->image(1, 0, i));
  tarnm_image_info t = Mux::info_for(s.thumb, 128, 128);
  t.img_type = IMG_TYPE_THUMBNAIL;
  t.xmp_data = i.xmp_data;
  t.xmp_size = i.xmp_size;
  STEP(m->image(2, 1, t));
  STEP(m->frame(1, s.single));
  STEP(m->frame(2, s.thumb));
  STEP(m->cover(1));
  m->expect.source_png = "src512.png";
  return true;
}

bool stereo_pair(Mux *m) {
  const Streams &s = streams();
  STEP(m->image(1, 0, Mux::info_for(s.single, 512, 512)));
  tarnm_image_info r = Mux::info_for(s.single, 512, 512);
  r.img_type = IMG_TYPE_STEREO;
  STEP(m->image(2, 1, r));
  STEP(m->frame(1, s.single));
  STEP(m->frame(2, s.single));
  STEP(m->cover(1));
  m->expect.source_png = "src512.png";
  return true;
}

bool several_grids(Mux *m) {
  const Streams &s = streams();
  STEP(m->cover(5));
  STEP(grid(m, 5, 1, IMG_TYPE_MAIN, 0));
  STEP(grid(m, 10, 6, IMG_TYPE_OTHER, 0, 500, 300));
  STEP(grid(m, 15, 11, IMG_TYPE_THUMBNAIL, 5, 400, 400));
  // Interleaved tiles: each grid's location follows its own last tile.
  if (!put_tiles(m, 6, 0, 2) || !put_tiles(m, 1, 0, 4) || !put_tiles(m, 11) ||
      !put_tiles(m, 6, 2, 4)) {
    return false;
  }
  STEP(m->image(20, 0, Mux::info_for(s.thumb, 128, 128)));
  STEP(m->frame(20, s.thumb));
  m->expect.source_png = "src512.png";
  return true;
}

// Frames before their registrations, the cover named first, a tone map
// registered between a grid and its last tile, and Exif on a grid. Items are
// registered in ascending id order, which the reader needs of item
// descriptions; frames come in any order.
bool any_order(Mux *m) {
  const Streams &s = streams();
  static const Bytes exif = exif_block();
  STEP(m->cover(5));
  STEP(m->frame(60, s.thumb));
  if (!put_tiles(m, 1, 0, 3)) return false;
  tarnm_image_info g = Mux::info_for(s.tiles[0], 256, 256);
  g.exif_data = exif.data();
  g.exif_size = uint32_t(exif.size());
  STEP(grid(m, 5, 1, IMG_TYPE_MAIN, 0, 512, 512, &g));
  tarnm_image_info gm = Mux::info_for(s.thumb, 128, 128);
  gm.img_type = IMG_TYPE_AUX;
  gm.aux_type = 3;
  STEP(m->image(7, 5, gm));
  tarnm_image_info tm{};
  tm.img_type = IMG_TYPE_TMAP;
  tm.width = tm.height = 512;
  tm.tmap_data = kTonemap;
  tm.tmap_size = sizeof kTonemap;
  STEP(m->image(8, 7, tm));
  if (!put_tiles(m, 1, 3, 4)) return false;
  STEP(m->frame(7, s.thumb));
  tarnm_image_info t = Mux::info_for(s.thumb, 128, 128);
  t.img_type = IMG_TYPE_THUMBNAIL;
  STEP(m->image(60, 5, t));
  m->expect.source_png = "src512.png";
  return true;
}

}  // namespace

const std::vector<Scenario> &scenarios() {
  static const std::vector<Scenario> kScenarios = {
      {"single_image", single},      {"grid_of_tiles", grid_of_tiles},
      {"grid_with_thumbnail", grid_with_thumbnail}, {"alpha", alpha},
      {"depth", depth},              {"gain_map_with_tone_map", gain_map},
      {"rotation", rotation},        {"icc_colour", icc_colour},
      {"exif_and_xmp", exif_and_xmp}, {"stereo_pair", stereo_pair},
      {"several_grids", several_grids}, {"any_order", any_order},
  };
  if (!streams().ok) ADD_FAILURE() << "tests/data/hevc streams are missing";
  return kScenarios;
}

}  // namespace tarn_test
