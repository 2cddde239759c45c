// Reader internals shared by the walker, the box parsers and the model:
// parser declarations and the bounded read helpers every parser goes
// through. Nothing here is exported.
#ifndef TARN_READER_INTERNAL_H
#define TARN_READER_INTERNAL_H

#include <stdint.h>

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

// Reads exactly n bytes; a short read fails.
inline bool read_bytes(const tarnd_io_dsc *io, void *handle, void *buf, uint32_t n) {
  return io->read(handle, buf, n) == n;
}
bool read_u8(const tarnd_io_dsc *io, void *handle, uint8_t *v);
bool read_u16(const tarnd_io_dsc *io, void *handle, uint16_t *v);
bool read_u32(const tarnd_io_dsc *io, void *handle, uint32_t *v);
bool read_u64(const tarnd_io_dsc *io, void *handle, uint64_t *v);
// Reads a big-endian field of 0, 4 or 8 bytes; any other width reads
// nothing and yields 0.
bool read_sized(const tarnd_io_dsc *io, void *handle, uint32_t width, uint64_t *v);
bool read_fcc(const tarnd_io_dsc *io, void *handle, uint32_t *v);
// Absolute move and forward move.
bool seek_to(const tarnd_io_dsc *io, void *handle, uint64_t position);
bool skip_by(const tarnd_io_dsc *io, void *handle, uint64_t count);
// Bytes that the source really holds between the current position and the
// box end: what a count read from the box may claim at most.
bool bytes_left(const tarnd_io_dsc *io, void *handle, const tarnd_box *box, uint64_t *left);

// Takes the next free property slot for a parser that fills one (logging
// the parser's name when there is no table or no free slot). The slot is
// counted only when the parser succeeds.
tarnd_property *claim_property_slot(tarnd_ctx *ctx, const tarnd_box *box, const char *parser);

// Creates the item and displayable tables on the first of iinf and iloc.
bool create_item_tables(tarnd_ctx *ctx);

// The item for id as iinf and iloc fill the table: the running slot when it
// is still free (it takes the id), else the slot that already holds id;
// null with the parser's WARN line when neither.
tarnd_item *claim_item_slot(tarnd_meta *meta, uint32_t id, const char *parser);

// Releases everything the model owns (not the context itself).
void release_model(tarnd_ctx *ctx);

}  // namespace tarnd

#endif  // TARN_READER_INTERNAL_H
