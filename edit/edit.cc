// The lossless edit: the reader describes every image of the input, the
// writer builds a new file from the same coded bytes and decoder
// configurations. Only the public interfaces of both engines are used.
//
// Plan first, write second: every image is classified and checked before
// the writer sees anything, so a refusal never leaves a partial file, and
// the output callbacks are called only once the whole file is built.
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "common/log.h"
#include "tarn/utils.h"
#include "edit/internal.h"

using tarn_edit_internal::BoxFacts;
using tarn_edit_internal::List;
using tarn_edit_internal::PropertyBox;
using tarn_edit_internal::Read;

namespace {

constexpr char kTag[] = "tarn_edit";
constexpr uint32_t kHvc1 = TARND_FCC('h', 'v', 'c', '1');
constexpr uint32_t kGrid = TARND_FCC('g', 'r', 'i', 'd');
constexpr uint32_t kTmap = TARND_FCC('t', 'm', 'a', 'p');
constexpr uint32_t kExif = TARND_FCC('E', 'x', 'i', 'f');
constexpr uint32_t kMime = TARND_FCC('m', 'i', 'm', 'e');
constexpr uint32_t kIovl = TARND_FCC('i', 'o', 'v', 'l');
constexpr uint32_t kJpeg = TARND_FCC('j', 'p', 'e', 'g');
constexpr uint32_t kDimg = TARND_FCC('d', 'i', 'm', 'g');
constexpr uint32_t kThmb = TARND_FCC('t', 'h', 'm', 'b');
constexpr uint32_t kAuxl = TARND_FCC('a', 'u', 'x', 'l');
constexpr uint32_t kCdsc = TARND_FCC('c', 'd', 's', 'c');
constexpr uint32_t kSter = TARND_FCC('s', 't', 'e', 'r');
constexpr uint32_t kAltr = TARND_FCC('a', 'l', 't', 'r');
constexpr uint32_t kMoov = TARND_FCC('m', 'o', 'o', 'v');
// The writer's grid limit (rows x columns).
constexpr uint32_t kMaxGridTiles = 768;
// The writer's limit on the pixels of one coded image.
constexpr uint64_t kMaxCodedPixels = 12582912;
constexpr uint8_t kExifMarker[6] = {'E', 'x', 'i', 'f', 0, 0};

// Property kinds that change the displayed pixels and that the writer has
// no way to express: carrying the image without them would show it wrongly.
struct Transform {
  uint32_t type;
  const char *what;
};
const Transform kTransforms[] = {{TARND_FCC('c', 'l', 'a', 'p'), "a clean aperture (clap)"},
                                 {TARND_FCC('i', 'm', 'i', 'r'), "a mirror (imir)"},
                                 {TARND_FCC('i', 's', 'c', 'l'), "a scaling (iscl)"}};

// A message of bounded length held in place: refusals are described while
// memory may be short, and the caller's copy is bounded anyway.
struct Text {
  char s[1024] = "";
  size_t n = 0;
  void append(const char *t) {
    const size_t len = std::strlen(t);
    const size_t k = len < sizeof s - 1 - n ? len : sizeof s - 1 - n;
    std::memcpy(s + n, t, k);
    n += k;
    s[n] = '\0';
  }
  const char *c_str() const { return s; }
  bool empty() const { return n == 0; }
};

struct Fourcc {
  char s[5];
};

Fourcc fourcc_text(uint32_t code) {
  Fourcc f{};
  for (int i = 0; i < 4; ++i) {
    const char c = char((code >> (8 * i)) & 0xff);
    f.s[i] = (c >= 0x20 && c < 0x7f) ? c : '.';
  }
  return f;
}

Text format(const char *fmt, ...) TARN_PRINTF_FORMAT(1, 2);
Text format(const char *fmt, ...) {
  Text t;
  va_list ap;
  va_start(ap, fmt);
  const int n = std::vsnprintf(t.s, sizeof t.s, fmt, ap);
  va_end(ap);
  t.n = n < 0 ? 0 : size_t(n) < sizeof t.s ? size_t(n) : sizeof t.s - 1;
  return t;
}

const char *type_name(uint32_t type) {
  if (type == kIovl) return "an overlay (iovl)";
  if (type == kJpeg) return "a JPEG image (jpeg)";
  if (type == kTmap) return "a tone-map image (tmap)";
  return nullptr;
}

Text describe_item(const tarnd_item &it) {
  const char *known = type_name(it.item_type);
  if (known != nullptr) return format("item %u, %s", it.item_id, known);
  return format("item %u, of type '%s'", it.item_id, fourcc_text(it.item_type).s);
}

// The to-ids of the item's first reference of a type, or null.
const uint16_t *first_ref(const tarnd_item &item, uint32_t type, uint16_t *count) {
  for (unsigned r = 0; r < item.referece_from_cnt && r < TARND_MAX_REFS; ++r) {
    if (item.ref_type[r] == type && item.ref_to_cnt[r] > 0 && item.ref_to_ids[r] != nullptr) {
      *count = item.ref_to_cnt[r];
      return item.ref_to_ids[r];
    }
  }
  *count = 0;
  return nullptr;
}

// One image to write.
struct Image {
  const tarnd_item *item = nullptr;
  uint32_t img_type = IMG_TYPE_OTHER;
  uint32_t aux_type = 0;
  uint32_t ref_old = 0;  // master, gain map or other stereo view (old id)
  List<uint32_t> tiles;  // old ids of a grid's tiles
  tarnd_grid_info grid{};
  tarnd_image_info info{};  // of the image, or of the first tile for a grid
  uint32_t rotation = 0;    // clockwise degrees
  uint32_t new_id = 0;      // grid: the grid item; tiles precede it
  const uint8_t *exif = nullptr;
  uint32_t exif_size = 0;
  const uint8_t *xmp = nullptr;
  uint32_t xmp_size = 0;
  List<uint8_t> exif_copy;  // when the edit changes or completes the Exif
  List<uint8_t> tmap_data;
  List<uint8_t> prefix;  // NAL units stored beside the parameter sets, start-code form
};

// The images to write, in writing order. Room for every item of the input
// is taken at once, so that planning never grows it.
class ImageList {
 public:
  bool init(size_t capacity) {
    items_.reset(new (std::nothrow) Image[capacity]);
    capacity_ = items_ ? capacity : 0;
    return items_ != nullptr;
  }
  bool push(Image &&im) {
    if (size_ == capacity_) return false;
    items_[size_++] = std::move(im);
    return true;
  }
  void pop_back() { items_[--size_] = Image(); }
  void erase(size_t i) {
    for (size_t j = i; j + 1 < size_; ++j) items_[j] = std::move(items_[j + 1]);
    pop_back();
  }
  Image &back() { return items_[size_ - 1]; }
  Image &operator[](size_t i) { return items_[i]; }
  size_t size() const { return size_; }
  Image *begin() { return items_.get(); }
  Image *end() { return items_.get() + size_; }

