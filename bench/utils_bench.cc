// Bit reader and fills: Exp-Golomb codes from a 1 MiB NAL unit with
// emulation-prevention bytes (against memcpy of the same bytes), and the
// word fills against memset.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "tarn/utils.h"

namespace {

constexpr size_t kNalSize = 1 << 20;

// A NAL payload of random ue(v) codes (many small, some with long zero
// prefixes) escaped as an encoder does; about 1 MiB.
const std::vector<uint8_t> &nal_unit() {
  static const std::vector<uint8_t> nal = [] {
    std::mt19937 rng(42);
    std::vector<uint8_t> raw;
    uint64_t acc = 0;
    int bits = 0;
    auto put = [&](uint32_t v, int n) {
      for (int i = n - 1; i >= 0; --i) {
        acc = acc << 1 | ((v >> i) & 1);
        if (++bits == 8) {
          raw.push_back(static_cast<uint8_t>(acc));
          bits = 0;
        }
      }
    };
    while (raw.size() < kNalSize - kNalSize / 50) {
      // Mostly short codes, some long ones whose zero prefixes make 00 00
      // pairs and so emulation-prevention bytes.
      const uint32_t pick = rng() % 64;
      const uint32_t v = pick == 0 ? (1u << 20) + rng() % 1000
                                   : pick < 16 ? static_cast<uint32_t>(rng() % 100000) : rng() % 8;
      const uint64_t code = uint64_t{v} + 1;
      int len = 0;
      while ((code >> (len + 1)) != 0) ++len;
      put(0, len);
      put(static_cast<uint32_t>(code), len + 1);
    }
    std::vector<uint8_t> out;
    int zeros = 0;
    for (uint8_t b : raw) {
      if (zeros >= 2 && b <= 3) {
        out.push_back(3);
        zeros = 0;
      }
      out.push_back(b);
      zeros = b == 0 ? zeros + 1 : 0;
    }
    out.push_back(0x80);
    return out;
  }();
  return nal;
}

// ue(v) the way a parameter-set parser reads it: one peek, the leading-zero
// count, then one read for codes up to 31 bits, two pieces for longer ones.
inline bool read_ue(omni_bsr *bs, uint32_t *v) {
  const uint32_t z = omni_bsr_clz_in_code(omni_bsr_peek(bs, 32));
  if (z > 31) return false;
  uint32_t code;
  if (z <= 15) {
    if (omni_bsr_read_value(bs, static_cast<int32_t>(2 * z + 1), &code) != 0) return false;
  } else {
    omni_bsr_skip(bs, static_cast<int32_t>(z));
    if (omni_bsr_read_value(bs, static_cast<int32_t>(z + 1), &code) != 0) return false;
  }
  if (bs->leftbits < 0) return false;
  *v = code - 1;
  return true;
}

// range(0): 1 reads through the NAL-aware refill, 0 through the plain one
// (same bytes, emulation-prevention bytes read as data) for comparison.
void BM_ExpGolombNal(benchmark::State &state) {
  const std::vector<uint8_t> &nal = nal_unit();
  const omni_bsr_flush_fn flush = state.range(0) ? vc_nal_bsr_flush : omni_bsr_flush;
  size_t codes = 0;
  for (auto _ : state) {
    omni_bsr bs{};
    bs.zero_run = 0;
    omni_bsr_init(&bs, nal.data(), static_cast<uint32_t>(nal.size()), flush);
    uint32_t v, sum = 0;
    codes = 0;
    while (read_ue(&bs, &v)) {
      sum += v;
      ++codes;
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * nal.size()));
  state.counters["codes"] = static_cast<double>(codes);
  size_t escapes = 0;
  for (size_t i = 2; i < nal.size(); ++i) escapes += nal[i - 2] == 0 && nal[i - 1] == 0 && nal[i] == 3;
  state.counters["ep_bytes"] = static_cast<double>(escapes);
}
BENCHMARK(BM_ExpGolombNal)->Arg(1)->Arg(0);

void BM_MemcpyNal(benchmark::State &state) {
  const std::vector<uint8_t> &nal = nal_unit();
  std::vector<uint8_t> dst(nal.size());
  for (auto _ : state) {
    memcpy(dst.data(), nal.data(), nal.size());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * nal.size()));
}
BENCHMARK(BM_MemcpyNal);

enum FillKind { kMemset, kX32, kX64, kX64a, kX64aPattern, kX128, kClear };

template <FillKind kind>
void BM_Fill(benchmark::State &state) {
  const int32_t size = static_cast<int32_t>(state.range(0));
  uint8_t *buf = static_cast<uint8_t *>(omni_malloc_align32(static_cast<uint32_t>(size)));
  for (auto _ : state) {
    switch (kind) {
      case kMemset: memset(buf, 0x5A, static_cast<size_t>(size)); break;
      case kX32: omni_mset_x32(buf, 0x5A5A5A5Au, size); break;
      case kX64: omni_mset_x64(buf, 0x5A5A5A5Au, size); break;
      case kX64a: omni_mset_x64a(buf, 0x5A5A5A5Au, size); break;
      case kX64aPattern: omni_mset_x64a(buf, 0x44332211u, size); break;  // word fill
      case kX128: omni_mset_x128(buf, 0x5A5A5A5Au, size); break;
      case kClear: omni_mclr_x64(buf, size / 4); break;
    }
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * size);
  omni_mfree_align32(buf);
}
#define FILL_SIZES Arg(4096)->Arg(256 << 10)->Arg(8 << 20)
BENCHMARK_TEMPLATE(BM_Fill, kMemset)->FILL_SIZES;
BENCHMARK_TEMPLATE(BM_Fill, kX32)->FILL_SIZES;
BENCHMARK_TEMPLATE(BM_Fill, kX64)->FILL_SIZES;
BENCHMARK_TEMPLATE(BM_Fill, kX64a)->FILL_SIZES;
BENCHMARK_TEMPLATE(BM_Fill, kX64aPattern)->FILL_SIZES;
BENCHMARK_TEMPLATE(BM_Fill, kX128)->FILL_SIZES;
BENCHMARK_TEMPLATE(BM_Fill, kClear)->FILL_SIZES;

}  // namespace
