// Generic binary search used by the reader's handler table and the writer's
// block lists.
#include "tarn/common.h"

extern "C" TARN_API void *tarn_bsearch(const void *base, int32_t count, size_t element_size,
                                       const void *key, tarn_compare_fn compare, void *user) {
  if (count < 1 || base == nullptr || compare == nullptr) return nullptr;
  const auto *first = static_cast<const unsigned char *>(base);
  int32_t lo = 0;
  int32_t hi = count - 1;
  while (lo <= hi) {
    // lo + (hi - lo) / 2 equals (lo + hi) / 2 for non-negative bounds and
    // cannot overflow near INT32_MAX.
    const int32_t mid = lo + (hi - lo) / 2;
    const void *element = first + static_cast<size_t>(mid) * element_size;
    const int32_t order = compare(key, element, user);
    if (order > 0) {
      lo = mid + 1;
    } else if (order < 0) {
      hi = mid - 1;
    } else {
      return const_cast<void *>(element);
    }
  }
  return nullptr;
}
