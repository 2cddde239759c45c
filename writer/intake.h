// Internals shared by image registration, intake and finalisation: the chunk
// writer and the bookkeeping that ties grid descriptors to their idat pieces
// and location entries.
#ifndef TARN_WRITER_INTAKE_H
#define TARN_WRITER_INTAKE_H

#include <stdint.h>

#include "writer/internal.h"

// Largest frame or metadata block taken in one call: the heap is addressed
// with signed 32-bit counts.
#define TARNM_MAX_CHUNK_SIZE 0x7FFFFFFFu

// Appends size bytes at the output cursor, unchanged when raw is non-zero,
// else turning every 4-byte start code into the big-endian length of the
// NAL unit behind it. Grows the heap once when it is short (not a delivered
// buffer). 0; -1 null state or data, size below 1; -4 no room; -5 growth
// failed for lack of memory.
int32_t tarn_chunk_dump(tarnm_state *state, const uint8_t *data, int32_t size, int32_t raw);

// Makes room for size more bytes as tarn_chunk_dump would, without writing:
// 0, -4 (logged with the given operation name) or -5.
int32_t tarnm_reserve(tarnm_state *state, uint32_t size, const char *name);

// Appends one location entry with a single extent. 0, or -5.
int32_t tarnm_add_iloc_entry(tarnm_state *state, uint32_t item_id, uint16_t method,
                             uint32_t offset, uint32_t length);

// True when a location entry for item_id exists.
bool tarnm_has_iloc_entry(tarnm_state *state, uint32_t item_id);

// Offset within idat of the item_data piece at index: the idat bytes of the
// pieces before it, which is where the idat writer places it.
uint32_t tarnm_idat_offset_of(const tarnm_state *state, int32_t index);

// Records the idat location of the grid whose descriptor is item_data piece
// index. 0, or -5.
int32_t tarnm_add_grid_location(tarnm_state *state, int32_t index);

#endif  // TARN_WRITER_INTAKE_H
