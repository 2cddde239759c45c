// tarn extract / exif / xmp: the bytes inside a HEIF file, ready for other
// tools: Annex-B HEVC streams that decoders take directly, JPEG files, a
// TIFF stream of the Exif data, the XMP packet.
#include <cstdio>
#include <cstring>

#include "cli.h"
#include "heif_file.h"

namespace tarn_cli {
namespace {

const char kExtractHelp[] =
    "usage: tarn extract FILE [--primary|--thumbnail|--alpha|--depth|--gainmap|--item ID]\n"
    "                         [--tile N|--all-tiles] -o OUT [-v] [--strict]\n"
    "\n"
    "Writes an image's decoder configuration (VPS, SPS, PPS) followed by its coded\n"
    "data as an Annex-B .hevc stream that ffmpeg and dec265 decode directly; a\n"
    "jpeg item is written as a JPEG file. The image is the primary one unless\n"
    "another is chosen. For a grid, --tile N (0-based, row by row) writes one\n"
    "tile to OUT and --all-tiles writes every tile to OUT with the tile number\n"
    "inserted before the extension (out.hevc -> out.0.hevc, out.1.hevc, ...);\n"
    "without either, a grid writes all tiles. --strict reads the file by the\n"
    "written rules only (see tarn info --help).\n";

const char kExifHelp[] =
    "usage: tarn exif FILE -o OUT [--item ID] [-v] [--strict]\n"
    "\n"
    "Writes the Exif data of the primary image (or item ID) as a TIFF stream, the\n"
    "form exiftool reads. OUT '-' writes to stdout.\n";

const char kXmpHelp[] =
    "usage: tarn xmp FILE -o OUT [--item ID] [-v] [--strict]\n"
    "\n"
    "Writes the XMP packet of the primary image (or item ID). OUT '-' writes to\n"
    "stdout.\n";

std::string numbered_path(const std::string &path, size_t n) {
  const size_t slash = path.find_last_of('/');
  const size_t dot = path.find_last_of('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash))
    return path + "." + std::to_string(n);
  return path.substr(0, dot) + "." + std::to_string(n) + path.substr(dot);
}

// Chooses the image an option names; 0 with a message when there is none.
uint32_t choose_image(const char *command, const HeifFile &file, const CommandLine &cl) {
  const uint32_t primary = file.primary();
  struct Choice {
    const char *option;
    uint32_t (*pick)(const HeifFile &, uint32_t);
    const char *what;
  };
  static const Choice kChoices[] = {
      {"--thumbnail", [](const HeifFile &f, uint32_t p) { return f.find(TARND_ID_THUMBNAIL, p); }, "thumbnail"},
      {"--alpha", [](const HeifFile &f, uint32_t p) { return f.auxiliary(p, TARND_ITEM_AUX_ALPHA); }, "alpha image"},
      {"--depth", [](const HeifFile &f, uint32_t p) { return f.auxiliary(p, TARND_ITEM_AUX_DEPTH); }, "depth image"},
      {"--gainmap",
       [](const HeifFile &f, uint32_t p) {
         const uint32_t id = f.find(TARND_ID_GAINMAP, p);
         return id != 0 ? id : f.auxiliary(p, TARND_ITEM_AUX_GAINMAP);
       },
       "gain map"},
  };
  if (cl.has("--item")) {
    uint32_t id = 0;
    if (!parse_uint(cl.value("--item"), &id) || file.item(id) == nullptr) {
      error(command, "no item '%s' in the file", cl.value("--item").c_str());
      return 0;
    }
    return id;
  }
  for (const auto &c : kChoices) {
    if (!cl.has(c.option)) continue;
    const uint32_t id = c.pick(file, primary);
    if (id == 0) error(command, "the primary image (item %u) has no %s", primary, c.what);
    return id;
  }
  if (file.item(primary) == nullptr) error(command, "the file names no usable primary image");
  return file.item(primary) != nullptr ? primary : 0;
}

bool write_or_report(const char *command, const std::string &path, const std::vector<uint8_t> &bytes) {
  std::string why;
  if (!write_whole_file(path, bytes.data(), bytes.size(), &why)) {
    error(command, "%s: %s", path.c_str(), why.c_str());
    return false;
  }
  return true;
}

const OptionSpec kExtractSpecs[] = {
    {"--help", "-h", false},       {"-v", "--verbose", false},   {"--primary", nullptr, false},
    {"--thumbnail", nullptr, false}, {"--alpha", nullptr, false}, {"--depth", nullptr, false},
    {"--gainmap", nullptr, false}, {"--item", nullptr, true},    {"--tile", nullptr, true},
    {"--all-tiles", nullptr, false}, {"-o", "--output", true},    {"--strict", nullptr, false},
};

}  // namespace

int cmd_extract(int argc, char **argv) {
  CommandLine cl;
  if (!parse_command_line("extract", argc, argv, 2, kExtractSpecs, sizeof kExtractSpecs / sizeof kExtractSpecs[0], &cl))
    return kExitUsage;
  if (cl.has("--help")) {
    std::fputs(kExtractHelp, stdout);
    return kExitOk;
  }
  if (cl.operands.size() != 1 || !cl.has("-o")) {
    error("extract", "expected one FILE and -o OUT (see tarn extract --help)");
    return kExitUsage;
  }
  if (cl.has("--tile") && cl.has("--all-tiles")) {
    error("extract", "--tile and --all-tiles exclude each other");
    return kExitUsage;
  }
  uint32_t tile = 0;
  if (cl.has("--tile") && !parse_uint(cl.value("--tile"), &tile)) {
    error("extract", "--tile needs a tile number, not '%s'", cl.value("--tile").c_str());
    return kExitUsage;
  }
  if (cl.has("-v")) enable_library_log();
  const std::string &path = cl.operands[0];
  const std::string out = cl.value("-o");
  HeifFile file;
  std::string why;
  if (!file.open(path, &why, cl.has("--strict"))) {
    error("extract", "%s: %s", path.c_str(), why.c_str());
    return kExitFailed;
  }
  const uint32_t id = choose_image("extract", file, cl);
  if (id == 0) return kExitFailed;
  const tarnd_item *item = file.item(id);
  std::vector<uint32_t> targets;
  if (fourcc_text(item->item_type) == "grid") {
    const std::vector<uint32_t> tiles = file.tiles(id);
    if (tiles.empty()) {
      error("extract", "%s: grid item %u lists no tiles", path.c_str(), id);
      return kExitFailed;
    }
    if (cl.has("--tile")) {
      if (tile >= tiles.size()) {
        error("extract", "%s: grid item %u has %zu tiles, no tile %u", path.c_str(), id, tiles.size(), tile);
        return kExitFailed;
      }
      targets.push_back(tiles[tile]);
    } else {
      targets = tiles;
    }
  } else {
    if (cl.has("--tile")) {
      error("extract", "%s: item %u is not a grid", path.c_str(), id);
      return kExitFailed;
    }
    targets.push_back(id);
  }
  const bool numbered = targets.size() > 1 || cl.has("--all-tiles");
  for (size_t n = 0; n < targets.size(); ++n) {
    std::vector<uint8_t> bytes;
    if (!file.frame(targets[n], true, &bytes, &why)) {
      error("extract", "%s: %s", path.c_str(), why.c_str());
      return kExitFailed;
    }
    const std::string target = numbered ? numbered_path(out, n) : out;
    if (!write_or_report("extract", target, bytes)) return kExitFailed;
    std::fprintf(stderr, "tarn: extract: item %u -> %s (%zu bytes)\n", targets[n], target.c_str(), bytes.size());
  }
  return kExitOk;
}

namespace {

int metadata_command(const char *command, const char *help, uint32_t kind, int argc, char **argv) {
  static const OptionSpec kSpecs[] = {
      {"--help", "-h", false}, {"-v", "--verbose", false}, {"--item", nullptr, true}, {"-o", "--output", true},
      {"--strict", nullptr, false}};
  CommandLine cl;
  if (!parse_command_line(command, argc, argv, 2, kSpecs, sizeof kSpecs / sizeof kSpecs[0], &cl)) return kExitUsage;
  if (cl.has("--help")) {
    std::fputs(help, stdout);
    return kExitOk;
  }
  if (cl.operands.size() != 1 || !cl.has("-o")) {
    error(command, "expected one FILE and -o OUT (see tarn %s --help)", command);
    return kExitUsage;
  }
  if (cl.has("-v")) enable_library_log();
  const std::string &path = cl.operands[0];
  HeifFile file;
  std::string why;
  if (!file.open(path, &why, cl.has("--strict"))) {
    error(command, "%s: %s", path.c_str(), why.c_str());
    return kExitFailed;
  }
  const uint32_t id = choose_image(command, file, cl);
  if (id == 0) return kExitFailed;
  tarnd_item_data data{nullptr, 0};
  const int32_t rc = tarnd_get_info_item(file.handle(), int32_t(id), kind, &data);
  if (rc != 0) {
    error(command, "%s: cannot read the %s data of item %u (status %d)", path.c_str(),
          kind == TARND_INFO_EXIF ? "Exif" : "XMP", id, rc);
    return kExitFailed;
  }
  if (data.data == nullptr || data.size == 0) {
    error(command, "%s: item %u has no %s data", path.c_str(), id, kind == TARND_INFO_EXIF ? "Exif" : "XMP");
    return kExitFailed;
  }
  const uint8_t *bytes = data.data;
  size_t size = data.size;
  if (kind == TARND_INFO_EXIF) {
    // An Exif item usually starts with the "Exif\0\0" marker before the
    // TIFF header; exiftool wants the TIFF stream itself.
    size_t skip = 0;
    while (skip < 64 && skip + 4 <= size && !(std::memcmp(bytes + skip, "MM\0*", 4) == 0 || std::memcmp(bytes + skip, "II*\0", 4) == 0))
      ++skip;
    if (skip >= 64 || skip + 4 > size) {
      error(command, "%s: the Exif data of item %u holds no TIFF header", path.c_str(), id);
      return kExitFailed;
    }
    bytes += skip;
    size -= skip;
  }
  std::string out = cl.value("-o");
  if (!write_whole_file(out, bytes, size, &why)) {
    error(command, "%s: %s", out.c_str(), why.c_str());
    return kExitFailed;
  }
  return kExitOk;
}

}  // namespace

int cmd_exif(int argc, char **argv) { return metadata_command("exif", kExifHelp, TARND_INFO_EXIF, argc, argv); }
int cmd_xmp(int argc, char **argv) { return metadata_command("xmp", kXmpHelp, TARND_INFO_XMP, argc, argv); }

}  // namespace tarn_cli