 private:
  std::unique_ptr<Image[]> items_;
  size_t size_ = 0, capacity_ = 0;
};

// Parameter sets of one decoder configuration, split for the writer, and
// the other NAL units stored with them, which travel in front of the frame.
struct ParamSets {
  tarnm_param_sets sets{};
  List<uint8_t> prefix;  // start-code form
};

enum class Split { kOk, kMalformed, kNoMemory };

Split split_config(const uint8_t *data, uint32_t size, ParamSets *out) {
  std::memset(&out->sets, 0, sizeof out->sets);
  out->prefix.clear();
  uint32_t at = 0;
  while (at + 4 <= size) {
    if (std::memcmp(data + at, "\0\0\0\1", 4) != 0) return Split::kMalformed;
    uint32_t end = at + 4;
    while (end + 4 <= size && std::memcmp(data + end, "\0\0\0\1", 4) != 0) ++end;
    if (end + 4 > size) end = size;
    const uint8_t *nal = data + at + 4;
    const uint32_t nal_size = end - at - 4;
    if (nal_size < 2) return Split::kMalformed;
    const uint32_t nal_type = (nal[0] >> 1) & 0x3f;
    int32_t *count = nullptr;
    uint32_t *sizes = nullptr;
    const uint8_t **ptrs = nullptr;
    if (nal_type == 32) {
      count = &out->sets.vps_count, sizes = out->sets.vps_size, ptrs = out->sets.vps_data;
    } else if (nal_type == 33) {
      count = &out->sets.sps_count, sizes = out->sets.sps_size, ptrs = out->sets.sps_data;
    } else if (nal_type == 34) {
      count = &out->sets.pps_count, sizes = out->sets.pps_size, ptrs = out->sets.pps_data;
    }
    if (count == nullptr) {
      if (!out->prefix.append(data + at, end - at)) return Split::kNoMemory;
    } else {
      if (*count >= 4) return Split::kMalformed;
      sizes[*count] = nal_size;
      ptrs[*count] = nal;
      ++*count;
    }
    at = end;
  }
  const bool complete = out->sets.sps_count > 0 && out->sets.pps_count > 0 && out->sets.vps_count > 0;
  return at == size && complete ? Split::kOk : Split::kMalformed;
}

// Bit depths of the stream, from its first SPS (the writer's own decoder).
uint32_t bit_depths(const tarnm_param_sets &ps, uint8_t depths[3]) {
  tarnm_hevc_sps sps;
  std::memset(&sps, 0, sizeof sps);
  omni_bsr bs{};
  omni_bsr_init(&bs, ps.sps_data[0] + 2, ps.sps_size[0] - 2, tarnm_hevc_bs_flush);
  tarnm_hevc_sps_dec(&bs, &sps);
  if (sps.bit_depth_luma_minus8 > 8 || sps.bit_depth_chroma_minus8 > 8 || sps.chroma_format_idc > 3) return 0;
  depths[0] = uint8_t(sps.bit_depth_luma_minus8 + 8);
  depths[1] = depths[2] = uint8_t(sps.bit_depth_chroma_minus8 + 8);
  return sps.chroma_format_idc == 0 ? 1 : 3;
}

struct ReaderDeleter {
  void operator()(void *h) const { tarnd_delete(h); }
};
struct WriterDeleter {
  void operator()(tarnm_ctx *w) const { tarnm_delete(w); }
};

class Edit {
 public:
  Edit(const tarnd_io_dsc *in, const tarn_edit_options &opt) : in_(in), opt_(opt) {}

  int32_t run(tarnm_output_dsc *out);
  const char *message() const { return message_.c_str(); }

