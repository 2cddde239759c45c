// Writer context: the image heap that holds the output file from its first
// byte, its growth or replacement by a caller's buffer, and the operations
// that hand the finished file out. Every position the writer keeps is an
// offset from the heap base, so moving the heap fixes nothing up.
#include <stdlib.h>
#include <string.h>

#include "common/log.h"
#include "writer/internal.h"

static const char kTag[] = "tarnm";
static const char kUtilTag[] = "tarnm_util";

// The first growth from the initial heap halves estimates of at least twice
// (initial size + 1): a big estimate is a bound, not a need.
static const uint32_t kHalveThreshold = 2u * (TARNM_INIT_HEAP_SIZE + 1u);

static const uint32_t kMdatHeaderSize = 8;

// Lists in construction order with their element sizes.
struct ListDef {
  tarn_mblk tarnm_state::*list;
  uint32_t elem_size;
};
static const ListDef kLists[] = {
    {&tarnm_state::iref_list, TARNM_IREF_ELEM_SIZE},
    {&tarnm_state::ipco_list, TARNM_IPCO_ELEM_SIZE},
    {&tarnm_state::iloc_list, TARNM_ILOC_ELEM_SIZE},
    {&tarnm_state::infe_list, TARNM_INFE_ELEM_SIZE},
    {&tarnm_state::ipma_list, TARNM_IPMA_ELEM_SIZE},
    {&tarnm_state::grpl_list, TARNM_GRPL_ELEM_SIZE},
};

// The heap is taken uncleared. Every byte below write_ptr is written before
// anything reads it or hands it out (the box writers and the frame copy
// write whole fields, the mdat size included), and nothing reads past
// write_ptr, so clearing would only touch every page one more time: once the
// C library keeps a block this large in its arena instead of asking the
// system for fresh zero pages, a cleared heap costs as long as copying the
// frames of a camera photo.
static uint8_t *heap_alloc(uint32_t size) { return static_cast<uint8_t *>(malloc(size)); }

static uint32_t used_bytes(const tarnm_state *state) {
  return state->heap_size - static_cast<uint32_t>(state->remaining);
}

// Frees everything the state owns except a delivered heap. The caller clears
// the context, state included, before freeing it.
static void release_state(tarnm_state *state) {
  for (const ListDef &def : kLists) tarn_mblk_dtor(&(state->*def.list));
  if (!state->delivered_buffer) free(state->heap);
  for (int32_t i = 0; i < state->item_data_count; ++i)
    free(state->item_data[i].data);
  for (int32_t i = 0; i < state->metadata_count; ++i)
    free(state->metadata[i].data);
  for (int32_t i = 0; i < state->hvcc_count; ++i)
    free(state->hvcc_props[i].data);
  for (int32_t i = 0; i < state->colr_count; ++i)
    free(state->colr_props[i].data);
}

tarnm_state *tarnm_checked_state(tarnm_ctx *handle) {
  if (!handle || handle->magic != TARNM_MAGIC) return nullptr;
  return &handle->state;
}

