/* libtarn: reader interface. */
#ifndef TARN_READER_H
#define TARN_READER_H

#include "tarn/common.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- context, model and walker ---- */

/*
 * Four-character codes (box, item, property, reference, grouping and brand
 * types) are held as their four bytes in file order loaded as a 32-bit
 * little-endian value: the first character is the least significant byte,
 * so "hvc1" is 0x31637668.
 */
#define TARND_FCC(a, b, c, d)                                             \
  ((uint32_t)(uint8_t)(a) | ((uint32_t)(uint8_t)(b) << 8) |               \
   ((uint32_t)(uint8_t)(c) << 16) | ((uint32_t)(uint8_t)(d) << 24))

/* First four bytes of every reader context: "FIEH". */
#define TARND_MAGIC 0x48454946u

/*
 * The input descriptor: seventeen pointer-sized members. The caller fills
 * it and passes it to tarnd_create, which copies it whole. Every callback
 * after open receives the handle that open returned. Positions and sizes
 * are 64-bit and passed by pointer; counts given to read are 32-bit.
 */
typedef struct tarnd_io_dsc {
  /* Opens the source; mode is 0. Returns a non-zero handle, 0 on failure. */
  void *(*open)(const struct tarnd_io_dsc *io, int32_t mode);
  /* Closes the source; the result is ignored. */
  int32_t (*close)(void *handle);
  /* Reads count bytes; returns the number read (anything but count fails). */
  uint32_t (*read)(void *handle, void *buffer, uint32_t count);
  /* Never called by the reader. */
  void *reserved;
  /* Writes the current absolute position; 0 on success. */
  int32_t (*tell)(void *handle, uint64_t *position);
  /* Moves to an absolute position; 0 on success. */
  int32_t (*seek)(void *handle, uint64_t *position);
  /* Moves forward by *count bytes; 0 on success. */
  int32_t (*skip)(void *handle, uint64_t *count);
  /* Writes the total size of the source in bytes; 0 on success. */
  int32_t (*get_size)(void *handle, uint64_t *size);
  /* Caller data (members 9 to 17), never read by the reader. */
  void *caller_data[9];
} tarnd_io_dsc;

/* Filled by tarnd_create: the brand class and a word that is always 0. */
typedef struct tarnd_file_info {
  uint32_t brand;    /* 0 none recognised, 1 still image, 2 image sequence */
  uint32_t reserved; /* always 0 */
} tarnd_file_info;

/* Item flag bits (tarnd_item.flags). */
#define TARND_ITEM_GRID 0x2u            /* grid item with a dimg reference */
#define TARND_ITEM_OVERLAY 0x4u         /* iovl item with a dimg reference */
#define TARND_ITEM_HAS_EXIF 0x10u       /* an Exif item describes it (cdsc) */
#define TARND_ITEM_HAS_MIME 0x20u       /* a mime item describes it (cdsc) */
#define TARND_ITEM_HAS_AUX 0x80u        /* an hvc1 item names it in auxl */
#define TARND_ITEM_AUX_ALPHA 0x100u     /* auxC: alpha plane */
#define TARND_ITEM_AUX_DEPTH 0x200u     /* auxC: depth map */
#define TARND_ITEM_AUX_GAINMAP 0x400u   /* auxC: HDR gain map */
#define TARND_ITEM_STEREO_LEFT 0x800u   /* first entity of a ster group */
#define TARND_ITEM_STEREO_RIGHT 0x1000u /* second entity of a ster group */

/* Most reference boxes recorded per from-item, and most entity groups. */
#define TARND_MAX_REFS 16
#define TARND_MAX_GROUPS 16

/* Image view of an item (hvc1, jpeg). Indexes are -1 when none is bound. */
typedef struct tarnd_item_image {
  uint32_t ispe_width;
  uint32_t ispe_height;
  uint32_t irot_angle;
  int32_t colr_index;
  int32_t hvcC_index;
  int32_t clap_index;
} tarnd_item_image;

/* Grid view of an item (grid). */
typedef struct tarnd_item_grid {
  uint32_t ispe_width;
  uint32_t ispe_height;
  uint32_t irot_angle;
  int32_t colr_index;
  int32_t clap_index;
} tarnd_item_grid;

