// The tarn command-line tool: the library's first client, using only its
// public API.
#include <cstdio>
#include <cstring>

#include "tarn/tarn.h"

namespace {

void usage(FILE *out) {
  std::fprintf(out,
               "usage: tarn [--version] [--help] <command> [args]\n"
               "\n"
               "libtarn %s: reads and writes HEIF/HEIC files without decoding a pixel.\n",
               tarn_version());
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) {
    usage(stderr);
    return 2;
  }
  if (std::strcmp(argv[1], "--version") == 0) {
    std::printf("tarn %s\n", tarn_version());
    return 0;
  }
  if (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0) {
    usage(stdout);
    return 0;
  }
  std::fprintf(stderr, "tarn: unknown command '%s' (see tarn --help)\n", argv[1]);
  return 2;
}
