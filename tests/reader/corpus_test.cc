// Every real file of the corpus, opened from memory, from disk and in
// tolerant mode, against
// facts.json (what an independent tool read from each file's boxes). Where
// the facts and the reader's documented behaviour differ, the reader's is
// expected: an item keeps only its last extent; every ster group of two or
// more entities marks a stereo pair; an nclx colr has an ICC size of 0; Exif
// bytes start after the 4-byte header offset.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <set>

#include "reader/helpers.h"
#include "support/log_capture.h"

namespace tarn_test {
namespace {

using bb::Bytes;

// Files the reader refuses or opens despite damage, with the strict status
// and log line and the tolerant status.
struct Broken { const char *file; int32_t err; const char *log; int32_t tolerant_err; };
const Broken kBroken[] = {
    {"empty.heic", -2, "ctx->meta.items is NULL", -2},
    {"corrupted.heic", -2, "ctx->meta.items is NULL", -2},
    // A colr with an empty profile before ipma stops the strict walk.
    {"iphonexs_multi_grid_empty_icc.heic", -2, "ctx->meta.association_list is NULL", 0},
    // Its thmb reference runs from the primary grid (the one pitm names,
    // full size) to the small image: both modes keep pitm's primary.
    {"invalid_id.heic", 0, nullptr, 0},
    {"truncated.heic", 0, nullptr, 0},  // cut inside mdat, after a complete meta
};

std::string run(const std::string &command) {
  std::string out;
  if (FILE *p = popen((command + " 2>&1").c_str(), "r")) {
    char buf[512];
    for (size_t n; (n = fread(buf, 1, sizeof(buf), p)) > 0;) out.append(buf, n);
    pclose(p);
  }
  return out;
}
// Path of the first of the programs found on PATH, or "".
std::string find_tool(const std::string &names) {
  const std::string out = run("command -v " + names);
  return out.empty() || out[0] != '/' ? "" : out.substr(0, out.find('\n'));
}
// Decoders used as oracles ("" when not installed) and their input file.
std::string g_dec265, g_identify, g_scratch;

std::vector<uint32_t> ids_of(const Json &list) {
  std::vector<uint32_t> ids;
  for (const auto &v : list.items) ids.push_back(uint32_t(v.number));
  return ids;
}

// The crop of a clean aperture in long double, independent of the library's
// fractions; {-7...} when an edge is not a whole pixel inside the image.
tarnd_crop expected_crop(const Json &item) {
  const Json &c = item["clap"];
  if (!item.has("clap")) return {-7, -7, -7, -7};
  const long double w = item["width"].number, h = item["height"].number;
  auto v = [&](size_t i) { return static_cast<long double>(c[i].number); };
  const long double cw = v(0) / v(1), ch = v(2) / v(3);
  const long double left = w / 2 + v(4) / v(5) - cw / 2, top = h / 2 + v(6) / v(7) - ch / 2;
  if (left != int64_t(left) || top != int64_t(top) || left < 0 || top < 0 || left + cw > w || top + ch > h) {
    return {-7, -7, -7, -7};
  }
  return {int32_t(left), int32_t(top), int32_t(left + cw), int32_t(top + ch)};
}

// The decoder configuration and the frame must decode with an independent
// tool (dec265, or identify for JPEG) to one picture of the item's size.
void expect_decodes(tarnd_ctx *ctx, int32_t id, const tarnd_image_info &info, int32_t size) {
  const bool jpeg = info.codec == TARND_CODEC_JPEG;
  const std::string dims = std::to_string(info.width) + "x" + std::to_string(info.height);
  Bytes stream(info.config_data, info.config_data + info.config_size);
  stream.resize(info.config_size + size_t(size));
  ASSERT_EQ(tarnd_get_image_frm(ctx, id, stream.data() + info.config_size, size, &size), 0);
  FILE *file = fopen(g_scratch.c_str(), "wb");
  ASSERT_TRUE(file != nullptr && fwrite(stream.data(), 1, stream.size(), file) == stream.size());
  fclose(file);
  const std::string out = run("'" + (jpeg ? g_identify : g_dec265) + (jpeg ? "' '" : "' -q '") + g_scratch + "'");
  EXPECT_NE(out.find(jpeg ? "JPEG " + dims + " " : "nFrames decoded: 1 (" + dims + " "), std::string::npos) << out;
  EXPECT_EQ(out.find("WARNING"), std::string::npos) << out;
}

// decoded: the kinds of picture already decoded in this file (null: none).
void check_item(tarnd_ctx *ctx, const Json &it, const Bytes &bytes, std::set<std::string> *decoded) {
  const int32_t id = int32_t(it["id"].number);
  const std::string type = it["type"].text;
  SCOPED_TRACE("item " + std::to_string(id) + " " + type);
  uint32_t slot = 0;
  ASSERT_EQ(tarnd_find_itemIndex(ctx->meta.items, ctx->meta.item_cnt, uint32_t(id), &slot), 0);
  const tarnd_item &item = ctx->meta.items[slot];
  EXPECT_EQ(item.item_type, fcc(type));
  EXPECT_EQ(item.construction_method, it["construction_method"].number);
  EXPECT_EQ(item.offset, it["extents"].items.back()[0].number);
  EXPECT_EQ(item.length, it["extents"].items.back()[1].number);
  EXPECT_EQ(std::count(ctx->displayable_ids, ctx->displayable_ids + ctx->displayable_cnt, item.item_id),
            it["hidden"].number == 0 ? 1 : 0);
  ASSERT_EQ(item.referece_from_cnt, it["refs"].items.size());
  for (size_t r = 0; r < it["refs"].items.size(); ++r) {
    EXPECT_EQ(item.ref_type[r], fcc(it["refs"][r]["type"].text));
    EXPECT_EQ(std::vector<uint32_t>(item.ref_to_ids[r], item.ref_to_ids[r] + item.ref_to_cnt[r]),
              ids_of(it["refs"][r]["to"]));
  }
  std::vector<uint32_t> tiles;  // of the first dimg reference
  for (const auto &r : it["refs"].items) {
    if (r["type"].text == "dimg" && tiles.empty()) tiles = ids_of(r["to"]);
  }
  if (!tiles.empty()) {  // never more ids than the reference holds
    std::vector<uint32_t> got(tiles.size() + 1, 0xABCDu);
    EXPECT_EQ(tarnd_get_list_referenceto(ctx, id, got.data(), uint32_t(got.size())), 0);
    EXPECT_EQ(got, [&] { auto t = tiles; t.push_back(0xABCDu); return t; }());
  }
  // Tolerant reading describes an overlay like a grid.
  const bool overlay = type == "iovl" && (ctx->read_flags & TARND_READ_TOLERANT) != 0;
  if (type != "hvc1" && type != "grid" && type != "jpeg" && !overlay) return;

  tarnd_image_info info = {};
  info.crop = {-7, -7, -7, -7};
  ASSERT_EQ(tarnd_get_info_image(ctx, id, &info), 0);
  EXPECT_EQ(std::vector<int64_t>({info.width, info.height, info.rotation, info.codec, info.tile_cnt}),
            std::vector<int64_t>({it["width"].number, it["height"].number, it["irot"].number,
                                  type == "hvc1" ? 120 : type == "jpeg" ? 501 : 0, int64_t(tiles.size())}));
  const bool icc = (it["colr"].text == "prof" || it["colr"].text == "rICC") && type != "jpeg";
  EXPECT_EQ(info.icc_size, icc ? it["icc_size"].number : 0);
  const tarnd_crop want = expected_crop(it);
  EXPECT_EQ(memcmp(&info.crop, &want, sizeof(want)), 0) << info.crop.left << "," << info.crop.top;
  const std::string urn = it["auxC"].text;
  EXPECT_EQ(info.flags & (TARND_ITEM_AUX_ALPHA | TARND_ITEM_AUX_DEPTH | TARND_ITEM_AUX_GAINMAP),
            urn == "urn:mpeg:hevc:2015:auxid:1"   ? TARND_ITEM_AUX_ALPHA
            : urn == "urn:mpeg:hevc:2015:auxid:2" ? TARND_ITEM_AUX_DEPTH : 0u);
  if (type == "grid") {
    tarnd_grid_info g = {};
    EXPECT_EQ(tarnd_get_info_item(ctx, id, TARND_INFO_GRID, &g), 0);
    const Json &grid = it["grid"];
    EXPECT_EQ(std::vector<int64_t>({g.rows, g.columns, g.output_width, g.output_height, g.rotation}),
              std::vector<int64_t>({grid["rows"].number, grid["columns"].number, grid["output_width"].number,
                                    grid["output_height"].number, it["irot"].number}));
  }
  if (type == "grid" || overlay) return;
  int32_t size = -1;
  const Json &extent = it["extents"].items.back();
  const bool cut = uint64_t(extent[0].number + extent[1].number) > bytes.size();
  ASSERT_EQ(tarnd_get_image_frm(ctx, id, nullptr, 0, &size), cut ? -6 : 0);
  if (type == "hvc1") {  // parameter sets in start-code form, VPS first
    ASSERT_GT(info.config_size, 5u);
    EXPECT_EQ(Bytes(info.config_data, info.config_data + 5), Bytes({0, 0, 0, 1, 32 << 1}));
    EXPECT_EQ(ctx->meta.properties[item.view.image.hvcC_index].payload.hvcC.nal_length_size,
              it["nal_length_size"].number);
  }
  if (cut) return;
  // With 4-byte length prefixes the start-code form has the same size.
  if (it["nal_length_size"].number == 4) { EXPECT_EQ(size, it["length"].number); }
  // Decoded once per kind and size of picture.
  const std::string &tool = type == "jpeg" ? g_identify : g_dec265;
  const std::string dims = std::to_string(info.width) + "x" + std::to_string(info.height);
  if (!decoded || tool.empty() || !decoded->insert(dims + it["auxC"].text + type).second) return;
  expect_decodes(ctx, id, info, size);
}

void check_file(tarnd_ctx *ctx, const Json &f, const Bytes &bytes, bool decode, bool tolerant) {
  std::set<std::string> decoded;
  // Image sequences (a moov box, brand msf1) are class 2, still images 1.
  EXPECT_EQ(ctx->brand, !f.has("major_brand") ? 0u : f["major_brand"].text == "msf1" ? 2u : 1u);
  EXPECT_EQ(ctx->primary_item_id, f["primary"].number);
  // A primary that is not an hvc1 or grid image (tolerant: nor an overlay
  // or JPEG) gives way to the first item that is not hidden.
  const Json &items = f["items"];
  uint32_t want = uint32_t(f["primary"].number), id = 0;
  for (const auto &it : items.items) {
    const std::string &type = it["type"].text;
    if (it["id"].number != want || type == "hvc1" || type == "grid" ||
        (tolerant && (type == "iovl" || type == "jpeg"))) {
      continue;
    }
    auto shown = std::find_if(items.items.begin(), items.items.end(), [](const Json &j) { return !j["hidden"].number; });
    want = uint32_t((*shown)["id"].number);
    break;
  }
  EXPECT_EQ(tarnd_get_image_id(ctx, TARND_ID_PRIMARY, TARND_ID_REF_PRIMARY, &id), 0);
  EXPECT_EQ(id, want);

  // Roles: the first item, in table order, naming the image first in a
  // reference of the role's type; stereo: the first item named first (left)
  // or second (right) by any ster group.
  std::set<uint32_t> sides[2];
  for (const auto &g : f["groups"].items) {
    const std::vector<uint32_t> e = ids_of(g["entities"]);
    if (g["type"].text == "ster" && e.size() >= 2) sides[0].insert(e[0]), sides[1].insert(e[1]);
  }
  std::map<std::pair<uint32_t, uint32_t>, uint32_t> roles;  // (code, image) -> answer
  uint32_t stereo[2] = {0xFFFFFFFFu, 0xFFFFFFFFu};
  std::set<std::pair<std::string, uint32_t>> asked;  // first metadata item per image
  for (const auto &it : items.items) {
    const uint32_t item_id = uint32_t(it["id"].number);
    for (const auto &ref : it["refs"].items) {
      const uint32_t code = ref["type"].text == "thmb" ? TARND_ID_THUMBNAIL
                            : ref["type"].text == "auxl" ? TARND_ID_AUXILIARY : 0;
      if (code != 0) roles.emplace(std::make_pair(code, uint32_t(ref["to"][0].number)), item_id);
    }
    for (int s = 0; s < 2; ++s) {
      if (sides[s].count(item_id) && stereo[s] == 0xFFFFFFFFu) stereo[s] = item_id;
    }
    check_item(ctx, it, bytes, decode ? &decoded : nullptr);

    // Exif and XMP, asked through the image they describe: the item's bytes
    // as they stand in the file, less the Exif header offset.
    const std::string type = it["type"].text;
    if ((type != "Exif" && type != "mime") || !it.has("refs")) continue;
    const uint32_t image = uint32_t(it["refs"][0]["to"][0].number);
    if (!asked.emplace(type, image).second) continue;
    const uint64_t skip = type == "Exif" ? 4 : 0;
    const uint64_t offset = uint64_t(it["extents"][0][0].number) + skip, size = uint64_t(it["length"].number) - skip;
    const uint32_t kind = type == "Exif" ? TARND_INFO_EXIF : TARND_INFO_XMP;
    tarnd_item_data data = {nullptr, 0xFFFFFFFFu};
    ASSERT_EQ(tarnd_get_info_item(ctx, int32_t(image), kind, &data), 0);
    ASSERT_TRUE(data.size == size && offset + size <= bytes.size()) << data.size;
    EXPECT_EQ(Bytes(data.data, data.data + size), Bytes(bytes.begin() + long(offset), bytes.begin() + long(offset + size)));
  }
  for (const auto &role : roles) {
    EXPECT_EQ(tarnd_get_image_id(ctx, role.first.first, role.first.second, &id), 0);
    EXPECT_EQ(id, role.second) << "role " << role.first.first << " of " << role.first.second;
  }
  for (int s = 0; s < 2; ++s) {
    EXPECT_EQ(tarnd_get_image_id(ctx, s == 0 ? TARND_ID_STEREO_LEFT : TARND_ID_STEREO_RIGHT, 0, &id),
              stereo[s] == 0xFFFFFFFFu ? -1 : 0);
    EXPECT_EQ(id, stereo[s]);
  }
}

TEST(Corpus, EveryFileMatchesItsFactsThroughBothSources) {
  TARN_REQUIRE_CORPUS();
  Json facts;
  ASSERT_TRUE(load_facts(&facts));
  ASSERT_GE(facts.items.size(), 50u);
  g_dec265 = find_tool("dec265 libde265-dec265");
  g_identify = find_tool("identify");
  if (g_dec265.empty() || g_identify.empty()) printf("dec265 (libde265-examples) or identify (imagemagick) absent\n");
  char scratch[] = "/tmp/tarn_decode_XXXXXX";
  const int fd = mkstemp(scratch);
  ASSERT_GE(fd, 0);
  close(fd);
  g_scratch = scratch;
  for (const Json &f : facts.items) {
    const std::string name = f["file"].text, path = corpus_path(name);
    SCOPED_TRACE(name);
    Bytes bytes;
    ASSERT_TRUE(read_file(path, &bytes));
    const Broken *broken = std::find_if(std::begin(kBroken), std::end(kBroken), [&](const Broken &b) {
      return name == b.file;
    });
    // From memory, from the file, and from memory in tolerant mode.
    for (int source = 0; source < 3; ++source) {
      SCOPED_TRACE(source == 0 ? "from memory" : source == 1 ? "from file" : "tolerant");
      const bool tolerant = source == 2;
      LogCapture cap;
      int32_t err = 1;
      CtxPtr ctx = source == 1 ? open_path(path, &err)
                               : open_memory(bytes, &err, tolerant ? TARND_READ_TOLERANT : TARND_READ_STRICT);
      const bool listed = broken != std::end(kBroken);
      EXPECT_EQ(err, !listed ? 0 : tolerant ? broken->tolerant_err : broken->err);
      EXPECT_EQ(ctx != nullptr, err == 0);
      EXPECT_TRUE(!listed || tolerant || !broken->log || cap.has(broken->log, "tarnd")) << cap.dump();
      if (ctx != nullptr) check_file(ctx.get(), f, bytes, source == 0, tolerant);
    }
  }
  // The JPEG preview of a camera file, in both modes.
  for (const uint32_t mode : {TARND_READ_STRICT, TARND_READ_TOLERANT}) {
    CtxPtr ctx = open_path(corpus_dir() + "/phones/sony_grid_jpeg_thumb.hif", nullptr, mode);
    tarnd_image_info info = {};
    int32_t size = 0;
    ASSERT_TRUE(ctx && tarnd_get_info_image(ctx.get(), 8, &info) == 0 && info.codec == TARND_CODEC_JPEG) << mode;
    ASSERT_EQ(tarnd_get_image_frm(ctx.get(), 8, nullptr, 0, &size), 0);
    if (!g_identify.empty() && mode == TARND_READ_STRICT) expect_decodes(ctx.get(), 8, info, size);
  }
  remove(scratch);
  // An absent file.
  LogCapture cap;
  int32_t err = 0;
  EXPECT_EQ(open_path(corpus_dir() + "/absent.heic", &err), nullptr);
  EXPECT_EQ(err, -6);
  EXPECT_TRUE(cap.has(" file open failed", "tarnd"));
}

}  // namespace
}  // namespace tarn_test
