#include "heif_file.h"

#include <cstdio>
#include <cstring>

namespace tarn_cli {
namespace {

constexpr uint32_t kHvc1 = TARND_FCC('h', 'v', 'c', '1');
constexpr uint32_t kJpeg = TARND_FCC('j', 'p', 'e', 'g');
constexpr uint32_t kGrid = TARND_FCC('g', 'r', 'i', 'd');
constexpr uint32_t kIovl = TARND_FCC('i', 'o', 'v', 'l');
constexpr uint32_t kTmap = TARND_FCC('t', 'm', 'a', 'p');
constexpr uint32_t kColr = TARND_FCC('c', 'o', 'l', 'r');
constexpr uint32_t kThmb = TARND_FCC('t', 'h', 'm', 'b');
constexpr uint32_t kAuxl = TARND_FCC('a', 'u', 'x', 'l');
constexpr uint32_t kDimg = TARND_FCC('d', 'i', 'm', 'g');

bool is_image_type(uint32_t type) {
  return type == kHvc1 || type == kJpeg || type == kGrid || type == kIovl || type == kTmap;
}

// The first to-id list of a reference type, or null.
const uint16_t *first_ref(const tarnd_item &item, uint32_t type, uint16_t *count) {
  for (unsigned r = 0; r < item.referece_from_cnt && r < TARND_MAX_REFS; ++r) {
    if (item.ref_type[r] == type && item.ref_to_cnt[r] > 0 && item.ref_to_ids[r] != nullptr) {
      *count = item.ref_to_cnt[r];
      return item.ref_to_ids[r];
    }
  }
  return nullptr;
}

// Reads the ftyp box at the start of the file for the brand names; the
// reader keeps only the brand class.
void read_brands(const std::string &path, std::string *major, std::vector<std::string> *compatible) {
  FILE *f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) return;
  uint8_t head[8];
  if (std::fread(head, 1, 8, f) == 8 && std::memcmp(head + 4, "ftyp", 4) == 0) {
    const uint32_t size = uint32_t(head[0]) << 24 | uint32_t(head[1]) << 16 | uint32_t(head[2]) << 8 | head[3];
    if (size >= 16 && size <= 4096) {
      std::vector<uint8_t> body(size - 8);
      if (std::fread(body.data(), 1, body.size(), f) == body.size()) {
        major->assign(reinterpret_cast<const char *>(body.data()), 4);
        for (size_t i = 8; i + 4 <= body.size(); i += 4)
          compatible->emplace_back(reinterpret_cast<const char *>(body.data() + i), 4);
      }
    }
  }
  std::fclose(f);
}

}  // namespace

std::string fourcc_text(uint32_t code) {
  std::string s;
  for (int i = 0; i < 4; ++i) {
    const char c = char((code >> (8 * i)) & 0xff);
    s += (c >= 0x20 && c < 0x7f) ? c : '.';
  }
  return s;
}

HeifFile::~HeifFile() {
  if (handle_ != nullptr) tarnd_delete(handle_);
}

bool HeifFile::open(const std::string &path, std::string *why, bool strict) {
  path_ = path;
  FILE *probe = std::fopen(path_.c_str(), "rb");
  if (probe == nullptr) {
    *why = "cannot open the file";
    return false;
  }
  std::fclose(probe);
  if (tarnd_io_init_file(&io_, path_.c_str()) != 0) {
    *why = "cannot set up file input";
    return false;
  }
  int32_t err = 0;
  handle_ = tarnd_create_with_flags(&io_, strict ? TARND_READ_STRICT : TARND_READ_TOLERANT, &file_info_, &err);
  if (handle_ == nullptr) {
    switch (err) {
      case -6: *why = "cannot open the file"; break;
      case -5: *why = "out of memory"; break;
      default: *why = "not a readable HEIF file (no complete item, property and association tables)";
    }
    return false;
  }
  read_brands(path_, &major_brand_, &compatible_);
  return true;
}

const tarnd_item *HeifFile::item(uint32_t id) const {
  const tarnd_ctx *ctx = model();
  uint32_t index = 0;
  if (ctx == nullptr || tarnd_find_itemIndex(ctx->meta.items, ctx->meta.item_cnt, id, &index) != 0) return nullptr;
  return &ctx->meta.items[index];
}

uint32_t HeifFile::primary() const {
  uint32_t id = 0;
  tarnd_get_image_id(handle_, TARND_ID_PRIMARY, 0xFFFFFFFFu, &id);
  return id;
}

uint32_t HeifFile::find(uint32_t query, uint32_t ref) const {
  uint32_t id = 0;
  if (tarnd_get_image_id(handle_, query, ref, &id) != 0 || id == 0xFFFFFFFFu) return 0;
  return id;
}

uint32_t HeifFile::auxiliary(uint32_t ref, uint32_t aux_flag) const {
  const tarnd_ctx *ctx = model();
  for (uint32_t i = 0; i < ctx->meta.item_cnt; ++i) {
    const tarnd_item &it = ctx->meta.items[i];
    uint16_t count = 0;
    const uint16_t *to = first_ref(it, kAuxl, &count);
    if (to != nullptr && to[0] == ref && (it.flags & aux_flag) != 0) return it.item_id;
  }
  return 0;
}

