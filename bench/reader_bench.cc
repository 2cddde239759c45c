// Reader cases, one set per corpus file and for the sample file muxed in
// memory: open + primary image info + Exif bytes from memory (the work of a
// gallery scan), and extraction of the primary image's coded data (every
// tile of a grid) in start-code form next to a memcpy of as many bytes.
#include <string.h>

#include <string>
#include <vector>

#include "bench_support.h"
#include "tarn/io.h"
#include "tarn/reader.h"

namespace tarn_bench {
namespace {

// What a gallery scan asks of each file, from memory or (path given) from
// disk. Returns false when the file does not open or has no primary image.
bool open_info_exif(const Bytes &file, size_t *exif_size, const char *path = nullptr,
                    uint32_t mode = TARND_READ_STRICT) {
  tarnd_io_dsc io;
  if (path != nullptr) {
    tarnd_io_init_file(&io, path);
  } else {
    tarnd_io_init_memory(&io, file.data(), file.size());
  }
  tarnd_file_info file_info;
  void *ctx = tarnd_create_with_flags(&io, mode, &file_info, nullptr);
  if (ctx == nullptr) return false;
  uint32_t primary = 0;
  tarnd_image_info info = {};
  tarnd_item_data exif = {nullptr, 0};
  const bool ok = tarnd_get_image_id(ctx, TARND_ID_PRIMARY, TARND_ID_REF_PRIMARY, &primary) == 0 &&
                  tarnd_get_info_image(ctx, static_cast<int32_t>(primary), &info) == 0 &&
                  tarnd_get_info_item(ctx, static_cast<int32_t>(primary), TARND_INFO_EXIF, &exif) == 0;
  benchmark::DoNotOptimize(info.width + info.height);
  benchmark::DoNotOptimize(exif.data);
  *exif_size = exif.size;
  tarnd_delete(ctx);
  return ok;
}

void open_case(benchmark::State &state, const std::string &name) {
  run_open_case(
      state, name, [](const Bytes &file, size_t *exif_size) { return open_info_exif(file, exif_size); },
      "libtarn refuses the file");
}

void open_tolerant_case(benchmark::State &state, const std::string &name) {
  run_open_case(
      state, name,
      [](const Bytes &file, size_t *exif_size) {
        return open_info_exif(file, exif_size, nullptr, TARND_READ_TOLERANT);
      },
      "libtarn refuses the file in tolerant mode");
}

void put16(Bytes *b, uint32_t v) {
  b->push_back(uint8_t(v >> 8));
  b->push_back(uint8_t(v));
}
void put32(Bytes *b, uint32_t v) {
  put16(b, v >> 16);
  put16(b, v);
}
// A box around body: size, type, and for a full box version 0 and flags.
Bytes boxed(const char *type, const Bytes &body, bool full = false, uint32_t flags = 0) {
  Bytes b;
  put32(&b, uint32_t(body.size() + 8 + (full ? 4 : 0)));
  b.insert(b.end(), type, type + 4);
  if (full) put32(&b, flags);
  b.insert(b.end(), body.begin(), body.end());
  return b;
}
// count hvc1 items whose iinf, iloc and ipma entries all run from the
// highest id down, with one shared ispe: the lookups of tolerant reading at
// the scale of a burst or a large collection.
Bytes reversed_items_file(uint32_t count) {
  Bytes infes, iloc, ipma;
  put16(&infes, count);
  iloc = {0x44, 0x00};
  put16(&iloc, count);
  put32(&ipma, count);
  for (uint32_t id = count; id >= 1; --id) {
    Bytes infe;
    put16(&infe, id);
    put16(&infe, 0);
    infe.insert(infe.end(), {'h', 'v', 'c', '1', 0});
    const Bytes box = boxed("infe", infe, true, 1);
    infes.insert(infes.end(), box.begin(), box.end());
    put16(&iloc, id);
    put16(&iloc, 0);
    put16(&iloc, 1);
    put32(&iloc, 0);
    put32(&iloc, 0);
    put16(&ipma, id);
    ipma.insert(ipma.end(), {1, 0x81});
  }
  Bytes ispe;
  put32(&ispe, 64);
  put32(&ispe, 64);
  Bytes pitm;
  put16(&pitm, 1);
  Bytes meta = {0, 0, 0, 0};
  for (const Bytes &child : {boxed("hdlr", Bytes(21, 0), true), boxed("pitm", pitm, true),
                             boxed("iinf", infes, true), boxed("iloc", iloc, true),
                             boxed("iprp", [&] {
                               Bytes iprp = boxed("ipco", boxed("ispe", ispe, true));
                               const Bytes a = boxed("ipma", ipma, true);
                               iprp.insert(iprp.end(), a.begin(), a.end());
                               return iprp;
                             }())}) {
    meta.insert(meta.end(), child.begin(), child.end());
  }
  Bytes file = boxed("ftyp", {'h', 'e', 'i', 'c', 0, 0, 0, 0, 'm', 'i', 'f', '1'});
  const Bytes m = boxed("meta", meta);
  file.insert(file.end(), m.begin(), m.end());
  return file;
}

// Open and close of a file whose items are all in reverse order.
void open_reversed_case(benchmark::State &state, uint32_t mode) {
  const Bytes file = reversed_items_file(10000);
  auto open_close = [&] {
    tarnd_io_dsc io;
    tarnd_io_init_memory(&io, file.data(), file.size());
    tarnd_file_info file_info;
    void *ctx = tarnd_create_with_flags(&io, mode, &file_info, nullptr);
    uint32_t slot = 0;
    const bool found = ctx != nullptr &&
                       tarnd_find_itemIndex(static_cast<tarnd_ctx *>(ctx)->meta.items,
                                            static_cast<tarnd_ctx *>(ctx)->meta.item_cnt, 1, &slot) == 0;
    tarnd_delete(ctx);
    return found;
  };
  if (!open_close()) return state.SkipWithError("libtarn refuses the file in this mode");
  count_heap(state, open_close);
  for (auto _ : state) open_close();
}

// The same from the file on disk (in the page cache after the first run):
// the library's file source, with its system calls.
void open_file_case(benchmark::State &state, const std::string &name) {
  const std::string path = corpus_path(name);
  size_t exif_size = 0;
  if (!open_info_exif({}, &exif_size, path.c_str())) return state.SkipWithError("libtarn refuses the file");
  for (auto _ : state) open_info_exif({}, &exif_size, path.c_str());
}

// The items that hold the primary image's coded data: the tiles of a grid,
// or the primary item itself.
bool primary_items(void *ctx, std::vector<uint32_t> *ids) {
  uint32_t primary = 0;
  tarnd_image_info info = {};
  if (tarnd_get_image_id(ctx, TARND_ID_PRIMARY, TARND_ID_REF_PRIMARY, &primary) != 0 ||
      tarnd_get_info_image(ctx, static_cast<int32_t>(primary), &info) != 0) {
    return false;
  }
  if ((info.flags & TARND_ITEM_GRID) == 0) {
    ids->assign(1, primary);
    return true;
  }
  ids->assign(info.tile_cnt, 0);
  return info.tile_cnt > 0 &&
         tarnd_get_list_referenceto(ctx, static_cast<int32_t>(primary), ids->data(),
                                    info.tile_cnt) == 0;
}

// Opens the file and measures the coded data of its primary image: the
// items and each one's size in start-code form.
struct Extraction {
  Bytes file;
  void *ctx = nullptr;
  std::vector<uint32_t> ids;
  std::vector<int32_t> sizes;
  size_t total = 0;
  ~Extraction() { tarnd_delete(ctx); }
  const char *prepare(const std::string &name) {
    if (!case_bytes(name, &file)) return "file not readable";
    tarnd_io_dsc io;
    tarnd_io_init_memory(&io, file.data(), file.size());
    tarnd_file_info file_info;
    ctx = tarnd_create(&io, 0, &file_info, nullptr);
    if (ctx == nullptr || !primary_items(ctx, &ids)) return "libtarn refuses the file";
    for (uint32_t id : ids) {
      int32_t size = 0;
      if (tarnd_get_image_frm(ctx, static_cast<int32_t>(id), nullptr, 0, &size) != 0 || size <= 0) {
        return "primary image has no coded data libtarn serves";
      }
      sizes.push_back(size);
      total += static_cast<size_t>(size);
    }
    return total <= file.size() ? nullptr : "coded data larger than the file";
  }
};

void extract_case(benchmark::State &state, const std::string &name) {
  Extraction x;
  if (const char *why = x.prepare(name)) return state.SkipWithError(why);
  Bytes out(x.total);
  auto extract_all = [&] {
    uint8_t *dst = out.data();
    for (size_t i = 0; i < x.ids.size(); ++i) {
      int32_t size = 0;
      if (tarnd_get_image_frm(x.ctx, static_cast<int32_t>(x.ids[i]), dst, x.sizes[i], &size) != 0) {
        return false;
      }
      dst += size;
    }
    return true;
  };
  if (!extract_all()) return state.SkipWithError("extraction failed");
  count_heap(state, extract_all);
  for (auto _ : state) {
    extract_all();
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(x.total));
  state.counters["items"] = static_cast<double>(x.ids.size());
  state.counters["coded_bytes"] = static_cast<double>(x.total);
}

// The yardstick: the same number of bytes in the same pieces, copied from
// the file buffer into the same output buffer.
void extract_memcpy_case(benchmark::State &state, const std::string &name) {
  Extraction x;
  if (const char *why = x.prepare(name)) return state.SkipWithError(why);
  Bytes out(x.total);
  for (auto _ : state) {
    size_t at = 0;
    for (int32_t size : x.sizes) {
      memcpy(out.data() + at, x.file.data() + at, static_cast<size_t>(size));
      at += static_cast<size_t>(size);
    }
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(x.total));
}

// Cases are registered at start-up from the corpus listing.
const bool kRegistered = [] {
  std::vector<std::string> names = corpus_files();
  names.push_back(kSampleName);
  for (const std::string &name : names) {
    benchmark::RegisterBenchmark(("open/tarn/" + name).c_str(), open_case, name)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark(("open/tarn-tolerant/" + name).c_str(), open_tolerant_case, name)
        ->Unit(benchmark::kMicrosecond);
  }
  benchmark::RegisterBenchmark("open-reversed/tarn/10000-items", open_reversed_case, TARND_READ_STRICT)
      ->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("open-reversed/tarn-tolerant/10000-items", open_reversed_case, TARND_READ_TOLERANT)
      ->Unit(benchmark::kMicrosecond);
  for (const std::string &name : corpus_files()) {
    benchmark::RegisterBenchmark(("open-file/tarn/" + name).c_str(), open_file_case, name)
        ->Unit(benchmark::kMicrosecond);
  }
  for (const std::string &name : names) {
    benchmark::RegisterBenchmark(("extract/tarn/" + name).c_str(), extract_case, name)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark(("extract/memcpy/" + name).c_str(), extract_memcpy_case, name)
        ->Unit(benchmark::kMicrosecond);
  }
  return true;
}();

}  // namespace
}  // namespace tarn_bench
