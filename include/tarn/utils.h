/*
 * libtarn: media utilities.
 *
 * Bit readers and a bit writer for codec syntax, the ST 2094-40 (HDR10+)
 * T.35 SEI payload parser, aligned memory and fills, the media-type numbering
 * with its four-character-code tables, video key-frame detection and small
 * image-buffer helpers. None of them logs; all are safe to call from several
 * threads as long as each reader or writer record is used by one at a time.
 */
#ifndef TARN_UTILS_H
#define TARN_UTILS_H

#include "tarn/common.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------------- */
/* Big-endian bit reader                                                  */
/* ---------------------------------------------------------------------- */

struct omni_bsr;

/*
 * Refill routine: loads up to byte_count bytes into the cache, replacing what
 * was there. Returns 0 on success, non-zero when nothing could be loaded (the
 * cache is then empty).
 */
typedef int (*omni_bsr_flush_fn)(struct omni_bsr *bs, int32_t byte_count);

/*
 * A reader over a caller-owned byte buffer; the caller owns the record too
 * and the reader never allocates. The next unread bit is the most
 * significant bit of code (the little-endian reader uses the low end
 * instead); leftbits goes below 0 after a read that ran past the end.
 * zero_run is used by the NAL-aware refill only: the owner sets it to 0
 * before the first read.
 */
typedef struct omni_bsr {
  uint32_t code;
  int32_t leftbits;
  const uint8_t *cur;
  const uint8_t *end; /* last byte of the data (beg + size - 1) */
  const uint8_t *beg;
  uint32_t size;
  omni_bsr_flush_fn flush;
  int32_t zero_run;
} omni_bsr;

/*
 * Sets the reader up over size bytes at data (owned by the caller, which
 * keeps them alive while reading). flush NULL selects omni_bsr_flush.
 * zero_run is left as it is. A NULL data or size 0 gives an empty reader.
 */
TARN_API void omni_bsr_init(omni_bsr *bs, const uint8_t *data, uint32_t size,
                            omni_bsr_flush_fn flush);
/* Plain refill of up to byte_count bytes: 0, or -1 at the end of the data. */
TARN_API int omni_bsr_flush(omni_bsr *bs, int32_t byte_count);
/*
 * Refill for H.264/H.265 NAL unit payloads: drops emulation-prevention bytes
 * (00 00 03 -> 00 00) and ends the data before the next start code.
 * 0, or -301 when nothing could be loaded.
 */
TARN_API int vc_nal_bsr_flush(omni_bsr *bs, int32_t byte_count);
/*
 * Reads n bits (0..32) as an unsigned number. 0xFFFFFFFF when a needed
 * refill fails; bits past the end of the data read as 0.
 */
TARN_API uint32_t omni_bsr_read(omni_bsr *bs, int32_t n);
/* As omni_bsr_read, value through out: 0, or -1 at the end (out untouched). */
TARN_API int omni_bsr_read_value(omni_bsr *bs, int32_t n, uint32_t *out);
/* Reads one bit: 0 or 1, or 0xFFFFFFFF when a needed refill fails. */
TARN_API uint32_t omni_bsr_read1(omni_bsr *bs);
/* As omni_bsr_read1, the bit through out: 0, or -1 at the end. */
TARN_API int omni_bsr_read1_value(omni_bsr *bs, uint8_t *out);
/* Consumes n bits (0..32). */
TARN_API void omni_bsr_skip(omni_bsr *bs, int32_t n);
/*
 * Skips n bits, then returns the next m bits (1..32) without consuming them;
 * 0 when the refill during the skip fails.
 */
TARN_API uint32_t omni_bsr_skip_peek(omni_bsr *bs, int32_t n, int32_t m);
/* Returns the next m bits (1..32) without consuming them. */
TARN_API uint32_t omni_bsr_peek(omni_bsr *bs, int32_t m);
/* Drops the bits up to the next byte boundary of the cache. */
TARN_API void omni_bsr_skip_to_align8(omni_bsr *bs);
/* Number of leading zero bits of word; 32 for 0. */
TARN_API uint32_t omni_bsr_clz_in_code(uint32_t word);

/* ---------------------------------------------------------------------- */
/* Little-endian bit reader and bit writer                                */
/* ---------------------------------------------------------------------- */

