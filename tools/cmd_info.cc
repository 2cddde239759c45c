// tarn info: what a HEIF file holds, as readable text or as stable JSON.
#include <cstdio>
#include <string>

#include "cli.h"
#include "heif_file.h"

namespace tarn_cli {
namespace {

const char kHelp[] =
    "usage: tarn info [--json] [-v] [--strict] FILE...\n"
    "\n"
    "Describes each FILE: brands, the primary image, every image with its role\n"
    "(thumbnail, alpha, depth, gain map, tone map, stereo view), size, rotation,\n"
    "crop, colour, codec and decoder-configuration size, grid layout, Exif and\n"
    "XMP sizes, and entity groups. Grid tiles are listed under their grid.\n"
    "\n"
    "  --json   one JSON object per file, one per line (format in the README)\n"
    "  -v       show the library's log lines on stderr\n"
    "  --strict read by the written rules only, refusing what phones and\n"
    "           other encoders write outside them (default: tolerant)\n"
    "\n"
    "A file that cannot be read is reported and the others are still shown;\n"
    "the exit status is then 1.\n";

std::string json_string(const std::string &s) {
  std::string out = "\"";
  for (unsigned char c : s) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20 || c >= 0x7f) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", c);
          out += buf;
        } else {
          out += char(c);
        }
    }
  }
  return out + "\"";
}

template <typename T>
std::string json_list(const std::vector<T> &values) {
  std::string out = "[";
  for (size_t i = 0; i < values.size(); ++i) {
    if (i) out += ",";
    if constexpr (std::is_same_v<T, std::string>) {
      out += json_string(values[i]);
    } else {
      out += std::to_string(values[i]);
    }
  }
  return out + "]";
}

const char *brand_class_name(uint32_t brand) {
  switch (brand) {
    case 1: return "image";
    case 2: return "sequence";
    default: return "none";
  }
}

// Everything the report says about one image.
struct ImageReport {
  ImageEntry entry;
  tarnd_image_info info{};
  bool has_info = false;
  bool has_crop = false;
  std::string colour;
  uint32_t icc_size = 0;
  bool is_grid = false;
  tarnd_grid_info grid{};
  bool grid_ok = false;
  std::vector<uint32_t> tiles;
  uint32_t exif_size = 0, xmp_size = 0;
  bool has_exif = false, has_xmp = false;
};

ImageReport describe(const HeifFile &file, const ImageEntry &entry) {
  ImageReport r;
  r.entry = entry;
  // Crop is written only when the item has a clean aperture: a sentinel
  // tells whether it was.
  r.info.crop.left = r.info.crop.top = r.info.crop.right = r.info.crop.bottom = INT32_MIN;
  r.has_info = tarnd_get_info_image(file.handle(), int32_t(entry.id), &r.info) == 0;
  r.has_crop = r.has_info && r.info.crop.left != INT32_MIN;
  if (!r.has_crop) r.info.crop = tarnd_crop{0, 0, 0, 0};
  r.colour = file.colour(entry.id, &r.icc_size);
  r.is_grid = fourcc_text(entry.type) == "grid";
  if (r.is_grid) {
    r.grid_ok = tarnd_get_info_item(file.handle(), int32_t(entry.id), TARND_INFO_GRID, &r.grid) == 0;
    r.tiles = file.tiles(entry.id);
  }
  tarnd_item_data data{nullptr, 0};
  if (tarnd_get_info_item(file.handle(), int32_t(entry.id), TARND_INFO_EXIF, &data) == 0 && data.data != nullptr) {
    r.has_exif = true;
    r.exif_size = data.size;
  }
  data = tarnd_item_data{nullptr, 0};
  if (tarnd_get_info_item(file.handle(), int32_t(entry.id), TARND_INFO_XMP, &data) == 0 && data.data != nullptr) {
    r.has_xmp = true;
    r.xmp_size = data.size;
  }
  return r;
}

const char *codec_name(uint32_t codec) {
  switch (codec) {
    case 120: return "hevc";
    case 501: return "jpeg";
    default: return nullptr;
  }
}

std::string join(const std::vector<std::string> &v, const char *sep) {
  std::string out;
  for (size_t i = 0; i < v.size(); ++i) out += (i ? sep : "") + v[i];
  return out;
}

