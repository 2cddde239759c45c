/* libtarn: reader interface. */
#ifndef TARN_READER_H
#define TARN_READER_H

#include "tarn/common.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- context, model and walker ---- */

/* ---- queries: images, items, frames, references ---- */

/* ---- rational arithmetic and clean-aperture crop ---- */

#ifdef __cplusplus
}
#endif

#endif /* TARN_READER_H */
