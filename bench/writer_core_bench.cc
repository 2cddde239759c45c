// Writer core: the cost of collecting the elements of a large grid image
// and writing its meta box, and of the block list alone.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "writer/intake.h"
#include "writer/internal.h"

namespace {

// A grid of `tiles` tiles sharing one hvcC and one ispe, as a camera's
// 48-tile or 256-tile photo produces: one infe, iloc and ipma per tile.
void BM_WriterMetaForGrid(benchmark::State &state) {
  const uint32_t tiles = static_cast<uint32_t>(state.range(0));
  static const uint8_t kHvcc[100] = {1};
  const tarnm_init_dsc dsc = {};
  for (auto _ : state) {
    tarnm_ctx *ctx = tarnm_create(&dsc, nullptr);
    tarnm_state *st = tarnm_checked_state(ctx);
    for (uint32_t id = 1; id <= tiles; ++id) {
      st->assoc_count = 0;
      tarnm_add_element_infe(st, id, TARN_FCC('h', 'v', 'c', '1'), 0);
      tarnm_add_hvcc_property(st, kHvcc, sizeof kHvcc);
      tarnm_add_ispe_property(st, 512, 512);
      tarnm_add_element_ipma(st, id, st->assoc_count, st->assoc);
      tarnm_add_iloc_entry(st, id, 0, 32 + 1000 * id, 1000);
    }
    std::vector<uint32_t> ids(tiles);
    for (uint32_t i = 0; i < tiles; ++i) ids[i] = i + 1;
    tarnm_add_element_itemtyperef(st, tiles + 1, TARN_FCC('d', 'i', 'm', 'g'), tiles, ids.data());
    if (tarnm_atom_meta(st) != 0) state.SkipWithError("meta failed");
    benchmark::DoNotOptimize(tarnm_get_outputbuffer_size(ctx));
    tarnm_delete(ctx);
  }
  state.SetItemsProcessed(state.iterations() * tiles);
}
BENCHMARK(BM_WriterMetaForGrid)->Arg(48)->Arg(256)->Arg(768);

void BM_MblkAddAndDump(benchmark::State &state) {
  const uint32_t count = static_cast<uint32_t>(state.range(0));
  std::vector<uint8_t> out(count * 16 + 16);
  uint8_t elem[16] = {};
  static tarnm_state st;
  for (auto _ : state) {
    tarn_mblk list;
    tarn_mblk_ctor(&list, 16);
    for (uint32_t i = 0; i < count; ++i) {
      memcpy(elem, &i, 4);
      tarn_mblk_elem_add(&list, elem);
    }
    st.write_ptr = out.data();
    st.remaining = static_cast<int32_t>(out.size());
    benchmark::DoNotOptimize(tarn_mblk_dump(&list, &st));
    tarn_mblk_dtor(&list);
  }
  state.SetBytesProcessed(state.iterations() * count * 16);
}
BENCHMARK(BM_MblkAddAndDump)->Arg(1000)->Arg(65535);

}  // namespace