/* Metadata view of an item (Exif, mime, tmap): the cached item bytes. */
typedef struct tarnd_item_cache {
  uint32_t cache_state;
  uint64_t cache_size;
  uint8_t *cache_data; /* owned */
} tarnd_item_cache;

/* One piece of an item's data: in the file (construction method 0) or
 * inside idat (method 1). */
typedef struct tarnd_extent {
  uint64_t offset;
  uint64_t length;
} tarnd_extent;

/* One item. item_id 0 marks a slot not yet taken. */
typedef struct tarnd_item {
  uint16_t item_id;
  uint32_t item_type; /* four-character code from infe v2; 0 when unknown */
  uint8_t referece_from_cnt;
  uint32_t ref_type[TARND_MAX_REFS];
  uint16_t ref_to_cnt[TARND_MAX_REFS];
  uint16_t *ref_to_ids[TARND_MAX_REFS]; /* owned where the count is non-zero */
  uint64_t offset;                      /* in the file, or inside idat */
  uint64_t length;
  uint32_t construction_method; /* 0 file, 1 idat */
  union {
    tarnd_item_image image;
    tarnd_item_grid grid;
    tarnd_item_cache meta;
  } view;
  uint32_t flags; /* TARND_ITEM_* */
  /* Tolerant reading only: an item whose data lies in several extents keeps
   * them all here, in order (offset and length then describe the first
   * extent's start and the sum of their lengths). NULL when the item has
   * one extent or none. */
  uint32_t extent_cnt;
  tarnd_extent *extents; /* owned */
} tarnd_item;

/*
 * One property slot per child box of ipco, in file order. type is the box
 * type (0 for kinds that only keep their place); the payload is eight
 * 32-bit words whose meaning depends on the type. The colr, auxC and hvcC
 * buffers are owned by the context.
 */
typedef struct tarnd_property {
  uint32_t type;
  union {
    uint32_t words[8];
    struct {
      uint32_t width;
      uint32_t height;
    } ispe;
    struct {
      uint32_t angle; /* 0 to 3, anticlockwise quarter turns */
    } irot;
    struct {
      uint32_t unused; /* tolerant reading: the colour type ("nclx", "prof", ...) */
      uint32_t icc_size;
      uint8_t *icc_data;
    } colr;
    struct {
      uint32_t aux_flags; /* TARND_ITEM_AUX_* bit, or 0 */
      uint32_t subtype_size;
      uint8_t *subtype_data;
    } auxC;
    struct {
      uint32_t unused;
      uint32_t config_size;
      uint8_t *config_data; /* VPS, SPS, PPS, each after 00 00 00 01 */
      uint32_t nal_length_size;
    } hvcC;
    struct {
      int32_t widthN, widthD, heightN, heightD;
      int32_t horizOffN, horizOffD, vertOffN, vertOffD;
    } clap;
  } payload;
} tarnd_property;

/* One item-to-property link; property_index is zero-based. */
typedef struct tarnd_association {
  uint32_t item_id;
  uint16_t property_index;
} tarnd_association;

/* One entity group (ster). */
typedef struct tarnd_group {
  uint32_t group_id;
  uint32_t grouping_type;
  uint32_t entityCount;
  uint32_t *entityIDList; /* owned */
} tarnd_group;

/* The item model of one file. */
typedef struct tarnd_meta {
  uint32_t item_cnt;
  uint32_t group_cnt;
  uint32_t property_capacity;
  uint32_t association_cnt;
  uint16_t infe_index;
  uint16_t property_cnt;
  uint64_t idat_size;
  int32_t last_item_id;
  uint8_t *idat;                        /* owned */
  tarnd_item *items;                    /* owned, item_cnt records */
  tarnd_group groups[TARND_MAX_GROUPS];
  tarnd_property *properties;           /* owned, property_capacity records */
  tarnd_association *association_list; /* owned */
} tarnd_meta;

