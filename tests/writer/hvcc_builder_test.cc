// The hvcC record: its layout, the refusals, and the record rebuilt from the
// parameter sets of x265 streams and of real HEIF files, which must agree
// with what those files and streams carry.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "support/files.h"
#include "tarn/writer.h"
#include "writer/roundtrip_streams.h"

namespace {

using tarn_test::Bytes;

Bytes build(const tarnm_param_sets &ps, int32_t *status) {
  const int32_t size = tarnm_get_hvcc_size(&ps);
  Bytes out(size > 0 ? size_t(size) : 1, 0xEE);
  *status = size < 0 ? -1 : tarnm_make_hvcc(&ps, out.data());
  return out;
}

// The SPS of single512.hevc, reused as a known-good SPS.
Bytes good_sps() {
  tarn_test::HevcStream s;
  EXPECT_TRUE(tarn_test::load_stream("single512.hevc", &s));
  return s.sps.empty() ? Bytes() : s.sps[0];
}

TEST(HvccBuilder, Layout) {
  const Bytes sps = good_sps();
  ASSERT_FALSE(sps.empty());
  Bytes vps(24, 0x40), pps(8, 0x44), sps40 = sps;
  sps40.resize(40, 0x80);
  struct Case {
    const char *name;
    int32_t vps_count, sps_count, pps_count;
    int32_t expect_size;
    uint8_t expect_arrays;
    uint8_t first_array_type;
  };
  static const Case kCases[] = {
      {"one of each", 1, 1, 1, 23 + 29 + 45 + 13, 3, 0x20},
      {"two SPS", 1, 2, 1, 23 + 29 + (3 + 2 * 42) + 13, 3, 0x20},
      {"no VPS array", 0, 1, 1, 23 + 45 + 13, 2, 0x21},
      {"four of each", 4, 4, 4, 23 + (3 + 4 * 26) + (3 + 4 * 42) + (3 + 4 * 10), 3, 0x20},
  };
  for (const Case &c : kCases) {
    SCOPED_TRACE(c.name);
    tarnm_param_sets ps{};
    ps.vps_count = c.vps_count;
    ps.sps_count = c.sps_count;
    ps.pps_count = c.pps_count;
    for (int i = 0; i < 4; ++i) {
      ps.vps_size[i] = uint32_t(vps.size());
      ps.vps_data[i] = vps.data();
      ps.sps_size[i] = uint32_t(sps40.size());
      ps.sps_data[i] = sps40.data();
      ps.pps_size[i] = uint32_t(pps.size());
      ps.pps_data[i] = pps.data();
    }
    int32_t status;
    const Bytes rec = build(ps, &status);
    ASSERT_EQ(status, 0);
    ASSERT_EQ(int32_t(rec.size()), c.expect_size);
    EXPECT_EQ(rec[0], 1);
    EXPECT_EQ(rec[13], 0xF0);
    EXPECT_EQ(rec[14], 0x00);
    EXPECT_EQ(rec[15], 0xFC);
    EXPECT_EQ(rec[16], 0xFD);  // 4:2:0
    EXPECT_EQ(rec[17], 0xF8);  // 8 bits
    EXPECT_EQ(rec[18], 0xF8);
    EXPECT_EQ(rec[21], 0x03);
    EXPECT_EQ(rec[22], c.expect_arrays);
    EXPECT_EQ(rec[23], c.first_array_type);
  }
}

TEST(HvccBuilder, Refusals) {
  const Bytes sps = good_sps();
  ASSERT_FALSE(sps.empty());
  Bytes vps(24, 0x40), pps(8, 0x44), huge(65536, 0x44);
  struct Case {
    const char *name;
    void (*mutate)(tarnm_param_sets *ps, const Bytes &huge);
  };
  static const Case kCases[] = {
      {"VPS count 5", [](tarnm_param_sets *ps, const Bytes &) { ps->vps_count = 5; }},
      {"SPS count -1", [](tarnm_param_sets *ps, const Bytes &) { ps->sps_count = -1; }},
      {"PPS count -1", [](tarnm_param_sets *ps, const Bytes &) { ps->pps_count = -1; }},
      {"no VPS", [](tarnm_param_sets *ps, const Bytes &) { ps->vps_data[0] = nullptr; }},
      {"no SPS", [](tarnm_param_sets *ps, const Bytes &) { ps->sps_data[0] = nullptr; }},
      {"no PPS", [](tarnm_param_sets *ps, const Bytes &) { ps->pps_data[0] = nullptr; }},
      {"SPS of 7 bytes", [](tarnm_param_sets *ps, const Bytes &) { ps->sps_size[0] = 7; }},
      {"SPS cut after its profile", [](tarnm_param_sets *ps, const Bytes &) { ps->sps_size[0] = 15; }},
      {"PPS of 65536 bytes",
       [](tarnm_param_sets *ps, const Bytes &h) {
         ps->pps_size[0] = uint32_t(h.size());
         ps->pps_data[0] = h.data();
       }},
      {"second PPS missing",
       [](tarnm_param_sets *ps, const Bytes &) {
         ps->pps_count = 2;
         ps->pps_size[1] = 4;
       }},
  };
  for (const Case &c : kCases) {
    SCOPED_TRACE(c.name);
    tarnm_param_sets ps{};
    ps.vps_count = ps.sps_count = ps.pps_count = 1;
    ps.vps_size[0] = uint32_t(vps.size());
    ps.vps_data[0] = vps.data();
    ps.sps_size[0] = uint32_t(sps.size());
    ps.sps_data[0] = sps.data();
    ps.pps_size[0] = uint32_t(pps.size());
    ps.pps_data[0] = pps.data();
    c.mutate(&ps, huge);
    Bytes out(200000, 0xEE);
    EXPECT_EQ(tarnm_make_hvcc(&ps, out.data()), -1);
    EXPECT_EQ(out[0], 0xEE);  // nothing written
  }
  EXPECT_EQ(tarnm_get_hvcc_size(nullptr), -1);
}

// The SPS payload without its emulation-prevention bytes and NAL header.
Bytes rbsp_of(const Bytes &nal) {
  Bytes out;
  int zeros = 0;
  for (size_t i = 2; i < nal.size(); ++i) {
    if (zeros >= 2 && nal[i] == 3) {
      zeros = 0;
      continue;
    }
    out.push_back(nal[i]);
    zeros = nal[i] == 0 ? zeros + 1 : 0;
  }
  return out;
}

struct ParsedHvcc {
  Bytes head;                                // bytes 0..22
  std::vector<std::pair<uint8_t, Bytes>> units;  // NAL type, unit
  bool ok = false;
};

ParsedHvcc parse_hvcc(const Bytes &p) {
  ParsedHvcc r;
  if (p.size() < 23) return r;
  r.head.assign(p.begin(), p.begin() + 23);
  size_t off = 23;
  for (int a = 0; a < p[22]; ++a) {
    if (p.size() - off < 3) return r;
    const uint8_t type = p[off] & 0x3F;
    const uint16_t n = tarn_test::be16(&p[off + 1]);
    off += 3;
    for (uint16_t i = 0; i < n; ++i) {
      if (p.size() - off < 2) return r;
      const size_t len = tarn_test::be16(&p[off]);
      if (p.size() - off - 2 < len) return r;
      r.units.emplace_back(type, Bytes(p.begin() + long(off + 2), p.begin() + long(off + 2 + len)));
      off += 2 + len;
    }
  }
  r.ok = true;
  return r;
}

// Every hvcC of the real files, rebuilt from its own parameter sets, equals
// the original in every field the writer derives; the fields it writes as
// constants (segmentation, parallelism, frame rate, temporal layers,
// array completeness) are left out, as are non-parameter-set arrays. Several
// writers leave the 48 constraint flags of hvcC at zero whatever the SPS
// says; the writer takes the summary from the SPS, so it is compared with it.
TEST(HvccBuilder, MatchesRealFiles) {
  TARN_REQUIRE_CORPUS();
  std::vector<std::string> files;
  for (const char *folder : {"nokia", "phones", "synthetic"}) {
    for (const auto &entry : std::filesystem::directory_iterator(tarn_test::corpus_dir() + "/" + folder)) {
      files.push_back(std::string(folder) + "/" + entry.path().filename().string());
    }
  }
  std::sort(files.begin(), files.end());
  // This camera's hvcC has the tier flag cleared and each byte of the
  // compatibility flags bit-reversed against its own SPS; the SPS wins.
  static const char kSonyGrid[] = "phones/sony_grid_jpeg_thumb.hif";
  int checked = 0;
  for (const std::string &name : files) {
    SCOPED_TRACE(name);
    Bytes file;
    ASSERT_TRUE(tarn_test::read_file(tarn_test::corpus_dir() + "/" + name, &file));
    const std::vector<Bytes> records = tarn_test::hvcc_payloads(file);
    EXPECT_FALSE(records.empty());
    for (const Bytes &original : records) {
      const ParsedHvcc parsed = parse_hvcc(original);
      ASSERT_TRUE(parsed.ok);
      std::vector<Bytes> kinds[3];
      for (const auto &u : parsed.units) {
        if (u.first >= 32 && u.first <= 34) kinds[u.first - 32].push_back(u.second);
      }
      tarn_test::HevcStream s;
      s.vps = kinds[0];
      s.sps = kinds[1];
      s.pps = kinds[2];
      ASSERT_FALSE(s.vps.empty() || s.sps.empty() || s.pps.empty());
      const tarnm_param_sets ps = s.param_sets();
      int32_t status;
      const Bytes rec = build(ps, &status);
      ASSERT_EQ(status, 0);
      const Bytes sps = rbsp_of(s.sps[0]);
      ASSERT_GE(sps.size(), 13u);
      EXPECT_EQ(Bytes(rec.begin() + 1, rec.begin() + 13), Bytes(sps.begin() + 1, sps.begin() + 13));
      if (name != kSonyGrid) {
        EXPECT_EQ(Bytes(rec.begin() + 1, rec.begin() + 6),
                  Bytes(original.begin() + 1, original.begin() + 6));
      }
      EXPECT_EQ(rec[12], original[12]);
      EXPECT_EQ(rec[16] & 0x03, original[16] & 0x03);
      EXPECT_EQ(rec[17] & 0x07, original[17] & 0x07);
      EXPECT_EQ(rec[18] & 0x07, original[18] & 0x07);
      EXPECT_EQ(rec[21] & 0x03, original[21] & 0x03);
      const ParsedHvcc again = parse_hvcc(rec);
      ASSERT_TRUE(again.ok);
      std::vector<std::pair<uint8_t, Bytes>> expected;
      for (uint8_t t = 32; t <= 34; ++t) {
        for (const auto &u : parsed.units) {
          if (u.first == t) expected.push_back(u);
        }
      }
      EXPECT_EQ(again.units, expected);
      ++checked;
    }
  }
  EXPECT_GT(checked, 60);
}

}  // namespace