void print_text(const std::string &path, const HeifFile &file, const std::vector<ImageReport> &reports) {
  const tarnd_ctx *ctx = file.model();
  std::printf("%s\n", path.c_str());
  std::printf("  brand      %s (%s)%s%s\n", file.major_brand().empty() ? "?" : file.major_brand().c_str(),
              brand_class_name(file.brand_class()), file.compatible_brands().empty() ? "" : ", compatible ",
              join(file.compatible_brands(), " ").c_str());
  std::printf("  primary    item %u\n", file.primary());
  for (const auto &r : reports) {
    const auto &i = r.info;
    std::string roles = r.entry.roles.empty() ? "image" : join(r.entry.roles, ", ");
    if (r.entry.of != 0) roles += " of " + std::to_string(r.entry.of);
    std::printf("  item %-5u %s  %s%s\n", r.entry.id, fourcc_text(r.entry.type).c_str(), roles.c_str(),
                r.entry.hidden ? " (hidden)" : "");
    if (r.has_info && (i.width || i.height)) {
      std::printf("             %ux%u", i.width, i.height);
      // irot turns anticlockwise; people think of a photo turned clockwise.
      if (i.rotation) std::printf(", shown rotated %u° clockwise", (4 - i.rotation % 4) * 90);
      if (r.has_crop)
        std::printf(", crop %d,%d to %d,%d", i.crop.left, i.crop.top, i.crop.right, i.crop.bottom);
      std::printf("\n");
    }
    if (const char *codec = codec_name(r.info.codec)) {
      std::printf("             %s", codec);
      if (i.config_size) std::printf(", decoder configuration %u bytes", i.config_size);
      std::printf("\n");
    }
    if (r.is_grid) {
      if (r.grid_ok)
        std::printf("             grid %ux%u (rows x columns) -> %ux%u, %zu tiles\n", r.grid.rows, r.grid.columns,
                    r.grid.output_width, r.grid.output_height, r.tiles.size());
      else
        std::printf("             grid layout unreadable, %zu tiles\n", r.tiles.size());
    } else if (!r.entry.inputs.empty()) {
      std::printf("             inputs %s\n", json_list(r.entry.inputs).c_str());
    }
    if (r.colour == "icc" && r.icc_size == 0) std::printf("             colour ICC profile, empty\n");
    else if (r.colour == "icc") std::printf("             colour ICC profile, %u bytes\n", r.icc_size);
    if (r.colour == "nclx") std::printf("             colour nclx\n");
    if (r.has_exif) std::printf("             Exif %u bytes\n", r.exif_size);
    if (r.has_xmp) std::printf("             XMP %u bytes\n", r.xmp_size);
  }
  for (uint32_t g = 0; g < ctx->meta.group_cnt && g < TARND_MAX_GROUPS; ++g) {
    const tarnd_group &group = ctx->meta.groups[g];
    std::vector<uint32_t> ids(group.entityIDList, group.entityIDList + group.entityCount);
    std::printf("  group %-4u %s %s\n", group.group_id, fourcc_text(group.grouping_type).c_str(),
                json_list(ids).c_str());
  }
}

