// Round-trip scenarios shared by the reader-backed round trips and the
// interop checks with independent tools: each builds one HEIC file through
// the writer and records, beside every call, what a reader must find in it.
#ifndef TARN_TESTS_WRITER_ROUNDTRIP_SCENARIOS_H
#define TARN_TESTS_WRITER_ROUNDTRIP_SCENARIOS_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tarn/writer.h"
#include "writer/roundtrip_streams.h"

namespace tarn_test {

// What one item must look like when read back.
struct ExpectedItem {
  uint16_t id = 0;
  uint32_t type = 0;  // fourcc() order: first character most significant
  bool hidden = false;
  bool has_data = false;
  Bytes data;  // frame in start-code form, Exif without its offset word, XMP
  // Properties; a negative rotation means no irot.
  bool has_ispe = false;
  uint32_t width = 0, height = 0;
  int32_t irot = -1;  // anticlockwise quarter turns as stored
  Bytes icc;          // ICC payload of colr, empty when none
  bool nclx = false;
  Bytes config;       // hvcC parameter sets in start-code form, empty when none
  uint32_t aux_urn_kind = 0;  // 1 alpha, 2 depth, 3 gain map
  std::map<uint32_t, std::vector<uint16_t>> refs;  // reference type -> targets
  // Grid layout, when type is grid.
  uint32_t rows = 0, columns = 0, output_width = 0, output_height = 0;
  Bytes tonemap;  // tmap item bytes after the version byte
  Bytes exif, xmp;  // metadata describing this item
};

struct ExpectedGroup {
  uint32_t type;  // fourcc()
  std::vector<uint32_t> ids;
};

struct Expectation {
  std::map<uint16_t, ExpectedItem> items;
  std::vector<ExpectedGroup> groups;
  uint16_t primary = 0;
  std::string source_png;  // tests/data/hevc picture of the primary image
  uint32_t primary_width = 0, primary_height = 0;
};

// A writer context that records what it was given. Calls return the
// writer's status; expectations are recorded only for calls that succeed.
class Mux {
 public:
  Mux();
  ~Mux();
  Mux(const Mux &) = delete;
  Mux &operator=(const Mux &) = delete;

  tarnm_ctx *ctx() const { return ctx_; }
  // Image information filled from a stream; the stream must outlive the
  // registration call.
  static tarnm_image_info info_for(const HevcStream &s, uint32_t width, uint32_t height);
  int32_t image(uint32_t id, uint32_t ref, tarnm_image_info info,
                const tarnm_grid_info *grid = nullptr);
  int32_t frame(uint32_t id, const HevcStream &s);
  int32_t cover(uint32_t id);
  // Finishes the file; an empty result when finishing fails.
  Bytes finish();

  Expectation expect;

 private:
  tarnm_ctx *ctx_;
};

struct Scenario {
  const char *name;
  // Builds the file into mux; false (with a test failure recorded) when a
  // call that should work fails.
  bool (*build)(Mux *mux);
};

// Every round-trip scenario: single image, grid, thumbnail, alpha, depth,
// gain map with tone map, rotation, ICC, Exif and XMP, stereo pair, several
// grids, and tiles and metadata in other orders.
const std::vector<Scenario> &scenarios();

// Reads file back with the project's reader and compares every recorded
// item, reference, property, location, data byte, group and the primary
// item. Failures are reported through gtest.
void check_with_reader(const Bytes &file, const Expectation &expect);

}  // namespace tarn_test

#endif  // TARN_TESTS_WRITER_ROUNDTRIP_SCENARIOS_H
