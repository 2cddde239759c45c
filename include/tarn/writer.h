/* libtarn: writer interface. */
#ifndef TARN_WRITER_H
#define TARN_WRITER_H

#include "tarn/common.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- block lists, context, buffers and output ---- */

/*
 * Block list: elements stored back to back in a chain of 4096-byte blocks
 * (16-byte header, 4080-byte payload). Adding never moves an element already
 * stored. Fixed-size lists take elements of elem_size bytes; sized lists take
 * elements of any size up to 4080 bytes, none spanning two blocks.
 */
#define TARN_MBLK_BLOCK_SIZE 4096
#define TARN_MBLK_PAYLOAD_SIZE 4080

typedef struct tarn_mblk_block tarn_mblk_block;

/* One entry of the block index: a block and the key of its first element. */
typedef struct tarn_mblk_meta {
  tarn_mblk_block *block;
  uint32_t key;
} tarn_mblk_meta;

typedef struct tarn_mblk {
  uint32_t block_count;
  uint32_t elem_count;
  uint32_t elem_size;
  tarn_mblk_block *first;
  tarn_mblk_block *last;
  tarn_mblk_meta *meta_array;
} tarn_mblk;

/* Iteration cursor over a fixed-size list. */
typedef struct tarn_mblk_iter {
  tarn_mblk_block *block;
  uint32_t index;
  uint8_t *elem;
} tarn_mblk_iter;

/* Returns the sort key of one element (for the block index). */
typedef uint32_t (*tarn_mblk_key_fn)(const void *element);

/* The writer's state record, embedded in its context (opaque to callers). */
typedef struct tarnm_state tarnm_state;
/* The writer's handle; magic "MIEH" (0x4845494D) then a pointer to itself. */
typedef struct tarnm_ctx tarnm_ctx;

/* Zeroes list and sets its element size; allocates nothing. Returns 0, or -1
 * for a null list or an element size of 0 or above 4080. */
TARN_API int32_t tarn_mblk_ctor(tarn_mblk *list, uint32_t elem_size);
/* Frees every block and the block index and zeroes the record; null is fine. */
TARN_API void tarn_mblk_dtor(tarn_mblk *list);
/* Appends elem_size bytes copied from elem. 0, or -1 on allocation failure
 * (WARN "failed alloc mblk", tag "tarn_mblk"); the list keeps what it had. */
TARN_API int32_t tarn_mblk_elem_add(tarn_mblk *list, const void *elem);
/* Appends size bytes copied from elem. 0, or -1 for a size below 0 or above
 * 4080 or an allocation failure; the list is then unchanged. */
TARN_API int32_t tarn_mblk_elem_add_with_size(tarn_mblk *list, const void *elem, int32_t size);
/* Builds the block index (one entry per block, keys from key_fn) once; lists
 * of fewer than 2 blocks need none (0, nothing built). -1 when already built
 * or out of memory. Later adds do not update the index. */
TARN_API int32_t tarn_mblk_upd_meta(tarn_mblk *list, tarn_mblk_key_fn key_fn);
/* Binary search for *key in a sorted fixed-size list: through the block index
 * when the list has 2 or more blocks and the index is built, else within the
 * first block only. Returns the element (owned by the list) or NULL. */
TARN_API void *tarn_mblk_elem_find(tarn_mblk *list, uint32_t key, tarn_compare_fn compare);
/* Iteration over fixed-size lists. first/next/prev return the element (owned
 * by the list) and store it in it, or NULL at the ends; next clears the
 * iterator at the end; prev before the first element returns NULL and leaves
 * the iterator as it was. last positions it on the last element (cleared for
 * an empty list). */