/*
 * The little-endian reader works on an omni_bsr set up by omni_bsr_init with
 * omni_bsr_le_flush as refill; the next unread bit is bit 0 of code.
 * Refill: loads up to byte_count bytes (callers ask for 4), the first into
 * bits 7..0. 0, or -1 when no byte is left.
 */
TARN_API int omni_bsr_le_flush(omni_bsr *bs, int32_t byte_count);
/*
 * Reads n bits (1..32), least significant first; 0xFFFFFFFF when a needed
 * refill fails (the cache is then empty).
 */
TARN_API uint32_t omni_bsr_le_read(omni_bsr *bs, int32_t n);
/* Drops n bits from the cache without refilling; more than are left empties it. */
TARN_API void omni_bsr_le_skip(omni_bsr *bs, int32_t n);
/* Drops the bits up to the next byte boundary of the cache. */
TARN_API void omni_bsr_le_skip_to_align8(omni_bsr *bs);

struct omni_bsw;
/* Called with the writer each time a byte is complete, before cur moves on. */
typedef void (*omni_bsw_byte_fn)(struct omni_bsw *bw);

/*
 * Bit writer over a caller-owned buffer, most significant bit first. A
 * partly written byte holds its bits at its low end; the caller finishes the
 * stream on a byte boundary before using the buffer.
 */
typedef struct omni_bsw {
  uint8_t *cur;     /* byte being filled */
  int32_t leftbits; /* bits still free in it, 8 down to 1 */
  uint8_t *end;     /* last byte of the buffer */
  uint8_t *beg;
  uint32_t size;
  omni_bsw_byte_fn byte_cb;
} omni_bsw;

/* Sets the writer up over size bytes at buffer; byte_cb may be NULL. */
TARN_API void omni_bsw_init(omni_bsw *bw, uint8_t *buffer, uint32_t size, omni_bsw_byte_fn byte_cb);
/* Appends the low bit of bit: 0, or -1 when the buffer is full. */
TARN_API int omni_bsw_write1(omni_bsw *bw, uint32_t bit);
/*
 * Appends the n low bits of value, most significant first. -1 when the
 * buffer is already full or n is above 32 (nothing written), or when the
 * buffer fills part-way (the bits up to the last byte are written); 0
 * otherwise, also for n = 0.
 */
TARN_API int omni_bsw_write(omni_bsw *bw, uint32_t value, int32_t n);

/* ---------------------------------------------------------------------- */
/* Aligned memory and fills                                               */
/* ---------------------------------------------------------------------- */

/*
 * Allocates size bytes at a 32-byte-aligned address (also for size 0); NULL
 * when the heap fails. The caller owns the block and releases it with
 * omni_mfree_align32, never with free.
 */
TARN_API void *omni_malloc_align32(uint32_t size);
/* Releases a block of omni_malloc_align32; NULL does nothing. */
TARN_API void omni_mfree_align32(void *ptr);
/* The same pair as a separate entry point. */
TARN_API void *omni_malloc_fast_align32(uint32_t size);
/* Releases a block of omni_malloc_fast_align32; NULL does nothing. */
TARN_API void omni_mfree_fast_align32(void *ptr);
/*
 * Copies rows rows of width bytes, advancing dst and src by their strides
 * (which may be negative) between rows; rows below 1 copy nothing.
 */
TARN_API void omni_blk_mcpy(void *dst, const void *src, int32_t dst_stride, int32_t src_stride,
                            uint32_t width, int32_t rows);

/*
 * Fills. "Words" means value stored in native byte order at every 4-byte
 * step from dst; word fills and byte tails agree when the four bytes of
 * value are equal. dst is 4-byte aligned. The fills check nothing: sizes
 * below a routine's minimum are outside its contract.
 */
/* size / 32 blocks of 32 bytes of words (rounded down); size >= 32. */
TARN_API void omni_mset_x32(void *dst, uint32_t value, int32_t size);
/* 32-byte blocks of words, then size % 32 bytes of value's low byte. */
TARN_API void omni_mset_x32ax4(void *dst, uint32_t value, int32_t size);
/* size / 128 blocks of 128 bytes of words (rounded down); size >= 128. */
TARN_API void omni_mset_x64(void *dst, uint32_t value, int32_t size);
/* 64-byte blocks of words, then size % 64 bytes of value's low byte; size >= 1. */
TARN_API void omni_mset_x64a(void *dst, uint32_t value, int32_t size);
/* Words over size rounded up to a multiple of 128 bytes; pass a positive multiple of 128. */
TARN_API void omni_mset_x128(void *dst, uint32_t value, int32_t size);
/* Zeroes 4 * count bytes (count in 32-bit words, a positive multiple of 64). */
TARN_API void omni_mclr_x64(void *dst, int32_t count);

