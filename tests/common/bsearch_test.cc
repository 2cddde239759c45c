// Binary search: the corners that its callers never reach.
#include <gtest/gtest.h>

#include <cstring>

#include "tarn/common.h"

namespace {

// Keys in sorted tables are found through the handler table and the block
// lists in every reader and writer test.
constexpr size_t kSize = 7;
int g_calls = 0;

int32_t compare_key(const void *key, const void *element, void *) {
  ++g_calls;
  uint32_t e;
  std::memcpy(&e, element, 4);
  const uint32_t k = *static_cast<const uint32_t *>(key);
  return k > e ? 1 : (k < e ? -1 : 0);
}

TEST(BSearch, EmptyOrNegativeCountNeverCallsCompare) {
  const uint8_t row[kSize] = {1};
  const uint32_t key = 1;
  for (int32_t count : {0, -1, INT32_MIN}) {
    g_calls = 0;
    EXPECT_EQ(tarn_bsearch(row, count, kSize, &key, compare_key, nullptr), nullptr);
    EXPECT_EQ(g_calls, 0);
  }
  EXPECT_EQ(tarn_bsearch(row, 1, kSize, &key, nullptr, nullptr), nullptr);
}

// A count near INT32_MAX: the middle index must not overflow. The elements
// are never read; their index is their distance from the base.
TEST(BSearch, IndexArithmeticNearInt32Max) {
  static const uint8_t base[1] = {};
  auto by_index = [](const void *key, const void *element, void *user) -> int32_t {
    const uintptr_t index = uintptr_t(element) - uintptr_t(user);
    const uintptr_t k = *static_cast<const uintptr_t *>(key);
    return k > index ? 1 : (k < index ? -1 : 0);
  };
  for (uintptr_t key : {uintptr_t(0), uintptr_t(INT32_MAX - 2), uintptr_t(INT32_MAX - 1)}) {
    const void *hit = tarn_bsearch(base, INT32_MAX, 1, &key, by_index, const_cast<uint8_t *>(base));
    EXPECT_EQ(uintptr_t(hit) - uintptr_t(base), key);
  }
}

}  // namespace