/* The reader context; its address is the caller's handle. */
typedef struct tarnd_ctx {
  uint32_t magic; /* TARND_MAGIC */
  struct tarnd_ctx *self;
  tarnd_io_dsc io;
  void *handle;
  uint8_t mdat_found;
  uint64_t mdat_offset; /* position of the mdat header */
  uint64_t mdat_size;   /* header included */
  uint32_t brand;
  uint16_t primary_item_id;
  uint32_t displayable_cnt;
  uint32_t *displayable_ids; /* owned, room for item_cnt ids */
  char handler_name[256];
  tarnd_meta meta;
  /* Version of the iref box being walked: version 1 reference boxes carry
   * 32-bit item ids. Set by the walker. */
  uint8_t iref_version;
  /* TARND_READ_* mode the file was opened with. */
  uint32_t read_flags;
  /* During the walk only: the number of item slots taken, in the order
   * the file first named their ids; whether an id came below its
   * predecessor (both modes; while none has, lookups search the sorted
   * taken slots); and then, in tolerant reading for larger item tables, an
   * open-addressed table from item id to slot (item_slot_mask + 1 entries,
   * 0 for free, else the slot plus 1). */
  uint32_t item_slots_taken;
  uint8_t item_slots_unordered;
  uint32_t *item_slots;
  uint32_t item_slot_mask;
  /* The blocks the model's arrays are carved from (every pointer marked
   * owned above, except the query caches of tarnd_item_cache), the first of
   * them in the context's own allocation, released together by
   * tarnd_delete; and the size of the meta box the walk met, which sizes
   * the blocks a larger model adds. */
  void *model_blocks;
  uint64_t model_hint;
} tarnd_ctx;

/*
 * Opens a HEIF source through io's callbacks, reads its box structure once
 * and builds the model. reserved is ignored; file_info (required) receives
 * the brand class. err, when given, receives 0, -6 (open failed), -5 (no
 * memory) or -2 (walk failed or item/property/association table missing).
 * Returns the handle, or NULL on failure (the source is then closed). The
 * caller's io need not outlive the call; release the handle with
 * tarnd_delete.
 */
TARN_API void *tarnd_create(const tarnd_io_dsc *io, uint32_t reserved,
                            tarnd_file_info *file_info, int32_t *err);

/* Reading modes for tarnd_create_with_flags. */
#define TARND_READ_STRICT 0u   /* the written rules, exactly as tarnd_create */
#define TARND_READ_TOLERANT 1u /* also opens what phones and encoders write */

/*
 * tarnd_create with a reading mode. TARND_READ_STRICT behaves exactly as
 * tarnd_create: the library's written rules, to the letter.
 * TARND_READ_TOLERANT reads every file strict reading reads, the same way,
 * and also accepts valid files those rules refuse:
 *  - items in any order in iloc, iinf, iref and ipma, ids not increasing
 *    (after the open, meta.items is in id order);
 *  - a colr with an empty or too short ICC profile: the slot keeps no
 *    profile (icc_size 0), a WARN line is logged, the walk goes on;
 *  - the auxiliary type "urn:com:apple:photo:2020:aux:hdrgainmap"
 *    (TARND_ITEM_AUX_GAINMAP; TARND_ID_GAINMAP answers that auxiliary of
 *    the base image when no tmap item does) and the MPEG-B alpha and depth
 *    types "urn:mpeg:mpegB:cicp:systems:auxiliary:alpha" / ":depth";
 *  - items in several extents (construction methods 0 and 1), served as
 *    the concatenation of their extents, each bounds-checked on its own;
 *  - an iovl or jpeg primary item, answered by TARND_ID_PRIMARY as pitm
 *    names it; an iovl is described by its own ispe, irot, colr and clap.
 * Damaged files are as safe as in strict mode. Unknown flag bits are
 * refused with -1 in *err. Status codes and ownership are those of
 * tarnd_create.
 */
TARN_API void *tarnd_create_with_flags(const tarnd_io_dsc *io, uint32_t flags,
                                       tarnd_file_info *file_info, int32_t *err);

/* Closes the source and frees the whole model. NULL or a handle without the
 * reader's magic is ignored. */
TARN_API void tarnd_delete(void *handle);

/*
 * Finds the slot of item_id among item_cnt items. Returns 0 and writes the
 * zero-based slot to *index, or -1 (index untouched) when absent.
 */