/* ---------------------------------------------------------------------- */
/* Media types                                                            */
/* ---------------------------------------------------------------------- */

/*
 * Media types: 100..299 video (299 unknown), 300..499 audio (499 unknown),
 * the 500s still images, 1100..1299 DRM (1299 unknown), 3000..3199
 * subtitles (3199 unknown). A code is a four-character code with its first
 * character in the least significant byte ("hvc1" is 0x31637668) or, for
 * audio, a numeric WAVE format tag.
 */
#define OMNI_MT_VIDEO_HEVC 120u
#define OMNI_MT_VIDEO_UNKNOWN 299u
#define OMNI_MT_AUDIO_UNKNOWN 499u
#define OMNI_MT_IMAGE_JPEG 501u
#define OMNI_MT_DRM_UNKNOWN 1299u
#define OMNI_MT_SUBTITLE_UNKNOWN 3199u

/* Video media type of code, or 299. */
TARN_API uint32_t omni_fcc2mt_vid(int32_t code);
/* Audio media type of code (four-character code or format tag), or 499. */
TARN_API uint32_t omni_fcc2mt_aud(int32_t code);
/* DRM media type of code ("DIVX", "divx": 1100), or 1299. */
TARN_API uint32_t omni_fcc2mt_drm(int32_t code);
/* Subtitle media type of code, or 3199. */
TARN_API uint32_t omni_fcc2mt_sub(int32_t code);
/*
 * Media type of any code: audio first (so small integers are format tags),
 * then video, then subtitles (3199 when none matches). Never a DRM type.
 */
TARN_API uint32_t omni_fcc2mt(int32_t code);

/* ---------------------------------------------------------------------- */
/* Video key frames                                                       */
/* ---------------------------------------------------------------------- */

/*
 * 1 when the coded frame of size bytes at data, of the given video media
 * type, can be decoded on its own (intra, IDR or random-access picture),
 * judging by its first picture or NAL headers; 0 otherwise, also for
 * unsupported types, NULL data and frames too short to tell. AVC and HEVC
 * frames must use start codes, not length prefixes. Reads only inside the
 * frame.
 */
TARN_API int32_t omni_is_vkeyfrm(uint32_t media_type, const uint8_t *data, int32_t size);

/* ---------------------------------------------------------------------- */
/* Image-buffer helpers                                                   */
/* ---------------------------------------------------------------------- */

/* Number of memory planes of an image-buffer colour format; 0 when unknown. */
TARN_API uint32_t omni_imgb_get_plane_count(int32_t format);
/* Smallest n with 2^n >= v; 0 for v = 0. */
TARN_API int32_t omni_ceil_log2(uint32_t v);
/* Largest n with 2^n <= v; -1 for v = 0. */
TARN_API int32_t omni_floor_log2(uint32_t v);
/* Image-buffer dump hook: does nothing in this build. */
TARN_API void omni_imgb_dump(const void *imgb);

/* ---------------------------------------------------------------------- */
/* HDR10+ (ST 2094-40) metadata in T.35 SEI payloads                      */
/* ---------------------------------------------------------------------- */

#define OMNI_SEI_T35_MAX_WINDOWS 3
#define OMNI_SEI_T35_MAX_PEAK 32 /* row stride of the peak-luminance matrices */
#define OMNI_SEI_T35_MAX_LIST 16 /* percentiles and Bezier anchors per window */

/*
 * Dynamic HDR metadata of one ST 2094-40 message, each field named after its
 * syntax element. Per-window arrays are indexed by window number; window 0
 * is the whole picture, so the geometry arrays use entries 1 and 2 only.
 */
