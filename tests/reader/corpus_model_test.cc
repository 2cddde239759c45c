// Opens every corpus file that facts.json lists, from memory and from disk,
// and compares the model with the facts. Where the facts and the reader's
// documented behaviour differ, the reader's behaviour is expected:
// - an item of several extents keeps only its last extent (facts give the
//   total length);
// - every ster group of two or more entities marks a stereo pair, so
//   stereo_1200x800.heic has two pairs;
// - a colr of type nclx binds with an ICC size of 0;
// - iphonexs_multi_grid_empty_icc.heic holds a colr with an empty profile
//   before ipma: the walk stops there and the open fails with -2;
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "reader/json_lite.h"
#include "reader/open_helpers.h"
#include "support/files.h"

namespace tarn_test {
namespace {

const char *const kFolders[] = {"nokia", "phones", "synthetic", "broken"};

std::string corpus_path(const std::string &name) {
  for (const char *folder : kFolders) {
    std::string p = corpus_dir() + "/" + folder + "/" + name;
    std::vector<uint8_t> probe;
    if (FILE *f = fopen(p.c_str(), "rb")) {
      fclose(f);
      return p;
    }
  }
  return "";
}

bool load_facts(Json *facts) {
  std::vector<uint8_t> bytes;
  if (!read_file(corpus_dir() + "/facts.json", &bytes)) return false;
  return parse_json(std::string(bytes.begin(), bytes.end()), facts);
}

// Brand class from the facts' brands, by the reader's classification rule.
uint32_t expected_brand(const Json &f) {
  const uint32_t major = fcc(f["major_brand"].text), minor = fcc(f["minor"].text);
  auto still = [](uint32_t b) { return b == fcc("heic") || b == fcc("heix"); };
  auto seq = [](uint32_t b) { return b == fcc("hevc") || b == fcc("hevx"); };
  uint32_t brand = 0;
  if (still(major) || still(minor)) brand = 1;
  if (seq(major) || seq(minor)) brand = 2;
  for (const Json &c : f["compatible"].items) {
    const uint32_t b = fcc(c.text);
    if (b == fcc("mif1") || still(b)) {
      if (brand == 0) brand = 1;
      break;
    }
    if ((b == fcc("msf1") || seq(b)) && brand == 0) brand = 2;
  }
  return brand;
}

// The files the reader refuses, with the status it must give.
struct Refusal {
  const char *file;
  int32_t err;
};
const Refusal kRefusals[] = {
    {"iphonexs_multi_grid_empty_icc.heic", -2},
    {"corrupted.heic", -2},
    {"empty.heic", -2},
};

int32_t expected_err(const std::string &file) {
  for (const Refusal &r : kRefusals)
    if (file == r.file) return r.err;
  return 0;
}

// The parameter-set stream: start-code NAL units ordered VPS, SPS, PPS.
void check_param_sets(const tarnd_property &p, const std::string &where) {
  const uint8_t *d = p.payload.hvcC.config_data;
  int last_type = 32, units = 0;
  for (uint32_t i = 0; i + 4 < p.payload.hvcC.config_size; ++i) {
    if (d[i] != 0 || d[i + 1] != 0 || d[i + 2] != 0 || d[i + 3] != 1) continue;
    const int type = (d[i + 4] >> 1) & 0x3f;
    EXPECT_TRUE(type >= last_type && type <= 34) << where;
    last_type = type;
    ++units;
  }
  EXPECT_GE(units, 3) << where;
}

void check_item(const tarnd_ctx *ctx, const Json &it, const std::string &where) {
  const tarnd_item *item = find_item(ctx, static_cast<uint32_t>(it["id"].number));
  ASSERT_NE(item, nullptr) << where;
  const uint32_t type = fcc(it["type"].text);
  EXPECT_EQ(item->item_type, type) << where;
  EXPECT_EQ(item->construction_method, static_cast<uint32_t>(it["construction_method"].number))
      << where;
  const Json &extents = it["extents"];
  if (!extents.items.empty()) {
    const Json &last = extents.items.back();
    EXPECT_EQ(item->offset, static_cast<uint64_t>(last[0].number)) << where;
    EXPECT_EQ(item->length, static_cast<uint64_t>(last[1].number)) << where;
  }
  bool displayable = false;
  for (uint32_t i = 0; i < ctx->displayable_cnt; ++i)
    displayable |= ctx->displayable_ids[i] == item->item_id;
  EXPECT_EQ(displayable, it["hidden"].number == 0) << where;

  // References, in file order.
  const Json &refs = it["refs"];
  ASSERT_EQ(item->referece_from_cnt, refs.items.size()) << where;
  for (size_t r = 0; r < refs.items.size(); ++r) {
    EXPECT_EQ(item->ref_type[r], fcc(refs[r]["type"].text)) << where;
    const Json &to = refs[r]["to"];
    ASSERT_EQ(item->ref_to_cnt[r], to.items.size()) << where;
    for (size_t t = 0; t < to.items.size(); ++t)
      EXPECT_EQ(item->ref_to_ids[r][t], to[t].number) << where;
  }

  const bool image = type == fcc("hvc1") || type == fcc("jpeg");
  const bool grid = type == fcc("grid");
  if (!image && !grid) return;
  const uint32_t width = image ? item->view.image.ispe_width : item->view.grid.ispe_width;
  const uint32_t height = image ? item->view.image.ispe_height : item->view.grid.ispe_height;
  const uint32_t angle = image ? item->view.image.irot_angle : item->view.grid.irot_angle;
  const int32_t colr = image ? item->view.image.colr_index : item->view.grid.colr_index;
  const int32_t clap = image ? item->view.image.clap_index : item->view.grid.clap_index;
  if (it.has("width")) {
    EXPECT_EQ(width, it["width"].number) << where;
    EXPECT_EQ(height, it["height"].number) << where;
  }
  EXPECT_EQ(angle, it.has("irot") ? it["irot"].number : 0) << where;
  if (it.has("colr")) {
    ASSERT_GE(colr, 0) << where;
    const tarnd_property &p = ctx->meta.properties[colr];
    const bool icc = it["colr"].text == "prof" || it["colr"].text == "rICC";
    EXPECT_EQ(p.payload.colr.icc_size, icc ? it["icc_size"].number : 0) << where;
  } else {
    EXPECT_EQ(colr, -1) << where;
  }
  if (it.has("clap")) {
    ASSERT_GE(clap, 0) << where;
    const tarnd_property &p = ctx->meta.properties[clap];
    for (size_t k = 0; k < 8; ++k)
      EXPECT_EQ(p.payload.words[k], static_cast<uint32_t>(it["clap"][k].number)) << where;
  } else {
    EXPECT_EQ(clap, -1) << where;
  }
  const uint32_t aux = item->flags & (TARND_ITEM_AUX_ALPHA | TARND_ITEM_AUX_DEPTH |
                                      TARND_ITEM_AUX_GAINMAP);
  const std::string urn = it["auxC"].text;
  EXPECT_EQ(aux, urn == "urn:mpeg:hevc:2015:auxid:1"   ? TARND_ITEM_AUX_ALPHA
                 : urn == "urn:mpeg:hevc:2015:auxid:2" ? TARND_ITEM_AUX_DEPTH
                                                       : 0u)
      << where;
  if (type == fcc("hvc1")) {
    ASSERT_GE(item->view.image.hvcC_index, 0) << where;
    const tarnd_property &p = ctx->meta.properties[item->view.image.hvcC_index];
    EXPECT_EQ(p.payload.hvcC.nal_length_size, it["nal_length_size"].number) << where;
    check_param_sets(p, where);
  }
}

void check_model(const tarnd_ctx *ctx, const Json &f) {
  const std::string name = f["file"].text;
  EXPECT_EQ(ctx->brand, expected_brand(f)) << name;
  EXPECT_EQ(ctx->primary_item_id, f["primary"].number) << name;
  for (const Json &it : f["items"].items)
    check_item(ctx, it, name + " item " + std::to_string(it["id"].number));

  std::set<uint32_t> left, right;
  for (const Json &g : f["groups"].items) {
    if (g["type"].text != "ster" || g["entities"].items.size() < 2) continue;
    left.insert(static_cast<uint32_t>(g["entities"][0].number));
    right.insert(static_cast<uint32_t>(g["entities"][1].number));
  }
  for (uint32_t i = 0; i < ctx->meta.item_cnt; ++i) {
    const tarnd_item &item = ctx->meta.items[i];
    EXPECT_EQ((item.flags & TARND_ITEM_STEREO_LEFT) != 0, left.count(item.item_id) != 0) << name;
    EXPECT_EQ((item.flags & TARND_ITEM_STEREO_RIGHT) != 0, right.count(item.item_id) != 0)
        << name;
  }
}

TEST(CorpusModel, MatchesFactsThroughBothSources) {
  TARN_REQUIRE_CORPUS();
  Json facts;
  ASSERT_TRUE(load_facts(&facts));
  ASSERT_FALSE(facts.items.empty());
  for (const Json &f : facts.items) {
    const std::string name = f["file"].text;
    const std::string path = corpus_path(name);
    ASSERT_FALSE(path.empty()) << name;
    std::vector<uint8_t> bytes;
    ASSERT_TRUE(read_file(path, &bytes)) << name;
    int32_t err_mem = 1, err_file = 1;
    CtxPtr from_memory = open_memory(bytes, &err_mem);
    CtxPtr from_file = open_path(path, &err_file);
    EXPECT_EQ(err_mem, expected_err(name)) << name;
    EXPECT_EQ(err_file, err_mem) << name;
    ASSERT_EQ(from_memory == nullptr, from_file == nullptr) << name;
    if (from_memory == nullptr) continue;
    check_model(from_memory.get(), f);
    check_model(from_file.get(), f);
  }
}

}  // namespace
}  // namespace tarn_test
