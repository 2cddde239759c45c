// tarn boxes: the box tree of a file with offsets and sizes, for debugging.
// It walks the file on its own (the library keeps no box tree) and never
// trusts a size: every box is checked against its parent and the file.
#include <cinttypes>
#include <cstdarg>
#include <cstring>
#include <string>

#include "cli.h"

namespace tarn_cli {
namespace {

const char kHelp[] =
    "usage: tarn boxes [-v] FILE\n"
    "\n"
    "Prints every box of FILE as an indented tree: file offset, size, type, and\n"
    "version/flags for full boxes. A box that is cut short or damaged is listed\n"
    "with what can be read of it; then the offset and the reason are reported\n"
    "on stderr and the exit status is 1.\n";

struct ContainerRule {
  char type[5];
  bool full_box;            // version and flags precede the children
  uint32_t skip_after_full; // bytes of fields between the full-box header and the children
};

// Boxes whose payload is a sequence of boxes.
const ContainerRule kContainers[] = {
    {"moov", false, 0}, {"trak", false, 0}, {"mdia", false, 0}, {"minf", false, 0}, {"stbl", false, 0},
    {"dinf", false, 0}, {"edts", false, 0}, {"iprp", false, 0}, {"ipco", false, 0}, {"grpl", false, 0},
    {"meta", true, 0},  {"iref", true, 0},  {"dref", true, 4},  {"stsd", true, 4},  {"udta", false, 0},
    {"mvex", false, 0}, {"moof", false, 0}, {"traf", false, 0}, {"tref", false, 0},
};

// Full boxes printed with their version and flags.
const char *const kFullBoxes[] = {"pitm", "iloc", "infe", "ispe", "pixi", "auxC", "ster", "hdlr", "mvhd",
                                  "tkhd", "mdhd", "idat", "altr", "clli", "mdcv", "ipma", "iinf"};

bool is_full_box(const char *type) {
  for (const char *t : kFullBoxes)
    if (std::memcmp(t, type, 4) == 0) return true;
  return false;
}

uint32_t be32(const uint8_t *p) {
  return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | uint32_t(p[3]);
}

void printable_type(const uint8_t *p, char out[5]) {
  for (int i = 0; i < 4; ++i) out[i] = (p[i] >= 0x20 && p[i] < 0x7f) ? char(p[i]) : '.';
  out[4] = '\0';
}

// One walk over a file: the bytes, and every place where the structure
// breaks, as "offset N: why" lines for the final report.
struct Walk {
  const std::vector<uint8_t> &data;
  std::vector<std::string> problems;
};

void problem(Walk *w, uint64_t pos, const char *format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 3, 4)))
#endif
    ;

void problem(Walk *w, uint64_t pos, const char *format, ...) {
  char why[200];
  va_list args;
  va_start(args, format);
  std::vsnprintf(why, sizeof why, format, args);
  va_end(args);
  w->problems.push_back("offset " + std::to_string(pos) + ": " + why);
}

