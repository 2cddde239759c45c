// Binary search as the handler table and the block lists use it.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "tarn/common.h"

namespace {

struct Row {
  uint32_t key;
  int payload;
};

struct Counter {
  int calls = 0;
};

int32_t compare_row(const void *key, const void *element, void *user) {
  if (user != nullptr) ++static_cast<Counter *>(user)->calls;
  const uint32_t k = *static_cast<const uint32_t *>(key);
  const uint32_t e = static_cast<const Row *>(element)->key;
  return k > e ? 1 : (k < e ? -1 : 0);
}

TEST(BSearch, FindsEveryKeyAndRefusesMissingOnes) {
  for (int32_t count = 1; count <= 33; ++count) {
    std::vector<Row> table;
    for (int32_t i = 0; i < count; ++i) table.push_back({uint32_t(10 * (i + 1)), i});
    for (int32_t i = 0; i < count; ++i) {
      const uint32_t key = table[size_t(i)].key;
      Counter counter;
      auto *hit = static_cast<Row *>(tarn_bsearch(table.data(), count, sizeof(Row), &key, compare_row, &counter));
      ASSERT_NE(hit, nullptr) << "count " << count << " index " << i;
      EXPECT_EQ(hit->payload, i);
      EXPECT_LE(counter.calls, 7) << "search is not logarithmic";
    }
    // Before the first, between every pair, after the last.
    for (int32_t i = 0; i <= count; ++i) {
      const uint32_t key = uint32_t(10 * i + 5);
      EXPECT_EQ(tarn_bsearch(table.data(), count, sizeof(Row), &key, compare_row, nullptr), nullptr)
          << "count " << count << " key " << key;
    }
  }
}

TEST(BSearch, EmptyOrNegativeCountNeverCallsCompare) {
  Row row{1, 0};
  const uint32_t key = 1;
  for (int32_t count : {0, -1, INT32_MIN}) {
    Counter counter;
    EXPECT_EQ(tarn_bsearch(&row, count, sizeof(Row), &key, compare_row, &counter), nullptr);
    EXPECT_EQ(counter.calls, 0);
  }
}

TEST(BSearch, PassesUserThroughAndReturnsFirstHalvingHit) {
  // Five equal keys: the first probe (index 2) matches and is returned.
  std::vector<Row> table = {{7, 0}, {7, 1}, {7, 2}, {7, 3}, {7, 4}};
  const uint32_t key = 7;
  Counter counter;
  auto *hit = static_cast<Row *>(tarn_bsearch(table.data(), 5, sizeof(Row), &key, compare_row, &counter));
  ASSERT_NE(hit, nullptr);
  EXPECT_EQ(hit->payload, 2);
  EXPECT_EQ(counter.calls, 1);
}

// Elements of odd size at an odd address: the search must step by
// element_size, not by any assumed alignment.
TEST(BSearch, OddElementSizeUnalignedBase) {
  constexpr size_t kSize = 7;
  std::vector<uint8_t> storage(1 + 40 * kSize);
  uint8_t *base = storage.data() + 1;
  for (uint32_t i = 0; i < 40; ++i) std::memcpy(base + i * kSize, &i, 4);
  auto compare = [](const void *key, const void *element, void *) -> int32_t {
    uint32_t e;
    std::memcpy(&e, element, 4);
    const uint32_t k = *static_cast<const uint32_t *>(key);
    return k > e ? 1 : (k < e ? -1 : 0);
  };
  for (uint32_t k = 0; k < 40; ++k) {
    auto *hit = static_cast<uint8_t *>(tarn_bsearch(base, 40, kSize, &k, compare, nullptr));
    ASSERT_EQ(hit, base + k * kSize);
  }
}

}  // namespace
