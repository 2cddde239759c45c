// Shared by the fuzz targets: every reader query on every item of an open
// file, so each target that produces a file also exercises the reader.
#ifndef TARN_FUZZ_COMMON_H
#define TARN_FUZZ_COMMON_H

#include <cstddef>
#include <cstdint>

namespace tarn_fuzz {

// Opens data from memory and runs every query on every item, extracting
// frames into buffers of several sizes. Never fails: it only exercises.
void exercise_reader(const uint8_t *data, size_t size);

}  // namespace tarn_fuzz

#endif  // TARN_FUZZ_COMMON_H