typedef struct omni_sei_t35 {
  uint8_t valid; /* 1 after a successful parse, 0 after a rejected one */
  uint8_t itu_t_t35_country_code;
  uint16_t itu_t_t35_terminal_provider_code;
  uint16_t itu_t_t35_terminal_provider_oriented_code;
  uint8_t application_identifier;
  uint8_t application_version;
  uint8_t num_windows;
  uint16_t window_upper_left_corner_x[OMNI_SEI_T35_MAX_WINDOWS];
  uint16_t window_upper_left_corner_y[OMNI_SEI_T35_MAX_WINDOWS];
  uint16_t window_lower_right_corner_x[OMNI_SEI_T35_MAX_WINDOWS];
  uint16_t window_lower_right_corner_y[OMNI_SEI_T35_MAX_WINDOWS];
  uint16_t center_of_ellipse_x[OMNI_SEI_T35_MAX_WINDOWS];
  uint16_t center_of_ellipse_y[OMNI_SEI_T35_MAX_WINDOWS];
  uint8_t rotation_angle[OMNI_SEI_T35_MAX_WINDOWS];
  uint16_t semimajor_axis_internal_ellipse[OMNI_SEI_T35_MAX_WINDOWS];
  uint16_t semimajor_axis_external_ellipse[OMNI_SEI_T35_MAX_WINDOWS];
  uint16_t semiminor_axis_external_ellipse[OMNI_SEI_T35_MAX_WINDOWS];
  uint8_t overlap_process_option[OMNI_SEI_T35_MAX_WINDOWS];
  uint32_t targeted_system_display_maximum_luminance;
  uint8_t targeted_system_display_actual_peak_luminance_flag;
  uint8_t num_rows_targeted_system_display_actual_peak_luminance;
  uint8_t num_cols_targeted_system_display_actual_peak_luminance;
  uint8_t targeted_system_display_actual_peak_luminance[OMNI_SEI_T35_MAX_PEAK][OMNI_SEI_T35_MAX_PEAK];
  uint32_t maxscl[OMNI_SEI_T35_MAX_WINDOWS][3];
  uint32_t average_maxrgb[OMNI_SEI_T35_MAX_WINDOWS];
  uint8_t num_distribution_maxrgb_percentiles[OMNI_SEI_T35_MAX_WINDOWS];
  uint8_t distribution_maxrgb_percentages[OMNI_SEI_T35_MAX_WINDOWS][OMNI_SEI_T35_MAX_LIST];
  uint32_t distribution_maxrgb_percentiles[OMNI_SEI_T35_MAX_WINDOWS][OMNI_SEI_T35_MAX_LIST];
  uint16_t fraction_bright_pixels[OMNI_SEI_T35_MAX_WINDOWS];
  uint8_t mastering_display_actual_peak_luminance_flag;
  uint8_t num_rows_mastering_display_actual_peak_luminance;
  uint8_t num_cols_mastering_display_actual_peak_luminance;
  uint8_t mastering_display_actual_peak_luminance[OMNI_SEI_T35_MAX_PEAK][OMNI_SEI_T35_MAX_PEAK];
  uint8_t tone_mapping_flag[OMNI_SEI_T35_MAX_WINDOWS];
  uint16_t knee_point_x[OMNI_SEI_T35_MAX_WINDOWS];
  uint16_t knee_point_y[OMNI_SEI_T35_MAX_WINDOWS];
  uint16_t num_bezier_curve_anchors[OMNI_SEI_T35_MAX_WINDOWS];
  uint16_t bezier_curve_anchors[OMNI_SEI_T35_MAX_WINDOWS][OMNI_SEI_T35_MAX_LIST];
  uint8_t color_saturation_mapping_flag[OMNI_SEI_T35_MAX_WINDOWS];
  uint8_t color_saturation_weight[OMNI_SEI_T35_MAX_WINDOWS];
} omni_sei_t35;

/*
 * Decodes the payload of one ITU-T T.35 registered user-data SEI message
 * (size bytes at data, starting with the country code, emulation-prevention
 * bytes still in place) carrying ST 2094-40 metadata into out, which the
 * caller owns. Returns 0 with valid 1, or -105 with valid 0 when out is NULL
 * or the payload is not ST 2094-40 (country 0xB5, provider 0x003C, oriented
 * code 0x0001, application 4, version 0 or 1); fields read before the
 * refusal keep their values, the others are left as they were. A payload cut
 * short is not detected: missing bits read as the reader's end value.
 */
TARN_API int32_t omni_vc_parse_sei_t35_metadata(const uint8_t *data, uint32_t size, omni_sei_t35 *out);

#ifdef __cplusplus
}
#endif

#endif /* TARN_UTILS_H */
