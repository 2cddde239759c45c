// Binary search as the handler table and the block lists use it.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "tarn/common.h"

namespace {

constexpr size_t kSize = 7;  // odd element size at an odd address: steps by element_size only
int g_calls = 0;

int32_t compare_key(const void *key, const void *element, void *) {
  ++g_calls;
  uint32_t e;
  std::memcpy(&e, element, 4);
  const uint32_t k = *static_cast<const uint32_t *>(key);
  return k > e ? 1 : (k < e ? -1 : 0);
}

TEST(BSearch, FindsEveryKeyAndRefusesMissingOnes) {
  for (int32_t count = 1; count <= 33; ++count) {
    std::vector<uint8_t> storage(1 + size_t(count) * kSize);
    uint8_t *base = storage.data() + 1;
    for (uint32_t i = 0; i < uint32_t(count); ++i) {
      const uint32_t key = 10 * (i + 1);
      std::memcpy(base + i * kSize, &key, 4);
    }
    for (uint32_t i = 0; i < uint32_t(count); ++i) {
      const uint32_t key = 10 * (i + 1);
      g_calls = 0;
      EXPECT_EQ(tarn_bsearch(base, count, kSize, &key, compare_key, nullptr), base + i * kSize) << count;
      EXPECT_LE(g_calls, 7) << "search is not logarithmic";
    }
    for (uint32_t i = 0; i <= uint32_t(count); ++i) {  // before the first, between each pair, after the last
      const uint32_t key = 10 * i + 5;
      EXPECT_EQ(tarn_bsearch(base, count, kSize, &key, compare_key, nullptr), nullptr) << count << " " << key;
    }
  }
}

TEST(BSearch, EmptyOrNegativeCountNeverCallsCompare) {
  const uint8_t row[kSize] = {1};
  const uint32_t key = 1;
  for (int32_t count : {0, -1, INT32_MIN}) {
    g_calls = 0;
    EXPECT_EQ(tarn_bsearch(row, count, kSize, &key, compare_key, nullptr), nullptr);
    EXPECT_EQ(g_calls, 0);
  }
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
