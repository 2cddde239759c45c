// In-place big-endian conversions. The buffers come straight from file data,
// so nothing here assumes alignment: values are moved through memcpy, which
// the compiler turns into plain loads and byte-swap instructions.
#include <cstring>

#include "tarn/common.h"

namespace {

template <typename T>
inline T load(const unsigned char *p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

template <typename T>
inline void store(unsigned char *p, T v) {
  std::memcpy(p, &v, sizeof v);
}

inline void swap_bytes(unsigned char *a, unsigned char *b) {
  const unsigned char t = *a;
  *a = *b;
  *b = t;
}

}  // namespace

extern "C" {

TARN_API const char *tarn_version(void) { return "0.1.0"; }

TARN_API void tarn_conv_u16(void *buf) {
  auto *p = static_cast<unsigned char *>(buf);
  store(p, __builtin_bswap16(load<uint16_t>(p)));
}

TARN_API void tarn_conv_u32(void *buf) {
  auto *p = static_cast<unsigned char *>(buf);
  store(p, __builtin_bswap32(load<uint32_t>(p)));
}

TARN_API void tarn_conv_u64(void *buf) {
  auto *p = static_cast<unsigned char *>(buf);
  store(p, __builtin_bswap64(load<uint64_t>(p)));
}

TARN_API void tarn_conv_u32_with_i(void *buf, int32_t n) {
  if (n < 2 || n > 4) return;
  tarn_conv_reverse(buf, n);
}

TARN_API void tarn_conv_buf_u16(void *buf, size_t count) {
  auto *p = static_cast<unsigned char *>(buf);
  for (size_t i = 0; i < count; ++i, p += 2) store(p, __builtin_bswap16(load<uint16_t>(p)));
}

TARN_API void tarn_conv_buf_u32(void *buf, size_t count) {
  auto *p = static_cast<unsigned char *>(buf);
  for (size_t i = 0; i < count; ++i, p += 4) store(p, __builtin_bswap32(load<uint32_t>(p)));
}

TARN_API void tarn_conv_buf_u64(void *buf, size_t count) {
  auto *p = static_cast<unsigned char *>(buf);
  for (size_t i = 0; i < count; ++i, p += 8) store(p, __builtin_bswap64(load<uint64_t>(p)));
}

TARN_API void tarn_conv_reverse(void *buf, int32_t n) {
  if (n < 2) return;
  auto *lo = static_cast<unsigned char *>(buf);
  unsigned char *hi = lo + n - 1;
  while (lo < hi) swap_bytes(lo++, hi--);
}

TARN_API void tarn_conv_int(void *buf, int32_t n) {
  // Callers never pass more than 8; a larger n is treated like a short one
  // rather than overrunning the 8-byte work area.
  if (n < 2 || n > 8) return;
  unsigned char tmp[8] = {0};
  std::memcpy(tmp, buf, static_cast<size_t>(n));
  tarn_conv_reverse(tmp, n);
  std::memcpy(buf, tmp, static_cast<size_t>(n));
}

}  // extern "C"
