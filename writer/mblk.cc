// Block lists: the writer collects the elements of its boxes here until the
// meta box is written. Elements sit back to back in fixed blocks so that an
// element never moves once added and a list is copied out with one copy per
// block.
#include <stdlib.h>
#include <string.h>

#include "common/log.h"
#include "writer/internal.h"

struct tarn_mblk_block {
  tarn_mblk_block *next;
  tarn_mblk_block *prev;
  uint32_t count;  // elements in this block
  uint32_t used;   // payload bytes used (sized adds only)
  uint8_t payload[TARN_MBLK_PAYLOAD_SIZE];
};

static const char kTag[] = "tarn_mblk";

static uint32_t per_block(const tarn_mblk *list) {
  return TARN_MBLK_PAYLOAD_SIZE / list->elem_size;
}

// Allocates an empty block and links it behind the list's last one.
static tarn_mblk_block *append_block(tarn_mblk *list) {
  tarn_mblk_block *block = static_cast<tarn_mblk_block *>(malloc(sizeof(tarn_mblk_block)));
  if (!block) return nullptr;
  block->next = nullptr;
  block->prev = list->last;
  block->count = 0;
  block->used = 0;
  if (list->last)
    list->last->next = block;
  else
    list->first = block;
  list->last = block;
  list->block_count++;
  return block;
}

int32_t meta_compare(const void *key, const void *entry, void *user) {
  const uint32_t k = *static_cast<const uint32_t *>(key);
  const tarn_mblk_meta *e = static_cast<const tarn_mblk_meta *>(entry);
  const tarn_mblk *list = static_cast<const tarn_mblk *>(user);
  if (k < e->key) return -1;
  if (k == e->key || e->block == list->last) return 0;
  // Not the last block, so the entry after it belongs to the same index.
  return k < e[1].key ? 0 : 1;
}