TARN_API void *tarn_mblk_elem_first(tarn_mblk *list, tarn_mblk_iter *it);
TARN_API void *tarn_mblk_elem_next(tarn_mblk *list, tarn_mblk_iter *it);
TARN_API void tarn_mblk_elem_last(tarn_mblk *list, tarn_mblk_iter *it);
TARN_API void *tarn_mblk_elem_prev(tarn_mblk *list, tarn_mblk_iter *it);
/* Copies every block's count x elem_size bytes to the writer's output cursor.
 * Returns the number of elements copied, or -4 when a block does not fit
 * (blocks before it stay copied). */
TARN_API int32_t tarn_mblk_dump(tarn_mblk *list, tarnm_state *state);
/* Copies every block's used bytes (sized lists) to the output cursor.
 * Returns elem_count, or -4 when a block does not fit. */
TARN_API int32_t tarn_mblk_dump_size(tarn_mblk *list, tarnm_state *state);
/* elem_count x elem_size, the bytes of a fixed-size list. */
TARN_API uint64_t tarn_mblk_datasize(const tarn_mblk *list);
/* Sum of the bytes used in all blocks (sized lists); 0 when empty. */
TARN_API uint64_t tarn_mblk_total_datasize(const tarn_mblk *list);

/* Size of the image heap allocated by tarnm_create. */
#define TARNM_INIT_HEAP_SIZE 10973492u
/* The writer handle's magic: "MIEH" in memory. */
#define TARNM_MAGIC 0x4845494Du

/*
 * Given to tarnm_create. With use_custom_brands 0 the built-in ftyp is
 * written ("heic", minor 0, "mif1" "heic"). Otherwise the brand words and
 * minor_version are copied into the file as they lie in memory (store each
 * four-character code in file order and minor_version already big-endian);
 * compatible_brand_count is at most 8.
 */
typedef struct tarnm_init_dsc {
  uint32_t use_custom_brands;
  uint32_t major_brand;
  uint32_t minor_version;
  uint32_t compatible_brands[8];
  uint32_t compatible_brand_count;
} tarnm_init_dsc;

/*
 * Caller file operations for tarnm_dump_image_to_file. open is given the
 * descriptor itself and mode 1 (write) and returns a file handle or NULL;
 * write returns the number of bytes it wrote; reserved is not used.
 */
typedef struct tarnm_output_dsc tarnm_output_dsc;
struct tarnm_output_dsc {
  void *(*open)(tarnm_output_dsc *dsc, int32_t mode);
  void (*close)(void *file);
  void *reserved;
  size_t (*write)(void *file, const void *data, size_t count);
};

/*
 * HEVC parameter sets of one image: up to 4 VPS, SPS and PPS NAL units, each
 * bare (2-byte NAL header first, no start code or length prefix). The memory
 * stays the caller's and is only read during the call.
 */
typedef struct tarnm_param_sets {
  int32_t vps_count;
  uint32_t vps_size[4];
  const uint8_t *vps_data[4];
  int32_t sps_count;
  uint32_t sps_size[4];
  const uint8_t *sps_data[4];
  int32_t pps_count;
  uint32_t pps_size[4];
  const uint8_t *pps_data[4];
} tarnm_param_sets;

/* Image types of tarnm_image_info.img_type. */
#define IMG_TYPE_MAIN 0
#define IMG_TYPE_THUMBNAIL 1
#define IMG_TYPE_AUX 2
#define IMG_TYPE_TMAP 3
#define IMG_TYPE_STEREO 4
#define IMG_TYPE_OTHER 5

/*
 * One image to register. width/height are the coded size (tile size for a
 * grid); rotation is clockwise degrees (0, 90, 180, 270); color_type 1 nclx
 * (7 bytes: three host-order u16 and a full-range byte), 2 rICC, 3 prof,
 * 0 none; bit_depth holds bit_depth_info_count (at most 3) bytes; a clli
 * property is added when max_cll or max_pall is not 0; aux_type 1 alpha,
 * 2 depth, 3 HDR gain map (marks the item hidden). exif_data begins with the
 * 6 bytes "Exif\0\0". Every pointer stays the caller's; the writer copies
 * what it keeps.
 */
