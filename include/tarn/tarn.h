/*
 * libtarn: reads and writes HEIF/HEIC files without decoding a pixel.
 * This umbrella header brings in the whole public C interface.
 */
#ifndef TARN_TARN_H
#define TARN_TARN_H

#include "tarn/common.h"
#include "tarn/log.h"
#include "tarn/utils.h"
#include "tarn/reader.h"
#include "tarn/writer.h"
#include "tarn/io.h"
#include "tarn/edit.h"

#endif /* TARN_TARN_H */
