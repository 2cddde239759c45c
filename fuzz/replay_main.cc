// Replays fuzz inputs without libFuzzer: every file named on the command
// line, or every file of a named folder, goes through the target once.
// With --answers FILE, each input's digest of reader answers must match the
// line FILE holds for it (TARN_UPDATE_REGRESSIONS=1 rewrites FILE instead).
#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
  namespace fs = std::filesystem;
  std::vector<fs::path> files;
  const char *answers = nullptr;
  for (int i = 1; i < argc; ++i) {
    std::error_code ec;
    if (std::strcmp(argv[i], "--answers") == 0 && i + 1 < argc) {
      answers = argv[++i];
    } else if (fs::is_directory(argv[i], ec)) {
      for (const auto &e : fs::directory_iterator(argv[i]))
        if (e.path().filename().c_str()[0] != '.') files.push_back(e.path());
    } else if (fs::exists(argv[i], ec)) {  // a target without regressions yet has no folder
      files.push_back(argv[i]);
    }
  }
  std::sort(files.begin(), files.end());
  std::map<std::string, std::string> got;
  for (const fs::path &file : files) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
      std::fprintf(stderr, "cannot open %s\n", file.c_str());
      return 1;
    }
    const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    tarn_fuzz::reset_digest();
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    char digest[17];
    std::snprintf(digest, sizeof digest, "%016" PRIx64, tarn_fuzz::digest());
    got[file.filename().string()] = digest;
  }
  std::printf("%zu inputs replayed without a fault\n", files.size());
  if (answers == nullptr) return 0;
  const char *update = std::getenv("TARN_UPDATE_REGRESSIONS");
  if (update != nullptr && std::strcmp(update, "1") == 0) {
    std::ofstream out(answers);
    for (const auto &[name, digest] : got) out << name << ' ' << digest << '\n';
    return out ? 0 : 1;
  }
  std::map<std::string, std::string> want;
  std::ifstream in(answers);
  for (std::string name, digest; in >> name >> digest;) want[name] = digest;
  int changed = 0;
  for (const auto &[name, digest] : got) {
    if (want[name] == digest) continue;
    std::fprintf(stderr, "answers changed for %s (run with TARN_UPDATE_REGRESSIONS=1 if intended)\n", name.c_str());
    ++changed;
  }
  return changed == 0 && want.size() == got.size() ? 0 : 1;
}