extern "C" {

int32_t tarn_mblk_ctor(tarn_mblk *list, uint32_t elem_size) {
  if (!list) return -1;
  memset(list, 0, sizeof *list);
  // A fixed-size block must hold at least one element.
  if (elem_size == 0 || elem_size > TARN_MBLK_PAYLOAD_SIZE) return -1;
  list->elem_size = elem_size;
  return 0;
}

void tarn_mblk_dtor(tarn_mblk *list) {
  if (!list) return;
  tarn_mblk_block *block = list->first;
  while (block) {
    tarn_mblk_block *next = block->next;
    free(block);
    block = next;
  }
  free(list->meta_array);
  memset(list, 0, sizeof *list);
}

int32_t tarn_mblk_elem_add(tarn_mblk *list, const void *elem) {
  if (!list || !elem || list->elem_size == 0) return -1;
  tarn_mblk_block *block = list->last;
  if (!block || block->count >= per_block(list)) {
    block = append_block(list);
    if (!block) {
      TARN_LOGW(kTag, "failed alloc mblk");
      return -1;
    }
  }
  memcpy(block->payload + static_cast<size_t>(block->count) * list->elem_size, elem,
         list->elem_size);
  block->count++;
  list->elem_count++;
  return 0;
}

int32_t tarn_mblk_elem_add_with_size(tarn_mblk *list, const void *elem, int32_t size) {
  if (!list || size < 0 || size > TARN_MBLK_PAYLOAD_SIZE) return -1;
  if (size > 0 && !elem) return -1;
  const uint32_t len = static_cast<uint32_t>(size);
  tarn_mblk_block *block = list->last;
  if (!block || len > TARN_MBLK_PAYLOAD_SIZE - block->used) {
    block = append_block(list);
    if (!block) {
      TARN_LOGW(kTag, "failed to alloc mblk. block size : %d", size);
      return -1;
    }
  }
  if (len) memcpy(block->payload + block->used, elem, len);
  block->used += len;
  block->count++;
  list->elem_count++;
  return 0;
}

int32_t tarn_mblk_upd_meta(tarn_mblk *list, tarn_mblk_key_fn key_fn) {
  if (!list || !key_fn) return -1;
  if (list->meta_array) {
    TARN_LOGW(kTag, "[index] err: meta_array index already built!");
    return -1;
  }
  if (list->block_count < 2) return 0;
  tarn_mblk_meta *index =
      static_cast<tarn_mblk_meta *>(calloc(list->block_count, sizeof(tarn_mblk_meta)));
  if (!index) {
    TARN_LOGW(kTag, "failed to alloc meta_array");
    return -1;
  }
  uint32_t i = 0;
  for (tarn_mblk_block *b = list->first; b && i < list->block_count; b = b->next, ++i) {
    index[i].block = b;
    index[i].key = key_fn(b->payload);
  }
  list->meta_array = index;
  return 0;
}

void *tarn_mblk_elem_find(tarn_mblk *list, uint32_t key, tarn_compare_fn compare) {
  if (!list || !compare || list->elem_count == 0 || list->elem_size == 0) return nullptr;
  tarn_mblk_block *block = list->first;
  if (list->block_count >= 2 && list->meta_array) {
    if (list->block_count > INT32_MAX) return nullptr;
    const tarn_mblk_meta *entry = static_cast<const tarn_mblk_meta *>(
        tarn_bsearch(list->meta_array, static_cast<int32_t>(list->block_count),
                     sizeof(tarn_mblk_meta), &key, meta_compare, list));
    if (!entry) return nullptr;
    block = entry->block;
  }
  if (!block) return nullptr;
  return tarn_bsearch(block->payload, static_cast<int32_t>(block->count), list->elem_size, &key,
                      compare, block);
}

void *tarn_mblk_elem_first(tarn_mblk *list, tarn_mblk_iter *it) {
  if (!list || !it || list->elem_count == 0) return nullptr;
  if (!list->first) {
    TARN_LOGW(kTag, "first mblk is NULL");
    return nullptr;
  }
  if (list->first->count == 0) return nullptr;
  it->block = list->first;
  it->index = 0;
  it->elem = list->first->payload;
  return it->elem;
}

void *tarn_mblk_elem_next(tarn_mblk *list, tarn_mblk_iter *it) {
  if (!list || !it || !it->block) return nullptr;
  it->index++;
  if (it->index >= it->block->count) {
    it->block = it->block->next;
    it->index = 0;
    // A block only exists once it holds an element, so a next block is
    // never empty.
    if (!it->block) {
      it->elem = nullptr;
      return nullptr;
    }
  }
  it->elem = it->block->payload + static_cast<size_t>(it->index) * list->elem_size;
  return it->elem;
}

void tarn_mblk_elem_last(tarn_mblk *list, tarn_mblk_iter *it) {
  if (!it) return;
  if (!list || list->elem_count == 0 || !list->last || list->last->count == 0) {
    it->block = nullptr;
    it->index = 0;
    it->elem = nullptr;
    return;
  }
  it->block = list->last;
  it->index = list->last->count - 1;
  it->elem = list->last->payload + static_cast<size_t>(it->index) * list->elem_size;
}

void *tarn_mblk_elem_prev(tarn_mblk *list, tarn_mblk_iter *it) {
  if (!list || !it || !it->block) return nullptr;
  tarn_mblk_block *block = it->block;
  uint32_t index = it->index;
  if (index == 0) {
    // Before the first element: no result, the iterator stays put.
    if (!block->prev) return nullptr;
    block = block->prev;
    index = block->count;
    if (index == 0) return nullptr;
  }
  index--;
  it->block = block;
  it->index = index;
  it->elem = block->payload + static_cast<size_t>(index) * list->elem_size;
  return it->elem;
}

// Copies one block's bytes to the output cursor; false when they do not fit.
static bool copy_out(tarnm_state *state, const uint8_t *src, uint32_t len) {
  if (state->remaining < 0 || len > static_cast<uint32_t>(state->remaining)) return false;
  if (len) memcpy(state->write_ptr, src, len);
  state->write_ptr += len;
  state->remaining -= static_cast<int32_t>(len);
  return true;
}

int32_t tarn_mblk_dump(tarn_mblk *list, tarnm_state *state) {
  if (!list || !state) return -1;
  int32_t copied = 0;
  for (tarn_mblk_block *b = list->first; b; b = b->next) {
    // count <= 4080 / elem_size, so the product stays within a block.
    if (!copy_out(state, b->payload, b->count * list->elem_size)) return -4;
    copied += static_cast<int32_t>(b->count);
  }
  return copied;
}

int32_t tarn_mblk_dump_size(tarn_mblk *list, tarnm_state *state) {
  if (!list || !state) return -1;
  for (tarn_mblk_block *b = list->first; b; b = b->next)
    if (!copy_out(state, b->payload, b->used)) return -4;
  return static_cast<int32_t>(list->elem_count);
}

uint64_t tarn_mblk_datasize(const tarn_mblk *list) {
  if (!list) return 0;
  return static_cast<uint64_t>(list->elem_count) * list->elem_size;
}

uint64_t tarn_mblk_total_datasize(const tarn_mblk *list) {
  if (!list) return 0;
  uint64_t total = 0;
  for (const tarn_mblk_block *b = list->first; b; b = b->next) total += b->used;
  return total;
}

}  // extern "C"
