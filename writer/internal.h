// Writer internals shared by the files of writer/: the context and state
// records, the records kept per image, the box template and the payload
// routines it names. Nothing here is part of the public C interface.
#ifndef TARN_WRITER_INTERNAL_H
#define TARN_WRITER_INTERNAL_H

#include <stdint.h>

#include "tarn/writer.h"

// Capacity of the per-kind property tables, the metadata table, the item-data
// table and the association set of the item being registered.
#define TARNM_MAX_PROPS 255
#define TARNM_MAX_METADATA 255
#define TARNM_MAX_ITEM_DATA 255
#define TARNM_MAX_ASSOC 255
#define TARNM_MAX_GROUPS 16
// ipma entries carry a property index in 7 bits.
#define TARNM_MAX_PROPERTY_INDEX 127
// iinf's entry count and iloc's item count are 16-bit fields.
#define TARNM_MAX_LIST_ITEMS 65535u

// Element sizes of the six lists: the fixed size of iloc entries and the
// room reserved per element of the others.
#define TARNM_IREF_ELEM_SIZE 1548
#define TARNM_IPCO_ELEM_SIZE 16
#define TARNM_ILOC_ELEM_SIZE 16
#define TARNM_INFE_ELEM_SIZE 21
#define TARNM_IPMA_ELEM_SIZE 258
#define TARNM_GRPL_ELEM_SIZE 84

// A reference box holds at most (1548 - 12) / 2 target ids, an entity group
// at most 15 entities.
#define TARNM_MAX_REF_IDS 768
#define TARNM_MAX_GROUP_ENTITIES 15

// Four-character codes as their bytes lie in memory (first char lowest).
#define TARN_FCC(a, b, c, d)                                                     \
  ((uint32_t)(uint8_t)(a) | (uint32_t)(uint8_t)(b) << 8 | (uint32_t)(uint8_t)(c) << 16 | \
   (uint32_t)(uint8_t)(d) << 24)

// Metadata kinds of tarnm_metadata_entry.type.
#define TARNM_METADATA_EXIF 0
#define TARNM_METADATA_XMP 1
// Kinds of tarnm_item_data.kind: a grid descriptor (8-byte ImageGrid in idat)
// or gain-map bytes copied into idat as they stand.
#define TARNM_ITEM_DATA_GRID 1
#define TARNM_ITEM_DATA_TMAP 2
// Grouping kinds of tarnm_entity_group.type.
#define TARNM_GROUP_ALTR 3
#define TARNM_GROUP_STER 4

typedef struct tarnm_irot_prop {
  int32_t angle;
  uint8_t index;
} tarnm_irot_prop;

typedef struct tarnm_ispe_prop {
  uint32_t width;
  uint32_t height;
  uint8_t index;
} tarnm_ispe_prop;

// hvcC payloads and colour payloads: data is a private copy of the context.
typedef struct tarnm_blob_prop {
  uint32_t size;
  uint8_t *data;
  uint8_t index;
} tarnm_blob_prop;

typedef struct tarnm_pixi_prop {
  uint32_t count;
  uint8_t depth[3];
  uint8_t index;
} tarnm_pixi_prop;

// An EXIF or XMP item waiting to be written; data is a private copy.
typedef struct tarnm_metadata_entry {
  uint32_t type;
  uint32_t item_id;
  uint8_t *data;
  uint32_t offset;
  uint32_t size;
} tarnm_metadata_entry;

// One piece of the idat payload; data is a private copy (a tarnm_grid_info
// for a grid, the caller's gain-map bytes otherwise).
typedef struct tarnm_item_data {
  uint32_t kind;
  uint32_t size;
  void *data;
} tarnm_item_data;

typedef struct tarnm_entity_group {
  uint32_t type;
  uint32_t count;
  uint32_t ids[16];
} tarnm_entity_group;

// The 16-byte element of iloc_list. item_id, construction_method and
// data_reference_index are stored big-endian when the entry is added; the
// rest stays in host order until the iloc box is written.
typedef struct tarnm_iloc_entry {
  uint16_t item_id;
  uint16_t construction_method;
  uint16_t data_reference_index;
  uint16_t extent_count;
  uint32_t extent_offset;
  uint32_t extent_length;
} tarnm_iloc_entry;

#ifdef __cplusplus
static_assert(sizeof(tarnm_iloc_entry) == TARNM_ILOC_ELEM_SIZE, "iloc entries are 16 bytes");
#endif

