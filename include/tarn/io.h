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

/* ---- writer file output ---- */

#ifdef __cplusplus
}
#endif

#endif /* TARN_IO_H */
