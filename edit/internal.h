// Internals of the lossless edit: what it needs to know about the input
// beyond the reader's model.
#ifndef TARN_EDIT_INTERNAL_H
#define TARN_EDIT_INTERNAL_H

#include <cstdint>
#include <vector>

#include "tarn/edit.h"

namespace tarn_edit_internal {

// One child of ipco, in file order (the reader's property indexes count the
// same boxes). Only the values the reader does not keep are filled.
struct PropertyBox {
  uint32_t type = 0;
  uint32_t colour_type = 0;  // colr: nclx, rICC or prof
  uint8_t nclx[7] = {};      // nclx values as the writer takes them (host-order u16s, full-range byte)
  uint32_t max_cll = 0, max_pall = 0;  // clli
};

// What the edit learns from its own walk of the box structure.
struct BoxFacts {
  std::vector<PropertyBox> properties;
  std::vector<uint32_t> top_level;       // box types at the top of the file
  std::vector<uint32_t> group_types;     // grouping types inside grpl
};

// Walks the top level, meta, iprp, ipco and grpl of the source behind io
// through its own handle. false when the source cannot be opened or its
// structure cannot be followed up to ipco.
bool read_box_facts(const tarnd_io_dsc *io, BoxFacts *facts);

// The bytes of an item as stored (file or idat), read through the source's
// own handle. false when they lie outside the source.
bool read_item_bytes(const tarnd_io_dsc *io, const tarnd_ctx *ctx, const tarnd_item &item,
                     std::vector<uint8_t> *out);

}  // namespace tarn_edit_internal

#endif  // TARN_EDIT_INTERNAL_H