std::vector<uint32_t> HeifFile::tiles(uint32_t grid_id) const {
  std::vector<uint32_t> ids;
  const tarnd_item *grid = item(grid_id);
  uint16_t count = 0;
  if (grid == nullptr || first_ref(*grid, kDimg, &count) == nullptr) return ids;
  ids.resize(count);
  if (tarnd_get_list_referenceto(handle_, int32_t(grid_id), ids.data(), count) != 0) ids.clear();
  return ids;
}

std::vector<ImageEntry> HeifFile::images() const {
  const tarnd_ctx *ctx = model();
  std::vector<ImageEntry> out;
  // Tiles are the dimg inputs of grids; they are listed with their grid.
  std::vector<uint32_t> tile_ids;
  for (uint32_t i = 0; i < ctx->meta.item_cnt; ++i) {
    const tarnd_item &it = ctx->meta.items[i];
    uint16_t count = 0;
    const uint16_t *to = first_ref(it, kDimg, &count);
    if (it.item_type == kGrid && to != nullptr) tile_ids.insert(tile_ids.end(), to, to + count);
  }
  const uint32_t primary_id = primary();
  for (uint32_t i = 0; i < ctx->meta.item_cnt; ++i) {
    const tarnd_item &it = ctx->meta.items[i];
    if (!is_image_type(it.item_type) || it.item_id == 0) continue;
    bool is_tile = false;
    for (uint32_t t : tile_ids) is_tile = is_tile || t == it.item_id;
    if (is_tile) continue;
    ImageEntry e;
    e.id = it.item_id;
    e.type = it.item_type;
    e.hidden = true;
    for (uint32_t d = 0; d < ctx->displayable_cnt; ++d) e.hidden = e.hidden && ctx->displayable_ids[d] != e.id;
    if (e.id == primary_id) e.roles.push_back("primary");
    uint16_t count = 0;
    if (const uint16_t *to = first_ref(it, kThmb, &count)) {
      e.roles.push_back("thumbnail");
      e.of = to[0];
    }
    if (const uint16_t *to = first_ref(it, kAuxl, &count)) {
      if (it.flags & TARND_ITEM_AUX_ALPHA) e.roles.push_back("alpha");
      else if (it.flags & TARND_ITEM_AUX_DEPTH) e.roles.push_back("depth");
      else if (it.flags & TARND_ITEM_AUX_GAINMAP) e.roles.push_back("gainmap");
      else e.roles.push_back("auxiliary");
      e.of = to[0];
    }
    if (it.item_type == kTmap) e.roles.push_back("tonemap");
    if (it.flags & TARND_ITEM_STEREO_LEFT) e.roles.push_back("stereo_left");
    if (it.flags & TARND_ITEM_STEREO_RIGHT) e.roles.push_back("stereo_right");
    if (const uint16_t *to = first_ref(it, kDimg, &count)) e.inputs.assign(to, to + count);
    out.push_back(e);
  }
  return out;
}

constexpr uint32_t kProf = TARND_FCC('p', 'r', 'o', 'f');
constexpr uint32_t kRicc = TARND_FCC('r', 'I', 'C', 'C');

std::string HeifFile::colour(uint32_t id, uint32_t *icc_size) const {
  const tarnd_ctx *ctx = model();
  *icc_size = 0;
  std::string result;
  if (ctx->meta.association_list == nullptr || ctx->meta.properties == nullptr) return result;
  for (uint32_t a = 0; a < ctx->meta.association_cnt; ++a) {
    const tarnd_association &as = ctx->meta.association_list[a];
    if (as.item_id != id || as.property_index >= ctx->meta.property_cnt) continue;
    const tarnd_property &p = ctx->meta.properties[as.property_index];
    if (p.type != kColr) continue;
    // The reader keeps ICC profiles; any other colour type (in practice
    // nclx) is bound without its values. Tolerant reading also names the
    // type, so an empty profile still reads as a profile.
    const uint32_t type = p.payload.colr.unused;
    if (p.payload.colr.icc_size > 0 || type == kProf || type == kRicc) {
      *icc_size = p.payload.colr.icc_size;
      result = "icc";
    } else {
      result = "nclx";
    }
  }
  return result;
}

bool HeifFile::frame(uint32_t id, bool with_config, std::vector<uint8_t> *out, std::string *why) const {
  const tarnd_item *it = item(id);
  if (it == nullptr) {
    *why = "no item " + std::to_string(id);
    return false;
  }
  if (it->item_type != kHvc1 && it->item_type != kJpeg) {
    *why = "item " + std::to_string(id) + " is a " + fourcc_text(it->item_type) + " item, not a coded image";
    return false;
  }
  out->clear();
  if (with_config && it->item_type == kHvc1) {
    tarnd_image_info info{};
    if (tarnd_get_info_image(handle_, int32_t(id), &info) == 0 && info.config_data != nullptr)
      out->assign(info.config_data, info.config_data + info.config_size);
  }
  int32_t size = 0;
  int32_t rc = tarnd_get_image_frm(handle_, int32_t(id), nullptr, 0, &size);
  if (rc != 0 || size < 0) {
    *why = "cannot measure the coded data of item " + std::to_string(id) + " (status " + std::to_string(rc) + ")";
    return false;
  }
  const size_t head = out->size();
  out->resize(head + size_t(size));
  int32_t written = 0;
  rc = tarnd_get_image_frm(handle_, int32_t(id), out->data() + head, size, &written);
  if (rc != 0 || written != size) {
    *why = "cannot read the coded data of item " + std::to_string(id) + " (status " + std::to_string(rc) + ")";
    return false;
  }
  return true;
}

}  // namespace tarn_cli
