#include "support/files.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>

namespace tarn_test {

std::string corpus_dir() {
  const char *env = std::getenv("TARN_CORPUS_DIR");
  std::string dir = (env != nullptr && *env != '\0') ? env : TARN_CORPUS_DIR;
  struct stat st {};
  if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return "";
  return dir;
}

std::string data_path(const std::string &name) { return std::string(TARN_TEST_DATA_DIR) + "/" + name; }

std::string regression_path(const std::string &name) {
  return std::string(TARN_TEST_DATA_DIR) + "/../../fuzz/regressions/reader/" + name;
}

bool read_file(const std::string &path, std::vector<uint8_t> *out) {
  FILE *f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) return false;
  out->clear();
  uint8_t chunk[65536];
  size_t got;
  while ((got = std::fread(chunk, 1, sizeof chunk, f)) > 0) out->insert(out->end(), chunk, chunk + got);
  const bool ok = std::ferror(f) == 0;
  std::fclose(f);
  return ok;
}

}  // namespace tarn_test