TARN_API int32_t tarnd_find_itemIndex(const tarnd_item *items, uint32_t item_cnt,
                                      uint32_t item_id, uint32_t *index);

/* One box as the walker hands it to a parser. */
typedef struct tarnd_box {
  uint32_t type;
  uint64_t size;        /* whole box, header included */
  uint8_t version;      /* 0 for a plain box */
  uint32_t flags;       /* 24-bit full-box flags in host order */
  uint64_t header_size; /* 8, +8 for a 64-bit size, +4 for a full box */
  uint64_t payload_size;
  uint64_t start;
  uint64_t end; /* start + size */
} tarnd_box;

/*
 * A box parser: called with the source just past the box header. Returns 0
 * to go on with the walk, anything else to stop it.
 */
typedef int32_t (*tarnd_parser_fn)(const tarnd_io_dsc *io, void *handle, const tarnd_box *box,
                                   tarnd_ctx *ctx);

/* One row of the walker's handler table. */
typedef struct tarnd_handler {
  uint32_t fcc;
  uint32_t full_box;    /* version and flags follow the header */
  uint32_t skip_rest;   /* the walker moves to the box end after the parser */
  uint32_t is_property; /* may stand inside ipco */
  tarnd_parser_fn parse; /* NULL for a plain container */
} tarnd_handler;

/* Open-container stack: a linked list of nodes, one pointer when empty. */
typedef struct tarnd_cstack_node {
  struct tarnd_cstack_node *next;
  uint64_t end;
} tarnd_cstack_node;
typedef tarnd_cstack_node *tarnd_cstack;

/*
 * Walks the whole source once, calling the handler table's parsers. Returns
 * 1 when the walk reached the end of the source or stopped at a malformed
 * box; 0 (or a failing tell's result) when it ended elsewhere.
 */
TARN_API int32_t tarnd_parse(const tarnd_handler *handlers, int32_t handler_cnt,
                             const char *containers, int32_t container_cnt,
                             const tarnd_io_dsc *io, void *handle, tarnd_ctx *ctx);
/* The constant handler table, sorted by code value, and its row count (33). */
TARN_API const tarnd_handler *tarnd_handlers(void);
TARN_API int32_t tarnd_handlers_cnt(void);
/* The container codes "metadinfiinfiprp" and their count (4). */
TARN_API const char *tarnd_handlers_containr_fcc(void);
TARN_API int32_t tarnd_handlers_containr_fcc_cnt(void);
/* Comparator for tarn_bsearch over the handler table: key code (uint32_t)
 * minus the row's code; user is ignored. */
TARN_API int32_t tarnd_grammar_compare(const void *key, const void *row, void *user);
/* Index of the first of count codes in list (4 characters each) equal to
 * fcc, or -1 (also when count < 1). */
TARN_API int32_t tarnd_search_fcc(uint32_t fcc, const char *list, int32_t count);
/* Empties a stack without freeing (use on a fresh stack). */
TARN_API void tarnd_cstack_init(tarnd_cstack *stack);
/* Pushes a copy of node; 0, or -1 when allocation fails. */
TARN_API int32_t tarnd_cstack_push(tarnd_cstack *stack, const tarnd_cstack_node *node);
/* The top node, or NULL; owned by the stack. */
TARN_API tarnd_cstack_node *tarnd_cstack_top(tarnd_cstack *stack);
/* Unlinks and frees the top node, if any. */
TARN_API void tarnd_cstack_pop(tarnd_cstack *stack);
/* Frees every node. */
TARN_API void tarnd_cstack_deinit(tarnd_cstack *stack);
/* Pops every container that ends at or before the current position.
 * Returns 0, or -1 when tell fails. */
TARN_API int32_t tarnd_parse_containr_end(const tarnd_io_dsc *io, void *handle,
                                          tarnd_cstack *stack);

/* ---- queries: images, items, frames, references ---- */

/* Crop rectangle in pixels; right and bottom are exclusive. */
typedef struct tarnd_crop {
  int32_t left;
  int32_t top;
  int32_t right;
  int32_t bottom;
} tarnd_crop;

