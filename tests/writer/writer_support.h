// Shared material for the writer tests: x265 streams of tests/data/hevc, a
// bounded output cursor, a writer context that records what a reader must
// find in the file it builds, and the reader-side check of such a file.
#ifndef TARN_TESTS_WRITER_SUPPORT_H
#define TARN_TESTS_WRITER_SUPPORT_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tarn/writer.h"
#include "writer/internal.h"

namespace tarn_test {

using Bytes = std::vector<uint8_t>;

struct HevcStream {
  std::vector<Bytes> vps, sps, pps, slices;
  Bytes frame() const;                  // slices behind 4-byte start codes
  tarnm_param_sets param_sets() const;  // points into this object
};
// tests/data/hevc/<name>; false when missing or without VPS, SPS, PPS, slice.
bool load_stream(const std::string &name, HevcStream *out);
// The streams the writer tests build files from, loaded once.
struct Streams {
  HevcStream single, tiles[4], thumb, alpha, odd;
  bool ok;
  Streams();
};
const Streams &streams();  // a failing check when a stream is missing
uint32_t be32(const uint8_t *p);
inline uint32_t fcc(const char *s) { return TARN_FCC(s[0], s[1], s[2], s[3]); }

struct Span {
  uint32_t type;      // fcc()
  size_t begin, end;  // whole box
};
// 32-bit boxes back to back in f[begin, end); stops at one that does not fit.
std::vector<Span> children(const Bytes &f, size_t begin, size_t end);

// A writer state whose cursor has `room` bytes, followed by a 0xEE guard.
struct Cursor {
  tarnm_state st{};
  Bytes buf;
  explicit Cursor(size_t room) : buf(room + 1, 0xEE) {
    st.write_ptr = buf.data();
    st.remaining = int32_t(room);
  }
  Bytes written() const { return Bytes(buf.data(), static_cast<const uint8_t *>(st.write_ptr)); }
};

// What one item must look like when read back.
struct ExpectedItem {
  uint32_t type = 0;  // TARN_FCC order
  bool hidden = false;
  Bytes data, icc, config, tonemap, exif, xmp, aux_subtype;  // data: the frame, when one was put
  uint32_t width = 0, height = 0, aux = 0, rows = 0, columns = 0;
  int32_t irot = -1;  // anticlockwise quarter turns; -1 no irot
  bool nclx = false;
  int untyped = 0;  // pixi and clli, which the reader counts without reading
  std::map<uint32_t, std::vector<uint16_t>> refs;
};
struct Expectation {
  std::map<uint16_t, ExpectedItem> items;
  std::vector<std::vector<uint32_t>> groups;  // type, then entity ids
  uint16_t primary = 0;
};

// A writer context recording, for every call that succeeds, what the file
// must hold. Calls return the writer's status.
class Mux {
 public:
  Mux();
  ~Mux() { tarnm_delete(ctx); }
  Mux(const Mux &) = delete;
  Mux &operator=(const Mux &) = delete;
  static tarnm_image_info info_for(const HevcStream &s, uint32_t width, uint32_t height);
  int32_t image(uint32_t id, uint32_t ref, tarnm_image_info info,
                const tarnm_grid_info *grid = nullptr);
  int32_t frame(uint32_t id, const HevcStream &s);
  int32_t cover(uint32_t id);
  Bytes finish();  // empty when finishing fails
  tarnm_state &st() { return ctx->state; }

  tarnm_ctx *ctx;
  Expectation expect;
};

// Reads file back with the project's reader and compares every recorded
// item, reference, property, data byte, group and the primary item.
void check_with_reader(const Bytes &file, const Expectation &expect);

}  // namespace tarn_test

#endif  // TARN_TESTS_WRITER_SUPPORT_H
