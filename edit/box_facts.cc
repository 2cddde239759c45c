// A small bounded walk of the input's box structure for what the reader's
// model leaves out: nclx values, light levels, the kind of every property
// (transforms the writer cannot carry must be noticed), image sequence
// tracks and entity groups other than stereo pairs.
#include <cstring>

#include "edit/internal.h"

namespace tarn_edit_internal {
namespace {

constexpr uint32_t kMaxProperties = 4096;

uint32_t fcc(const uint8_t *p) { return TARND_FCC(p[0], p[1], p[2], p[3]); }
uint32_t be32(const uint8_t *p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }
uint16_t be16(const uint8_t *p) { return uint16_t(p[0] << 8 | p[1]); }

// The input through its own handle; closed when the walk ends.
class Source {
 public:
  explicit Source(const tarnd_io_dsc *io) : io_(io) {
    handle_ = io->open != nullptr ? io->open(io, 0) : nullptr;
    if (handle_ != nullptr && (io->get_size == nullptr || io->get_size(handle_, &size_) != 0)) size_ = 0;
  }
  ~Source() {
    if (handle_ != nullptr && io_->close != nullptr) io_->close(handle_);
  }
  Source(const Source &) = delete;
  Source &operator=(const Source &) = delete;
  bool ok() const { return handle_ != nullptr; }
  uint64_t size() const { return size_; }
  bool read(uint64_t at, void *buf, uint32_t count) {
    if (at > size_ || count > size_ - at) return false;
    uint64_t pos = at;
    return io_->seek(handle_, &pos) == 0 && io_->read(handle_, buf, count) == count;
  }

 private:
  const tarnd_io_dsc *io_;
  void *handle_ = nullptr;
  uint64_t size_ = 0;
};

struct Box {
  uint32_t type;
  uint64_t payload;  // position of the payload
  uint64_t end;
};

// Reads the box header at `at` inside [.., end). false when it does not fit.
bool box_at(Source &src, uint64_t at, uint64_t end, Box *box) {
  uint8_t h[16];
  if (end - at < 8 || !src.read(at, h, 8)) return false;
  uint64_t size = be32(h);
  uint64_t header = 8;
  if (size == 1) {
    if (end - at < 16 || !src.read(at + 8, h + 8, 8)) return false;
    size = uint64_t(be32(h + 8)) << 32 | be32(h + 12);
    header = 16;
  } else if (size == 0) {
    size = end - at;  // runs to the end of its container
  }
  if (size < header || size > end - at) return false;
  *box = {fcc(h + 4), at + header, at + size};
  return true;
}

// Calls visit for each child box of [begin, end); stops quietly at the first
// header that does not fit, as the reader's walk does.
template <typename Visit>
void children(Source &src, uint64_t begin, uint64_t end, Visit visit) {
  Box b;
  for (uint64_t at = begin; at < end && box_at(src, at, end, &b); at = b.end) visit(b);
}

void read_property(Source &src, const Box &b, PropertyBox *p) {
  uint8_t v[11];
  if (p->type == TARND_FCC('c', 'o', 'l', 'r') && src.read(b.payload, v, 4)) {
    p->colour_type = fcc(v);
    if (p->colour_type == TARND_FCC('n', 'c', 'l', 'x') && src.read(b.payload, v, 11)) {
      const uint16_t values[3] = {be16(v + 4), be16(v + 6), be16(v + 8)};
      std::memcpy(p->nclx, values, 6);
      p->nclx[6] = (v[10] & 0x80) ? 1 : 0;
    }
  } else if (p->type == TARND_FCC('c', 'l', 'l', 'i') && src.read(b.payload, v, 4)) {
    p->max_cll = be16(v);
    p->max_pall = be16(v + 2);
  }
}

}  // namespace

Read read_box_facts(const tarnd_io_dsc *io, BoxFacts *facts) {
  Source src(io);
  if (!src.ok()) return Read::kMissing;
  bool found_ipco = false, stored = true;
  children(src, 0, src.size(), [&](const Box &top) {
    stored = stored && facts->top_level.push(top.type);
    if (top.type != TARND_FCC('m', 'e', 't', 'a') || top.end - top.payload < 4) return;
    children(src, top.payload + 4, top.end, [&](const Box &m) {  // meta is a full box
      if (m.type == TARND_FCC('g', 'r', 'p', 'l')) {
        children(src, m.payload, m.end, [&](const Box &g) {
          // A full box: group id, entity count, then the entity ids.
          GroupBox group;
          group.type = g.type;
          uint8_t v[12];
          const uint64_t size = g.end - g.payload;
          if (size >= 12 && src.read(g.payload, v, 12)) group.entity_cnt = be32(v + 8);
          for (uint32_t e = 0; e < 2 && e < group.entity_cnt && size >= 16 + 4 * e; ++e) {
            if (src.read(g.payload + 12 + 4 * e, v, 4)) group.entities[e] = be32(v);
          }
          stored = stored && facts->groups.push(group);
        });
      }
      if (m.type != TARND_FCC('i', 'p', 'r', 'p')) return;
      children(src, m.payload, m.end, [&](const Box &pr) {
        if (pr.type != TARND_FCC('i', 'p', 'c', 'o') || found_ipco) return;  // the reader keeps the first
        found_ipco = true;
        children(src, pr.payload, pr.end, [&](const Box &prop) {
          if (facts->properties.size() >= kMaxProperties) return;
          PropertyBox p;
          p.type = prop.type;
          read_property(src, prop, &p);
          stored = stored && facts->properties.push(p);
        });
      });
    });
  });
  if (!stored) return Read::kNoMemory;
  return found_ipco ? Read::kOk : Read::kMissing;
}

Read read_item_bytes(const tarnd_io_dsc *io, const tarnd_ctx *ctx, const tarnd_item &item,
                     List<uint8_t> *out) {
  out->clear();
  if (item.length > UINT32_MAX) return Read::kMissing;
  if (item.construction_method == 1) {
    if (ctx->meta.idat == nullptr || item.offset > ctx->meta.idat_size ||
        item.length > ctx->meta.idat_size - item.offset)
      return Read::kMissing;
    return out->append(ctx->meta.idat + item.offset, size_t(item.length)) ? Read::kOk : Read::kNoMemory;
  }
  if (item.construction_method != 0) return Read::kMissing;
  // The length is the file's claim: the buffer is sized only once the source
  // is known to hold that many bytes.
  Source src(io);
  if (!src.ok() || item.offset > src.size() || item.length > src.size() - item.offset) return Read::kMissing;
  if (!out->resize(size_t(item.length))) return Read::kNoMemory;
  return src.read(item.offset, out->data(), uint32_t(item.length)) ? Read::kOk : Read::kMissing;
}

}  // namespace tarn_edit_internal
