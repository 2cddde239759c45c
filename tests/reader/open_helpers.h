// Helpers shared by the reader's model tests: open a byte vector or a path
// and release the handle automatically.
#ifndef TARN_TESTS_READER_OPEN_HELPERS_H
#define TARN_TESTS_READER_OPEN_HELPERS_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tarn/io.h"
#include "tarn/reader.h"

namespace tarn_test {

struct CtxDeleter {
  void operator()(tarnd_ctx *ctx) const { tarnd_delete(ctx); }
};
using CtxPtr = std::unique_ptr<tarnd_ctx, CtxDeleter>;

inline CtxPtr open_memory(const std::vector<uint8_t> &bytes, int32_t *err) {
  tarnd_io_dsc io;
  tarnd_io_init_memory(&io, bytes.data(), bytes.size());
  tarnd_file_info info;
  return CtxPtr(static_cast<tarnd_ctx *>(tarnd_create(&io, 0, &info, err)));
}

inline CtxPtr open_path(const std::string &path, int32_t *err) {
  tarnd_io_dsc io;
  tarnd_io_init_file(&io, path.c_str());
  tarnd_file_info info;
  return CtxPtr(static_cast<tarnd_ctx *>(tarnd_create(&io, 0, &info, err)));
}

inline uint32_t fcc(const std::string &s) {
  uint32_t v = 0;
  for (size_t i = 0; i < 4 && i < s.size(); ++i)
    v |= static_cast<uint32_t>(static_cast<uint8_t>(s[i])) << (8 * i);
  return v;
}

inline const tarnd_item *find_item(const tarnd_ctx *ctx, uint32_t id) {
  uint32_t slot;
  if (tarnd_find_itemIndex(ctx->meta.items, ctx->meta.item_cnt, id, &slot) != 0) return nullptr;
  return &ctx->meta.items[slot];
}

}  // namespace tarn_test

#endif  // TARN_TESTS_READER_OPEN_HELPERS_H
