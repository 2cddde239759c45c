// Shared pieces of the benchmark binary: the allocation counter, file
// loading, the list of corpus files and the coded pictures that the mux and
// sample cases are made of.
#ifndef TARN_BENCH_BENCH_SUPPORT_H_
#define TARN_BENCH_BENCH_SUPPORT_H_

#include <benchmark/benchmark.h>
#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "tarn/writer.h"

namespace tarn_bench {

using Bytes = std::vector<uint8_t>;

// Heap use of one operation, as counted by the replaced allocator. `counted`
// is false where the allocator cannot be replaced (sanitizer builds, other C
// libraries): the figures are then 0 and reported as missing.
struct HeapUse {
  bool counted;
  long allocations;   // malloc, calloc, realloc and aligned calls
  long peak_bytes;    // highest live heap above the level at the start
};

// Starts counting (resets the peak to the live level of this moment).
void heap_mark();
// The heap use since the last heap_mark().
HeapUse heap_since_mark();
// Adds "allocs" and "peak_kB" counters measured around one call of op.
template <class Op>
void count_heap(benchmark::State &state, Op op) {
  heap_mark();
  op();
  const HeapUse use = heap_since_mark();
  if (!use.counted) return;
  state.counters["allocs"] = static_cast<double>(use.allocations);
  state.counters["peak_kB"] = static_cast<double>(use.peak_bytes) / 1024.0;
}

bool read_file(const std::string &path, Bytes *out);

// Every regular file under the corpus folders, sorted, as paths relative to
// the corpus root (for example "phones/iphone8plus_grid_thumb_exif.heic").
// Empty when the corpus is absent.
const std::vector<std::string> &corpus_files();
std::string corpus_path(const std::string &relative);

// One coded picture of an Annex-B stream: its parameter sets (bare NAL
// units) and its slice data with a 4-byte start code before every unit, as
// the writer takes it.
struct Picture {
  std::vector<Bytes> vps, sps, pps;
  Bytes frame;
  uint32_t width = 0, height = 0;
  bool ok = false;
};
// Reads path (relative to the project root) as a stream of one picture.
Picture load_picture(const char *relative_path, uint32_t width, uint32_t height);
// The same picture with its slice data repeated inside its last NAL unit
// until the frame holds at least target bytes: a camera-sized picture with
// the NAL units and byte statistics of real coded data (the writer only
// copies bytes and looks for start codes).
Picture grow_picture(const Picture &p, size_t target);

// Clears *info and points it at p's size and parameter sets (p must outlive
// the writer call that reads them).
void fill_image_info(const Picture &p, tarnm_image_info *info);

// The name of the in-memory sample file among the reader cases.
constexpr const char *kSampleName = "samples/grid2x2_thumb_exif (muxed)";

// Bytes of a reader case: a corpus file by relative path, or the sample
// file for kSampleName. False when it cannot be read.
bool case_bytes(const std::string &name, Bytes *out);

// Open + primary info + Exif of one reader case through open_info_exif (the
// library's or the peer's), with its heap use and the Exif size as counters.
// refused names the library that does not open the file.
template <typename OpenInfoExif>
void run_open_case(benchmark::State &state, const std::string &name, OpenInfoExif open_info_exif,
                   const char *refused) {
  Bytes file;
  size_t exif_size = 0;
  if (!case_bytes(name, &file)) return state.SkipWithError("file not readable");
  if (!open_info_exif(file, &exif_size)) return state.SkipWithError(refused);
  count_heap(state, [&] { open_info_exif(file, &exif_size); });
  for (auto _ : state) open_info_exif(file, &exif_size);
  state.counters["exif_bytes"] = static_cast<double>(exif_size);
}

// A HEIC file made in memory by the writer from the bundled samples: a 2x2
// grid of 512x512 tiles with a 256x256 thumbnail and Exif. Empty on failure.
const Bytes &sample_file();

}  // namespace tarn_bench

#endif  // TARN_BENCH_BENCH_SUPPORT_H_
