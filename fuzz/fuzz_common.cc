#include "fuzz_common.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tarn/tarn.h"

namespace tarn_fuzz {

namespace {

// The memory source's read behind a callback of our own: the reader then
// takes every field through the callbacks instead of reading the block in
// place, and both ways must build the same model.
uint32_t (*g_memory_read)(void *, void *, uint32_t);
uint32_t relayed_read(void *handle, void *buffer, uint32_t count) {
  return g_memory_read(handle, buffer, count);
}

void compare_with_callbacks(const tarnd_io_dsc &memory, uint32_t mode, const tarnd_ctx *direct, int32_t direct_err) {
  tarnd_io_dsc io = memory;
  g_memory_read = memory.read;
  io.read = relayed_read;
  tarnd_file_info info{};
  int32_t err = 0;
  void *handle = tarnd_create_with_flags(&io, mode, &info, &err);
  const tarnd_ctx *ctx = static_cast<const tarnd_ctx *>(handle);
  const bool same_outcome = err == direct_err && (ctx == nullptr) == (direct == nullptr);
  if (!same_outcome || (ctx != nullptr && model_of(ctx) != model_of(direct))) abort();
  tarnd_delete(handle);
}

// Reads the last byte a query handed out, so that a block shorter than the
// size it came with shows under AddressSanitizer.
void touch_last(const uint8_t *data, uint64_t size) {
  if (data == nullptr || size == 0) return;
  volatile uint8_t sink = data[size - 1];
  (void)sink;
}

// Every answer the queries give, folded into one 64-bit FNV-1a digest: the
// replay of stored inputs compares it, so that any answer that changes on a
// hostile file shows, not only a crash.
struct Digest {
  uint64_t h = 14695981039346656037ull;
  void byte(uint8_t b) { h = (h ^ b) * 1099511628211ull; }
  void add(std::initializer_list<uint64_t> values) {
    for (uint64_t v : values)
      for (int i = 0; i < 8; ++i) byte(static_cast<uint8_t>(v >> (8 * i)));
  }
  void bytes(const uint8_t *p, uint64_t n) {
    add({n});
    for (uint64_t i = 0; p != nullptr && i < n; ++i) byte(p[i]);
  }
};
Digest g_digest;

// Opens the input in one reading mode and asks every query of every item.
// Returns whether it opened.
bool exercise_mode(const uint8_t *data, size_t size, uint32_t mode) {
  Digest *d = &g_digest;
  tarnd_io_dsc io;
  if (tarnd_io_init_memory(&io, data, size) != 0) return false;
  tarnd_file_info info{};
  int32_t err = 0;
  void *handle = tarnd_create_with_flags(&io, mode, &info, &err);
  compare_with_callbacks(io, mode, static_cast<const tarnd_ctx *>(handle), err);
  d->add({static_cast<uint32_t>(err), handle != nullptr});
  if (handle == nullptr) return false;
  const tarnd_ctx *ctx = static_cast<const tarnd_ctx *>(handle);
  const std::string model = model_of(ctx);
  d->bytes(reinterpret_cast<const uint8_t *>(model.data()), model.size());
  // Ids to ask about: every item, plus ids no item has.
  std::vector<uint32_t> ids = {0, 1, 0xFFFF, 0x10000, 0xFFFFFFFFu};
  for (uint32_t i = 0; i < ctx->meta.item_cnt && i < 4096; ++i) ids.push_back(ctx->meta.items[i].item_id);
  for (uint32_t id : ids) {
    const int32_t item = static_cast<int32_t>(id);
    for (uint32_t code = 0; code <= 8; ++code) {
      uint32_t out = 0;
      d->add({static_cast<uint32_t>(tarnd_get_image_id(handle, code, id, &out)), out});
    }
    tarnd_image_info image{};
    d->add({static_cast<uint32_t>(tarnd_get_info_image(handle, item, &image)), image.width, image.height,
            image.rotation, image.codec, image.tile_cnt, image.flags, static_cast<uint32_t>(image.crop.left),
            static_cast<uint32_t>(image.crop.top), static_cast<uint32_t>(image.crop.right),
            static_cast<uint32_t>(image.crop.bottom)});
    d->bytes(image.icc_data, image.icc_size);
    d->bytes(image.config_data, image.config_size);
    touch_last(image.config_data, image.config_size);
    tarnd_grid_info grid{};
    d->add({static_cast<uint32_t>(tarnd_get_info_item(handle, item, TARND_INFO_GRID, &grid)), grid.rows,
            grid.columns, grid.output_width, grid.output_height, grid.rotation});
    for (uint32_t kind : {1u, 2u, 3u, 4u, 5u, 6u}) {
      tarnd_item_data meta{nullptr, 0};
      const int32_t s = tarnd_get_info_item(handle, item, kind, &meta);
      d->add({static_cast<uint32_t>(s)});
      if (s == 0) {
        d->bytes(meta.data, meta.size);
        touch_last(meta.data, meta.size);
      }
    }
    uint32_t refs[8] = {};
    d->add({static_cast<uint32_t>(tarnd_get_list_referenceto(handle, item, refs, 8))});
    for (uint32_t r : refs) d->add({r});
    int32_t needed = 0;
    const int32_t measured = tarnd_get_image_frm(handle, item, nullptr, 0, &needed);
    d->add({static_cast<uint32_t>(measured), static_cast<uint32_t>(needed)});
    if (measured == 0 && needed > 0 && needed <= (16 << 20)) {
      for (int32_t cap : {needed, needed - 1, needed / 2, 4}) {
        if (cap <= 0) continue;
        std::vector<uint8_t> buf(static_cast<size_t>(cap));
        int32_t got = 0;
        const int32_t s = tarnd_get_image_frm(handle, item, buf.data(), cap, &got);
        d->add({static_cast<uint32_t>(s), static_cast<uint32_t>(got)});
        if (s == 0 && got > 0) d->bytes(buf.data(), static_cast<uint64_t>(got < cap ? got : cap));
      }
    }
  }
  tarnd_delete(handle);
  return true;
}

}  // namespace

std::string model_of(const tarnd_ctx *ctx) {
  std::string m;
  auto add = [&m](std::initializer_list<uint64_t> values) {
    for (uint64_t v : values) m += std::to_string(v) + ",";
  };
  const tarnd_meta &meta = ctx->meta;
  add({ctx->brand, ctx->mdat_offset, ctx->primary_item_id, meta.idat_size, meta.item_cnt, meta.property_cnt,
       meta.association_cnt, meta.group_cnt});
  for (uint32_t i = 0; i < meta.item_cnt; ++i) {
    const tarnd_item &it = meta.items[i];
    add({it.item_id, it.item_type, it.offset, it.length, it.flags, it.referece_from_cnt});
  }
  for (uint32_t i = 0; i < meta.property_cnt; ++i) add({meta.properties[i].type});
  return m;
}

void exercise_reader(const uint8_t *data, size_t size) {
  // Both modes must stay safe on any input. Whether tolerant reading opens
  // every damaged file that strict reading opens is not asked here: a
  // mangled box that one mode reads further than the other can still tip
  // either way, and the fuzzer is for crashes, leaks and overreads.
  exercise_mode(data, size, TARND_READ_STRICT);
  exercise_mode(data, size, TARND_READ_TOLERANT);
}

void note(uint64_t value) { g_digest.add({value}); }
void note_bytes(const uint8_t *data, uint64_t size) { g_digest.bytes(data, size); }
// The replay folds every log line in too: a changed message or level is a
// changed answer.
void fold_log(int priority, const char *tag, const char *message, void *) {
  g_digest.add({static_cast<uint32_t>(priority)});
  g_digest.bytes(reinterpret_cast<const uint8_t *>(tag), std::strlen(tag));
  g_digest.bytes(reinterpret_cast<const uint8_t *>(message), std::strlen(message));
}

void reset_digest() {
  g_digest = Digest();
  tarn_log_set_sink(fold_log, nullptr);
}
uint64_t digest() { return g_digest.h; }

}  // namespace tarn_fuzz