 private:
  int32_t fail(int32_t code, const char *why) {
    message_ = Text();
    message_.append(why);
    TARN_LOGW(kTag, "%s", why);
    return code;
  }
  int32_t fail(int32_t code, const Text &why) { return fail(code, why.c_str()); }
  bool set(uint32_t flag) const { return (opt_.flags & flag) != 0; }
  const tarnd_item *item(uint32_t id) const {
    uint32_t index = 0;
    if (tarnd_find_itemIndex(ctx_->meta.items, ctx_->meta.item_cnt, id, &index) != 0) return nullptr;
    return &ctx_->meta.items[index];
  }
  Image *planned(uint32_t old_id) {
    for (Image &im : images_) {
      if (im.item->item_id == old_id) return &im;
    }
    return nullptr;
  }
  uint32_t new_id_of(uint32_t old_id) {
    const Image *im = planned(old_id);
    return im ? im->new_id : 0;
  }
  bool hidden(uint32_t id) const {
    for (uint32_t d = 0; d < ctx_->displayable_cnt; ++d) {
      if (ctx_->displayable_ids[d] == id) return false;
    }
    return true;
  }
  // Visits the ipco boxes associated with an item, in association order.
  template <typename Visit>
  void each_property(uint32_t id, Visit visit) const {
    for (uint32_t a = 0; a < ctx_->meta.association_cnt; ++a) {
      const tarnd_association &as = ctx_->meta.association_list[a];
      if (as.item_id == id && as.property_index < facts_.properties.size())
        visit(facts_.properties[as.property_index]);
    }
  }
  // Visits the reader's properties associated with an item, in association order.
  template <typename Visit>
  void each_bound(uint32_t id, Visit visit) const {
    for (uint32_t a = 0; a < ctx_->meta.association_cnt; ++a) {
      const tarnd_association &as = ctx_->meta.association_list[a];
      if (as.item_id == id && as.property_index < ctx_->meta.property_cnt)
        visit(ctx_->meta.properties[as.property_index]);
    }
  }
  // The first transform among an item's properties, or null.
  const Transform *transform_of(uint32_t id) const {
    const Transform *found = nullptr;
    each_property(id, [&](const PropertyBox &p) {
      for (const Transform &t : kTransforms) {
        if (found == nullptr && p.type == t.type) found = &t;
      }
    });
    return found;
  }

  int32_t plan();
  int32_t check_coded(uint32_t id, const char *role, Text *why);
  int32_t check_image(Image &im);
  int32_t plan_metadata();
  int32_t write(tarnm_ctx *w);
  int32_t register_image(tarnm_ctx *w, Image &im);
  int32_t put_frames(tarnm_ctx *w, const Image &im);
  void dropped(const char *what) {
    if (!dropped_.empty()) dropped_.append("; ");
    dropped_.append(what);
  }
  void dropped(const Text &what) { dropped(what.c_str()); }

