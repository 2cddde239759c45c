// A minimal JSON reader for the corpus's facts.json: objects, arrays,
// strings (\uXXXX below 0x100 only), integers, booleans and null.
#ifndef TARN_TESTS_READER_JSON_LITE_H
#define TARN_TESTS_READER_JSON_LITE_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace tarn_test {

struct Json {
  enum Kind { kNull, kBool, kNumber, kString, kArray, kObject } kind = kNull;
  int64_t number = 0;
  std::string text;
  std::vector<Json> items;
  std::map<std::string, Json> members;

  bool has(const std::string &key) const { return members.count(key) != 0; }
  const Json &operator[](const std::string &key) const;
  const Json &operator[](size_t i) const { return items[i]; }
};

// Parses text; false on malformed input.
bool parse_json(const std::string &text, Json *out);

}  // namespace tarn_test

#endif  // TARN_TESTS_READER_JSON_LITE_H
