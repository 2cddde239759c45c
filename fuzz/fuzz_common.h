// Shared by the fuzz targets: every reader query on every item of an open
// file, so each target that produces a file also exercises the reader.
#ifndef TARN_FUZZ_COMMON_H
#define TARN_FUZZ_COMMON_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "tarn/reader.h"

namespace tarn_fuzz {

// Opens data from memory and runs every query on every item, extracting
// frames into buffers of several sizes. Aborts only when the model built by
// reading fields in place differs from the one built through callbacks.
void exercise_reader(const uint8_t *data, size_t size);

// The model an open built, as text: counts, primary, the items' locations,
// flags and references, the property types.
std::string model_of(const tarnd_ctx *ctx);

}  // namespace tarn_fuzz

#endif  // TARN_FUZZ_COMMON_H
