// Block lists: capacity per block, chaining, search through the block index,
// iteration in both directions and copy-out to a bounded cursor.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "support/log_capture.h"
#include "writer/internal.h"

namespace {

struct List {
  tarn_mblk l;
  explicit List(uint32_t elem_size) { EXPECT_EQ(0, tarn_mblk_ctor(&l, elem_size)); }
  ~List() { tarn_mblk_dtor(&l); }
  // Adds n elements of the list's size whose first word is key(i).
  void fill(uint32_t n, uint32_t step = 1) {
    std::vector<uint8_t> e(l.elem_size, 0x5A);
    for (uint32_t i = 0; i < n; ++i) {
      const uint32_t key = step * (i + 1);
      memcpy(e.data(), &key, 4);
      ASSERT_EQ(0, tarn_mblk_elem_add(&l, e.data()));
    }
  }
};

uint32_t key_of(const void *p) {
  uint32_t k;
  memcpy(&k, p, 4);
  return k;
}

int32_t compare_key(const void *key, const void *elem, void *) {
  const uint32_t k = *static_cast<const uint32_t *>(key), e = key_of(elem);
  return k < e ? -1 : k > e ? 1 : 0;
}

// A writer state whose output cursor points into a vector.
struct Cursor {
  tarnm_state st{};
  std::vector<uint8_t> buf;
  explicit Cursor(size_t size) : buf(size + 1, 0xEE) {
    st.write_ptr = buf.data();
    st.remaining = static_cast<int32_t>(size);
  }
  size_t written() const { return static_cast<size_t>(st.write_ptr - buf.data()); }
};

TEST(MblkTest, FixedAndSizedElementsChainBlocks) {
  struct Case {
    uint32_t elem_size;
    std::vector<int32_t> sizes;  // -2: a fixed-size add
    int32_t last_rc;
    uint32_t blocks;
    uint64_t bytes;  // datasize for fixed lists, total_datasize for sized
  };
  const Case kCases[] = {
      {16, std::vector<int32_t>(255, -2), 0, 1, 4080},
      {16, std::vector<int32_t>(256, -2), 0, 2, 4096},
      {1548, {-2, -2}, 0, 1, 3096},
      {1548, {-2, -2, -2}, 0, 2, 4644},
      {21, {4080}, 0, 1, 4080},
      {21, {4080, 1}, 0, 2, 4081},
      {21, {4000, 80}, 0, 1, 4080},
      {21, {4000, 81}, 0, 2, 4081},  // an element never spans two blocks
      {21, {10, 4081}, -1, 1, 10},   // refused, list unchanged
      {21, {10, -1}, -1, 1, 10},
      {21, {}, 0, 0, 0},
  };
  std::vector<uint8_t> data(4096, 0x11);
  for (const auto &c : kCases) {
    SCOPED_TRACE(testing::Message() << c.elem_size << " x " << c.sizes.size());
    List list(c.elem_size);
    int32_t rc = 0;
    bool fixed = false;
    for (int32_t s : c.sizes) {
      fixed = s == -2;
      rc = fixed ? tarn_mblk_elem_add(&list.l, data.data())
                 : tarn_mblk_elem_add_with_size(&list.l, data.data(), s);
    }
    EXPECT_EQ(c.last_rc, rc);
    EXPECT_EQ(c.blocks, list.l.block_count);
    EXPECT_EQ(c.bytes, fixed ? tarn_mblk_datasize(&list.l) : tarn_mblk_total_datasize(&list.l));
  }
}

TEST(MblkTest, IterationBothWaysAcrossBlocks) {
  for (uint32_t n : {0u, 1u, 3u, 255u, 256u, 1000u}) {
    SCOPED_TRACE(n);
    List list(16);
    list.fill(n);
    tarn_test::LogCapture cap;
    tarn_mblk_iter it{};
    uint32_t seen = 0;
    for (void *p = tarn_mblk_elem_first(&list.l, &it); p; p = tarn_mblk_elem_next(&list.l, &it))
      EXPECT_EQ(++seen, key_of(p));
    EXPECT_EQ(n, seen);
    EXPECT_EQ(nullptr, it.block);  // cleared at the end
    EXPECT_TRUE(cap.lines().empty()) << cap.dump();

    tarn_mblk_elem_last(&list.l, &it);
    uint32_t back = n;
    for (void *p = it.elem; p; p = tarn_mblk_elem_prev(&list.l, &it)) EXPECT_EQ(back--, key_of(p));
    EXPECT_EQ(0u, back);
    // Stepping before the first element returns null and stays on it.
    if (n) {
      EXPECT_EQ(1u, key_of(it.elem));
    }
  }
}

TEST(MblkTest, FindThroughBlockIndex) {
  // Blocks of two elements whose first keys are 10, 30, 50, ...
  List list(2040);
  list.fill(7, 10);
  ASSERT_EQ(4u, list.l.block_count);
  // Before the index exists only the first block is searched.
  EXPECT_NE(nullptr, tarn_mblk_elem_find(&list.l, 20, compare_key));
  EXPECT_EQ(nullptr, tarn_mblk_elem_find(&list.l, 30, compare_key));
  ASSERT_EQ(0, tarn_mblk_upd_meta(&list.l, key_of));
  {
    tarn_test::LogCapture cap;
    EXPECT_EQ(-1, tarn_mblk_upd_meta(&list.l, key_of));
    EXPECT_TRUE(cap.has("[index] err: meta_array index already built!", "tarn_mblk"));
  }
  struct Case {
    uint32_t key;
    bool found;
  };
  const Case kCases[] = {{10, true}, {20, true},  {30, true},  {40, true}, {70, true},
                         {5, false}, {29, false}, {31, false}, {80, false}};
  for (const auto &c : kCases) {
    void *p = tarn_mblk_elem_find(&list.l, c.key, compare_key);
    EXPECT_EQ(c.found, p != nullptr) << c.key;
    if (p) {
      EXPECT_EQ(c.key, key_of(p));
    }
  }
  List one(16);
  one.fill(3);
  EXPECT_EQ(0, tarn_mblk_upd_meta(&one.l, key_of));
  EXPECT_EQ(nullptr, one.l.meta_array);
}

TEST(MblkTest, DumpsStopAtTheCursorEnd) {
  struct Case {
    bool sized;
    size_t room;
    int32_t rc;
    size_t written;
  };
  const Case kCases[] = {
      {false, 300 * 16, 300, 300 * 16},
      {false, 300 * 16 - 1, -4, 255 * 16},  // first block copied, second refused
      {true, 4100, 2, 4100},
      {true, 4099, -4, 4000},
  };
  List fixed(16);
  fixed.fill(300);
  List sized(21);
  std::vector<uint8_t> a(4000, 1), b(100, 2);
  ASSERT_EQ(0, tarn_mblk_elem_add_with_size(&sized.l, a.data(), 4000));
  ASSERT_EQ(0, tarn_mblk_elem_add_with_size(&sized.l, b.data(), 100));
  for (const auto &c : kCases) {
    Cursor out(c.room);
    EXPECT_EQ(c.rc, c.sized ? tarn_mblk_dump_size(&sized.l, &out.st)
                            : tarn_mblk_dump(&fixed.l, &out.st));
    EXPECT_EQ(c.written, out.written());
    EXPECT_EQ(0xEE, out.buf[c.room]);
  }
  Cursor out(300 * 16);
  ASSERT_EQ(300, tarn_mblk_dump(&fixed.l, &out.st));
  for (uint32_t i = 0; i < 300; ++i) EXPECT_EQ(i + 1, key_of(&out.buf[i * 16]));
}

}  // namespace
