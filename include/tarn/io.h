/*
 * libtarn: ready-made input sources for the reader and file output for the
 * writer, so that callers need not write callbacks of their own.
 */
#ifndef TARN_IO_H
#define TARN_IO_H

#include "tarn/reader.h"
#include "tarn/writer.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- reader input sources ---- */

/*
 * Fills io with callbacks that read from a caller-owned memory block of size
 * bytes (no copy; the block must outlive the reader handle). Returns 0, or
 * -1 when io is NULL or data is NULL with a non-zero size. Seeks beyond the
 * end and skips that would pass it are refused.
 */
TARN_API int32_t tarnd_io_init_memory(tarnd_io_dsc *io, const void *data, size_t size);

/*
 * Fills io with callbacks that read the file at path through buffered stdio
 * with 64-bit offsets. The path is not copied: it must stay valid until
 * tarnd_create has returned. Returns 0, or -1 when io or path is NULL. Seeks
 * beyond the end and skips that would pass it are refused, as for memory.
 */
TARN_API int32_t tarnd_io_init_file(tarnd_io_dsc *io, const char *path);

/* ---- writer file output ---- */

/*
 * File output for tarnm_dump_image_to_file through buffered stdio. Its first
 * member is the descriptor, so &out->dsc (or the record itself, cast) is what
 * tarnm_dump_image_to_file takes. path is not copied: it must stay valid
 * until the dump has returned. file is the open stream while a dump runs;
 * failed is set to 1 when a write or the final close/flush of the file fails.
 */
typedef struct tarnm_file_output {
  tarnm_output_dsc dsc;
  const char *path;
  void *file;
  int32_t failed;
} tarnm_file_output;

/*
 * Fills out so that dumping through out->dsc creates (or truncates) the file
 * at path and writes the image to it; nothing is opened yet. Returns 0, or -1
 * when out or path is NULL or path is empty. A write reports the bytes that
 * reached the file, so a full disk makes the dump fail with -6.
 */
TARN_API int32_t tarnm_output_init_file(tarnm_file_output *out, const char *path);

#ifdef __cplusplus
}
#endif

#endif /* TARN_IO_H */