extern "C" {

tarnm_ctx *tarnm_create(const tarnm_init_dsc *init_dsc, int32_t *err) {
  tarnm_ctx *ctx = nullptr;
  bool ok = false;
  do {
    if (!init_dsc) break;
    ctx = static_cast<tarnm_ctx *>(calloc(1, sizeof(tarnm_ctx)));
    if (!ctx) {
      TARN_LOGW(kTag, "failed to alloc ctx");
      break;
    }
    tarnm_state *state = &ctx->state;
    state->heap = heap_alloc(TARNM_INIT_HEAP_SIZE);
    if (!state->heap) {
      TARN_LOGW(kTag, "failed to alloc image heap");
      break;
    }
    state->heap_size = TARNM_INIT_HEAP_SIZE;
    state->remaining = static_cast<int32_t>(TARNM_INIT_HEAP_SIZE);
    state->write_ptr = state->heap;
    bool lists_ok = true;
    for (const ListDef &def : kLists)
      if (tarn_mblk_ctor(&(state->*def.list), def.elem_size) != 0) lists_ok = false;
    if (!lists_ok) break;
    ctx->magic = TARNM_MAGIC;
    ctx->self = ctx;
    if (tarnm_atom_ftyp(state, init_dsc) != 0) break;
    state->mdat_offset = used_bytes(state);
    if (state->remaining < static_cast<int32_t>(kMdatHeaderSize)) break;
    // Size 0 until finalisation patches it, then the type.
    memset(state->write_ptr, 0, 4);
    memcpy(state->write_ptr + 4, "mdat", 4);
    state->write_ptr += kMdatHeaderSize;
    state->remaining -= static_cast<int32_t>(kMdatHeaderSize);
    ok = true;
  } while (false);

  if (ok) {
    if (err) *err = 0;
    return ctx;
  }
  TARN_LOGE(kTag, "tarnm_create() failed");
  if (err) *err = -2;
  if (ctx) {
    release_state(&ctx->state);
    memset(ctx, 0, sizeof *ctx);
    free(ctx);
  }
  return nullptr;
}

void tarnm_delete(tarnm_ctx *handle) {
  tarnm_state *state = tarnm_checked_state(handle);
  if (!state) return;
  release_state(state);
  memset(handle, 0, sizeof *handle);
  free(handle);
}

int32_t tarnm_use_delivered_memory_buffer(tarnm_ctx *handle, uint8_t *buffer, int32_t size) {
  static const char kName[] = "tarnm_use_delivered_memory_buffer";
  if (!buffer) {
    TARN_LOGW(kTag, "%s : buffer is NULL", kName);
    return -1;
  }
  if (size < 1) {
    TARN_LOGW(kTag, "%s : buffer size is abnormal(%d)", kName, size);
    return -1;
  }
  tarnm_state *state = tarnm_checked_state(handle);
  if (!state) return -1;
  const uint32_t used = used_bytes(state);
  if (static_cast<uint32_t>(size) < used) {
    TARN_LOGW(kTag, "%s : buffer size is insufficient. buffer size : %d, required size : %d",
              kName, size, static_cast<int32_t>(used));
    return -4;
  }
  if (!state->heap) {
    TARN_LOGW(kTag, "previous image buffer is NULL");
    return -1;
  }
  // The caller may hand over the buffer it already gave (nothing to move).
  if (buffer != state->heap) memmove(buffer, state->heap, used);
  if (!state->delivered_buffer && buffer != state->heap) free(state->heap);
  state->heap = buffer;
  state->heap_size = static_cast<uint32_t>(size);
  state->write_ptr = buffer + used;
  state->remaining = size - static_cast<int32_t>(used);
  state->delivered_buffer = 1;
  return 0;
}

int32_t tarnm_get_outputbuffer_size(tarnm_ctx *handle) {
  tarnm_state *state = tarnm_checked_state(handle);
  if (!state) return -1;
  return static_cast<int32_t>(used_bytes(state));
}

int32_t tarnm_dump_image_to_outputbuffer(tarnm_ctx *handle, uint8_t *out) {
  tarnm_state *state = tarnm_checked_state(handle);
  if (!state || !out) return -1;
  const uint32_t used = used_bytes(state);
  if (used) memcpy(out, state->heap, used);
  return 0;
}

int32_t tarnm_dump_image_to_file(tarnm_ctx *handle, tarnm_output_dsc *output_dsc) {
  tarnm_state *state = tarnm_checked_state(handle);
  if (!state) return -1;
  if (output_dsc && output_dsc->open && output_dsc->write) {
    void *file = output_dsc->open(output_dsc, 1);
    if (!file) {
      TARN_LOGW(kTag, "failed to open output file");
    } else {
      const size_t size = static_cast<size_t>(state->write_ptr - state->heap);
      const size_t written = output_dsc->write(file, state->heap, size);
      if (output_dsc->close) output_dsc->close(file);
      if (written == size) return 0;
    }
  }
  TARN_LOGE(kTag, "failed to write file properly!");
  return -6;
}

int32_t tarnm_alloc_additional_buffer(tarnm_state *state, uint32_t new_size) {
  if (!state) return -1;
  const uint32_t used = used_bytes(state);
  if (new_size < used) return -1;
  // remaining is a signed 32-bit count, so the heap stays below 2 GiB.
  uint8_t *heap = nullptr;
  if (new_size <= static_cast<uint32_t>(INT32_MAX))
    heap = heap_alloc(new_size);
  if (!heap) {
    TARN_LOGW(kUtilTag, "failed to alloc additional buffer. image buffer size : %u", new_size);
    TARN_LOGW(kUtilTag, "tarnm_reallocate_buffer() failed");
    return -5;
  }
  if (used) memcpy(heap, state->heap, used);
  if (!state->delivered_buffer) free(state->heap);
  state->delivered_buffer = 0;
  state->heap = heap;
  state->heap_size = new_size;
  state->write_ptr = heap + used;
  state->remaining = static_cast<int32_t>(new_size - used);
  return 0;
}

int32_t tarnm_reallocate_image_buffer(tarnm_state *state) {
  if (!state) return -1;
  // A caller's buffer never grows: the write that does not fit fails.
  if (state->delivered_buffer) return -4;
  TARN_LOGI(kUtilTag,
            "image buffer size is small. reallocate image buffer, caculated max_image_size = %d",
            static_cast<int32_t>(state->max_image_size));
  const uint64_t capacity =
      static_cast<uint64_t>(state->write_ptr - state->heap) + static_cast<uint64_t>(state->remaining);
  const uint32_t estimate = state->max_image_size;
  uint32_t new_size = 0;
  if (capacity == TARNM_INIT_HEAP_SIZE) {
    if (estimate >= kHalveThreshold)
      new_size = estimate >> 1;
    else if (estimate > TARNM_INIT_HEAP_SIZE)
      new_size = estimate;
  } else if (estimate > capacity) {
    new_size = estimate;
  }
  if (new_size == 0) {
    TARN_LOGW(kUtilTag, "input image frames are too big. max_image_size = %u", estimate);
    return -4;
  }
  return tarnm_alloc_additional_buffer(state, new_size) == 0 ? 0 : -5;
}

}  // extern "C"
