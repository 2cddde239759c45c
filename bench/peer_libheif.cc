// The peer column: the same open + primary info + Exif work done by libheif
// through its public C API, in the same process and run. Only the benchmark
// binary links it, and only when pkg-config finds it; without it these cases
// are not registered and the table shows "n/a".
#if defined(TARN_HAVE_LIBHEIF)

#include <libheif/heif.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "bench_support.h"

namespace tarn_bench {
namespace {

constexpr int kMaxExifBlocks = 8;

bool peer_open_info_exif(const Bytes &file, size_t *exif_size) {
  heif_context *ctx = heif_context_alloc();
  if (ctx == nullptr) return false;
  heif_image_handle *handle = nullptr;
  bool ok = heif_context_read_from_memory_without_copy(ctx, file.data(), file.size(), nullptr).code ==
                heif_error_Ok &&
            heif_context_get_primary_image_handle(ctx, &handle).code == heif_error_Ok;
  if (ok) {
    benchmark::DoNotOptimize(heif_image_handle_get_width(handle) +
                             heif_image_handle_get_height(handle));
    heif_item_id ids[kMaxExifBlocks];
    const int count = heif_image_handle_get_list_of_metadata_block_IDs(handle, "Exif", ids,
                                                                       kMaxExifBlocks);
    *exif_size = 0;
    if (count > 0) {
      // The caller owns the copy, as a gallery keeping the Exif would.
      const size_t size = heif_image_handle_get_metadata_size(handle, ids[0]);
      void *exif = malloc(size != 0 ? size : 1);
      ok = exif != nullptr && heif_image_handle_get_metadata(handle, ids[0], exif).code == heif_error_Ok;
      benchmark::DoNotOptimize(exif);
      free(exif);
      *exif_size = size;
    }
  }
  if (handle != nullptr) heif_image_handle_release(handle);
  heif_context_free(ctx);
  return ok;
}

void peer_open_case(benchmark::State &state, const std::string &name) {
  run_open_case(state, name, peer_open_info_exif, "libheif refuses the file");
}

const bool kRegistered = [] {
  std::vector<std::string> names = corpus_files();
  names.push_back(kSampleName);
  for (const std::string &name : names) {
    benchmark::RegisterBenchmark(("open/peer/" + name).c_str(), peer_open_case, name)
        ->Unit(benchmark::kMicrosecond);
  }
  return true;
}();

}  // namespace
}  // namespace tarn_bench

#endif  // TARN_HAVE_LIBHEIF
