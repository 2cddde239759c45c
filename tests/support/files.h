// File helpers for tests: whole-file reads and the corpus location.
#ifndef TARN_TESTS_FILES_H
#define TARN_TESTS_FILES_H

#include <cstdint>
#include <string>
#include <vector>

namespace tarn_test {

// The corpus of real HEIF files beside the project, or "" when absent
// (TARN_CORPUS_DIR in the environment overrides the configured path).
std::string corpus_dir();
// Path of a committed fixture under tests/data.
std::string data_path(const std::string &name);
// Path of a reader input under fuzz/regressions/reader, which the
// malformed-file table writes and the fuzz replay reads.
std::string regression_path(const std::string &name);
// Whole file, or false when it cannot be read.
bool read_file(const std::string &path, std::vector<uint8_t> *out);

}  // namespace tarn_test

// Skips the current test with a message when the corpus folder is absent.
#define TARN_REQUIRE_CORPUS()                                                        \
  do {                                                                               \
    if (tarn_test::corpus_dir().empty()) GTEST_SKIP() << "corpus folder not found: " \
                                                      << TARN_CORPUS_DIR;            \
  } while (0)

#endif  // TARN_TESTS_FILES_H