/* Roles asked of tarnd_get_image_id. */
#define TARND_ID_PRIMARY 1u      /* the primary (cover) image */
#define TARND_ID_THUMBNAIL 2u    /* thumbnail of ref_id (thmb) */
#define TARND_ID_AUXILIARY 3u    /* auxiliary image of ref_id (auxl) */
#define TARND_ID_TONEMAP 4u      /* tmap item derived from ref_id (dimg) */
#define TARND_ID_GAINMAP 5u      /* gain-map input of that tmap item */
#define TARND_ID_STEREO_LEFT 6u  /* left view of a stereo pair */
#define TARND_ID_STEREO_RIGHT 7u /* right view of a stereo pair */
/* ref_id that stands for the primary item. */
#define TARND_ID_REF_PRIMARY 0xFFFFFFFFu

/* Values of tarnd_image_info.codec. */
#define TARND_CODEC_GRID 0u
#define TARND_CODEC_HEVC 120u
#define TARND_CODEC_JPEG 501u

/*
 * One image item as tarnd_get_info_image describes it. Only the fields the
 * item's type serves are written: clear the record before the call. The
 * pointers are owned by the reader and stay valid until tarnd_delete.
 */
typedef struct tarnd_image_info {
  uint32_t width;  /* ispe size */
  uint32_t height;
  uint32_t rotation; /* anticlockwise quarter turns, 0 to 3 */
  const uint8_t *icc_data;
  uint32_t icc_size;
  uint32_t codec;       /* TARND_CODEC_* */
  uint32_t config_size; /* bytes of config_data */
  const uint8_t *config_data; /* VPS, SPS, PPS, each after 00 00 00 01 */
  uint32_t tile_cnt; /* inputs of the first dimg reference (grid tiles) */
  uint32_t flags;    /* TARND_ITEM_* */
  tarnd_crop crop;   /* from the clean aperture, when it converts */
} tarnd_image_info;

/* Kinds of tarnd_get_info_item and the record each one fills. */
#define TARND_INFO_GRID 0u    /* tarnd_grid_info of a grid item */
#define TARND_INFO_EXIF 2u    /* tarnd_item_data: Exif of the item */
#define TARND_INFO_XMP 3u     /* tarnd_item_data: XMP (mime) of the item */
#define TARND_INFO_TONEMAP 5u /* tarnd_item_data: tone-map bytes of a tmap item */

/* Layout of a grid item. */
typedef struct tarnd_grid_info {
  uint32_t rows;
  uint32_t columns;
  uint32_t output_width;
  uint32_t output_height;
  uint32_t rotation; /* the grid item's rotation, 0 to 3 */
} tarnd_grid_info;

/* Item bytes owned by the reader, valid until tarnd_delete. */
typedef struct tarnd_item_data {
  const uint8_t *data;
  uint32_t size;
} tarnd_item_data;

/*
 * Finds the item that plays role type (TARND_ID_*) for the image ref_id
 * (TARND_ID_REF_PRIMARY for the primary item) and writes its id to *out_id.
 * Returns 0 when found. TARND_ID_PRIMARY always returns 0 (a primary of a
 * type that is not an image answers the first displayable item). Roles 2 to
 * 7 without an answer write 0xFFFFFFFF and return -1. Other codes return 0
 * and leave *out_id alone. A bad handle or a NULL out_id: -1, nothing written.
 */
TARN_API int32_t tarnd_get_image_id(void *handle, uint32_t type, uint32_t ref_id,
                                    uint32_t *out_id);

/*
 * Describes the image item item_id into *info (see tarnd_image_info).
 * Returns 0, or -1 for a bad handle, a NULL info or an unknown item.
 */
TARN_API int32_t tarnd_get_info_image(void *handle, int32_t item_id, tarnd_image_info *info);

/*
 * Fills *out, a record of the kind (TARND_INFO_*), for item item_id. Exif,
 * XMP and tone-map bytes are read once and cached by the reader. A missing
 * Exif/XMP item, or kind TARND_INFO_TONEMAP on an item that is not tmap,
 * returns 0 with *out untouched. Returns 0; -1 bad handle, NULL out, unknown
 * item, kind 0 on an item that is not a grid, or a failed seek; -2 kind not
 * served or malformed grid/tone-map data; -5 no memory; -6 short read.
 */
