// Muxing a camera-sized grid from memory: 48 tiles of about 8 MB of coded
// data in all, from tarnm_create to tarnm_delete, against a plain memcpy of
// the same bytes in the same run; plus create + delete alone and the whole
// finalisation alone.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tarn/writer.h"

namespace {

constexpr uint32_t kTiles = 48;
constexpr uint32_t kColumns = 8;
constexpr uint32_t kRows = 6;
constexpr uint32_t kTileSide = 512;
constexpr size_t kTotalBytes = 8u << 20;

struct Material {
  std::vector<std::vector<uint8_t>> units;  // VPS, SPS, PPS of a real stream
  std::vector<std::vector<uint8_t>> frames;
  size_t total = 0;
  bool ok = false;
};

// Parameter sets from the x265 tile stream; frames of slice-like bytes: no
// 00 00 00 runs inside, 0x01 bytes about as often as in coded data.
// Splits an Annex-B stream (3- or 4-byte start codes) into NAL units.
std::vector<std::vector<uint8_t>> nal_units(const std::vector<uint8_t> &s) {
  std::vector<std::vector<uint8_t>> units;
  size_t start = 0;
  bool open = false;
  for (size_t i = 0; i + 3 <= s.size(); ++i) {
    if (s[i] != 0 || s[i + 1] != 0 || s[i + 2] != 1) continue;
    if (open) {
      size_t end = i;
      while (end > start && s[end - 1] == 0) --end;
      units.emplace_back(s.begin() + long(start), s.begin() + long(end));
    }
    start = i + 3;
    open = true;
  }
  if (open) units.emplace_back(s.begin() + long(start), s.end());
  return units;
}

const Material &material() {
  static Material m;
  static bool made = false;
  if (made) return m;
  made = true;
  std::vector<uint8_t> s;
  FILE *f = std::fopen(TARN_TEST_DATA_DIR "/hevc/tile0.hevc", "rb");
  if (f == nullptr) return m;
  uint8_t buf[4096];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) s.insert(s.end(), buf, buf + n);
  std::fclose(f);
  m.units = nal_units(s);
  if (m.units.size() < 3) return m;
  m.units.resize(3);  // VPS, SPS, PPS come first in an x265 stream
  uint32_t x = 2463534242u;
  const size_t per_frame = kTotalBytes / kTiles;
  for (uint32_t t = 0; t < kTiles; ++t) {
    std::vector<uint8_t> fr = {0, 0, 0, 1, 0x26, 0x01};
    fr.reserve(per_frame);
    while (fr.size() < per_frame) {
      x ^= x << 13;
      x ^= x >> 17;
      x ^= x << 5;
      fr.push_back(uint8_t(x % 255 + 1));
    }
    m.total += fr.size();
    m.frames.push_back(std::move(fr));
  }
  m.ok = true;
  return m;
}

tarnm_ctx *mux_grid(const Material &m) {
  const tarnm_init_dsc dsc = {};
  tarnm_ctx *ctx = tarnm_create(&dsc, nullptr);
  if (ctx == nullptr) return nullptr;
  tarnm_image_info info = {};
  info.width = info.height = kTileSide;
  info.param_sets.vps_count = info.param_sets.sps_count = info.param_sets.pps_count = 1;
  info.param_sets.vps_size[0] = uint32_t(m.units[0].size());
  info.param_sets.vps_data[0] = m.units[0].data();
  info.param_sets.sps_size[0] = uint32_t(m.units[1].size());
  info.param_sets.sps_data[0] = m.units[1].data();
  info.param_sets.pps_size[0] = uint32_t(m.units[2].size());
  info.param_sets.pps_data[0] = m.units[2].data();
  const tarnm_grid_info grid = {kColumns * kTileSide, kRows * kTileSide, kRows, kColumns, 1,
                                kTiles, uint16_t(kTiles + 1), 0};
  bool ok = tarnm_set_image_info(ctx, kTiles + 1, 0, &info, &grid) == 0 &&
            tarnm_set_cover_image(ctx, kTiles + 1) == 0;
  for (uint32_t t = 0; ok && t < kTiles; ++t) {
    ok = tarnm_put_frm(ctx, t + 1, m.frames[t].data(), uint32_t(m.frames[t].size())) == 0;
  }
  if (!ok) {
    tarnm_delete(ctx);
    return nullptr;
  }
  return ctx;
}

void BM_WriterMuxGrid48(benchmark::State &state) {
  const Material &m = material();
  if (!m.ok) return state.SkipWithError("tests/data/hevc/tile0.hevc not readable");
  for (auto _ : state) {
    tarnm_ctx *ctx = mux_grid(m);
    if (ctx == nullptr || tarnm_stop_muxing(ctx) != 0) return state.SkipWithError("mux failed");
    benchmark::DoNotOptimize(tarnm_get_outputbuffer_size(ctx));
    tarnm_delete(ctx);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(m.total));
}
BENCHMARK(BM_WriterMuxGrid48)->Unit(benchmark::kMillisecond);

// The same bytes copied once, frame by frame, into a buffer as large as the
// writer's heap.
void BM_WriterMuxMemcpyBaseline(benchmark::State &state) {
  const Material &m = material();
  if (!m.ok) return state.SkipWithError("tests/data/hevc/tile0.hevc not readable");
  std::vector<uint8_t> dst(TARNM_INIT_HEAP_SIZE);
  for (auto _ : state) {
    uint8_t *p = dst.data();
    for (const auto &fr : m.frames) {
      std::memcpy(p, fr.data(), fr.size());
      p += fr.size();
    }
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(m.total));
}
BENCHMARK(BM_WriterMuxMemcpyBaseline)->Unit(benchmark::kMillisecond);

void BM_WriterCreateDelete(benchmark::State &state) {
  const tarnm_init_dsc dsc = {};
  for (auto _ : state) {
    tarnm_ctx *ctx = tarnm_create(&dsc, nullptr);
    benchmark::DoNotOptimize(ctx);
    tarnm_delete(ctx);
  }
}
BENCHMARK(BM_WriterCreateDelete)->Unit(benchmark::kMicrosecond);

void BM_WriterFinaliseGrid48(benchmark::State &state) {
  const Material &m = material();
  if (!m.ok) return state.SkipWithError("tests/data/hevc/tile0.hevc not readable");
  for (auto _ : state) {
    state.PauseTiming();
    tarnm_ctx *ctx = mux_grid(m);
    state.ResumeTiming();
    if (ctx == nullptr || tarnm_stop_muxing(ctx) != 0) return state.SkipWithError("mux failed");
    state.PauseTiming();
    tarnm_delete(ctx);
    state.ResumeTiming();
  }
}
BENCHMARK(BM_WriterFinaliseGrid48)->Unit(benchmark::kMicrosecond);

}  // namespace
