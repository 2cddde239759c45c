// tarn edit: a lossless edit of a HEIF file (metadata, rotation, extra
// images) through the library's tarn_edit. OUT is written through a
// temporary file in its own folder and renamed, so IN is never touched and
// OUT never holds a partial file.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "cli.h"
#include "tarn/tarn.h"

namespace tarn_cli {
namespace {

const char kHelp[] =
    "usage: tarn edit IN -o OUT [--strip-exif] [--strip-xmp] [--strip-gps] [--exif FILE] [--xmp FILE]\n"
    "                 [--rotate 0|90|180|270] [--drop-thumbnails] [--drop-alpha] [--drop-depth]\n"
    "                 [--drop-gainmap] [--drop-unsupported] [-v]\n"
    "\n"
    "Rewrites IN as OUT without decoding or re-encoding any image: every coded\n"
    "picture and decoder configuration is copied as it stands.\n"
    "  --strip-exif, --strip-xmp   leave out the Exif or XMP metadata\n"
    "  --strip-gps                 remove only the GPS data from the Exif\n"
    "  --exif FILE, --xmp FILE     replace the primary image's Exif or XMP\n"
    "                              (Exif: \"Exif\\0\\0\" then TIFF, or bare TIFF)\n"
    "  --rotate DEG                clockwise rotation of the primary image,\n"
    "                              replacing the file's own\n"
    "  --drop-thumbnails, --drop-alpha, --drop-depth, --drop-gainmap\n"
    "                              leave out those images\n"
    "  --drop-unsupported          leave out what cannot be carried and that\n"
    "                              no kept image depends on (listed)\n"
    "A file holding something that cannot be carried is refused and OUT is\n"
    "not created. OUT may not be IN.\n";

struct Flag {
  const char *option;
  uint32_t bit;
};
const Flag kFlags[] = {
    {"--strip-exif", TARN_EDIT_STRIP_EXIF},       {"--strip-xmp", TARN_EDIT_STRIP_XMP},
    {"--strip-gps", TARN_EDIT_STRIP_GPS},         {"--drop-thumbnails", TARN_EDIT_DROP_THUMBNAILS},
    {"--drop-alpha", TARN_EDIT_DROP_ALPHA},       {"--drop-depth", TARN_EDIT_DROP_DEPTH},
    {"--drop-gainmap", TARN_EDIT_DROP_GAINMAP},   {"--drop-unsupported", TARN_EDIT_DROP_UNSUPPORTED},
};

}  // namespace

int cmd_edit(int argc, char **argv) {
  static const OptionSpec kSpecs[] = {
      {"--help", "-h", false},        {"-v", "--verbose", false},     {"-o", "--output", true},
      {"--strip-exif", nullptr, false}, {"--strip-xmp", nullptr, false}, {"--strip-gps", nullptr, false},
      {"--exif", nullptr, true},      {"--xmp", nullptr, true},       {"--rotate", nullptr, true},
      {"--drop-thumbnails", nullptr, false}, {"--drop-alpha", nullptr, false}, {"--drop-depth", nullptr, false},
      {"--drop-gainmap", nullptr, false}, {"--drop-unsupported", nullptr, false},
  };
  CommandLine cl;
  if (!parse_command_line("edit", argc, argv, 2, kSpecs, sizeof kSpecs / sizeof kSpecs[0], &cl)) return kExitUsage;
  if (cl.has("--help")) {
    std::fputs(kHelp, stdout);
    return kExitOk;
  }
  if (cl.operands.size() != 1 || !cl.has("-o")) {
    error("edit", "expected one IN file and -o OUT (see tarn edit --help)");
    return kExitUsage;
  }
  const std::string in = cl.operands[0];
  const std::string out = cl.value("-o");
  tarn_edit_options opt;
  std::memset(&opt, 0, sizeof opt);
  for (const Flag &f : kFlags) {
    if (cl.has(f.option)) opt.flags |= f.bit;
  }
  if (cl.has("--rotate")) {
    if (!parse_uint(cl.value("--rotate"), &opt.rotation) || opt.rotation % 90 != 0 || opt.rotation >= 360) {
      error("edit", "--rotate takes 0, 90, 180 or 270, not '%s'", cl.value("--rotate").c_str());
      return kExitUsage;
    }
    opt.flags |= TARN_EDIT_SET_ROTATION;
  }
  if ((cl.has("--strip-exif") && cl.has("--exif")) || (cl.has("--strip-xmp") && cl.has("--xmp"))) {
    error("edit", "--strip-exif/--strip-xmp and --exif/--xmp contradict each other");
    return kExitUsage;
  }
  if (out.empty() || out == "-") {
    error("edit", "-o takes a file name");
    return kExitUsage;
  }
  struct stat in_stat, out_stat;
  if (stat(in.c_str(), &in_stat) != 0) {
    error("edit", "%s: %s", in.c_str(), std::strerror(errno));
    return kExitFailed;
  }
  if (out == in || (stat(out.c_str(), &out_stat) == 0 && out_stat.st_dev == in_stat.st_dev &&
                    out_stat.st_ino == in_stat.st_ino)) {
    error("edit", "%s: OUT is the input file; write the edit to another file", out.c_str());
    return kExitUsage;
  }
  std::vector<uint8_t> exif, xmp;
  std::string why;
  const struct {
    const char *option;
    std::vector<uint8_t> *bytes;
    const uint8_t **data;
    uint32_t *size;
  } blobs[] = {{"--exif", &exif, &opt.exif_data, &opt.exif_size}, {"--xmp", &xmp, &opt.xmp_data, &opt.xmp_size}};
  for (const auto &b : blobs) {
    if (!cl.has(b.option)) continue;
    if (!read_whole_file(cl.value(b.option), b.bytes, &why)) {
      error("edit", "%s: %s", cl.value(b.option).c_str(), why.c_str());
      return kExitFailed;
    }
    if (b.bytes->empty()) {
      error("edit", "%s: the file is empty", cl.value(b.option).c_str());
      return kExitFailed;
    }
    *b.data = b.bytes->data();
    *b.size = uint32_t(b.bytes->size());
  }
  if (cl.has("-v")) enable_library_log();

  // The temporary file sits beside OUT so that the rename cannot cross
  // file systems.
  std::string tmp = out + ".tarn-XXXXXX";
  const int fd = mkstemp(&tmp[0]);
  if (fd < 0) {
    error("edit", "%s: cannot create a temporary file beside it: %s", out.c_str(), std::strerror(errno));
    return kExitFailed;
  }
  // mkstemp makes the file private; OUT gets the usual permissions.
  const mode_t mask = umask(0);
  umask(mask);
  fchmod(fd, 0666 & ~mask);
  close(fd);
  tarnd_io_dsc io;
  tarnm_file_output file_out;
  char message[1024] = "";
  opt.message = message;
  opt.message_size = sizeof message;
  int32_t rc = tarnd_io_init_file(&io, in.c_str()) == 0 && tarnm_output_init_file(&file_out, tmp.c_str()) == 0
                   ? tarn_edit(&io, &file_out.dsc, &opt)
                   : TARN_EDIT_BAD_ARGUMENT;
  if (rc == TARN_EDIT_OK && std::rename(tmp.c_str(), out.c_str()) != 0) {
    error("edit", "%s: cannot rename the finished file into place: %s", out.c_str(), std::strerror(errno));
    rc = TARN_EDIT_OUTPUT;
  }
  if (rc != TARN_EDIT_OK) {
    std::remove(tmp.c_str());
    if (rc != TARN_EDIT_OUTPUT || message[0] != '\0') error("edit", "%s: %s", in.c_str(), message);
    return kExitFailed;
  }
  struct stat done;
  const long long size = stat(out.c_str(), &done) == 0 ? (long long)done.st_size : -1;
  std::fprintf(stderr, "tarn: edit: wrote %s (%lld bytes, from %lld)\n", out.c_str(), size,
               (long long)in_stat.st_size);
  if (message[0] != '\0') std::fprintf(stderr, "tarn: edit: %s\n", message);
  return kExitOk;
}

}  // namespace tarn_cli
