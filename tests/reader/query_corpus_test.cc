// Queries over every real file of the corpus, checked against facts.json
// (what an independent tool read from each file's boxes): primary,
// thumbnail, auxiliary and stereo ids, image sizes, rotation, ICC sizes and
// crops, grid layouts and tile lists, Exif and XMP bytes, frame sizes.

#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "reader/json_lite.h"
#include "reader/open_helpers.h"
#include "support/files.h"

namespace {

using tarn_test::Json;

std::vector<uint32_t> ids_of(const Json &list) {
  std::vector<uint32_t> ids;
  for (const auto &v : list.items) ids.push_back(static_cast<uint32_t>(v.number));
  return ids;
}

// To-ids of the item's first reference of this type (empty when none).
std::vector<uint32_t> first_ref(const Json &item, const char *type) {
  for (const auto &r : item["refs"].items) {
    if (r["type"].text == type) return ids_of(r["to"]);
  }
  return {};
}

// The crop of a clean aperture in long double, independent of the library's
// exact fractions; false when an edge is not a whole pixel inside the image.
bool expected_crop(int64_t w, int64_t h, const Json &c, tarnd_crop *crop) {
  auto v = [&](size_t i) { return static_cast<long double>(c[i].number); };
  const long double cw = v(0) / v(1), ch = v(2) / v(3);
  const long double left = w / 2.0L + v(4) / v(5) - cw / 2;
  const long double top = h / 2.0L + v(6) / v(7) - ch / 2;
  if (left != static_cast<int64_t>(left) || top != static_cast<int64_t>(top) || left < 0 || top < 0 ||
      left + cw > w || top + ch > h) {
    return false;
  }
  *crop = {static_cast<int32_t>(left), static_cast<int32_t>(top), static_cast<int32_t>(left + cw),
           static_cast<int32_t>(top + ch)};
  return true;
}

std::string find_file(const std::string &name) {
  for (const char *folder : {"broken", "nokia", "phones", "synthetic"}) {
    const std::string path = tarn_test::corpus_dir() + "/" + folder + "/" + name;
    std::vector<uint8_t> probe;
    if (tarn_test::read_file(path, &probe)) return path;
  }
  return "";
}

// Files that do not open: nothing of their meta box survives, or (the
// iPhone XS edit) a colr box with an empty profile stops the walk before ipma.
const char *const kUnopenable[] = {"empty.heic", "corrupted.heic", "iphonexs_multi_grid_empty_icc.heic"};

void check_image(tarnd_ctx *ctx, const Json &item, const std::vector<uint8_t> &bytes) {
  const int32_t id = static_cast<int32_t>(item["id"].number);
  const std::string type = item["type"].text;
  if (type == "hvc1" || type == "grid" || type == "jpeg") {
    tarnd_image_info info = {};
    info.crop = {-7, -7, -7, -7};
    ASSERT_EQ(tarnd_get_info_image(ctx, id, &info), 0);
    EXPECT_EQ(info.width, item["width"].number);
    EXPECT_EQ(info.height, item["height"].number);
    EXPECT_EQ(info.rotation, item["irot"].number);
    EXPECT_EQ(info.codec, type == "hvc1" ? 120u : type == "jpeg" ? 501u : 0u);
    EXPECT_EQ(info.tile_cnt, first_ref(item, "dimg").size());
    const bool icc = item["colr"].text == "prof" || item["colr"].text == "rICC";
    EXPECT_EQ(info.icc_size, icc && type != "jpeg" ? item["icc_size"].number : 0);
    if (type == "hvc1") {
      // Start-code form, VPS first.
      ASSERT_GT(info.config_size, 5u);
      EXPECT_EQ(memcmp(info.config_data, "\0\0\0\1", 4), 0);
      EXPECT_EQ((info.config_data[4] >> 1) & 0x3F, 32);
    }
    tarnd_crop want = {-7, -7, -7, -7};
    if (item.has("clap")) {
      expected_crop(item["width"].number, item["height"].number, item["clap"], &want);
    }
    EXPECT_EQ(memcmp(&info.crop, &want, sizeof(want)), 0)
        << info.crop.left << "," << info.crop.top << "," << info.crop.right << "," << info.crop.bottom;
  }
  if (type == "hvc1") {
    int32_t size = -1;
    const Json &extent = item["extents"].items.back();
    if (static_cast<uint64_t>(extent[0].number + extent[1].number) > bytes.size()) {
      EXPECT_EQ(tarnd_get_image_frm(ctx, id, nullptr, 0, &size), -6);  // cut off by the end
    } else {
      EXPECT_EQ(tarnd_get_image_frm(ctx, id, nullptr, 0, &size), 0);
      // With 4-byte length prefixes the start-code form has the same size.
      if (item["nal_length_size"].number == 4) {
        EXPECT_EQ(size, item["length"].number);
      }
    }
  }
  if (type == "grid") {
    tarnd_grid_info g = {};
    EXPECT_EQ(tarnd_get_info_item(ctx, id, TARND_INFO_GRID, &g), 0);
    const Json &want = item["grid"];
    EXPECT_EQ(g.rows, want["rows"].number);
    EXPECT_EQ(g.columns, want["columns"].number);
    EXPECT_EQ(g.output_width, want["output_width"].number);
    EXPECT_EQ(g.output_height, want["output_height"].number);
    EXPECT_EQ(g.rotation, item["irot"].number);
  }
  const std::vector<uint32_t> tiles = first_ref(item, "dimg");
  if (!tiles.empty()) {
    std::vector<uint32_t> got(tiles.size() + 1, 0xABCDu);
    EXPECT_EQ(tarnd_get_list_referenceto(ctx, id, got.data(), static_cast<uint32_t>(got.size())), 0);
    EXPECT_EQ(std::vector<uint32_t>(got.begin(), got.end() - 1), tiles);
    EXPECT_EQ(got.back(), 0xABCDu);  // never more ids than the reference holds
  }
}

void check_file(const Json &file) {
  const std::string name = file["file"].text;
  SCOPED_TRACE(name);
  const std::string path = find_file(name);
  ASSERT_FALSE(path.empty());
  int32_t err = 1;
  tarn_test::CtxPtr ctx = tarn_test::open_path(path, &err);
  if (std::count(std::begin(kUnopenable), std::end(kUnopenable), name) != 0) {
    EXPECT_EQ(ctx, nullptr);
    EXPECT_EQ(err, -2);
    return;
  }
  ASSERT_NE(ctx, nullptr) << "err " << err;
  std::vector<uint8_t> bytes;
  ASSERT_TRUE(tarn_test::read_file(path, &bytes));
  const Json &items = file["items"];

  // Primary: an item that is not an hvc1 or grid image gives way to the
  // first item that is not hidden.
  uint32_t want = static_cast<uint32_t>(file["primary"].number);
  for (const auto &item : items.items) {
    const std::string type = item["type"].text;
    if (item["id"].number == want && type != "hvc1" && type != "grid") {
      for (const auto &shown : items.items) {
        if (shown["hidden"].number == 0) {
          want = static_cast<uint32_t>(shown["id"].number);
          break;
        }
      }
      break;
    }
  }
  uint32_t id = 0;
  EXPECT_EQ(tarnd_get_image_id(ctx.get(), TARND_ID_PRIMARY, TARND_ID_REF_PRIMARY, &id), 0);
  EXPECT_EQ(id, want);

  // Roles: the first item, in table order, that names the image first in a
  // reference of the role's type; stereo: the first item named first
  // (left) or second (right) by any ster group.
  std::map<std::pair<uint32_t, uint32_t>, uint32_t> roles;  // (code, image) -> answer
  std::vector<uint32_t> sides[2];
  for (const auto &g : file["groups"].items) {
    const std::vector<uint32_t> e = ids_of(g["entities"]);
    if (g["type"].text != "ster" || e.size() < 2) continue;
    sides[0].push_back(e[0]);
    sides[1].push_back(e[1]);
  }
  uint32_t stereo[2] = {0xFFFFFFFFu, 0xFFFFFFFFu};
  for (const auto &item : items.items) {
    const uint32_t item_id = static_cast<uint32_t>(item["id"].number);
    for (const auto &ref : item["refs"].items) {
      const std::string type = ref["type"].text;
      const uint32_t code = type == "thmb" ? TARND_ID_THUMBNAIL : type == "auxl" ? TARND_ID_AUXILIARY : 0;
      if (code != 0 && !ref["to"].items.empty()) {
        roles.emplace(std::make_pair(code, static_cast<uint32_t>(ref["to"][0].number)), item_id);
      }
    }
    for (int s = 0; s < 2; ++s) {
      if (stereo[s] == 0xFFFFFFFFu && std::count(sides[s].begin(), sides[s].end(), item_id) != 0) {
        stereo[s] = item_id;
      }
    }
  }
  for (const auto &role : roles) {
    EXPECT_EQ(tarnd_get_image_id(ctx.get(), role.first.first, role.first.second, &id), 0);
    EXPECT_EQ(id, role.second) << "role " << role.first.first << " of " << role.first.second;
  }
  for (int s = 0; s < 2; ++s) {
    const uint32_t code = s == 0 ? TARND_ID_STEREO_LEFT : TARND_ID_STEREO_RIGHT;
    EXPECT_EQ(tarnd_get_image_id(ctx.get(), code, 0, &id), stereo[s] == 0xFFFFFFFFu ? -1 : 0);
    EXPECT_EQ(id, stereo[s]);
  }

  std::map<std::pair<std::string, uint32_t>, bool> asked;  // first metadata item per image
  for (const auto &item : items.items) {
    SCOPED_TRACE("item " + std::to_string(item["id"].number) + " " + item["type"].text);
    check_image(ctx.get(), item, bytes);
    // Exif and XMP: asked through the image they describe; the bytes are
    // the item's data as it stands in the file, less the Exif header offset.
    const std::string type = item["type"].text;
    if ((type != "Exif" && type != "mime") || !item.has("refs")) continue;
    const uint32_t image = static_cast<uint32_t>(item["refs"][0]["to"][0].number);
    if (!asked.emplace(std::make_pair(type, image), true).second) continue;
    const bool exif = type == "Exif";
    const uint64_t skip = exif ? 4 : 0;
    const uint64_t offset = static_cast<uint64_t>(item["extents"][0][0].number) + skip;
    const uint64_t size = static_cast<uint64_t>(item["length"].number) - skip;
    tarnd_item_data data = {nullptr, 0xFFFFFFFFu};
    const uint32_t kind = exif ? TARND_INFO_EXIF : TARND_INFO_XMP;
    ASSERT_EQ(tarnd_get_info_item(ctx.get(), static_cast<int32_t>(image), kind, &data), 0);
    ASSERT_EQ(data.size, size);
    ASSERT_LE(offset + size, bytes.size());
    EXPECT_EQ(memcmp(data.data, bytes.data() + offset, size), 0);
    tarnd_item_data again = {nullptr, 0};
    EXPECT_EQ(tarnd_get_info_item(ctx.get(), static_cast<int32_t>(image), kind, &again), 0);
    EXPECT_EQ(again.data, data.data);  // the cached copy
  }
}

TEST(QueryCorpus, EveryFileMatchesItsFacts) {
  TARN_REQUIRE_CORPUS();
  std::vector<uint8_t> text;
  Json facts;
  ASSERT_TRUE(tarn_test::read_file(tarn_test::corpus_dir() + "/facts.json", &text));
  ASSERT_TRUE(tarn_test::parse_json(std::string(text.begin(), text.end()), &facts));
  ASSERT_FALSE(facts.items.empty());
  for (const auto &file : facts.items) check_file(file);
}

// Every query on every item of files cut short at many points: each answer
// is a status the query may give, and nothing is read or written outside
// the data (the sanitizer build checks that).
TEST(QueryCorpus, QueriesOnTruncatedFilesFailCleanly) {
  TARN_REQUIRE_CORPUS();
  struct Case {
    const char *file;
    size_t stride;
  };
  static const Case kCases[] = {
      {"synthetic/L_xmp.heif", 7},
      {"phones/sony_mono_exif_xmp.heic", 61},
      {"synthetic/RGBA_10__29x100.heif", 3},
  };
  for (const auto &c : kCases) {
    std::vector<uint8_t> whole;
    ASSERT_TRUE(tarn_test::read_file(tarn_test::corpus_dir() + "/" + c.file, &whole));
    for (size_t cut = 0; cut <= whole.size(); cut += c.stride) {
      const std::vector<uint8_t> bytes(whole.begin(), whole.begin() + static_cast<long>(cut));
      tarn_test::CtxPtr ctx = tarn_test::open_memory(bytes, nullptr);
      if (ctx == nullptr) continue;
      for (int32_t id = 0; id <= 8; ++id) {
        SCOPED_TRACE(std::string(c.file) + " cut at " + std::to_string(cut) + ", item " + std::to_string(id));
        tarnd_image_info info = {};
        EXPECT_GE(tarnd_get_info_image(ctx.get(), id, &info), -1);
        for (uint32_t kind : {TARND_INFO_GRID, TARND_INFO_EXIF, TARND_INFO_XMP, TARND_INFO_TONEMAP}) {
          union {
            tarnd_grid_info grid;
            tarnd_item_data data;
          } out = {};
          const int32_t status = tarnd_get_info_item(ctx.get(), id, kind, &out);
          EXPECT_TRUE(status == 0 || status == -1 || status == -2 || status == -6) << status;
        }
        int32_t size = 0;
        if (tarnd_get_image_frm(ctx.get(), id, nullptr, 0, &size) == 0 && size > 0) {
          std::vector<uint8_t> frame(static_cast<size_t>(size));
          const int32_t status = tarnd_get_image_frm(ctx.get(), id, frame.data(), size, &size);
          EXPECT_TRUE(status == 0 || status == -6) << status;
          EXPECT_LE(static_cast<size_t>(size), frame.size());
        }
        uint32_t tiles[4];
        EXPECT_GE(tarnd_get_list_referenceto(ctx.get(), id, tiles, 4), -1);
      }
    }
  }
}

}  // namespace
