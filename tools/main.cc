// tarn: a command-line companion to libtarn for inspecting, extracting from
// and writing HEIC files. It is the library's first client and uses only its
// public API.
#include <cstdio>
#include <cstring>

#include "cli.h"
#include "tarn/tarn.h"

namespace {

struct Command {
  const char *name;
  int (*run)(int argc, char **argv);
  const char *summary;
};

const Command kCommands[] = {
    {"info", tarn_cli::cmd_info, "describe the images, metadata and groups of HEIF files"},
    {"extract", tarn_cli::cmd_extract, "write an image's coded data as an Annex-B stream (or JPEG)"},
    {"exif", tarn_cli::cmd_exif, "write the primary image's Exif data as a TIFF stream"},
    {"xmp", tarn_cli::cmd_xmp, "write the primary image's XMP packet"},
    {"mux", tarn_cli::cmd_mux, "build a HEIC file from Annex-B HEVC frames and metadata"},
    {"edit", tarn_cli::cmd_edit, "change metadata, rotation and extra images without re-encoding"},
    {"boxes", tarn_cli::cmd_boxes, "print the box tree with offsets and sizes"},
};

void usage(FILE *out) {
  std::fprintf(out,
               "usage: tarn [--version] [--help] <command> [options] [args]\n"
               "\n"
               "libtarn %s: reads and writes HEIF/HEIC files without decoding a pixel.\n"
               "\n"
               "commands:\n",
               tarn_version());
  for (const auto &c : kCommands) std::fprintf(out, "  %-8s %s\n", c.name, c.summary);
  std::fprintf(out,
               "\n"
               "Run 'tarn <command> --help' for a command's options. Every command takes -v to\n"
               "show the library's log lines on stderr. Files are read in tolerant mode (they\n"
               "open as other HEIF readers open them); --strict on info, extract, exif and xmp\n"
               "reads by the written rules only.\n"
               "\n"
               "exit status: 0 done, 1 a file could not be read, parsed or written,\n"
               "             2 bad command line\n");
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) {
    usage(stderr);
    return tarn_cli::kExitUsage;
  }
  const char *name = argv[1];
  if (std::strcmp(name, "--version") == 0 || std::strcmp(name, "version") == 0) {
    std::printf("tarn %s\n", tarn_version());
    return tarn_cli::kExitOk;
  }
  if (std::strcmp(name, "--help") == 0 || std::strcmp(name, "-h") == 0 || std::strcmp(name, "help") == 0) {
    usage(stdout);
    return tarn_cli::kExitOk;
  }
  for (const auto &c : kCommands) {
    if (std::strcmp(name, c.name) == 0) return c.run(argc, argv);
  }
  std::fprintf(stderr, "tarn: unknown command '%s' (see tarn --help)\n", name);
  return tarn_cli::kExitUsage;
}