  const tarnd_io_dsc *in_;
  const tarn_edit_options &opt_;
  std::unique_ptr<void, ReaderDeleter> reader_;
  const tarnd_ctx *ctx_ = nullptr;
  BoxFacts facts_;
  ImageList images_;  // the primary first
  Text message_, dropped_;
  List<uint8_t> frame_;
};

int32_t Edit::check_coded(uint32_t id, const char *role, Text *why) {
  const tarnd_item *it = item(id);
  if (it == nullptr) {
    *why = format("%s is missing", role);
    return TARN_EDIT_UNREADABLE;
  }
  if (it->item_type != kHvc1) {
    *why = format("%s is %s, which the writer cannot express", role, describe_item(*it).c_str());
    return TARN_EDIT_REFUSED;
  }
  if (const Transform *t = transform_of(id)) {
    *why = format("%s has %s, which the writer cannot express", role, t->what);
    return TARN_EDIT_REFUSED;
  }
  tarnd_image_info info{};
  if (tarnd_get_info_image(const_cast<tarnd_ctx *>(ctx_), int32_t(id), &info) != 0 || info.config_data == nullptr ||
      info.width == 0 || info.height == 0) {
    *why = format("%s has no decoder configuration or size", role);
    return TARN_EDIT_UNREADABLE;
  }
  return TARN_EDIT_OK;
}

// Checks that the writer can express one image and fills its description.
int32_t Edit::check_image(Image &im) {
  const tarnd_item &it = *im.item;
  void *h = const_cast<tarnd_ctx *>(ctx_);
  const Text role = im.img_type == IMG_TYPE_MAIN ? format("the primary image (item %u)", it.item_id)
                                                 : format("image %u", it.item_id);
  Text why;
  int32_t rc = TARN_EDIT_OK;
  if (it.item_type == kHvc1) {
    if ((rc = check_coded(it.item_id, role.c_str(), &why)) != 0) return fail(rc, why);
    tarnd_get_info_image(h, int32_t(it.item_id), &im.info);
    if (uint64_t(im.info.width) * im.info.height > kMaxCodedPixels)
      return fail(TARN_EDIT_REFUSED, format("%s is %ux%u, more pixels than the writer takes in one coded image",
                                            role.c_str(), im.info.width, im.info.height));
  } else if (it.item_type == kGrid) {
    if (const Transform *t = transform_of(it.item_id))
      return fail(TARN_EDIT_REFUSED,
                  format("%s has %s, which the writer cannot express", role.c_str(), t->what));
    if (tarnd_get_info_item(h, int32_t(it.item_id), TARND_INFO_GRID, &im.grid) != 0 || im.grid.rows == 0)
      return fail(TARN_EDIT_UNREADABLE, format("%s: the grid layout cannot be read", role.c_str()));
    const uint32_t tile_count = im.grid.rows * im.grid.columns;
    uint16_t count = 0;
    first_ref(it, kDimg, &count);
    if (tile_count > kMaxGridTiles || count != tile_count)
      return fail(TARN_EDIT_REFUSED, format("%s is a %ux%u grid with %u tiles, which the writer cannot express",
                                            role.c_str(), im.grid.rows, im.grid.columns, count));
    if (!im.tiles.resize(count)) return fail(TARN_EDIT_NO_MEMORY, "out of memory while planning the edit");
    tarnd_get_list_referenceto(h, int32_t(it.item_id), im.tiles.data(), count);
    for (uint32_t t = 0; t < count; ++t) {
      const Text tile_role = format("tile %u (item %u) of %s", t + 1, im.tiles[t], role.c_str());
      if ((rc = check_coded(im.tiles[t], tile_role.c_str(), &why)) != 0) return fail(rc, why);
      tarnd_image_info tile{};
      tarnd_get_info_image(h, int32_t(im.tiles[t]), &tile);
      if (t == 0) {
        im.info = tile;
      } else if (tile.width != im.info.width || tile.height != im.info.height ||
                 tile.config_size != im.info.config_size ||
                 std::memcmp(tile.config_data, im.info.config_data, tile.config_size) != 0) {
        return fail(TARN_EDIT_REFUSED, format("%s: its tiles differ in size or decoder configuration, which the "
                                              "writer cannot express", role.c_str()));
      }
      for (uint32_t u = 0; u < t; ++u) {
        if (im.tiles[u] == im.tiles[t])
          return fail(TARN_EDIT_REFUSED, format("%s uses item %u as two tiles", role.c_str(), im.tiles[t]));
      }
    }
    // Colour and rotation belong to the grid item.
    tarnd_image_info grid_info{};
    tarnd_get_info_image(h, int32_t(it.item_id), &grid_info);
    im.info.icc_data = grid_info.icc_data;
    im.info.icc_size = grid_info.icc_size;
    im.info.rotation = im.grid.rotation;
  } else if (it.item_type == kTmap) {
    // The reader describes coded images only: a tone map's size is its ispe,
    // which the writer takes back as it stands when the tone map is not turned.
    tarnd_get_info_image(h, int32_t(it.item_id), &im.info);
    each_bound(it.item_id, [&](const tarnd_property &prop) {
      if (prop.type != TARND_FCC('i', 's', 'p', 'e')) return;
      im.info.width = prop.payload.ispe.width;
      im.info.height = prop.payload.ispe.height;
    });
    const Read read = tarn_edit_internal::read_item_bytes(in_, ctx_, it, &im.tmap_data);
    if (read == Read::kNoMemory) return fail(TARN_EDIT_NO_MEMORY, "out of memory while reading a tone map");
    if (read != Read::kOk || im.tmap_data.empty())
      return fail(TARN_EDIT_UNREADABLE, format("%s: the tone-map data cannot be read", role.c_str()));
  } else {
    return fail(TARN_EDIT_REFUSED,
                format("%s cannot be carried: the writer cannot express it", describe_item(it).c_str()));
  }
  im.rotation = (4 - (im.info.rotation & 3)) % 4 * 90;
  return TARN_EDIT_OK;
}

int32_t Edit::plan() {
  uint32_t primary = 0;
  tarnd_get_image_id(const_cast<tarnd_ctx *>(ctx_), TARND_ID_PRIMARY, TARND_ID_REF_PRIMARY, &primary);
  const tarnd_item *p = item(primary);
  if (p == nullptr) return fail(TARN_EDIT_UNREADABLE, "the file names no primary image");
  if (p->item_type != kHvc1 && p->item_type != kGrid)
    return fail(TARN_EDIT_REFUSED, format("the primary image is %s, which the writer cannot express",
                                          describe_item(*p).c_str()));
  uint16_t ref_count = 0;
  if (first_ref(*p, kThmb, &ref_count) != nullptr || first_ref(*p, kAuxl, &ref_count) != nullptr)
    return fail(TARN_EDIT_REFUSED, format("the primary image (item %u) is itself a thumbnail or auxiliary image, "
                                          "which the writer cannot express", p->item_id));
  for (uint32_t type : facts_.top_level) {
    if (type != kMoov) continue;
    if (!set(TARN_EDIT_DROP_UNSUPPORTED))
      return fail(TARN_EDIT_REFUSED, "the file holds an image sequence track (moov), which the writer cannot "
                                     "express; --drop-unsupported leaves it out");
    dropped("the image sequence track (moov)");
  }
  // The writer makes a tone map built on the primary image and that image
  // alternatives of each other by itself: such a group travels with its
  // tone map.
  auto tone_map_alternative = [&](const tarn_edit_internal::GroupBox &g) {
    const bool pair = g.type == kAltr && g.entity_cnt == 2 && g.entities[1] == primary;
    const tarnd_item *t = pair ? item(g.entities[0]) : nullptr;
    uint16_t count = 0;
    const uint16_t *to = t != nullptr && t->item_type == kTmap ? first_ref(*t, kDimg, &count) : nullptr;
    return to != nullptr && count == 2 && to[0] == primary;
  };
  for (const tarn_edit_internal::GroupBox &g : facts_.groups) {
    const uint32_t type = g.type;
    if (type == kSter || tone_map_alternative(g)) continue;
    if (!set(TARN_EDIT_DROP_UNSUPPORTED))
      return fail(TARN_EDIT_REFUSED, format("the file holds an entity group of type '%s', which the writer cannot express; "
                                            "--drop-unsupported leaves it out", fourcc_text(type).s));
    dropped(format("an entity group of type '%s'", fourcc_text(type).s));
  }

  // Items that are inputs of grids are written with their grid.
  List<uint32_t> inputs;
  for (uint32_t i = 0; i < ctx_->meta.item_cnt; ++i) {
    const tarnd_item &it = ctx_->meta.items[i];
    uint16_t count = 0;
    const uint16_t *to = first_ref(it, kDimg, &count);
    for (uint16_t k = 0; it.item_type == kGrid && to != nullptr && k < count; ++k) {
      if (!inputs.push(to[k])) return fail(TARN_EDIT_NO_MEMORY, "out of memory while planning the edit");
    }
  }
  auto is_input = [&](uint32_t id) {
    for (uint32_t t : inputs) {
      if (t == id) return true;
    }
    return false;
  };

  // Every image but the primary is an item met once below.
  if (!images_.init(size_t(ctx_->meta.item_cnt) + 1))
    return fail(TARN_EDIT_NO_MEMORY, "out of memory while planning the edit");
  Image main;
  main.item = p;
  main.img_type = IMG_TYPE_MAIN;
  images_.push(std::move(main));
  if (int32_t rc = check_image(images_.back())) return rc;

  // The rest in item order, images that belong to another one after all the
  // others so that their master is known whatever the ids. A thumbnail or
  // auxiliary image whose master is not written goes with it; an image that
  // cannot be expressed and that nothing depends on is left out only when
  // the options allow.
  for (uint32_t slot = 0; slot < 2 * ctx_->meta.item_cnt; ++slot) {
    const tarnd_item &it = ctx_->meta.items[slot % ctx_->meta.item_cnt];
    uint16_t refs = 0;
    const bool belongs = first_ref(it, kThmb, &refs) != nullptr || first_ref(it, kAuxl, &refs) != nullptr;
    if (it.item_id == 0 || it.item_id == primary || it.item_type == kExif || it.item_type == kMime ||
        is_input(it.item_id) || belongs != (slot >= ctx_->meta.item_cnt))
      continue;
    Image im;
    im.item = &it;
    uint16_t count = 0;
    const uint16_t *to = nullptr;
    const char *kind = "image";
    bool may_drop = false;
    if ((to = first_ref(it, kThmb, &count)) != nullptr) {
      if (set(TARN_EDIT_DROP_THUMBNAILS)) continue;
      im.img_type = IMG_TYPE_THUMBNAIL, im.ref_old = to[0], kind = "thumbnail";
    } else if ((to = first_ref(it, kAuxl, &count)) != nullptr) {
      im.img_type = IMG_TYPE_AUX, im.ref_old = to[0];
      if (it.flags & TARND_ITEM_AUX_ALPHA) {
        if (set(TARN_EDIT_DROP_ALPHA)) continue;
        im.aux_type = 1, kind = "alpha image";
      } else if (it.flags & TARND_ITEM_AUX_DEPTH) {
        if (set(TARN_EDIT_DROP_DEPTH)) continue;
        im.aux_type = 2, kind = "depth image";
      } else if (it.flags & TARND_ITEM_AUX_GAINMAP) {
        if (set(TARN_EDIT_DROP_GAINMAP)) continue;
        im.aux_type = 3, kind = "gain map";
      } else {
        kind = "auxiliary image of an unknown type";
        may_drop = true;
      }
    } else if (it.item_type == kTmap) {
      if (set(TARN_EDIT_DROP_GAINMAP)) continue;
      to = first_ref(it, kDimg, &count);
      im.img_type = IMG_TYPE_TMAP, kind = "tone-map image";
      if (to == nullptr || count != 2 || to[0] != primary)
        return fail(TARN_EDIT_REFUSED, format("tone-map item %u is not built on the primary image and a gain map, "
                                              "which the writer cannot express", it.item_id));
      im.ref_old = to[1];
    } else if (it.item_type != kHvc1 && it.item_type != kGrid && it.item_type != kIovl && it.item_type != kJpeg) {
      // Not an image: something only an image could depend on.
      may_drop = true;
      kind = "item";
    }
    if (im.ref_old != 0 && im.img_type != IMG_TYPE_TMAP && planned(im.ref_old) == nullptr) continue;
    if (may_drop) {
      const bool plain = std::strcmp(kind, "item") == 0;
      if (!set(TARN_EDIT_DROP_UNSUPPORTED))
        return fail(TARN_EDIT_REFUSED, format("%s%s%s%s cannot be carried: the writer cannot express it; "
                                              "--drop-unsupported leaves it out",
                                              describe_item(it).c_str(), plain ? "" : " (", plain ? "" : kind,
                                              plain ? "" : ")"));
      dropped(describe_item(it));
      continue;
    }
    const bool thumbnail = im.img_type == IMG_TYPE_THUMBNAIL;
    if (!images_.push(std::move(im)))
      return fail(TARN_EDIT_NO_MEMORY, "out of memory while planning the edit");
    const Text before = message_;
    const int32_t rc = check_image(images_.back());
    if (rc == TARN_EDIT_REFUSED && set(TARN_EDIT_DROP_UNSUPPORTED)) {
      dropped(describe_item(it));
      message_ = before;
      images_.pop_back();
      continue;
    }
    if (rc == TARN_EDIT_REFUSED) {
      message_.append(thumbnail ? "; --drop-thumbnails or --drop-unsupported leaves it out"
                                : "; --drop-unsupported leaves it out");
    }
    if (rc != 0) return rc;
  }

  // A hidden gain map that only a tone map uses stays hidden as the
  // primary's gain-map auxiliary: the writer shows plain images.
  for (const Image &tm : images_) {
    Image *gain = tm.img_type == IMG_TYPE_TMAP ? planned(tm.ref_old) : nullptr;
    if (gain != nullptr && gain->img_type == IMG_TYPE_OTHER && hidden(gain->item->item_id)) {
      gain->img_type = IMG_TYPE_AUX, gain->aux_type = 3, gain->ref_old = primary;
    }
  }
  for (size_t i = 0; i < images_.size(); ++i) {
    const Image &im = images_[i];
    if (im.img_type != IMG_TYPE_OTHER || !hidden(im.item->item_id)) continue;
    if (!set(TARN_EDIT_DROP_UNSUPPORTED))
      return fail(TARN_EDIT_REFUSED, format("image %u is hidden and nothing refers to it; the writer would show it. "
                                            "--drop-unsupported leaves it out", im.item->item_id));
    dropped(format("hidden image %u", im.item->item_id));
    images_.erase(i--);
  }

  // Tone maps need their gain map written; a dropped gain map takes them along.
  for (size_t i = 0; i < images_.size(); ++i) {
    Image &im = images_[i];
    if (im.img_type != IMG_TYPE_TMAP || planned(im.ref_old) != nullptr) continue;
    if (!set(TARN_EDIT_DROP_UNSUPPORTED) && !set(TARN_EDIT_DROP_GAINMAP))
      return fail(TARN_EDIT_REFUSED, format("tone-map item %u is built on item %u, which cannot be carried",
                                            im.item->item_id, im.ref_old));
    images_.erase(i--);
  }

  // Stereo pairs: the left view is registered as the pair, naming the right.
  for (uint32_t g = 0; g < ctx_->meta.group_cnt && g < TARND_MAX_GROUPS; ++g) {
    const tarnd_group &grp = ctx_->meta.groups[g];
    if (grp.grouping_type != kSter || grp.entityCount != 2 || grp.entityIDList == nullptr) continue;
    Image *left = planned(grp.entityIDList[0]);
    if (left == nullptr || planned(grp.entityIDList[1]) == nullptr) continue;
    if (left->img_type != IMG_TYPE_MAIN && left->img_type != IMG_TYPE_OTHER && left->img_type != IMG_TYPE_STEREO)
      return fail(TARN_EDIT_REFUSED, format("the left view of a stereo pair (item %u) plays another role too, "
                                            "which the writer cannot express; dropping its kind (for example "
                                            "--drop-thumbnails) leaves the pair out", grp.entityIDList[0]));
    if (left->img_type == IMG_TYPE_STEREO)
      return fail(TARN_EDIT_REFUSED, format("item %u is the left view of two stereo pairs, which the writer cannot "
                                            "express", grp.entityIDList[0]));
    left->img_type = IMG_TYPE_STEREO;
    left->ref_old = grp.entityIDList[1];
  }

  // Ids in writing order: a grid's tiles come just before it.
  uint32_t next = 1;
  for (Image &im : images_) {
    next += uint32_t(im.tiles.size());
    im.new_id = next++;
  }
  if (next > 0xFFFF) return fail(TARN_EDIT_REFUSED, "the file holds more items than the writer can number");
  return plan_metadata();
}

int32_t Edit::plan_metadata() {
  void *h = const_cast<tarnd_ctx *>(ctx_);
  const bool primary_rotation = set(TARN_EDIT_SET_ROTATION);
  const uint32_t primary_old = images_[0].item->item_id;
  for (Image &im : images_) {
    // The new rotation turns the primary image and everything that belongs to it.
    if (primary_rotation && (im.item->item_id == primary_old || im.ref_old == primary_old) &&
        im.img_type != IMG_TYPE_TMAP && im.img_type != IMG_TYPE_STEREO)
      im.rotation = opt_.rotation;
    if (primary_rotation && im.item->item_id == primary_old) im.rotation = opt_.rotation;
    if (im.img_type == IMG_TYPE_TMAP) continue;
    // Every Exif and XMP item that describes this image.
    uint32_t exif_items = 0, xmp_items = 0;
    for (uint32_t i = 0; i < ctx_->meta.item_cnt; ++i) {
      const tarnd_item &md = ctx_->meta.items[i];
      if (md.item_type != kExif && md.item_type != kMime) continue;
      uint16_t count = 0;
      const uint16_t *to = first_ref(md, kCdsc, &count);
      bool describes = false;
      for (uint16_t k = 0; to != nullptr && k < count; ++k) describes = describes || to[k] == im.item->item_id;
      if (!describes) continue;
      uint32_t &n = md.item_type == kExif ? exif_items : xmp_items;
      if (++n == 2) {
        if (!set(TARN_EDIT_DROP_UNSUPPORTED))
          return fail(TARN_EDIT_REFUSED, format("image %u has more than one %s item, which the writer cannot "
                                                "express; --drop-unsupported keeps the first",
                                                im.item->item_id, md.item_type == kExif ? "Exif" : "XMP"));
        dropped(format("%s item %u", md.item_type == kExif ? "Exif" : "XMP", md.item_id));
      }
    }
    const bool is_primary = im.item->item_id == primary_old;
    tarnd_item_data data{};
    if (is_primary && opt_.exif_data != nullptr) {
      data = {opt_.exif_data, opt_.exif_size};
    } else if (exif_items > 0 && !set(TARN_EDIT_STRIP_EXIF)) {
      const int32_t rc = tarnd_get_info_item(h, int32_t(im.item->item_id), TARND_INFO_EXIF, &data);
      if (rc != 0) return fail(rc == -5 ? TARN_EDIT_NO_MEMORY : TARN_EDIT_UNREADABLE,
                               format("the Exif of image %u cannot be read", im.item->item_id));
    }
    if (data.size > 0) {
      // The writer places the TIFF header 6 bytes in, behind the Exif marker.
      const bool marked = data.size >= 6 && std::memcmp(data.data, kExifMarker, 6) == 0;
      const bool strip = set(TARN_EDIT_STRIP_GPS) && !(is_primary && opt_.exif_data != nullptr);
      if (marked && !strip) {
        im.exif = data.data, im.exif_size = data.size;
      } else {
        im.exif_copy.clear();
        if ((!marked && !im.exif_copy.append(kExifMarker, sizeof kExifMarker)) ||
            !im.exif_copy.append(data.data, data.size))
          return fail(TARN_EDIT_NO_MEMORY, "out of memory while copying Exif");
        if (strip && tarn_edit_strip_gps(im.exif_copy.data(), uint32_t(im.exif_copy.size())) < 0)
          return fail(TARN_EDIT_UNREADABLE, format("the Exif of image %u is malformed; its GPS data cannot be "
                                                   "found safely", im.item->item_id));
        im.exif = im.exif_copy.data(), im.exif_size = uint32_t(im.exif_copy.size());
      }
    }
    data = {};
    if (is_primary && opt_.xmp_data != nullptr) {
      data = {opt_.xmp_data, opt_.xmp_size};
    } else if (xmp_items > 0 && !set(TARN_EDIT_STRIP_XMP)) {
      const int32_t rc = tarnd_get_info_item(h, int32_t(im.item->item_id), TARND_INFO_XMP, &data);
      if (rc != 0) return fail(rc == -5 ? TARN_EDIT_NO_MEMORY : TARN_EDIT_UNREADABLE,
                               format("the XMP of image %u cannot be read", im.item->item_id));
    }
    im.xmp = data.size > 0 ? data.data : nullptr;
    im.xmp_size = data.size;
  }
  return TARN_EDIT_OK;
}

int32_t Edit::register_image(tarnm_ctx *w, Image &im) {
  tarnm_image_info info;
  std::memset(&info, 0, sizeof info);
  info.img_type = im.img_type;
  info.aux_type = im.aux_type;
  info.width = im.info.width;
  info.height = im.info.height;
  info.rotation = im.tiles.empty() ? im.rotation : 0;  // a grid turns as a whole
  ParamSets ps;
  uint8_t depths[3] = {};
  if (im.img_type != IMG_TYPE_TMAP) {
    const Split split = split_config(im.info.config_data, im.info.config_size, &ps);
    if (split == Split::kNoMemory)
      return fail(TARN_EDIT_NO_MEMORY, "out of memory while reading a decoder configuration");
    if (split != Split::kOk)
      return fail(TARN_EDIT_REFUSED, format("image %u: its decoder configuration does not hold one to four VPS, SPS "
                                            "and PPS each", im.item->item_id));
    info.param_sets = ps.sets;
    im.prefix = std::move(ps.prefix);
    info.bit_depth_info_count = bit_depths(ps.sets, depths);
    info.bit_depth = depths;
  } else {
    info.tmap_data = im.tmap_data.data();
    info.tmap_size = uint32_t(im.tmap_data.size());
  }
  // Encoders put the colour on the grid, on its tiles, or on both; the writer
  // puts it on both, so a grid without its own takes its tiles'.
  uint32_t colour_id = im.item->item_id;
  if (!im.tiles.empty()) {
    bool own = false;
    each_property(colour_id, [&](const PropertyBox &p) { own = own || p.colour_type != 0; });
    if (!own) {
      colour_id = im.tiles[0];
      tarnd_image_info tile{};
      tarnd_get_info_image(const_cast<tarnd_ctx *>(ctx_), int32_t(colour_id), &tile);
      im.info.icc_data = tile.icc_data;
      im.info.icc_size = tile.icc_size;
    }
  }
  each_property(im.item->item_id, [&](const PropertyBox &p) {
    if (p.type == TARND_FCC('c', 'l', 'l', 'i')) info.max_cll = p.max_cll, info.max_pall = p.max_pall;
  });
  each_property(colour_id, [&](const PropertyBox &p) {
    if (p.colour_type == TARND_FCC('n', 'c', 'l', 'x')) {
      info.color_type = 1;
      info.color_data = p.nclx;
      info.color_size = sizeof p.nclx;
    }
  });
  if (im.info.icc_size > 0 && im.info.icc_data != nullptr) {
    uint32_t icc_type = 3;
    each_property(colour_id, [&](const PropertyBox &p) {
      if (p.colour_type == TARND_FCC('r', 'I', 'C', 'C')) icc_type = 2;
    });
    info.color_type = icc_type;
    info.color_data = im.info.icc_data;
    info.color_size = im.info.icc_size;
  }
  if (im.aux_type != 0 && im.aux_type != 3) {
    // The alpha and depth subtype bytes that follow the type in auxC.
    each_bound(im.item->item_id, [&](const tarnd_property &prop) {
      if (prop.type == TARND_FCC('a', 'u', 'x', 'C') && prop.payload.auxC.subtype_size > 0) {
        info.aux_subtype_data = prop.payload.auxC.subtype_data;
        info.aux_subtype_size = prop.payload.auxC.subtype_size;
      }
    });
  }
  info.exif_data = im.exif;
  info.exif_size = im.exif_size;
  info.xmp_data = im.xmp;
  info.xmp_size = im.xmp_size;
  const uint32_t ref = im.ref_old != 0 ? new_id_of(im.ref_old) : 0;
  int32_t rc;
  if (!im.tiles.empty()) {
    tarnm_grid_info g;
    std::memset(&g, 0, sizeof g);
    g.output_width = im.grid.output_width;
    g.output_height = im.grid.output_height;
    g.rows = im.grid.rows;
    g.columns = im.grid.columns;
    g.first_tile_id = im.new_id - uint32_t(im.tiles.size());
    g.last_tile_id = im.new_id - 1;
    g.grid_item_id = uint16_t(im.new_id);
    g.rotation = im.rotation;
    rc = tarnm_set_image_info(w, im.new_id, ref, &info, &g);
  } else {
    rc = tarnm_set_image_info(w, im.new_id, ref, &info, nullptr);
  }
  if (rc != 0)
    return fail(TARN_EDIT_WRITER, format("the writer refused image %u (status %d)", im.item->item_id, rc));
  return TARN_EDIT_OK;
}

int32_t Edit::put_frames(tarnm_ctx *w, const Image &im) {
  if (im.img_type == IMG_TYPE_TMAP) return TARN_EDIT_OK;
  void *h = const_cast<tarnd_ctx *>(ctx_);
  const uint32_t single = im.item->item_id;
  const uint32_t *ids = im.tiles.empty() ? &single : im.tiles.data();
  const size_t id_cnt = im.tiles.empty() ? 1 : im.tiles.size();
  uint32_t new_id = im.tiles.empty() ? im.new_id : im.new_id - uint32_t(im.tiles.size());
  for (size_t k = 0; k < id_cnt; ++k) {
    const uint32_t id = ids[k];
    int32_t size = 0;
    int32_t rc = tarnd_get_image_frm(h, int32_t(id), nullptr, 0, &size);
    if (rc != 0 || size <= 0)
      return fail(TARN_EDIT_UNREADABLE, format("the coded data of item %u cannot be read (status %d)", id, rc));
    // NAL units stored beside the parameter sets go in front of the picture.
    frame_.clear();
    const size_t head = im.prefix.size();
    if (!frame_.append(im.prefix.data(), head) || !frame_.resize(head + size_t(size)))
      return fail(TARN_EDIT_NO_MEMORY, format("out of memory for the coded data of item %u", id));
    int32_t written = 0;
    rc = tarnd_get_image_frm(h, int32_t(id), frame_.data() + head, size, &written);
    if (rc != 0 || written != size)
      return fail(TARN_EDIT_UNREADABLE, format("the coded data of item %u cannot be read (status %d)", id, rc));
    rc = tarnm_put_frm(w, new_id++, frame_.data(), uint32_t(frame_.size()));
    if (rc != 0)
      return fail(rc == -5 ? TARN_EDIT_NO_MEMORY : TARN_EDIT_WRITER,
                  format("the writer refused the coded data of item %u (status %d)", id, rc));
  }
  return TARN_EDIT_OK;
}

int32_t Edit::write(tarnm_ctx *w) {
  for (size_t i = 0; i < images_.size(); ++i) {
    if (int32_t rc = register_image(w, images_[i])) return rc;
    // Tone maps name the primary image at their registration.
    if (i == 0 && tarnm_set_cover_image(w, int32_t(images_[0].new_id)) != 0)
      return fail(TARN_EDIT_WRITER, "the writer refused the primary image");
  }
  for (const Image &im : images_) {
    if (int32_t rc = put_frames(w, im)) return rc;
  }
  const int32_t rc = tarnm_stop_muxing(w);
  if (rc != 0) return fail(TARN_EDIT_WRITER, format("the writer could not complete the file (status %d)", rc));
  return TARN_EDIT_OK;
}

int32_t Edit::run(tarnm_output_dsc *out) {
  tarnd_file_info fi{};
  int32_t err = 0;
  reader_.reset(tarnd_create_with_flags(in_, TARND_READ_TOLERANT, &fi, &err));
  if (!reader_) {
    if (err == -5) return fail(TARN_EDIT_NO_MEMORY, "out of memory while reading the input");
    return fail(TARN_EDIT_UNREADABLE, err == -6 ? "the input cannot be opened"
                                                : "the input is not a readable HEIF file");
  }
  ctx_ = static_cast<const tarnd_ctx *>(reader_.get());
  const Read facts = tarn_edit_internal::read_box_facts(in_, &facts_);
  if (facts == Read::kNoMemory) return fail(TARN_EDIT_NO_MEMORY, "out of memory while reading the input");
  if (facts != Read::kOk)
    return fail(TARN_EDIT_UNREADABLE, "the input's item properties (ipco) cannot be found");
  if (int32_t rc = plan()) return rc;

  // The brands of every file this library writes for still images.
  tarnm_init_dsc init;
  std::memset(&init, 0, sizeof init);
  init.use_custom_brands = 1;
  init.major_brand = TARND_FCC('h', 'e', 'i', 'c');
  init.compatible_brands[0] = TARND_FCC('m', 'i', 'f', '1');
  init.compatible_brands[1] = TARND_FCC('m', 'i', 'a', 'f');
  init.compatible_brands[2] = TARND_FCC('h', 'e', 'i', 'c');
  init.compatible_brand_count = 3;
  int32_t werr = 0;
  std::unique_ptr<tarnm_ctx, WriterDeleter> writer(tarnm_create(&init, &werr));
  if (!writer) return fail(TARN_EDIT_NO_MEMORY, format("the writer cannot be created (status %d)", werr));
  if (int32_t rc = write(writer.get())) return rc;
  if (tarnm_dump_image_to_file(writer.get(), out) != 0) return fail(TARN_EDIT_OUTPUT, "the output cannot be written");
  message_ = Text();
  if (!dropped_.empty()) {
    message_.append("dropped: ");
    message_.append(dropped_.c_str());
  }
  return TARN_EDIT_OK;
}

void copy_message(const tarn_edit_options *opt, const char *text) {
  if (opt == nullptr || opt->message == nullptr || opt->message_size == 0) return;
  const size_t len = std::strlen(text);
  const size_t n = len < opt->message_size - 1 ? len : opt->message_size - 1;
  std::memcpy(opt->message, text, n);
  opt->message[n] = '\0';
}

}  // namespace

