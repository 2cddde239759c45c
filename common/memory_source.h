// The library's own memory source, shared with the reader so that box
// fields of a file held in memory are read in place: the same bytes and the
// same position as through the callbacks, without one indirect call per
// field. Nothing here is exported.
#ifndef TARN_COMMON_MEMORY_SOURCE_H
#define TARN_COMMON_MEMORY_SOURCE_H

#include <stdint.h>

#include "tarn/reader.h"

namespace tarn {

struct MemorySource {
  const uint8_t *data;
  uint64_t size;
  uint64_t pos;
};

void *memory_open(const tarnd_io_dsc *io, int32_t mode);
uint32_t memory_read(void *handle, void *buffer, uint32_t count);

// The handle as a memory source when io is the library's own memory source,
// else null. Both callbacks are compared: a caller that mixes its own open
// with our read gets the callbacks.
inline MemorySource *as_memory_source(const tarnd_io_dsc *io, void *handle) {
  return io->read == memory_read && io->open == memory_open ? static_cast<MemorySource *>(handle)
                                                            : nullptr;
}

}  // namespace tarn

#endif  // TARN_COMMON_MEMORY_SOURCE_H
