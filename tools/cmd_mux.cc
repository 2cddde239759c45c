// tarn mux: a HEIC file from Annex-B HEVC frames (one coded picture with its
// VPS/SPS/PPS per file) and metadata, written through the library's writer.
#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

#include "annexb.h"
#include "brands.h"
#include "cli.h"
#include "tarn/tarn.h"

namespace tarn_cli {
namespace {

const char kHelp[] =
    "usage: tarn mux -o OUT.heic (--image IMG.hevc | --grid RxC (--tile T.hevc ... | --tiles DIR))\n"
    "                [--size WxH] [--thumbnail T.hevc] [--alpha A.hevc] [--depth D.hevc]\n"
    "                [--gainmap G.hevc] [--stereo RIGHT.hevc]\n"
    "                [--exif E] [--xmp X] [--icc P.icc] [--rotate 0|90|180|270] [-v]\n"
    "\n"
    "Builds a HEIC file. Each .hevc input is one coded picture as an Annex-B\n"
    "stream with its VPS, SPS and PPS. A grid takes R rows and C columns of\n"
    "tiles, row by row, from --tile options in order or from the .hevc files of\n"
    "DIR sorted by name; its output size is the tiles' extent unless --size\n"
    "gives a smaller one. The thumbnail, alpha, depth and HDR gain-map images\n"
    "belong to the primary image; --stereo adds the right view of a stereo pair\n"
    "whose left view is the primary image. --exif takes an Exif block (\"Exif\\0\\0\" then TIFF; a bare\n"
    "TIFF stream is accepted too), --xmp an XMP packet, --icc an ICC profile.\n"
    "--rotate turns the displayed image clockwise.\n";

// One input picture with everything the writer needs from it.
struct Picture {
  std::string path;
  std::vector<uint8_t> stream;
  CodedPicture coded;
  uint32_t width = 0, height = 0;  // displayed (conformance-cropped) size
  uint8_t depths[3] = {8, 8, 8};
  uint32_t depth_count = 3;
  bool hevc_basic = false;  // fits the MIAF HEVC basic profile
};

bool read_picture(const std::string &path, Picture *pic) {
  std::string why;
  pic->path = path;
  if (!read_whole_file(path, &pic->stream, &why)) {
    error("mux", "%s: %s", path.c_str(), why.c_str());
    return false;
  }
  const char *reason = nullptr;
  if (!split_picture(pic->stream, &pic->coded, &reason)) {
    error("mux", "%s: %s", path.c_str(), reason);
    return false;
  }
  const NalUnit &sps_nal = pic->coded.sps[0];
  if (sps_nal.size < 8) {
    error("mux", "%s: the SPS is only %zu bytes", path.c_str(), sps_nal.size);
    return false;
  }
  // Decode the SPS with the library's own decoder (past the 2-byte NAL header).
  omni_bsr bs{};
  omni_bsr_init(&bs, sps_nal.data + 2, uint32_t(sps_nal.size - 2), tarnm_hevc_bs_flush);
  tarnm_hevc_sps sps;
  std::memset(&sps, 0, sizeof sps);
  tarnm_hevc_sps_dec(&bs, &sps);
  if (sps.pic_width_in_luma_samples == 0 || sps.pic_height_in_luma_samples == 0 ||
      sps.pic_width_in_luma_samples > 65535 || sps.pic_height_in_luma_samples > 65535 ||
      sps.chroma_format_idc > 3 || sps.bit_depth_luma_minus8 > 8 || sps.bit_depth_chroma_minus8 > 8) {
    error("mux", "%s: the SPS could not be decoded", path.c_str());
    return false;
  }
  // The displayed size excludes the conformance window, counted in chroma
  // samples for subsampled formats.
  const uint32_t sub_w = (sps.chroma_format_idc == 1 || sps.chroma_format_idc == 2) ? 2 : 1;
  const uint32_t sub_h = sps.chroma_format_idc == 1 ? 2 : 1;
  const uint32_t crop_w = sub_w * (uint32_t(sps.conf_win_left_offset) + sps.conf_win_right_offset);
  const uint32_t crop_h = sub_h * (uint32_t(sps.conf_win_top_offset) + sps.conf_win_bottom_offset);
  if (crop_w >= sps.pic_width_in_luma_samples || crop_h >= sps.pic_height_in_luma_samples) {
    error("mux", "%s: the SPS conformance window is larger than the picture", path.c_str());
    return false;
  }
  pic->width = sps.pic_width_in_luma_samples - crop_w;
  pic->height = sps.pic_height_in_luma_samples - crop_h;
  pic->depths[0] = uint8_t(sps.bit_depth_luma_minus8 + 8);
  pic->depths[1] = pic->depths[2] = uint8_t(sps.bit_depth_chroma_minus8 + 8);
  pic->depth_count = sps.chroma_format_idc == 0 ? 1 : 3;
  pic->hevc_basic = fits_hevc_basic_profile(sps.general_profile_space, sps.general_tier_flag,
                                            sps.general_profile_idc, sps.general_level_idc);
  return true;
}

// Fills the image description's parameter sets (at most 4 of each kind).
bool fill_param_sets(const Picture &pic, tarnm_param_sets *ps) {
  struct Kind {
    const std::vector<NalUnit> *units;
    int32_t *count;
    uint32_t *sizes;
    const uint8_t **data;
  };
  const Kind kinds[] = {{&pic.coded.vps, &ps->vps_count, ps->vps_size, ps->vps_data},
                        {&pic.coded.sps, &ps->sps_count, ps->sps_size, ps->sps_data},
                        {&pic.coded.pps, &ps->pps_count, ps->pps_size, ps->pps_data}};
  for (const Kind &k : kinds) {
    if (k.units->size() > 4) {
      error("mux", "%s: more than 4 parameter sets of one kind", pic.path.c_str());
      return false;
    }
    *k.count = int32_t(k.units->size());
    for (size_t i = 0; i < k.units->size(); ++i) {
      k.sizes[i] = uint32_t((*k.units)[i].size);
      k.data[i] = (*k.units)[i].data;
    }
  }
  return true;
}

bool parse_pair(const std::string &text, char sep, uint32_t *a, uint32_t *b) {
  const size_t at = text.find(sep);
  return at != std::string::npos && parse_uint(text.substr(0, at), a) && parse_uint(text.substr(at + 1), b) &&
         *a > 0 && *b > 0;
}

bool list_tiles(const std::string &dir, std::vector<std::string> *out) {
  DIR *d = opendir(dir.c_str());
  if (d == nullptr) {
    error("mux", "%s: cannot open the folder", dir.c_str());
    return false;
  }
  while (const dirent *e = readdir(d)) {
    const std::string name = e->d_name;
    if (name.size() > 5 && name.compare(name.size() - 5, 5, ".hevc") == 0) out->push_back(dir + "/" + name);
  }
  closedir(d);
  std::sort(out->begin(), out->end());
  return true;
}

struct WriterDeleter {
  void operator()(tarnm_ctx *ctx) const { tarnm_delete(ctx); }
};

}  // namespace

int cmd_mux(int argc, char **argv) {
  static const OptionSpec kSpecs[] = {
      {"--help", "-h", false},     {"-v", "--verbose", false}, {"-o", "--output", true},  {"--image", nullptr, true},
      {"--grid", nullptr, true},   {"--tile", nullptr, true},  {"--tiles", nullptr, true}, {"--size", nullptr, true},
      {"--thumbnail", nullptr, true}, {"--alpha", nullptr, true}, {"--depth", nullptr, true}, {"--exif", nullptr, true},
      {"--xmp", nullptr, true},    {"--icc", nullptr, true},   {"--rotate", nullptr, true},
      {"--gainmap", nullptr, true}, {"--stereo", nullptr, true},
  };
  CommandLine cl;
  if (!parse_command_line("mux", argc, argv, 2, kSpecs, sizeof kSpecs / sizeof kSpecs[0], &cl)) return kExitUsage;
  if (cl.has("--help")) {
    std::fputs(kHelp, stdout);
    return kExitOk;
  }
  if (!cl.operands.empty()) {
    error("mux", "unexpected argument '%s' (see tarn mux --help)", cl.operands[0].c_str());
    return kExitUsage;
  }
  if (!cl.has("-o") || cl.has("--image") == cl.has("--grid")) {
    error("mux", "expected -o OUT and either --image or --grid (see tarn mux --help)");
    return kExitUsage;
  }
  uint32_t rotation = 0;
  if (cl.has("--rotate") && (!parse_uint(cl.value("--rotate"), &rotation) || rotation % 90 != 0 || rotation >= 360)) {
    error("mux", "--rotate takes 0, 90, 180 or 270, not '%s'", cl.value("--rotate").c_str());
    return kExitUsage;
  }
  uint32_t rows = 0, columns = 0;
  std::vector<std::string> tile_paths;
  if (cl.has("--grid")) {
    if (!parse_pair(cl.value("--grid"), 'x', &rows, &columns)) {
      error("mux", "--grid takes ROWSxCOLUMNS, not '%s'", cl.value("--grid").c_str());
      return kExitUsage;
    }
    tile_paths = cl.values("--tile");
    if (cl.has("--tiles") && !list_tiles(cl.value("--tiles"), &tile_paths)) return kExitFailed;
    if (uint64_t(rows) * columns != tile_paths.size()) {
      error("mux", "a %ux%u grid needs %u tiles, %zu given", rows, columns, rows * columns, tile_paths.size());
      return kExitUsage;
    }
  }
  if (cl.has("-v")) enable_library_log();

  // Inputs first: nothing is written when any of them is unusable.
  std::vector<Picture> main_pictures(cl.has("--grid") ? tile_paths.size() : 1);
  for (size_t i = 0; i < main_pictures.size(); ++i) {
    if (!read_picture(cl.has("--grid") ? tile_paths[i] : cl.value("--image"), &main_pictures[i])) return kExitFailed;
  }
  struct Extra {
    const char *option;
    uint32_t img_type;
    uint32_t aux_type;
  };
  static const Extra kExtras[] = {{"--thumbnail", IMG_TYPE_THUMBNAIL, 0},
                                  {"--alpha", IMG_TYPE_AUX, 1},
                                  {"--depth", IMG_TYPE_AUX, 2},
                                  {"--gainmap", IMG_TYPE_AUX, 3},
                                  // The right view stands on its own; the primary names it.
                                  {"--stereo", IMG_TYPE_OTHER, 0}};
  std::vector<std::pair<const Extra *, Picture>> extras;
  for (const Extra &e : kExtras) {
    if (!cl.has(e.option)) continue;
    extras.emplace_back(&e, Picture());
    if (!read_picture(cl.value(e.option), &extras.back().second)) return kExitFailed;
  }
  std::vector<uint8_t> exif, xmp, icc;
  std::string why;
  const struct {
    const char *option;
    std::vector<uint8_t> *bytes;
  } blobs[] = {{"--exif", &exif}, {"--xmp", &xmp}, {"--icc", &icc}};
  for (const auto &b : blobs) {
    if (cl.has(b.option) && !read_whole_file(cl.value(b.option), b.bytes, &why)) {
      error("mux", "%s: %s", cl.value(b.option).c_str(), why.c_str());
      return kExitFailed;
    }
  }
  if (!exif.empty() && (exif.size() < 6 || std::memcmp(exif.data(), "Exif\0\0", 6) != 0)) {
    // The writer expects the Exif marker in front of the TIFF header.
    static const uint8_t kMarker[6] = {'E', 'x', 'i', 'f', 0, 0};
    exif.insert(exif.begin(), kMarker, kMarker + 6);
  }

  // Item ids: tiles 1..N and the grid N+1, or the image 1; then the extras.
  const bool grid = cl.has("--grid");
  const uint32_t tile_count = grid ? uint32_t(main_pictures.size()) : 0;
  const uint32_t primary_id = grid ? tile_count + 1 : 1;

  bool all_basic = true;
  for (const Picture &p : main_pictures) all_basic = all_basic && p.hevc_basic;
  for (const auto &extra : extras) all_basic = all_basic && extra.second.hevc_basic;
  tarnm_init_dsc init;
  set_output_brands(&init, all_basic);
  int32_t err = 0;
  std::unique_ptr<tarnm_ctx, WriterDeleter> writer(tarnm_create(&init, &err));
  if (!writer) {
    error("mux", "cannot create the writer (status %d)", err);
    return kExitFailed;
  }
  tarnm_ctx *w = writer.get();

  tarnm_image_info info;
  std::memset(&info, 0, sizeof info);
  info.img_type = cl.has("--stereo") ? IMG_TYPE_STEREO : IMG_TYPE_MAIN;
  // The stereo view is the last extra, so its id is known before it is registered.
  const uint32_t stereo_id = cl.has("--stereo") ? primary_id + uint32_t(extras.size()) : 0;
  info.width = main_pictures[0].width;
  info.height = main_pictures[0].height;
  info.rotation = grid ? 0 : rotation;  // a grid turns as a whole, not its tiles
  if (!icc.empty()) {
    info.color_type = 3;  // prof
    info.color_data = icc.data();
    info.color_size = uint32_t(icc.size());
  }
  if (!fill_param_sets(main_pictures[0], &info.param_sets)) return kExitFailed;
  info.bit_depth = main_pictures[0].depths;
  info.bit_depth_info_count = main_pictures[0].depth_count;
  info.exif_data = exif.empty() ? nullptr : exif.data();
  info.exif_size = uint32_t(exif.size());
  info.xmp_data = xmp.empty() ? nullptr : xmp.data();
  info.xmp_size = uint32_t(xmp.size());

  int32_t rc;
  if (grid) {
    for (const Picture &p : main_pictures) {
      if (p.width != main_pictures[0].width || p.height != main_pictures[0].height) {
        error("mux", "%s: tile is %ux%u, the first tile %ux%u; grid tiles must share one size", p.path.c_str(),
              p.width, p.height, main_pictures[0].width, main_pictures[0].height);
        return kExitFailed;
      }
    }
    tarnm_grid_info g;
    std::memset(&g, 0, sizeof g);
    g.output_width = columns * main_pictures[0].width;
    g.output_height = rows * main_pictures[0].height;
    if (cl.has("--size")) {
      uint32_t w_out = 0, h_out = 0;
      if (!parse_pair(cl.value("--size"), 'x', &w_out, &h_out) || w_out > g.output_width || h_out > g.output_height) {
        error("mux", "--size takes WIDTHxHEIGHT no larger than the tiles' %ux%u, not '%s'", g.output_width,
              g.output_height, cl.value("--size").c_str());
        return kExitUsage;
      }
      g.output_width = w_out;
      g.output_height = h_out;
    }
    g.rows = rows;
    g.columns = columns;
    g.first_tile_id = 1;
    g.last_tile_id = tile_count;
    g.grid_item_id = uint16_t(primary_id);
    g.rotation = rotation;
    rc = tarnm_set_image_info(w, primary_id, stereo_id, &info, &g);
  } else {
    rc = tarnm_set_image_info(w, primary_id, stereo_id, &info, nullptr);
  }
  if (rc != 0) {
    error("mux", "the writer refused the primary image (status %d; -v shows why)", rc);
    return kExitFailed;
  }
  uint32_t next_id = primary_id + 1;
  std::vector<uint32_t> extra_ids;
  for (auto &[extra, pic] : extras) {
    tarnm_image_info ei;
    std::memset(&ei, 0, sizeof ei);
    ei.img_type = extra->img_type;
    ei.aux_type = extra->aux_type;
    ei.width = pic.width;
    ei.height = pic.height;
    ei.rotation = rotation;
    ei.bit_depth = pic.depths;
    ei.bit_depth_info_count = pic.depth_count;
    if (!fill_param_sets(pic, &ei.param_sets)) return kExitFailed;
    rc = tarnm_set_image_info(w, next_id, extra->img_type == IMG_TYPE_OTHER ? 0 : primary_id, &ei, nullptr);
    if (rc != 0) {
      error("mux", "%s: the writer refused the image (status %d; -v shows why)", pic.path.c_str(), rc);
      return kExitFailed;
    }
    extra_ids.push_back(next_id++);
  }
  if (tarnm_set_cover_image(w, int32_t(primary_id)) != 0) {
    error("mux", "cannot set the primary image");
    return kExitFailed;
  }
  // Frames: tiles (or the image), then the extras, in item order.
  for (size_t i = 0; i < main_pictures.size(); ++i) {
    Picture &p = main_pictures[i];
    const uint32_t id = grid ? uint32_t(i + 1) : primary_id;
    rc = tarnm_put_frm(w, id, p.coded.frame.data(), uint32_t(p.coded.frame.size()));
    if (rc != 0) {
      error("mux", "%s: the writer refused the frame (status %d)", p.path.c_str(), rc);
      return kExitFailed;
    }
  }
  for (size_t i = 0; i < extras.size(); ++i) {
    Picture &p = extras[i].second;
    rc = tarnm_put_frm(w, extra_ids[i], p.coded.frame.data(), uint32_t(p.coded.frame.size()));
    if (rc != 0) {
      error("mux", "%s: the writer refused the frame (status %d)", p.path.c_str(), rc);
      return kExitFailed;
    }
  }
  rc = tarnm_stop_muxing(w);
  if (rc != 0) {
    error("mux", "the file could not be completed (status %d; -v shows why)", rc);
    return kExitFailed;
  }
  const std::string out = cl.value("-o");
  tarnm_file_output file_out;
  if (tarnm_output_init_file(&file_out, out.c_str()) != 0 ||
      tarnm_dump_image_to_file(w, &file_out.dsc) != 0) {
    error("mux", "%s: cannot write the file", out.c_str());
    return kExitFailed;
  }
  std::fprintf(stderr, "tarn: mux: wrote %s (%d bytes, %zu images)\n", out.c_str(), tarnm_get_outputbuffer_size(w),
               main_pictures.size() + extras.size() + (grid ? 1 : 0));
  return kExitOk;
}

}  // namespace tarn_cli
