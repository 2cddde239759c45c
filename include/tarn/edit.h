/*
 * libtarn: lossless edit. Rewrites a HEIF/HEIC file through the reader and
 * the writer without decoding a pixel: metadata can be stripped or replaced,
 * the rotation set, and thumbnails or auxiliary images dropped, while every
 * coded image keeps its bytes and decoder configuration.
 */
#ifndef TARN_EDIT_H
#define TARN_EDIT_H

#include "tarn/reader.h"
#include "tarn/writer.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Status codes of tarn_edit. */
#define TARN_EDIT_OK 0
#define TARN_EDIT_BAD_ARGUMENT (-1) /* null pointer or an option value out of range */
#define TARN_EDIT_UNREADABLE (-2)   /* the input is not a readable HEIF file, or its data is cut */
#define TARN_EDIT_REFUSED (-3)      /* the input holds something the writer cannot express */
#define TARN_EDIT_WRITER (-4)       /* the writer refused the rebuilt file */
#define TARN_EDIT_NO_MEMORY (-5)
#define TARN_EDIT_OUTPUT (-6) /* the output callbacks failed */

/* Bits of tarn_edit_options.flags. */
#define TARN_EDIT_STRIP_EXIF 0x1u       /* drop every Exif item */
#define TARN_EDIT_STRIP_XMP 0x2u        /* drop every XMP item */
#define TARN_EDIT_STRIP_GPS 0x4u        /* remove the GPS data from every Exif item */
#define TARN_EDIT_SET_ROTATION 0x8u     /* use options->rotation for the primary image */
#define TARN_EDIT_DROP_THUMBNAILS 0x10u /* drop every thumbnail */
#define TARN_EDIT_DROP_ALPHA 0x20u      /* drop alpha auxiliary images */
#define TARN_EDIT_DROP_DEPTH 0x40u      /* drop depth auxiliary images */
#define TARN_EDIT_DROP_GAINMAP 0x80u    /* drop HDR gain maps and the tone-map items built on them */
#define TARN_EDIT_DROP_UNSUPPORTED 0x100u /* drop what cannot be carried and nothing depends on */

/*
 * What to change. Zero the record for an edit that changes nothing.
 *
 * exif_data/exif_size replace the Exif of the primary image when exif_data is
 * not NULL: either an Exif block ("Exif\0\0" then a TIFF header) or a bare
 * TIFF stream, which gets the "Exif\0\0" marker in front. xmp_data/xmp_size
 * likewise replace its XMP packet. Replacement wins over stripping for the
 * primary image. rotation is clockwise degrees (0, 90, 180, 270) and replaces
 * the rotation of the primary image and of its thumbnails and auxiliary
 * images when TARN_EDIT_SET_ROTATION is set.
 *
 * message, when not NULL, receives a NUL-terminated text of at most
 * message_size bytes (truncated if longer): on failure the reason, naming the
 * item or box at fault; on success the items that were dropped under
 * TARN_EDIT_DROP_UNSUPPORTED, or the empty string. The pointers stay the
 * caller's and are only used during the call.
 */
typedef struct tarn_edit_options {
  uint32_t flags; /* TARN_EDIT_* bits */
  uint32_t rotation;
  const uint8_t *exif_data;
  uint32_t exif_size;
  const uint8_t *xmp_data;
  uint32_t xmp_size;
  char *message;
  uint32_t message_size;
} tarn_edit_options;

/*
 * Reads the file behind in (opened in TARND_READ_TOLERANT mode), applies
 * options and writes the result through out: open (mode 1), one write of the
 * whole file, close. The file is built completely in memory first, so on any
 * failure out is never opened and nothing partial is written.
 *
 * Carried unchanged: the primary image (single or grid, every tile's coded
 * bytes and decoder configuration), thumbnails, alpha, depth and HDR gain-map
 * auxiliary images, tone-map items, stereo pairs, ICC and nclx colour, light
 * levels, rotation, Exif and XMP, and which item is primary. What differs:
 * item ids are renumbered from 1 in the order images are written; boxes
 * follow the writer's layout (ftyp, mdat, meta); the brands are major "heic",
 * compatible "mif1", "miaf", "heic"; decoder configurations are rebuilt from
 * the same parameter sets (other NAL units stored with the configuration move
 * to the front of the coded data, so the decoded stream is the same); an
 * empty ICC profile is left out; a gain map is written under the writer's
 * gain-map type; an Exif block without the "Exif\0\0" marker gets it.
 *
 * Refused (TARN_EDIT_REFUSED): a primary image or anything an image depends
 * on that the writer cannot express (overlay, JPEG or unknown item types,
 * clean aperture, mirror or scaling transforms, grids whose tiles differ in
 * size or decoder configuration). Thumbnails, auxiliary images, image
 * sequence tracks and images that nothing depends on that cannot be carried
 * are refused too, unless TARN_EDIT_DROP_UNSUPPORTED (or the option that
 * drops their kind) is set.
 *
 * Returns TARN_EDIT_OK or one of the negative TARN_EDIT_* codes above.
 */
TARN_API int32_t tarn_edit(const tarnd_io_dsc *in, tarnm_output_dsc *out, const tarn_edit_options *options);

/*
 * Removes the GPS data from an Exif block in place (size bytes, either
 * "Exif\0\0" then TIFF, or bare TIFF; both byte orders): the GPS IFD pointer
 * entry leaves IFD0 (the following entries move up, the count drops by one,
 * the next-IFD offset is kept) and the GPS IFD with its out-of-line values is
 * zeroed; every other tag and offset stays valid. Returns 1 when GPS data was
 * removed, 0 when there was none, -1 when the TIFF structure is malformed
 * (the block is then unchanged). Never reads or writes outside data.
 */
TARN_API int32_t tarn_edit_strip_gps(uint8_t *data, uint32_t size);

#ifdef __cplusplus
}
#endif

#endif /* TARN_EDIT_H */
