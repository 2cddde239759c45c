// Replays fuzz inputs without libFuzzer: every file named on the command
// line, or every file of a named folder, goes through the target once.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
  namespace fs = std::filesystem;
  std::vector<fs::path> files;
  for (int i = 1; i < argc; ++i) {
    std::error_code ec;
    if (fs::is_directory(argv[i], ec)) {
      for (const auto &e : fs::directory_iterator(argv[i]))
        if (e.path().filename().c_str()[0] != '.') files.push_back(e.path());
    } else if (fs::exists(argv[i], ec)) {  // a target without regressions yet has no folder
      files.push_back(argv[i]);
    }
  }
  std::sort(files.begin(), files.end());
  for (const fs::path &file : files) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
      std::fprintf(stderr, "cannot open %s\n", file.c_str());
      return 1;
    }
    const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  std::printf("%zu inputs replayed without a fault\n", files.size());
  return 0;
}