struct tarnm_state {
  uint32_t primary_item_id;
  uint8_t *heap;
  uint32_t heap_size;
  uint8_t *write_ptr;
  int32_t remaining;
  uint32_t mdat_offset;
  uint32_t idat_size;
  uint32_t property_count;
  uint32_t last_item_id;
  uint32_t tmap_item_id;
  int32_t metadata_count;
  int32_t group_count;
  int32_t item_data_count;
  int32_t irot_count;
  int32_t ispe_count;
  int32_t hvcc_count;
  int32_t colr_count;
  int32_t pixi_count;
  uint32_t last_property_index;
  uint32_t assoc_count;
  uint8_t assoc[TARNM_MAX_ASSOC];
  uint8_t essential[TARNM_MAX_ASSOC];
  tarnm_grid_info grid_info;
  tarnm_image_info image_info;
  tarnm_metadata_entry metadata[TARNM_MAX_METADATA];
  tarnm_item_data item_data[TARNM_MAX_ITEM_DATA];
  tarnm_entity_group groups[TARNM_MAX_GROUPS];
  tarnm_irot_prop irot_props[TARNM_MAX_PROPS];
  tarnm_ispe_prop ispe_props[TARNM_MAX_PROPS];
  tarnm_blob_prop hvcc_props[TARNM_MAX_PROPS];
  tarnm_blob_prop colr_props[TARNM_MAX_PROPS];
  tarnm_pixi_prop pixi_props[TARNM_MAX_PROPS];
  tarn_mblk infe_list;
  tarn_mblk iref_list;
  tarn_mblk ipco_list;
  tarn_mblk ipma_list;
  tarn_mblk iloc_list;
  tarn_mblk grpl_list;
  uint32_t mdat_size;
  uint32_t max_image_size;
  uint32_t delivered_buffer;
};

struct tarnm_ctx {
  uint32_t magic;
  tarnm_ctx *self;
  tarnm_state state;
};

// The state behind a handle that passes the null and magic checks, else
// NULL. Public operations that check their handle go through this.
tarnm_state *tarnm_checked_state(tarnm_ctx *handle);

// Routines named by the box template. Data routines fill the box's scratch
// record; payload writers write at the output cursor (0, -1, -2 or -4); size
// routines return the payload length.
typedef int32_t (*atom_data_fn)(void *scratch, const void *arg, tarnm_state *state);
typedef int32_t (*atom_dump_fn)(void *scratch, const void *arg, tarnm_state *state);
typedef uint64_t (*atom_size_fn)(const void *arg, tarnm_state *state);

// One box that meta may contain. An fcc of TARNM_ATOM_END ends an array.
typedef struct atom_desc {
  uint32_t fcc;
  uint32_t full_box;
  uint8_t version;
  uint8_t flags[3];
  uint32_t data_size;
  const struct atom_desc *child;
  atom_data_fn data_proc;
  atom_dump_fn dump_proc;
  atom_size_fn size_proc;
  const void *arg;
} atom_desc;

#define TARNM_ATOM_END 0xFFFFFFFFu

extern const atom_desc atom_meta_template[];
extern const rawstruct_field rawstruct_hdlr[];
extern const rawstruct_field rawstruct_pitm[];

// Payload length of desc: its own size routine plus its non-empty
// children's full sizes.
uint64_t atom_visit_size_inner(const atom_desc *desc, tarnm_state *state);
// Writes one box, then its children. 0 or -1.
int32_t atom_visit_write(const atom_desc *desc, tarnm_state *state);

int32_t atom_data_hdlr(void *scratch, const void *arg, tarnm_state *state);
int32_t atom_data_pitm(void *scratch, const void *arg, tarnm_state *state);
int32_t atom_dump_rawstruct(void *scratch, const void *arg, tarnm_state *state);
uint64_t atom_size_rawstruct(const void *arg, tarnm_state *state);
int32_t atom_dump_iinf(void *scratch, const void *arg, tarnm_state *state);
uint64_t atom_size_iinf(const void *arg, tarnm_state *state);
int32_t atom_dump_ipco(void *scratch, const void *arg, tarnm_state *state);
uint64_t atom_size_ipco(const void *arg, tarnm_state *state);
int32_t atom_dump_ipma(void *scratch, const void *arg, tarnm_state *state);
uint64_t atom_size_ipma(const void *arg, tarnm_state *state);
int32_t atom_dump_iloc(void *scratch, const void *arg, tarnm_state *state);
uint64_t atom_size_iloc(const void *arg, tarnm_state *state);
int32_t atom_dump_idat(void *scratch, const void *arg, tarnm_state *state);
uint64_t atom_size_idat(const void *arg, tarnm_state *state);
int32_t atom_dump_iref(void *scratch, const void *arg, tarnm_state *state);
uint64_t atom_size_iref(const void *arg, tarnm_state *state);
int32_t atom_dump_grpl(void *scratch, const void *arg, tarnm_state *state);
uint64_t atom_size_grpl(const void *arg, tarnm_state *state);
// Writes the 8-byte ImageGrid record of one grid descriptor; 0 or -4.
int32_t atom_dump_grid(const tarnm_grid_info *grid, tarnm_state *state);
// Copies length gain-map bytes at the output cursor; 0, or -4 without room.
int32_t atom_dump_tmap_data(const uint8_t *data, uint32_t length, tarnm_state *state);

// Compare function of a list's block index (key: a uint32_t, entry: a
// tarn_mblk_meta, user: the list): selects the last block whose first key is
// not above the key.
int32_t meta_compare(const void *key, const void *entry, void *user);

#endif  // TARN_WRITER_INTERNAL_H