typedef struct tarnm_image_info {
  uint32_t img_type;
  uint32_t width;
  uint32_t height;
  uint32_t rotation;
  uint32_t reserved;
  uint32_t color_type;
  const uint8_t *color_data;
  uint32_t color_size;
  tarnm_param_sets param_sets;
  const uint8_t *bit_depth;
  uint32_t bit_depth_info_count;
  uint32_t max_cll;
  uint32_t max_pall;
  uint32_t aux_type;
  const uint8_t *aux_subtype_data;
  uint32_t aux_subtype_size;
  const uint8_t *xmp_data;
  uint32_t xmp_size;
  const uint8_t *exif_data;
  uint32_t exif_size;
  const uint8_t *tmap_data;
  uint32_t tmap_size;
} tarnm_image_info;

/* A grid image: its output size, rows x columns tiles whose item ids run
 * consecutively from first_tile_id to last_tile_id row by row, its own item
 * id and a clockwise rotation (0 = none). */
typedef struct tarnm_grid_info {
  uint32_t output_width;
  uint32_t output_height;
  uint32_t rows;
  uint32_t columns;
  uint32_t first_tile_id;
  uint32_t last_tile_id;
  uint16_t grid_item_id;
  uint32_t rotation;
} tarnm_grid_info;

/*
 * Creates a writer: allocates the context and a heap of TARNM_INIT_HEAP_SIZE
 * bytes, writes ftyp and an 8-byte mdat header. Returns the handle (free it
 * with tarnm_delete) or NULL; *err (when err is not NULL) receives 0 or -2.
 * -2 also for a null init_dsc or more than 8 compatible brands.
 */
TARN_API tarnm_ctx *tarnm_create(const tarnm_init_dsc *init_dsc, int32_t *err);
/* Releases the context, its lists, copies and heap; a delivered buffer stays
 * the caller's. Ignores NULL and handles whose magic is wrong. */
TARN_API void tarnm_delete(tarnm_ctx *handle);
/*
 * Moves the file built so far into the caller's buffer of size bytes and
 * continues there; the heap never grows again and the buffer stays the
 * caller's (it must outlive the handle). 0; -1 for a null buffer, size < 1 or
 * a bad handle; -4 when size is below the bytes written (nothing changes).
 */
TARN_API int32_t tarnm_use_delivered_memory_buffer(tarnm_ctx *handle, uint8_t *buffer, int32_t size);
/* The file size so far in bytes, or -1 for a bad handle. */
TARN_API int32_t tarnm_get_outputbuffer_size(tarnm_ctx *handle);
/* Copies the whole file (tarnm_get_outputbuffer_size bytes) to out, which the
 * caller sizes. 0, or -1 for a bad handle or null out. */
TARN_API int32_t tarnm_dump_image_to_outputbuffer(tarnm_ctx *handle, uint8_t *out);
/* Writes the file through the caller's operations: open (mode 1), one write
 * of the whole file, close. 0; -1 for a bad handle; -6 when there is no
 * descriptor, open fails or the write is short. */
TARN_API int32_t tarnm_dump_image_to_file(tarnm_ctx *handle, tarnm_output_dsc *output_dsc);
/* Replaces the heap by one of new_size bytes (at least the
 * bytes written) holding the file so far. 0, -1 (new_size below the bytes
 * written) or -5 (no memory; the old heap stays). */
TARN_API int32_t tarnm_alloc_additional_buffer(tarnm_state *state, uint32_t new_size);
/* Grows the heap to fit the running size estimate: the first growth to half
 * an estimate of at least 21,946,986 bytes (else the whole estimate above the
 * initial size), later growths to the estimate while it exceeds the
 * capacity. 0, -4 (estimate too small: "input image frames are too big") or
 * -5 (no memory). */
TARN_API int32_t tarnm_reallocate_image_buffer(tarnm_state *state);

