/* libtarn: writer interface. */
#ifndef TARN_WRITER_H
#define TARN_WRITER_H

#include "tarn/common.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- block lists, context, buffers and output ---- */

/* ---- element builders, payloads and box tree ---- */

/* ---- hvcC, SPS decoder, image registration, intake, finalisation ---- */

#ifdef __cplusplus
}
#endif

#endif /* TARN_WRITER_H */
