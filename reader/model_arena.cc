// The model's storage: every array the walk builds (items, properties,
// associations, reference lists, extents, parameter sets, profiles, idat,
// entity ids) is carved from a few blocks owned by the context, so that an
// open costs one or two calls to the allocator instead of one per array, and
// the close releases the model in one pass over the blocks.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "reader/internal.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TARN_MODEL_POISON 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) && !defined(TARN_MODEL_POISON)
#define TARN_MODEL_POISON 1
#endif
#if defined(TARN_MODEL_POISON)
#include <sanitizer/asan_interface.h>
#endif

namespace tarnd {

namespace {

// Pieces are aligned for any field of the model (64-bit counts, pointers).
constexpr size_t kAlign = 16;
// The context comes with a first block in the same allocation, which holds
// the model of most single images. The next block holds this many bytes per
// byte of the meta box (a model takes four to seven times its boxes in the
// corpus of real files), within these bounds; later blocks double, up to
// the largest regular block. A piece larger than the next block gets a
// block of its own.
constexpr size_t kContextBlock = 6144;
constexpr uint64_t kBytesPerMetaByte = 8;
constexpr size_t kMinFirstBlock = 1024;
constexpr size_t kMaxRegularBlock = 256 * 1024;
#if defined(TARN_MODEL_POISON)
// Sanitized builds keep poisoned bytes between pieces, so that a piece
// overrun is reported as it would be between two heap blocks.
constexpr size_t kRedZone = kAlign;
#else
constexpr size_t kRedZone = 0;
#endif

struct Block {
  Block *next;
  size_t size;  // bytes after the header
  size_t used;
};

constexpr size_t kHeaderSize = (sizeof(Block) + kAlign - 1) / kAlign * kAlign;
constexpr size_t kContextSize = (sizeof(tarnd_ctx) + kAlign - 1) / kAlign * kAlign;

uint8_t *block_data(Block *b) { return reinterpret_cast<uint8_t *>(b) + kHeaderSize; }

void init_block(Block *b, size_t size) {
  b->next = nullptr;
  b->size = size;
  b->used = 0;
#if defined(TARN_MODEL_POISON)
  ASAN_POISON_MEMORY_REGION(block_data(b), size);
#endif
}

Block *new_block(size_t size) {
  if (size > SIZE_MAX - kHeaderSize) return nullptr;
  Block *b = static_cast<Block *>(malloc(kHeaderSize + size));
  if (b != nullptr) init_block(b, size);
  return b;
}

Block *context_block(tarnd_ctx *ctx) {
  return reinterpret_cast<Block *>(reinterpret_cast<uint8_t *>(ctx) + kContextSize);
}

uint8_t *take(Block *b, size_t size, size_t rounded) {
  uint8_t *p = block_data(b) + b->used;
  b->used += rounded;
#if defined(TARN_MODEL_POISON)
  ASAN_UNPOISON_MEMORY_REGION(p, size);
#else
  (void)size;
#endif
  return p;
}

size_t first_block_size(uint64_t hint) {
  const uint64_t want = hint > kMaxRegularBlock / kBytesPerMetaByte ? kMaxRegularBlock : hint * kBytesPerMetaByte;
  return want < kMinFirstBlock ? kMinFirstBlock : static_cast<size_t>(want);
}

}  // namespace

bool g_model_block_per_piece = false;

void *model_alloc(tarnd_ctx *ctx, size_t size) {
  if (size > SIZE_MAX - 2 * kAlign - kRedZone) return nullptr;
  const size_t rounded = (size + kRedZone + kAlign - 1) / kAlign * kAlign + (size == 0 ? kAlign : 0);
  Block *head = static_cast<Block *>(ctx->model_blocks);
  const bool own_block = g_model_block_per_piece;
  if (head != nullptr && !own_block && head->size - head->used >= rounded) return take(head, size, rounded);

  size_t next = head == nullptr ? 0 : head->size * 2;
  if (next < first_block_size(ctx->model_hint)) next = first_block_size(ctx->model_hint);
  if (next > kMaxRegularBlock) next = kMaxRegularBlock;
  if (rounded > next || own_block) {
    // A block of its own, behind the head, which keeps serving small pieces.
    Block *own = new_block(rounded);
    if (own == nullptr) return nullptr;
    if (head == nullptr) {
      ctx->model_blocks = own;
    } else {
      own->next = head->next;
      head->next = own;
    }
    return take(own, size, rounded);
  }
  Block *b = new_block(next);
  if (b == nullptr) return nullptr;
  b->next = head;
  ctx->model_blocks = b;
  return take(b, size, rounded);
}

void *model_calloc(tarnd_ctx *ctx, size_t count, size_t size) {
  if (size != 0 && count > SIZE_MAX / size) return nullptr;
  void *p = model_alloc(ctx, count * size);
  if (p != nullptr) memset(p, 0, count * size);
  return p;
}

tarnd_ctx *model_create_context() {
  tarnd_ctx *ctx = static_cast<tarnd_ctx *>(malloc(kContextSize + kHeaderSize + kContextBlock));
  if (ctx == nullptr) return nullptr;
  memset(ctx, 0, sizeof(*ctx));
  init_block(context_block(ctx), kContextBlock);
  ctx->model_blocks = context_block(ctx);
  return ctx;
}

void model_release(tarnd_ctx *ctx) {
  Block *b = static_cast<Block *>(ctx->model_blocks);
  while (b != nullptr) {
    Block *next = b->next;
#if defined(TARN_MODEL_POISON)
    ASAN_UNPOISON_MEMORY_REGION(block_data(b), b->size);
#endif
    if (b != context_block(ctx)) free(b);
    b = next;
  }
  ctx->model_blocks = nullptr;
}

}  // namespace tarnd