/* ---- element builders, payloads and box tree ---- */

/* Plain box size around a payload: payload + 8, or payload + 16 when that
 * would exceed 0xFFFFFFFF. */
TARN_API uint64_t tarnm_atom_size(uint64_t payload);
/* Full box size: tarnm_atom_size(payload) + 4. */
TARN_API uint64_t tarnm_atomf_size(uint64_t payload);
/*
 * Writes one box header at the output cursor: size and type (four bytes as
 * fcc lies in memory), a 64-bit largesize when the whole box exceeds
 * 0xFFFFFFFF, then for a full box version and the three flag bytes (zeros
 * when flags is NULL). 0, or -4 when the cursor lacks room (parts already
 * written stay written).
 */
TARN_API int32_t tarnm_atom_header(tarnm_state *state, uint32_t fcc, uint64_t payload,
                                   int32_t full_box, uint8_t version, const uint8_t *flags);
/* Writes the ftyp box (built-in, or the descriptor's brands) and adds its
 * size to the size estimate. 0, -1 (no descriptor, or more than 8 brands) or
 * -4 (no room, nothing written). */
TARN_API int32_t tarnm_atom_ftyp(tarnm_state *state, const tarnm_init_dsc *init_dsc);
/* Writes a plain "mdat" header for that payload length. 0, or -1. */
TARN_API int32_t tarnm_atom_mdat(tarnm_state *state, uint64_t payload);

/*
 * Element builders. Each builds one box or entry in final byte form and
 * appends it to its list in the state. Results: 0; -1 refused value; -5
 * allocation failure (the list keeps what it had).
 */
/* infe v2 (hidden when visible is 0; a "mime" item carries the XMP content
 * type); sets the state's last item id. */
TARN_API int32_t tarnm_add_element_infe(tarnm_state *state, uint32_t item_id, uint32_t item_type,
                                        uint32_t visible);
/* Single-item-type reference from from_id to the low 16 bits of count ids
 * (at most 768). */
TARN_API int32_t tarnm_add_element_itemtyperef(tarnm_state *state, uint32_t from_id,
                                               uint32_t ref_type, uint32_t count,
                                               const uint32_t *ids);
/* Entity-to-group box (at most 15 ids). */
TARN_API int32_t tarnm_add_element_entity_group(tarnm_state *state, uint32_t group_id,
                                                uint32_t count, const uint32_t *ids,
                                                uint32_t grouping_type);
/* Property boxes appended to ipco, each also recording its essential flag. */
TARN_API int32_t tarnm_add_element_hvcC(tarnm_state *state, const uint8_t *payload, int32_t size);
/* colr from the colour fields of the last registered image information. */
TARN_API int32_t tarnm_add_element_colr(tarnm_state *state);
/* auxC from the aux fields of the last registered image information. */
TARN_API int32_t tarnm_add_element_auxC(tarnm_state *state);
TARN_API int32_t tarnm_add_element_ispe(tarnm_state *state, uint32_t width, uint32_t height);
/* irot from a clockwise angle: 90 -> 3, 180 -> 2, 270 -> 1, other -> 0. */
TARN_API int32_t tarnm_add_element_irot(tarnm_state *state, int32_t angle);
/* pixi with count (at most 3) bit depths. */
TARN_API int32_t tarnm_add_element_pixi(tarnm_state *state, uint32_t count, const uint8_t *depths);
TARN_API int32_t tarnm_add_element_clli(tarnm_state *state, uint32_t max_cll, uint32_t max_pall);
/* ipma entry: item id and count (below 128) 1-based ipco indices, the top bit
 * set for essential properties. */
TARN_API int32_t tarnm_add_element_ipma(tarnm_state *state, uint32_t item_id, uint32_t count,
                                        const uint8_t *indices);

