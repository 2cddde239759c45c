// Reader query costs: extracting a 4 MB HEVC frame from a memory source in
// start-code form, against a plain memcpy of the same bytes in the same run,
// and the Exif query of a 48-tile phone photo from open to bytes.

#include <benchmark/benchmark.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include "tarn/io.h"
#include "tarn/reader.h"

namespace {

constexpr size_t kFrameSize = 4u << 20;
constexpr size_t kNalUnits = 8;  // slice segments of a large frame

using Bytes = std::vector<uint8_t>;

void put32(Bytes *b, uint32_t v) {
  for (int s = 24; s >= 0; s -= 8) b->push_back(static_cast<uint8_t>(v >> s));
}
void put16(Bytes *b, uint16_t v) {
  b->push_back(static_cast<uint8_t>(v >> 8));
  b->push_back(static_cast<uint8_t>(v));
}
void put_fcc(Bytes *b, const char *code) { b->insert(b->end(), code, code + 4); }
Bytes box(const char *type, const Bytes &payload, int version = -1) {
  Bytes b;
  put32(&b, static_cast<uint32_t>(payload.size() + 8 + (version >= 0 ? 4 : 0)));
  put_fcc(&b, type);
  if (version >= 0) put32(&b, static_cast<uint32_t>(version) << 24);
  b.insert(b.end(), payload.begin(), payload.end());
  return b;
}
Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes b;
  for (const auto &p : parts) b.insert(b.end(), p.begin(), p.end());
  return b;
}

// ftyp, an mdat holding one hvc1 item of kFrameSize bytes (length-prefixed
// NAL units), then its meta box.
Bytes frame_file() {
  Bytes ftyp;
  put_fcc(&ftyp, "heic");
  put32(&ftyp, 0);
  put_fcc(&ftyp, "mif1");
  ftyp = box("ftyp", ftyp);
  Bytes frame;
  for (size_t k = 0; k < kNalUnits; ++k) {
    const uint32_t unit = static_cast<uint32_t>(kFrameSize / kNalUnits - 4);
    put32(&frame, unit);
    frame.insert(frame.end(), unit, static_cast<uint8_t>(0x26 + k));
  }
  const uint32_t offset = static_cast<uint32_t>(ftyp.size() + 8);

  Bytes infe, iinf, iloc, hvcc(21, 0), ispe, ipma, hdlr(4, 0);
  put16(&infe, 1);
  put16(&infe, 0);
  put_fcc(&infe, "hvc1");
  infe.push_back(0);
  put16(&iinf, 1);
  iinf = cat({iinf, box("infe", infe, 2)});
  iloc = {0x44, 0x00};
  put16(&iloc, 1);  // item count
  put16(&iloc, 1);  // item id
  put16(&iloc, 0);  // construction method: file
  put16(&iloc, 0);  // data reference
  put16(&iloc, 1);  // extent count
  put32(&iloc, offset);
  put32(&iloc, static_cast<uint32_t>(frame.size()));
  hvcc.push_back(0xF3);  // 4-byte NAL length prefixes
  hvcc.push_back(0);     // no parameter-set arrays
  put32(&ispe, 4096);
  put32(&ispe, 2048);
  put32(&ipma, 1);
  put16(&ipma, 1);
  ipma.push_back(2);
  ipma.push_back(0x81);
  ipma.push_back(2);
  put_fcc(&hdlr, "pict");
  hdlr.insert(hdlr.end(), 13, 0);
  Bytes pitm;
  put16(&pitm, 1);
  const Bytes meta = box(
      "meta",
      cat({box("hdlr", hdlr, 0), box("pitm", pitm, 0), box("iinf", iinf, 0), box("iloc", iloc, 1),
           box("iprp",
               cat({box("ipco", cat({box("hvcC", hvcc), box("ispe", ispe, 0)})), box("ipma", ipma, 0)}))}),
      0);
  return cat({ftyp, box("mdat", frame), meta});
}

void BM_FrameExtract4MB(benchmark::State &state) {
  const Bytes file = frame_file();
  tarnd_io_dsc io;
  tarnd_io_init_memory(&io, file.data(), file.size());
  tarnd_file_info info;
  void *ctx = tarnd_create(&io, 0, &info, nullptr);
  if (ctx == nullptr) {
    state.SkipWithError("frame file did not open");
    return;
  }
  int32_t size = 0;
  tarnd_get_image_frm(ctx, 1, nullptr, 0, &size);
  Bytes out(static_cast<size_t>(size));
  for (auto _ : state) {
    if (tarnd_get_image_frm(ctx, 1, out.data(), size, &size) != 0) {
      state.SkipWithError("extraction failed");
      break;
    }
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * size);
  tarnd_delete(ctx);
}
BENCHMARK(BM_FrameExtract4MB);

// The yardstick of the frame extraction: the same bytes, copied once.
void BM_Memcpy4MB(benchmark::State &state) {
  const Bytes src(kFrameSize, 0x26);
  Bytes dst(kFrameSize);
  for (auto _ : state) {
    memcpy(dst.data(), src.data(), kFrameSize);
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFrameSize));
}
BENCHMARK(BM_Memcpy4MB);

void BM_ExifQueryFromOpen(benchmark::State &state) {
  const std::string path = std::string(TARN_CORPUS_DIR) + "/phones/iphone8plus_grid_thumb_exif.heic";
  Bytes file;
  if (FILE *f = fopen(path.c_str(), "rb")) {
    uint8_t chunk[65536];
    size_t n;
    while ((n = fread(chunk, 1, sizeof(chunk), f)) > 0) file.insert(file.end(), chunk, chunk + n);
    fclose(f);
  }
  if (file.empty()) {
    state.SkipWithError("corpus file not found");
    return;
  }
  for (auto _ : state) {
    tarnd_io_dsc io;
    tarnd_io_init_memory(&io, file.data(), file.size());
    tarnd_file_info info;
    void *ctx = tarnd_create(&io, 0, &info, nullptr);
    uint32_t primary = 0;
    tarnd_item_data exif = {nullptr, 0};
    if (ctx == nullptr || tarnd_get_image_id(ctx, TARND_ID_PRIMARY, 0, &primary) != 0 ||
        tarnd_get_info_item(ctx, static_cast<int32_t>(primary), TARND_INFO_EXIF, &exif) != 0 ||
        exif.size == 0) {
      state.SkipWithError("Exif query failed");
      tarnd_delete(ctx);
      break;
    }
    benchmark::DoNotOptimize(exif.data);
    tarnd_delete(ctx);
  }
}
BENCHMARK(BM_ExifQueryFromOpen);

}  // namespace
