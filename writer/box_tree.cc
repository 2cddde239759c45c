// The meta box: a constant template fixes its children and their order, and
// two walks over it size every box from the bottom up and then write each
// header, its payload and its children. Boxes with an empty payload are left
// out entirely.
#include <stdlib.h>

#include "common/log.h"
#include "writer/internal.h"

static const char kTag[] = "tarnm_atom";

static const atom_desc atom_iprp_children[] = {
    {TARN_FCC('i', 'p', 'c', 'o'), 0, 0, {0, 0, 0}, 0, nullptr, nullptr, atom_dump_ipco,
     atom_size_ipco, nullptr},
    {TARN_FCC('i', 'p', 'm', 'a'), 1, 0, {0, 0, 0}, 0, nullptr, nullptr, atom_dump_ipma,
     atom_size_ipma, nullptr},
    {TARNM_ATOM_END, 0, 0, {0, 0, 0}, 0, nullptr, nullptr, nullptr, nullptr, nullptr},
};

const atom_desc atom_meta_template[] = {
    {TARN_FCC('h', 'd', 'l', 'r'), 1, 0, {0, 0, 0}, 24, nullptr, atom_data_hdlr,
     atom_dump_rawstruct, atom_size_rawstruct, rawstruct_hdlr},
    {TARN_FCC('i', 'i', 'n', 'f'), 1, 0, {0, 0, 0}, 0, nullptr, nullptr, atom_dump_iinf,
     atom_size_iinf, nullptr},
    {TARN_FCC('p', 'i', 't', 'm'), 1, 0, {0, 0, 0}, 2, nullptr, atom_data_pitm,
     atom_dump_rawstruct, atom_size_rawstruct, rawstruct_pitm},
    {TARN_FCC('i', 'p', 'r', 'p'), 0, 0, {0, 0, 0}, 0, atom_iprp_children, nullptr, nullptr,
     nullptr, nullptr},
    // Version 1 carries a construction method per item (file or idat).
    {TARN_FCC('i', 'l', 'o', 'c'), 1, 1, {0, 0, 0}, 0, nullptr, nullptr, atom_dump_iloc,
     atom_size_iloc, nullptr},
    {TARN_FCC('i', 'd', 'a', 't'), 0, 0, {0, 0, 0}, 0, nullptr, nullptr, atom_dump_idat,
     atom_size_idat, nullptr},
    {TARN_FCC('i', 'r', 'e', 'f'), 1, 0, {0, 0, 0}, 0, nullptr, nullptr, atom_dump_iref,
     atom_size_iref, nullptr},
    {TARN_FCC('g', 'r', 'p', 'l'), 0, 0, {0, 0, 0}, 0, nullptr, nullptr, atom_dump_grpl,
     atom_size_grpl, nullptr},
    {TARNM_ATOM_END, 0, 0, {0, 0, 0}, 0, nullptr, nullptr, nullptr, nullptr, nullptr},
};

// Whole size of a box around a payload, by the same rule as the header
// writer.
static uint64_t full_size(const atom_desc *desc, uint64_t payload) {
  return desc->full_box ? tarnm_atomf_size(payload) : tarnm_atom_size(payload);
}

uint64_t atom_visit_size_inner(const atom_desc *desc, tarnm_state *state) {
  if (!desc || !state) return 0;
  uint64_t total = desc->size_proc ? desc->size_proc(desc->arg, state) : 0;
  for (const atom_desc *child = desc->child; child && child->fcc != TARNM_ATOM_END; ++child) {
    const uint64_t c = atom_visit_size_inner(child, state);
    if (c) total += full_size(child, c);
  }
  return total;
}

int32_t atom_visit_write(const atom_desc *desc, tarnm_state *state) {
  if (!desc || !state) return -1;
  void *scratch = nullptr;
  if (desc->data_size >= 1) {
    scratch = calloc(1, desc->data_size);
    if (!scratch) {
      TARN_LOGW(kTag, "failed to alloc atom");
      return -1;
    }
  }
  int32_t rc = 0;
  do {
    if (desc->data_proc && desc->data_proc(scratch, desc->arg, state) != 0) {
      rc = -1;
      break;
    }
    const uint64_t payload = atom_visit_size_inner(desc, state);
    if (payload) {
      if (tarnm_atom_header(state, desc->fcc, payload, static_cast<int32_t>(desc->full_box),
                            desc->version, desc->flags) != 0) {
        rc = -1;
        break;
      }
      if (desc->dump_proc && desc->dump_proc(scratch, desc->arg, state) != 0) {
        rc = -1;
        break;
      }
    }
    for (const atom_desc *child = desc->child; child && child->fcc != TARNM_ATOM_END; ++child) {
      if (atom_visit_write(child, state) != 0) {
        rc = -1;
        break;
      }
    }
  } while (false);
  free(scratch);
  return rc;
}

extern "C" int32_t tarnm_atom_meta(tarnm_state *state) {
  if (!state) return -1;
  uint64_t payload = 0;
  for (const atom_desc *d = atom_meta_template; d->fcc != TARNM_ATOM_END; ++d) {
    const uint64_t c = atom_visit_size_inner(d, state);
    if (c) payload += full_size(d, c);
  }
  const uint64_t required = tarnm_atomf_size(payload);
  if (state->remaining < 0 || required > static_cast<uint64_t>(state->remaining)) {
    if (state->delivered_buffer) {
      TARN_LOGW(kTag, "%s : buffer size is insufficient. remaining size : %d, required size : %llu",
                "tarnm_atom_meta", state->remaining, static_cast<unsigned long long>(required));
      return -4;
    }
    if (tarnm_reallocate_image_buffer(state) != 0) return -1;
  }
  if (tarnm_atom_header(state, TARN_FCC('m', 'e', 't', 'a'), payload, 1, 0, nullptr) != 0)
    return -1;
  for (const atom_desc *d = atom_meta_template; d->fcc != TARNM_ATOM_END; ++d)
    if (atom_visit_write(d, state) != 0) return -1;
  return 0;
}