/*
 * Shared properties: reuse an equal property already in ipco, else add one;
 * either way its 1-based index is appended to the association set being
 * collected. 0; -1 refused (its box could not be added, 255 distinct values
 * of the kind, an index above 127, a full association set); -5 no memory.
 */
TARN_API int32_t tarnm_add_colr_property(tarnm_state *state, const uint8_t *data, uint32_t size);
TARN_API int32_t tarnm_add_hvcc_property(tarnm_state *state, const uint8_t *data, uint32_t size);
TARN_API int32_t tarnm_add_ispe_property(tarnm_state *state, uint32_t width, uint32_t height);
TARN_API int32_t tarnm_add_irot_property(tarnm_state *state, int32_t angle);
TARN_API int32_t tarnm_add_pixi_property(tarnm_state *state, const uint8_t *depths, uint32_t count);
/* Look-ups: the 1-based ipco index of an equal property, or -1. */
TARN_API int32_t tarnm_get_irot_property_index(const tarnm_state *state, int32_t angle);
TARN_API int32_t tarnm_get_ispe_property_index(const tarnm_state *state, uint32_t width,
                                               uint32_t height);
TARN_API int32_t tarnm_get_pixi_property_index(const tarnm_state *state, const uint8_t *data,
                                               uint32_t len);
TARN_API int32_t tarnm_get_colr_property_index(const tarnm_state *state, const uint8_t *data,
                                               uint32_t len);
TARN_API int32_t tarnm_get_hvcc_property_index(const tarnm_state *state, const uint8_t *data,
                                               uint32_t len);

/*
 * Raw-struct serializer: a table of rows {offset, elm_size, conv, count}
 * ended by a row whose elm_size is 0 describes a small record; conv rows are
 * turned big-endian before output.
 */
typedef struct rawstruct_field {
  uint32_t offset;
  uint32_t elm_size;
  uint32_t conv;
  uint32_t count;
} rawstruct_field;

typedef int32_t (*tarn_rawstruct_visit_fn)(void *element, const rawstruct_field *row, void *user);
typedef int32_t (*tarn_rawstruct_write_fn)(void *target, void *element,
                                           const rawstruct_field *row, void *user);

/* Bytes the table describes: sum of elm_size x count. */
TARN_API int32_t tarn_rawstruct_size(const rawstruct_field *table);
/* Turns one element big-endian in place when the row asks for it; always 0
 * (an unsupported width is logged and left as it is). */
TARN_API int32_t tarn_rawstruct_conv(void *element, const rawstruct_field *row);
/* Converts every element of the record in place; 0. */
TARN_API int32_t tarn_rawstruct_bigend(void *record, const rawstruct_field *table);
/* Converts the record in place, then writes its elements at the output
 * cursor in table order. 0, or -1 when an element does not fit. */
TARN_API int32_t tarn_rawstruct_mwrite(tarnm_state *state, void *record,
                                       const rawstruct_field *table);
/* Calls visit for every element in table order (element NULL when record is
 * NULL); a non-zero result stops with -1; 0 at the end. */
TARN_API int32_t tarn_rawstruct_iter(void *record, const rawstruct_field *table,
                                     tarn_rawstruct_visit_fn visit, void *user);
/* As tarn_rawstruct_iter, handing target to every call. */
TARN_API int32_t tarn_rawstruct_write_iter(void *target, void *record,
                                           const rawstruct_field *table,
                                           tarn_rawstruct_write_fn visit, void *user);

/*
 * Sizes and appends the whole meta box (hdlr, iinf, pitm, iprp, iloc, idat,
 * iref, grpl; empty boxes left out) at the output cursor, growing the heap
 * once when it is short. Call once, after everything is registered: the
 * location entries are turned to file byte order as they are written.
 * 0; -4 when a delivered buffer is too small (nothing written); -1 otherwise.
 */
TARN_API int32_t tarnm_atom_meta(tarnm_state *state);

/* ---- hvcC, SPS decoder, image registration, intake, finalisation ---- */

