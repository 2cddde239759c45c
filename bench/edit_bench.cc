// The lossless edit of a 48-tile photo against copying the same file: both
// read the file from disk and write a new one, so the ratio is what the
// edit costs over the bytes it has to move anyway.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench_support.h"
#include "tarn/edit.h"
#include "tarn/io.h"

namespace tarn_bench {
namespace {

const char kPhoto[] = "phones/iphone8plus_grid_thumb_exif.heic";

std::string scratch_path(const char *what) {
  const char *dir = std::getenv("TMPDIR");
  return std::string(dir != nullptr ? dir : "/tmp") + "/tarn_bench_" + what + ".heic";
}

void edit_case(benchmark::State &state, const std::string &path) {
  const std::string out_path = scratch_path("edit");
  tarn_edit_options options{};
  options.flags = TARN_EDIT_STRIP_GPS;  // the common edit: the photo stays, the location goes
  for (auto _ : state) {
    tarnd_io_dsc in;
    tarnm_file_output out;
    tarnd_io_init_file(&in, path.c_str());
    tarnm_output_init_file(&out, out_path.c_str());
    if (tarn_edit(&in, &out.dsc, &options) != TARN_EDIT_OK) state.SkipWithError("edit failed");
  }
  count_heap(state, [&] {
    tarnd_io_dsc in;
    tarnm_file_output out;
    tarnd_io_init_file(&in, path.c_str());
    tarnm_output_init_file(&out, out_path.c_str());
    tarn_edit(&in, &out.dsc, &options);
  });
  std::remove(out_path.c_str());
}

void copy_case(benchmark::State &state, const std::string &path) {
  const std::string out_path = scratch_path("copy");
  Bytes buffer(1 << 20);
  for (auto _ : state) {
    FILE *in = std::fopen(path.c_str(), "rb");
    FILE *out = std::fopen(out_path.c_str(), "wb");
    if (in == nullptr || out == nullptr) state.SkipWithError("cannot open the files");
    size_t n = 0;
    while (in != nullptr && out != nullptr && (n = std::fread(buffer.data(), 1, buffer.size(), in)) > 0)
      std::fwrite(buffer.data(), 1, n, out);
    if (in != nullptr) std::fclose(in);
    if (out != nullptr) std::fclose(out);
  }
  std::remove(out_path.c_str());
}

const bool kRegistered = [] {
  const std::string path = corpus_path(kPhoto);
  Bytes probe;
  if (!read_file(path, &probe)) return false;
  benchmark::RegisterBenchmark((std::string("edit/tarn/") + kPhoto).c_str(), edit_case, path)->UseRealTime();
  benchmark::RegisterBenchmark((std::string("edit/copy/") + kPhoto).c_str(), copy_case, path)->UseRealTime();
  return true;
}();

}  // namespace
}  // namespace tarn_bench
