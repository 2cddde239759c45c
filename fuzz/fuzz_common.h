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
// Every answer of both reading modes goes into the digest below.
void exercise_reader(const uint8_t *data, size_t size);

// A running digest of what the library answered for one input: the replay
// of stored inputs compares it with the digest stored for that input, so
// that a changed answer fails as a crash would.
void note(uint64_t value);
void note_bytes(const uint8_t *data, uint64_t size);
void reset_digest();  // also folds the library's log lines in from now on
uint64_t digest();

// The model an open built, as text: counts, primary, the items' locations,
// flags and references, the property types.
std::string model_of(const tarnd_ctx *ctx);

}  // namespace tarn_fuzz

#endif  // TARN_FUZZ_COMMON_H
