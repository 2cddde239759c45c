// Reader internals shared by the walker, the box parsers and the model:
// parser declarations and the bounded read helpers every parser goes
// through. Nothing here is exported.
#ifndef TARN_READER_INTERNAL_H
#define TARN_READER_INTERNAL_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "common/memory_source.h"
#include "tarn/reader.h"

// Box parsers, one per handler-table row; each is called with the source just
// past the box header and returns 0 to go on, -1 to stop the walk.
int32_t parser_ftyp(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx);
int32_t parser_hdlr(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx);
int32_t parser_pitm(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx);
int32_t parser_iinf(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx);
int32_t parser_infe(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx);
int32_t parser_iloc(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx);
int32_t parser_idat(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx);
int32_t parser_mdat(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx);
int32_t parser_dref(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx);
int32_t parser_ipco(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx);
int32_t parser_ipma(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx);
int32_t parser_unknown_property(const tarnd_io_dsc *io, void *handle, const tarnd_box *box,
                                tarnd_ctx *ctx);
int32_t parser_single_iref(const tarnd_io_dsc *io, void *handle, const tarnd_box *box,
                           tarnd_ctx *ctx);
int32_t parser_hvcC(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx);
int32_t parser_ispe(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx);
int32_t parser_irot(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx);
int32_t parser_colr(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx);
int32_t parser_clap(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx);
int32_t parser_auxC(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx);
int32_t parser_ster(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, tarnd_ctx *ctx);