// Lists the boxes in data[begin, end), whose container is described by
// parent ("the file", "meta at 28"). A box that declares more bytes than its
// parent holds is listed with what is there, and ends its level.
void walk(Walk *w, uint64_t begin, uint64_t end, int depth, const std::string &parent) {
  const std::vector<uint8_t> &data = w->data;
  uint64_t pos = begin;
  while (pos < end) {
    const uint64_t left = end - pos;
    const uint8_t *h = data.data() + pos;
    if (left < 8) {
      std::printf("%*s%10" PRIu64 "  (%u bytes, too few for a box header)\n", depth * 2, "", pos, unsigned(left));
      problem(w, pos, "a box header needs 8 bytes, only %u remain in %s", unsigned(left), parent.c_str());
      return;
    }
    uint64_t size = be32(h);
    char type[5];
    printable_type(h + 4, type);
    uint32_t header = 8;
    if (size == 1) {
      if (left < 16) {
        std::printf("%*s%10" PRIu64 "  %-4s (64-bit size cut short)\n", depth * 2, "", pos, type);
        problem(w, pos, "%s: its 64-bit size needs 16 header bytes, only %u remain in %s", type, unsigned(left),
                parent.c_str());
        return;
      }
      size = uint64_t(be32(h + 8)) << 32 | be32(h + 12);
      header = 16;
    } else if (size == 0) {
      size = left;  // runs to the end of its parent
    }
    if (size < header) {
      std::printf("%*s%10" PRIu64 "  %-4s %10" PRIu64 "  (smaller than its header)\n", depth * 2, "", pos, type,
                  size);
      problem(w, pos, "%s: declared size %" PRIu64 " is smaller than its %u-byte header", type, size, header);
      return;
    }
    const bool cut = size > left;
    std::printf("%*s%10" PRIu64 "  %-4s %10" PRIu64, depth * 2, "", pos, type, size);
    if (cut) {
      problem(w, pos, "%s declares %" PRIu64 " bytes, only %" PRIu64 " remain in %s", type, size, left,
              parent.c_str());
      size = left;  // list what is there
    }
    const ContainerRule *rule = nullptr;
    for (const auto &r : kContainers)
      if (std::memcmp(r.type, type, 4) == 0) rule = &r;
    uint64_t children = pos + header;
    const bool full = rule != nullptr ? rule->full_box : is_full_box(type);
    if (full && size - header >= 4) {
      const uint8_t *v = data.data() + pos + header;
      std::printf("  v%u flags 0x%06x", v[0], unsigned(be32(v) & 0xffffff));
      children += 4;
    } else if (full) {
      problem(w, pos, "%s: %u bytes, too few for its version and flags", type, unsigned(size - header));
    }
    std::printf(cut ? "  (cut short: %" PRIu64 " bytes present)\n" : "\n", size);
    const std::string here = std::string(type) + " at " + std::to_string(pos);
    if (rule != nullptr && (!full || size - header >= 4)) {
      children += rule->skip_after_full;
      if (children <= pos + size) walk(w, children, pos + size, depth + 1, here);
    } else if (std::memcmp(type, "iinf", 4) == 0 && size - header >= 4) {
      // iinf: version 0 has a 16-bit entry count, later versions 32-bit.
      const uint64_t first = children + (data[pos + header] == 0 ? 2 : 4);
      if (first <= pos + size) walk(w, first, pos + size, depth + 1, here);
    }
    if (cut) return;
    pos += size;
  }
}

}  // namespace

int cmd_boxes(int argc, char **argv) {
  static const OptionSpec kSpecs[] = {{"--help", "-h", false}, {"-v", "--verbose", false}};
  CommandLine cl;
  if (!parse_command_line("boxes", argc, argv, 2, kSpecs, sizeof kSpecs / sizeof kSpecs[0], &cl))
    return kExitUsage;
  if (cl.has("--help")) {
    std::fputs(kHelp, stdout);
    return kExitOk;
  }
  if (cl.operands.size() != 1) {
    error("boxes", "expected one FILE (see tarn boxes --help)");
    return kExitUsage;
  }
  std::vector<uint8_t> data;
  std::string why;
  if (!read_whole_file(cl.operands[0], &data, &why)) {
    error("boxes", "%s: %s", cl.operands[0].c_str(), why.c_str());
    return kExitFailed;
  }
  const char *path = cl.operands[0].c_str();
  std::printf("%s (%zu bytes)\n    offset  type       size\n", path, data.size());
  Walk w{data, {}};
  if (data.empty()) problem(&w, 0, "the file is empty, it holds no box");
  walk(&w, 0, data.size(), 0, "the file");
  if (!w.problems.empty()) {
    // The listing above shows every box that could be read; say where and
    // why the structure ends, after it.
    std::fflush(stdout);
    for (const std::string &p : w.problems) error("boxes", "%s: %s", path, p.c_str());
    return kExitFailed;
  }
  return kExitOk;
}

}  // namespace tarn_cli