/*
 * The head of an HEVC sequence parameter set, as far as the hvcC record
 * needs it (up to bit_depth_chroma_minus8). Fields are named by the H.265
 * syntax elements they hold; values that ran past the end of the data read
 * as all ones truncated to the field's width. Clear it before decoding.
 */
typedef struct tarnm_hevc_sps {
  uint8_t sps_video_parameter_set_id;
  uint8_t sps_max_sub_layers_minus1;
  uint8_t sps_temporal_id_nesting_flag;
  uint8_t sps_seq_parameter_set_id;
  uint8_t chroma_format_idc;
  uint8_t separate_colour_plane_flag;
  uint32_t pic_width_in_luma_samples;
  uint32_t pic_height_in_luma_samples;
  uint16_t conformance_window_flag;
  uint16_t conf_win_left_offset;
  uint16_t conf_win_right_offset;
  uint16_t conf_win_top_offset;
  uint16_t conf_win_bottom_offset;
  uint8_t bit_depth_luma_minus8;
  uint8_t bit_depth_chroma_minus8;
  uint8_t general_profile_space;
  uint8_t general_tier_flag;
  uint8_t general_profile_idc;
  uint32_t general_profile_compatibility_flags;
  uint64_t general_constraint_indicator_flags; /* 48 bits */
  uint8_t general_level_idc;
  uint8_t sub_layer_profile_present_flag[7];
  uint8_t sub_layer_level_present_flag[7];
  uint8_t sub_layer_profile_space[7];
  uint8_t sub_layer_tier_flag[7];
  uint8_t sub_layer_profile_idc[7];
  uint8_t sub_layer_profile_compatibility_flag[7][32];
  uint8_t sub_layer_progressive_source_flag[7];
  uint8_t sub_layer_interlaced_source_flag[7];
  uint8_t sub_layer_non_packed_constraint_flag[7];
  uint8_t sub_layer_frame_only_constraint_flag[7];
  uint8_t sub_layer_level_idc[7];
} tarnm_hevc_sps;

struct omni_bsr;

/*
 * Decodes an SPS from a big-endian bit reader positioned just after the
 * 2-byte NAL unit header (set up with tarnm_hevc_bs_flush as its refill).
 * Never fails: fields past the end of the data take the reader's end value.
 */
TARN_API void tarnm_hevc_sps_dec(struct omni_bsr *bs, tarnm_hevc_sps *sps);
/*
 * Refill routine for NAL unit payloads: drops emulation-prevention bytes and
 * ends the data before a start code. 0, or -1 when nothing could be loaded.
 */
TARN_API int tarnm_hevc_bs_flush(struct omni_bsr *bs, int32_t byte_count);

/*
 * Exact length of the hvcC record for these parameter sets: 23 bytes plus,
 * per non-empty array, 3 + (2 + size) per NAL unit. -1 for a null argument,
 * a count outside 0..4, or a NAL unit longer than 65,535 bytes.
 */
TARN_API int32_t tarnm_get_hvcc_size(const tarnm_param_sets *param_sets);
/*
 * Lays out the hvcC record (profile, tier, level, chroma format and bit
 * depths decoded from the first SPS; then the VPS, SPS and PPS arrays) in out,
 * which holds at least tarnm_get_hvcc_size bytes. 0, or -1 with nothing
 * written when a count is outside 0..4, the first VPS, SPS or PPS pointer is
 * missing, the first SPS is shorter than 8 bytes, a NAL unit is longer than
 * 65,535 bytes or null, or the SPS decodes to values no HEVC stream has
 * (chroma format above 3, more than 16 bits, 8 sub-layers, a profile space
 * other than 0, a zero picture size, or a truncated SPS).
 */
TARN_API int32_t tarnm_make_hvcc(const tarnm_param_sets *param_sets, uint8_t *out);