namespace tarnd {

// Codes used across the reader.
constexpr uint32_t kFccHvc1 = TARND_FCC('h', 'v', 'c', '1');
constexpr uint32_t kFccJpeg = TARND_FCC('j', 'p', 'e', 'g');
constexpr uint32_t kFccGrid = TARND_FCC('g', 'r', 'i', 'd');
constexpr uint32_t kFccIovl = TARND_FCC('i', 'o', 'v', 'l');
constexpr uint32_t kFccExif = TARND_FCC('E', 'x', 'i', 'f');
constexpr uint32_t kFccMime = TARND_FCC('m', 'i', 'm', 'e');
constexpr uint32_t kFccTmap = TARND_FCC('t', 'm', 'a', 'p');
constexpr uint32_t kFccSter = TARND_FCC('s', 't', 'e', 'r');
constexpr uint32_t kFccIref = TARND_FCC('i', 'r', 'e', 'f');
constexpr uint32_t kFccIpco = TARND_FCC('i', 'p', 'c', 'o');

// Loads four bytes in file order as a code (first byte least significant).
inline uint32_t fcc_load(const uint8_t *p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

// Big-endian fields in file order.
inline uint16_t be16_load(const uint8_t *p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
inline uint32_t be32_load(const uint8_t *p) {
  return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
         static_cast<uint32_t>(p[2]) << 8 | p[3];
}

// Every helper below reads a file held by the library's own memory source
// in place and goes through the caller's callbacks otherwise; both ways
// leave the source at the same position with the same result.

// Reads exactly n bytes; a short read fails (and, like the callback, leaves
// the source at its end). Inlined, a field's constant n makes the copy a
// plain load.
inline bool read_bytes(const tarnd_io_dsc *io, void *handle, void *buf, uint32_t n) {
  if (tarn::MemorySource *m = tarn::as_memory_source(io, handle)) {
    const uint64_t left = m->size - m->pos;
    if (left < n) {
      m->pos = m->size;
      return false;
    }
    memcpy(buf, m->data + m->pos, n);
    m->pos += n;
    return true;
  }
  return io->read(handle, buf, n) == n;
}

inline bool read_u8(const tarnd_io_dsc *io, void *handle, uint8_t *v) {
  uint8_t b[1];
  if (!read_bytes(io, handle, b, sizeof(b))) return false;
  *v = b[0];
  return true;
}

inline bool read_u16(const tarnd_io_dsc *io, void *handle, uint16_t *v) {
  uint8_t b[2];
  if (!read_bytes(io, handle, b, sizeof(b))) return false;
  *v = be16_load(b);
  return true;
}

inline bool read_u32(const tarnd_io_dsc *io, void *handle, uint32_t *v) {
  uint8_t b[4];
  if (!read_bytes(io, handle, b, sizeof(b))) return false;
  *v = be32_load(b);
  return true;
}

inline bool read_u64(const tarnd_io_dsc *io, void *handle, uint64_t *v) {
  uint32_t hi, lo;
  if (!read_u32(io, handle, &hi) || !read_u32(io, handle, &lo)) return false;
  *v = static_cast<uint64_t>(hi) << 32 | lo;
  return true;
}

// Reads a big-endian field of 0, 4 or 8 bytes; any other width reads
// nothing and yields 0.
inline bool read_sized(const tarnd_io_dsc *io, void *handle, uint32_t width, uint64_t *v) {
  if (width == 8) return read_u64(io, handle, v);
  if (width == 4) {
    uint32_t v32;
    if (!read_u32(io, handle, &v32)) return false;
    *v = v32;
    return true;
  }
  *v = 0;
  return true;
}

inline bool read_fcc(const tarnd_io_dsc *io, void *handle, uint32_t *v) {
  uint8_t b[4];
  if (!read_bytes(io, handle, b, sizeof(b))) return false;
  *v = fcc_load(b);
  return true;
}

inline bool tell_pos(const tarnd_io_dsc *io, void *handle, uint64_t *position) {
  if (tarn::MemorySource *m = tarn::as_memory_source(io, handle)) {
    *position = m->pos;
    return true;
  }
  return io->tell(handle, position) == 0;
}

inline bool source_size(const tarnd_io_dsc *io, void *handle, uint64_t *size) {
  if (tarn::MemorySource *m = tarn::as_memory_source(io, handle)) {
    *size = m->size;
    return true;
  }
  return io->get_size(handle, size) == 0;
}

// Absolute move and forward move; neither goes past the end of the source.
inline bool seek_to(const tarnd_io_dsc *io, void *handle, uint64_t position) {
  if (tarn::MemorySource *m = tarn::as_memory_source(io, handle)) {
    if (position > m->size) return false;
    m->pos = position;
    return true;
  }
  return io->seek(handle, &position) == 0;
}

inline bool skip_by(const tarnd_io_dsc *io, void *handle, uint64_t count) {
  if (tarn::MemorySource *m = tarn::as_memory_source(io, handle)) {
    if (count > m->size - m->pos) return false;
    m->pos += count;
    return true;
  }
  return io->skip(handle, &count) == 0;
}

// Bytes that the source really holds between the current position and the
// box end: what a count read from the box may claim at most.
inline bool bytes_left(const tarnd_io_dsc *io, void *handle, const tarnd_box *box,
                       uint64_t *left) {
  uint64_t pos = 0, size = 0;
  if (!tell_pos(io, handle, &pos) || !source_size(io, handle, &size)) return false;
  const uint64_t end = box->end < size ? box->end : size;
  *left = pos < end ? end - pos : 0;
  return true;
}

// The source as a parser written once for both kinds reads it, with the
// helpers' results and positions: the library's memory source read in place
// (its position held locally and stored back when the parser's source
// object ends, however the parse ends; nothing else may move the source
// meanwhile), or any source through the helpers above.
class InPlaceSource {
 public:
  explicit InPlaceSource(tarn::MemorySource *m) : m_(m), data_(m->data), size_(m->size), pos_(m->pos) {}
  ~InPlaceSource() { m_->pos = pos_; }
  InPlaceSource(const InPlaceSource &) = delete;
  InPlaceSource &operator=(const InPlaceSource &) = delete;

  bool u8(uint8_t *v) {
    if (pos_ >= size_) return fail();
    *v = data_[pos_++];
    return true;
  }
  bool u16(uint16_t *v) {
    if (size_ - pos_ < 2) return fail();
    *v = be16_load(data_ + pos_);
    pos_ += 2;
    return true;
  }
  bool u32(uint32_t *v) {
    if (size_ - pos_ < 4) return fail();
    *v = be32_load(data_ + pos_);
    pos_ += 4;
    return true;
  }
  // A width of 8 fails as its two halves read in turn would: at the end.
  bool sized(uint32_t width, uint64_t *v) {
    if (width == 8) {
      if (size_ - pos_ < 8) return fail();
      *v = static_cast<uint64_t>(be32_load(data_ + pos_)) << 32 | be32_load(data_ + pos_ + 4);
      pos_ += 8;
      return true;
    }
    if (width == 4) {
      uint32_t v32;
      if (!u32(&v32)) return false;
      *v = v32;
      return true;
    }
    *v = 0;
    return true;
  }
  bool fcc(uint32_t *v) {
    if (size_ - pos_ < 4) return fail();
    *v = fcc_load(data_ + pos_);
    pos_ += 4;
    return true;
  }
  bool bytes(void *buf, uint32_t n) {
    if (size_ - pos_ < n) return fail();
    memcpy(buf, data_ + pos_, n);
    pos_ += n;
    return true;
  }
  bool skip(uint64_t n) {
    if (n > size_ - pos_) return false;
    pos_ += n;
    return true;
  }
  bool seek(uint64_t position) {
    if (position > size_) return false;
    pos_ = position;
    return true;
  }
  bool tell(uint64_t *position) const {
    *position = pos_;
    return true;
  }
  bool size(uint64_t *size) const {
    *size = size_;
    return true;
  }
  bool left(const tarnd_box *box, uint64_t *left) const {
    const uint64_t end = box->end < size_ ? box->end : size_;
    *left = pos_ < end ? end - pos_ : 0;
    return true;
  }

 private:
  // A short read leaves the source at its end.
  bool fail() {
    pos_ = size_;
    return false;
  }
  tarn::MemorySource *m_;
  const uint8_t *data_;
  uint64_t size_;
  uint64_t pos_;
};

class HelperSource {
 public:
  HelperSource(const tarnd_io_dsc *io, void *handle) : io_(io), handle_(handle) {}
  bool u8(uint8_t *v) { return read_u8(io_, handle_, v); }
  bool u16(uint16_t *v) { return read_u16(io_, handle_, v); }
  bool u32(uint32_t *v) { return read_u32(io_, handle_, v); }
  bool sized(uint32_t width, uint64_t *v) { return read_sized(io_, handle_, width, v); }
  bool fcc(uint32_t *v) { return read_fcc(io_, handle_, v); }
  bool bytes(void *buf, uint32_t n) { return read_bytes(io_, handle_, buf, n); }
  bool skip(uint64_t n) { return skip_by(io_, handle_, n); }
  bool seek(uint64_t position) { return seek_to(io_, handle_, position); }
  bool tell(uint64_t *position) const { return tell_pos(io_, handle_, position); }
  bool size(uint64_t *size) const { return source_size(io_, handle_, size); }
  bool left(const tarnd_box *box, uint64_t *left) const { return bytes_left(io_, handle_, box, left); }

 private:
  const tarnd_io_dsc *io_;
  void *handle_;
};

// Runs parse(source) with the source kind that fits io.
template <class Parse>
int32_t with_source(const tarnd_io_dsc *io, void *handle, Parse parse) {
  if (tarn::MemorySource *m = tarn::as_memory_source(io, handle)) {
    InPlaceSource src(m);
    return parse(src);
  }
  HelperSource src(io, handle);
  return parse(src);
}

// Takes the next free property slot for a parser that fills one (logging
// the parser's name when there is no table or no free slot). The slot is
// counted only when the parser succeeds.
tarnd_property *claim_property_slot(tarnd_ctx *ctx, const tarnd_box *box, const char *parser);

// Creates the item and displayable tables on the first of iinf and iloc.
bool create_item_tables(tarnd_ctx *ctx);

// The item for id as iinf and iloc fill the table: the running slot when it
// is still free (it takes the id), else the slot that already holds id;
// null with the parser's WARN line when neither.
// Tolerant reading keeps an id table while the walk runs, so the slot is
// found (or a free one taken) whatever order the boxes list the items in.
tarnd_item *claim_item_slot(tarnd_ctx *ctx, uint32_t id, const char *parser);

// The slot holding id, with tarnd_find_itemIndex's answer and log line in
// strict reading: a search of the sorted taken slots while the walk keeps
// them sorted (in both modes), else tolerant reading's id table, else
// tarnd_find_itemIndex.
bool find_item_slot(const tarnd_ctx *ctx, uint32_t id, uint32_t *slot);

inline bool tolerant(const tarnd_ctx *ctx) { return (ctx->read_flags & TARND_READ_TOLERANT) != 0; }

// Releases everything the model owns (not the context itself).
void release_model(tarnd_ctx *ctx);

// Storage for the model's arrays, kept until the context is released (there
// is no freeing one piece: a piece a parser replaces stays unused until
// then, which costs no more than the box that sized it). Pieces are aligned
// for any field; null when the allocator fails. The first block after the
// context's own is sized from ctx->model_hint.
void *model_alloc(tarnd_ctx *ctx, size_t size);
// The same, zeroed, for count elements of size bytes (null on overflow).
void *model_calloc(tarnd_ctx *ctx, size_t count, size_t size);
// A zeroed context whose first model block shares its allocation (freed
// with the context); null when the allocator fails.
tarnd_ctx *model_create_context();
// Frees every block but the context's own.
void model_release(tarnd_ctx *ctx);
// When set, every piece takes a block of its own, so that a failing
// allocator reaches each caller's failure path and not only the callers
// whose piece happens to need a new block. Only the allocation-failure tests
// set it, before any context exists.
extern bool g_model_block_per_piece;

}  // namespace tarnd

#endif  // TARN_READER_INTERNAL_H