extern "C" int32_t tarn_edit(const tarnd_io_dsc *in, tarnm_output_dsc *out, const tarn_edit_options *options) {
  static const tarn_edit_options kNoChange = {};
  const tarn_edit_options &opt = options != nullptr ? *options : kNoChange;
  const uint32_t known = TARN_EDIT_STRIP_EXIF | TARN_EDIT_STRIP_XMP | TARN_EDIT_STRIP_GPS | TARN_EDIT_SET_ROTATION |
                         TARN_EDIT_DROP_THUMBNAILS | TARN_EDIT_DROP_ALPHA | TARN_EDIT_DROP_DEPTH |
                         TARN_EDIT_DROP_GAINMAP | TARN_EDIT_DROP_UNSUPPORTED;
  const char *bad = nullptr;
  if (in == nullptr || out == nullptr) bad = "no input or output given";
  else if ((opt.flags & ~known) != 0) bad = "unknown option bits";
  else if ((opt.flags & TARN_EDIT_SET_ROTATION) && (opt.rotation % 90 != 0 || opt.rotation >= 360))
    bad = "the rotation must be 0, 90, 180 or 270";
  else if ((opt.exif_data != nullptr && opt.exif_size == 0) || (opt.xmp_data != nullptr && opt.xmp_size == 0))
    bad = "replacement metadata is empty";
  if (bad != nullptr) {
    TARN_LOGW(kTag, "%s", bad);
    copy_message(options, bad);
    return TARN_EDIT_BAD_ARGUMENT;
  }
  Edit edit(in, opt);
  const int32_t rc = edit.run(out);
  copy_message(options, edit.message());
  return rc;
}
