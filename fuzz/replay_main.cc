// Replays fuzz inputs without libFuzzer: every file named on the command
// line, or every file of a named folder, goes through the target once.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

bool replay(const std::string &path) {
  FILE *f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) {
    std::fprintf(stderr, "cannot open %s\n", path.c_str());
    return false;
  }
  std::vector<uint8_t> bytes;
  uint8_t chunk[65536];
  size_t got;
  while ((got = std::fread(chunk, 1, sizeof chunk, f)) > 0) bytes.insert(bytes.end(), chunk, chunk + got);
  std::fclose(f);
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  int replayed = 0;
  for (int i = 1; i < argc; ++i) {
    struct stat st {};
    if (stat(argv[i], &st) != 0) continue;  // a target without regressions yet
    if (!S_ISDIR(st.st_mode)) {
      if (!replay(argv[i])) return 1;
      ++replayed;
      continue;
    }
    std::vector<std::string> files;
    if (DIR *d = opendir(argv[i])) {
      while (const dirent *e = readdir(d))
        if (e->d_name[0] != '.') files.push_back(std::string(argv[i]) + "/" + e->d_name);
      closedir(d);
    }
    std::sort(files.begin(), files.end());
    for (const auto &file : files) {
      if (!replay(file)) return 1;
      ++replayed;
    }
  }
  std::printf("%d inputs replayed without a fault\n", replayed);
  return 0;
}