/*
 * Registers one image under the caller's item_id: its item (for a grid, the
 * grid item and one hidden item per tile), references, properties (shared
 * with equal ones already added), entity group, and its Exif and XMP, which
 * become items of their own in tarnm_stop_muxing. ref_id is the master image
 * of a thumbnail or auxiliary image, the gain-map image of a tone-map image
 * and the other image of a stereo pair. grid is NULL for a single image. For
 * a tone-map image (IMG_TYPE_TMAP) the writer swaps info's width and height
 * when rotated by 90 or 270 and sets its rotation to 0. Every pointer stays
 * the caller's; the writer copies what it keeps. 0, or -1 ("failed to set
 * image info!"); a refusal found before anything was added (bad parameter
 * sets, limits, inconsistent grid descriptor) leaves the context usable.
 * Items are written in registration order, and readers that require item
 * ids to increase (this library's reader among them) refuse a file whose
 * images were registered with falling ids: register in ascending id order.
 */
TARN_API int32_t tarnm_set_image_info(tarnm_ctx *handle, uint32_t item_id, uint32_t ref_id,
                                      tarnm_image_info *info, const tarnm_grid_info *grid);
/* Names the primary item. 0, or -1 for a null handle or a negative id. */
TARN_API int32_t tarnm_set_cover_image(tarnm_ctx *handle, int32_t img_id);
/*
 * Locates size bytes of a tone-map item's metadata in idat at the next free
 * idat offset. 0, -1 (size 0 or idat too large) or -5 (no memory).
 */
TARN_API int32_t tarnm_put_tonemap_data(tarnm_state *state, uint32_t item_id, uint32_t size);
/* Fills ids[0..count-1] with first_id, first_id + 1, ... */
TARN_API void tarnm_make_iref_grid_item_id_list(uint32_t *ids, uint32_t count, uint32_t first_id);

/*
 * Appends one coded picture of item_id (an image or a grid tile) to mdat.
 * data is Annex-B with 4-byte start codes (00 00 00 01) before every NAL
 * unit; each start code is stored as the unit's 4-byte big-endian length.
 * The data stays the caller's. When item_id is the last tile of a grid, the
 * grid's idat location is recorded too. 0; -1 null handle or data, size 0 or
 * above 2^31 - 1, data not starting with a start code, item_id of a grid
 * item; -4 no room in a delivered buffer or the size estimate; -5 no memory.
 * A refused frame leaves nothing behind.
 */
TARN_API int32_t tarnm_put_frm(tarnm_ctx *handle, uint32_t item_id, const uint8_t *data,
                               uint32_t size);
/*
 * Appends item data stored as it stands (size bytes, caller-owned) and
 * records its location; *offset (when not NULL) receives its file offset.
 * 0, -1 (null handle or data, size 0 "metadata size is zero"), -4 or -5.
 */
TARN_API int32_t tarnm_put_metadata(tarnm_ctx *handle, uint32_t item_id, const uint8_t *data,
                                    uint32_t size, uint32_t *offset);
/*
 * The file offset of image img_id's Exif (type 0) or XMP (type 1) data, known
 * once tarnm_stop_muxing has written it (0 before). 0, or -1 when the image
 * has none ("%d image has no %s metadata") or an argument is null.
 */
TARN_API int32_t tarnm_get_metadata_offset(tarnm_ctx *handle, int32_t img_id, uint32_t type,
                                           uint32_t *offset);
/*
 * Completes the file: writes the Exif and XMP items (ids above the largest
 * item id in use) with their cdsc references, the entity groups, the meta box,
 * and the mdat size. Call once, after the last frame. 0; -1 bad handle; -3
 * ("failed to stop properly!") when the file cannot be completed, including
 * a second call and a grid whose tiles did not all arrive.
 */
TARN_API int32_t tarnm_stop_muxing(tarnm_ctx *handle);

#ifdef __cplusplus
}
#endif

#endif /* TARN_WRITER_H */