void print_json(const std::string &path, const HeifFile &file, const std::vector<ImageReport> &reports) {
  const tarnd_ctx *ctx = file.model();
  std::string out = "{\"file\":" + json_string(path) + ",\"ok\":true";
  out += ",\"major_brand\":" + json_string(file.major_brand());
  out += ",\"compatible_brands\":" + json_list(file.compatible_brands());
  out += std::string(",\"brand_class\":\"") + brand_class_name(file.brand_class()) + "\"";
  out += ",\"primary\":" + std::to_string(file.primary());
  out += ",\"images\":[";
  for (size_t n = 0; n < reports.size(); ++n) {
    const auto &r = reports[n];
    const auto &i = r.info;
    if (n) out += ",";
    out += "{\"id\":" + std::to_string(r.entry.id) + ",\"type\":" + json_string(fourcc_text(r.entry.type));
    out += ",\"roles\":" + json_list(r.entry.roles);
    out += ",\"of\":" + (r.entry.of ? std::to_string(r.entry.of) : std::string("null"));
    out += std::string(",\"hidden\":") + (r.entry.hidden ? "true" : "false");
    out += ",\"width\":" + std::to_string(i.width) + ",\"height\":" + std::to_string(i.height);
    out += ",\"rotation\":" + std::to_string(i.rotation * 90);
    if (r.has_crop) {
      out += ",\"crop\":{\"left\":" + std::to_string(i.crop.left) + ",\"top\":" + std::to_string(i.crop.top) +
             ",\"right\":" + std::to_string(i.crop.right) + ",\"bottom\":" + std::to_string(i.crop.bottom) + "}";
    } else {
      out += ",\"crop\":null";
    }
    if (r.colour == "icc") {
      out += ",\"colour\":{\"type\":\"icc\",\"icc_size\":" + std::to_string(r.icc_size) + "}";
    } else if (r.colour == "nclx") {
      out += ",\"colour\":{\"type\":\"nclx\"}";
    } else {
      out += ",\"colour\":null";
    }
    const char *codec = codec_name(i.codec);
    out += std::string(",\"codec\":") + (codec ? json_string(codec) : "null");
    out += ",\"config_size\":" + std::to_string(i.config_size);
    if (r.is_grid) {
      out += ",\"grid\":{";
      if (r.grid_ok)
        out += "\"rows\":" + std::to_string(r.grid.rows) + ",\"columns\":" + std::to_string(r.grid.columns) +
               ",\"output_width\":" + std::to_string(r.grid.output_width) +
               ",\"output_height\":" + std::to_string(r.grid.output_height) + ",";
      out += "\"tiles\":" + json_list(r.tiles) + "}";
    } else {
      out += ",\"grid\":null";
    }
    out += ",\"inputs\":" + json_list(r.entry.inputs);
    out += ",\"exif_size\":" + (r.has_exif ? std::to_string(r.exif_size) : std::string("null"));
    out += ",\"xmp_size\":" + (r.has_xmp ? std::to_string(r.xmp_size) : std::string("null"));
    out += "}";
  }
  out += "],\"groups\":[";
  for (uint32_t g = 0; g < ctx->meta.group_cnt && g < TARND_MAX_GROUPS; ++g) {
    const tarnd_group &group = ctx->meta.groups[g];
    std::vector<uint32_t> ids(group.entityIDList, group.entityIDList + group.entityCount);
    if (g) out += ",";
    out += "{\"id\":" + std::to_string(group.group_id) + ",\"type\":" + json_string(fourcc_text(group.grouping_type)) +
           ",\"entities\":" + json_list(ids) + "}";
  }
  out += "]}";
  std::printf("%s\n", out.c_str());
}

}  // namespace

int cmd_info(int argc, char **argv) {
  static const OptionSpec kSpecs[] = {{"--help", "-h", false}, {"--json", nullptr, false}, {"-v", "--verbose", false},
                                      {"--strict", nullptr, false}};
  CommandLine cl;
  if (!parse_command_line("info", argc, argv, 2, kSpecs, sizeof kSpecs / sizeof kSpecs[0], &cl)) return kExitUsage;
  if (cl.has("--help")) {
    std::fputs(kHelp, stdout);
    return kExitOk;
  }
  if (cl.operands.empty()) {
    error("info", "no FILE given (see tarn info --help)");
    return kExitUsage;
  }
  if (cl.has("-v")) enable_library_log();
  const bool json = cl.has("--json");
  int status = kExitOk;
  for (const std::string &path : cl.operands) {
    HeifFile file;
    std::string why;
    if (!file.open(path, &why, cl.has("--strict"))) {
      error("info", "%s: %s", path.c_str(), why.c_str());
      if (json) std::printf("{\"file\":%s,\"ok\":false,\"error\":%s}\n", json_string(path).c_str(), json_string(why).c_str());
      status = kExitFailed;
      continue;
    }
    std::vector<ImageReport> reports;
    for (const ImageEntry &e : file.images()) reports.push_back(describe(file, e));
    if (json) {
      print_json(path, file, reports);
    } else {
      print_text(path, file, reports);
    }
    std::fflush(stdout);
  }
  return status;
}

}  // namespace tarn_cli