TARN_API int32_t tarnd_get_info_item(void *handle, int32_t item_id, uint32_t kind, void *out);

/*
 * Copies the coded data of an hvc1 or jpeg item into buf, HEVC NAL units in
 * start-code form (each length prefix becomes 00 00 00 01). With buf NULL
 * and buf_size 0 it only measures: *out_size receives the size to provide.
 * Returns 0 (a plain frame larger than buf_size is not copied: *out_size says
 * the size needed); -1 bad handle, NULL out_size, unknown item or type, or a
 * failed seek; -2 data stored in a way the reader cannot serve; -3 a length
 * prefix with nothing after it; -4 the converted frame does not fit buf_size
 * (nothing is written past it); -6 short read or failed skip. After a
 * failure *out_size is 0 and buf may hold a partial frame.
 */
TARN_API int32_t tarnd_get_image_frm(void *handle, int32_t item_id, uint8_t *buf,
                                     int32_t buf_size, int32_t *out_size);

/*
 * Writes up to count ids of the item's first dimg reference (grid tiles in
 * order, or the inputs of a derived image) into out_ids. Returns 0 (also
 * when the item has no dimg reference: nothing written); -1 bad handle,
 * NULL out_ids, unknown item or an item without any reference.
 */
TARN_API int32_t tarnd_get_list_referenceto(void *handle, int32_t item_id, uint32_t *out_ids,
                                            uint32_t count);

/* ---- rational arithmetic and clean-aperture crop ---- */

/* A fraction n/d. The sign is never moved from d to n. */
typedef struct tarnd_fraction {
  int32_t n;
  int32_t d;
} tarnd_fraction;

/* Greatest common divisor of |a| and |b|; |a| when b is 0, 0 when both are 0. */
TARN_API int64_t calculateGreatestCommonDivisor(int64_t a, int64_t b);
/* 1 when x lies outside the signed 32-bit range, else 0. */
TARN_API int32_t overflowsInt32(int64_t x);
/* Sets *f to n/d as given, unreduced. */
TARN_API void tarnd_fraction_create(tarnd_fraction *f, int32_t n, int32_t d);
/* Reduces *f in place by the greatest common divisor of n and d. */
TARN_API void tarnd_fraction_simplify(tarnd_fraction *f);
/* Sets *f to v/2, reduced (v/2 over 1 when v is even, v over 2 otherwise). */
TARN_API void tarnd_fraction_calculateCenter(tarnd_fraction *f, int32_t v);
/*
 * Reduces *a and *b and brings them to one denominator in place. Returns 1 on
 * success, 0 when a product would leave the 32-bit range (both stay reduced).
 */
TARN_API int32_t tarnd_fraction_commonDenominator(tarnd_fraction *a, tarnd_fraction *b);
/* *f = *f + g, reduced. Returns 1, or 0 when a value leaves the 32-bit range. */
TARN_API int32_t tarnd_fraction_add(tarnd_fraction *f, tarnd_fraction g);
/* *f = *f - g, reduced. Returns 1, or 0 when a value leaves the 32-bit range. */
TARN_API int32_t tarnd_fraction_subtract(tarnd_fraction *f, tarnd_fraction g);
/* 1 when n is a multiple of d, else 0 (a zero denominator gives 0). */
TARN_API int32_t tarnd_fraction_isInteger(const tarnd_fraction *f);
/* n / d truncated toward zero (0 for a zero denominator). */
TARN_API int32_t tarnd_fraction_getInt32(const tarnd_fraction *f);
/*
 * Turns a clean aperture into an integer crop of a width x height image.
 * clap holds the eight clap values in box order: widthN, widthD, heightN,
 * heightD, horizOffN, horizOffD, vertOffN, vertOffD. Returns 1 and fills
 * *crop when every edge falls on a whole pixel inside the image; otherwise
 * returns 0 with a WARN line (tag "tarnd_clean_aperture"), and *crop may hold
 * partial values.
 */
TARN_API int32_t tarnd_convert_clean_aperture_to_crop(int32_t width, int32_t height,
                                                      const int32_t clap[8], tarnd_crop *crop);

#ifdef __cplusplus
}
#endif

#endif /* TARN_READER_H */
