// Shared by the reader tests: open a byte vector or a path with the handle
// released automatically, the corpus facts, and small files built box by box.
#ifndef TARN_TESTS_READER_HELPERS_H
#define TARN_TESTS_READER_HELPERS_H

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/box_builder.h"
#include "support/files.h"
#include "tarn/io.h"
#include "tarn/reader.h"

namespace tarn_test {

struct CtxDeleter {
  void operator()(tarnd_ctx *ctx) const { tarnd_delete(ctx); }
};
using CtxPtr = std::unique_ptr<tarnd_ctx, CtxDeleter>;

inline CtxPtr open_io(const tarnd_io_dsc &io, int32_t *err, uint32_t mode = TARND_READ_STRICT) {
  tarnd_file_info info;
  return CtxPtr(static_cast<tarnd_ctx *>(tarnd_create_with_flags(&io, mode, &info, err)));
}
inline CtxPtr open_memory(const std::vector<uint8_t> &bytes, int32_t *err, uint32_t mode = TARND_READ_STRICT) {
  tarnd_io_dsc io;
  tarnd_io_init_memory(&io, bytes.data(), bytes.size());
  return open_io(io, err, mode);
}
inline CtxPtr open_path(const std::string &path, int32_t *err, uint32_t mode = TARND_READ_STRICT) {
  tarnd_io_dsc io;
  tarnd_io_init_file(&io, path.c_str());
  return open_io(io, err, mode);
}

inline uint32_t fcc(const std::string &s) { return s.size() < 4 ? 0 : TARND_FCC(s[0], s[1], s[2], s[3]); }

// A JSON value of facts.json: objects, arrays, strings (\uXXXX below 0x100)
// and integers, all that the facts use.
struct Json {
  int64_t number = 0;
  std::string text;
  std::vector<Json> items;
  std::map<std::string, Json> members;
  bool has(const std::string &key) const { return members.count(key) != 0; }
  const Json &operator[](size_t i) const { return items[i]; }
  const Json &operator[](const std::string &key) const {
    static const Json kNone;
    auto it = members.find(key);
    return it == members.end() ? kNone : it->second;
  }
};

// Parses the value at p (a NUL-terminated text) into v; false when malformed.
inline bool parse_json(const char *&p, Json *v) {
  auto skip_space = [&p] { p += strspn(p, " \n\r\t"); };
  skip_space();
  if (*p == '[' || *p == '{') {
    const char close = *p++ == '[' ? ']' : '}';
    for (Json key;;) {
      skip_space();
      if (*p == close) return ++p, true;
      if ((!v->items.empty() || !v->members.empty()) && *p++ != ',') return false;
      skip_space();
      if (close == '}' && (*p != '"' || !parse_json(p, &key) || (skip_space(), *p++ != ':'))) return false;
      if (!parse_json(p, close == ']' ? &v->items.emplace_back() : &v->members[key.text])) return false;
      key.text.clear();
    }
  }
  if (*p == '"') {
    for (++p; *p != '"'; ++p) {
      const bool escape = *p == '\\';
      p += escape;
      if (*p == '\0' || (escape && *p == 'u' && strnlen(p, 5) < 5)) return false;
      v->text += escape && *p == 'u' ? char(strtol(std::string(p + 1, 4).c_str(), nullptr, 16))
                 : escape && *p == 'n' ? '\n' : *p;
      if (escape && *p == 'u') p += 4;
    }
    return ++p, true;
  }
  char *end = nullptr;
  v->number = strtoll(p, &end, 10);
  return end != p && (p = end, true);
}

inline bool load_facts(Json *facts) {
  std::vector<uint8_t> bytes;
  if (!read_file(corpus_dir() + "/facts.json", &bytes)) return false;
  const std::string text(bytes.begin(), bytes.end());
  const char *p = text.c_str();
  return parse_json(p, facts) && !facts->items.empty();
}

// Path of a corpus file named by facts.json, or "".
inline std::string corpus_path(const std::string &name) {
  for (const char *folder : {"broken", "nokia", "phones", "synthetic"}) {
    const std::string path = corpus_dir() + "/" + folder + "/" + name;
    if (FILE *f = fopen(path.c_str(), "rb")) return fclose(f), path;
  }
  return "";
}

}  // namespace tarn_test

#endif  // TARN_TESTS_READER_HELPERS_H
