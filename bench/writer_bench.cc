// Writer cases: muxing from memory, from tarnm_create to tarnm_delete, of a
// single image and of a 48-tile grid of about 8 MB, each next to a memcpy of
// the same coded bytes in the same run; create + delete alone; the
// finalisation (tarnm_stop_muxing) alone.
//
// The coded data are real x265 pictures (tests/data/hevc, samples/). A
// camera-sized picture is made by repeating a picture's slice data: the
// writer only copies coded bytes, so their content does not change its work.
#include <string.h>

#include <string>
#include <vector>

#include "bench_support.h"
#include "tarn/writer.h"

namespace tarn_bench {
namespace {

constexpr uint32_t kGridRows = 6;
constexpr uint32_t kGridColumns = 8;
constexpr uint32_t kGridTiles = kGridRows * kGridColumns;
constexpr uint32_t kTileSide = 512;
constexpr size_t kGridBytes = 8u << 20;
// The file goes straight into the caller's buffer, as a camera app hands
// the writer the memory the file will be saved from.
constexpr size_t kOutputCapacity = 16u << 20;

// A job for the writer: one image (tiles.size() == 1) or a grid of tiles.
struct MuxJob {
  std::vector<Picture> tiles;
  size_t coded_bytes = 0;
  bool ok = false;
  bool grid() const { return tiles.size() > 1; }
};

MuxJob single_job(size_t grow_to) {
  MuxJob job;
  Picture p = load_picture("tests/data/hevc/single512.hevc", 512, 512);
  if (grow_to != 0) p = grow_picture(p, grow_to);
  job.ok = p.ok;
  job.coded_bytes = p.frame.size();
  job.tiles.push_back(std::move(p));
  return job;
}

// 48 tiles of 512x512: the four sample tiles in turn, each grown to its
// share of about 8 MB. The tiles come from one encoder run with equal
// parameter sets, so the first tile's serve the grid.
MuxJob grid_job() {
  MuxJob job;
  Picture samples[4];
  for (int t = 0; t < 4; ++t) {
    const std::string name = "samples/tile_" + std::to_string(t) + ".hevc";
    samples[t] = load_picture(name.c_str(), kTileSide, kTileSide);
    if (!samples[t].ok) return job;
  }
  for (uint32_t t = 0; t < kGridTiles; ++t) {
    job.tiles.push_back(grow_picture(samples[t % 4], kGridBytes / kGridTiles));
    job.coded_bytes += job.tiles.back().frame.size();
  }
  job.ok = true;
  return job;
}

const MuxJob &job_for(int which) {
  static const MuxJob real_single = single_job(0);
  static const MuxJob big_single = single_job(kGridBytes);
  static const MuxJob grid = grid_job();
  return which == 0 ? real_single : which == 1 ? big_single : grid;
}
const char *const kJobNames[] = {"single 512x512 (13 KB, as coded)", "single (8 MB)",
                                 "grid 48 tiles (8 MB)"};

// Everything up to the finalisation. Returns the context or NULL.
tarnm_ctx *mux_frames(const MuxJob &job, uint8_t *output) {
  const tarnm_init_dsc dsc = {};
  tarnm_ctx *ctx = tarnm_create(&dsc, nullptr);
  if (ctx == nullptr) return nullptr;
  tarnm_image_info info;
  fill_image_info(job.tiles[0], &info);
  const uint32_t tiles = static_cast<uint32_t>(job.tiles.size());
  const tarnm_grid_info grid = {kGridColumns * kTileSide, kGridRows * kTileSide, kGridRows,
                                kGridColumns, 1, tiles, static_cast<uint16_t>(tiles + 1), 0};
  const uint32_t image_id = job.grid() ? tiles + 1 : 1;
  bool ok = tarnm_use_delivered_memory_buffer(ctx, output, static_cast<int32_t>(kOutputCapacity)) == 0 &&
            tarnm_set_image_info(ctx, image_id, 0, &info, job.grid() ? &grid : nullptr) == 0 &&
            tarnm_set_cover_image(ctx, static_cast<int32_t>(image_id)) == 0;
  for (uint32_t t = 0; ok && t < tiles; ++t) {
    const Bytes &frame = job.tiles[t].frame;
    ok = tarnm_put_frm(ctx, t + 1, frame.data(), static_cast<uint32_t>(frame.size())) == 0;
  }
  if (!ok) {
    tarnm_delete(ctx);
    return nullptr;
  }
  return ctx;
}

bool mux_whole(const MuxJob &job, uint8_t *output) {
  tarnm_ctx *ctx = mux_frames(job, output);
  const bool ok = ctx != nullptr && tarnm_stop_muxing(ctx) == 0;
  if (ok) benchmark::DoNotOptimize(tarnm_get_outputbuffer_size(ctx));
  tarnm_delete(ctx);
  return ok;
}

void mux_case(benchmark::State &state, int which) {
  const MuxJob &job = job_for(which);
  if (!job.ok) return state.SkipWithError("coded pictures not readable");
  Bytes output(kOutputCapacity);
  if (!mux_whole(job, output.data())) return state.SkipWithError("mux failed");
  count_heap(state, [&] { mux_whole(job, output.data()); });
  for (auto _ : state) {
    mux_whole(job, output.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(job.coded_bytes));
}

// The yardstick: the same coded bytes, frame by frame, into the same buffer.
void mux_memcpy_case(benchmark::State &state, int which) {
  const MuxJob &job = job_for(which);
  if (!job.ok) return state.SkipWithError("coded pictures not readable");
  Bytes output(kOutputCapacity);
  for (auto _ : state) {
    uint8_t *dst = output.data();
    for (const Picture &p : job.tiles) {
      memcpy(dst, p.frame.data(), p.frame.size());
      dst += p.frame.size();
    }
    benchmark::DoNotOptimize(output.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(job.coded_bytes));
}

void create_delete_case(benchmark::State &state) {
  const tarnm_init_dsc dsc = {};
  count_heap(state, [&] { tarnm_delete(tarnm_create(&dsc, nullptr)); });
  for (auto _ : state) {
    tarnm_ctx *ctx = tarnm_create(&dsc, nullptr);
    benchmark::DoNotOptimize(ctx);
    tarnm_delete(ctx);
  }
}

void finalise_case(benchmark::State &state, int which) {
  const MuxJob &job = job_for(which);
  if (!job.ok) return state.SkipWithError("coded pictures not readable");
  Bytes output(kOutputCapacity);
  {
    tarnm_ctx *ctx = mux_frames(job, output.data());
    count_heap(state, [&] { tarnm_stop_muxing(ctx); });
    tarnm_delete(ctx);
  }
  for (auto _ : state) {
    state.PauseTiming();
    tarnm_ctx *ctx = mux_frames(job, output.data());
    state.ResumeTiming();
    if (ctx == nullptr || tarnm_stop_muxing(ctx) != 0) {
      tarnm_delete(ctx);
      return state.SkipWithError("finalisation failed");
    }
    state.PauseTiming();
    tarnm_delete(ctx);
    state.ResumeTiming();
  }
}

const bool kRegistered = [] {
  for (int which = 0; which < 3; ++which) {
    const std::string name = kJobNames[which];
    benchmark::RegisterBenchmark(("mux/tarn/" + name).c_str(), mux_case, which)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark(("mux/memcpy/" + name).c_str(), mux_memcpy_case, which)
        ->Unit(benchmark::kMicrosecond);
  }
  benchmark::RegisterBenchmark("writer/create+delete", create_delete_case)
      ->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("writer/finalise/single (8 MB)", finalise_case, 1)
      ->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("writer/finalise/grid 48 tiles (8 MB)", finalise_case, 2)
      ->Unit(benchmark::kMicrosecond);
  return true;
}();

}  // namespace
}  // namespace tarn_bench
