#include "reader/json_lite.h"

#include <cstdlib>

namespace tarn_test {

namespace {

struct Parser {
  const std::string &s;
  size_t i = 0;

  void ws() {
    while (i < s.size() && (s[i] == ' ' || s[i] == '\n' || s[i] == '\r' || s[i] == '\t')) ++i;
  }
  bool lit(const char *word) {
    size_t n = std::string(word).size();
    if (s.compare(i, n, word) != 0) return false;
    i += n;
    return true;
  }
  bool string(std::string *out) {
    if (i >= s.size() || s[i] != '"') return false;
    ++i;
    while (i < s.size() && s[i] != '"') {
      char c = s[i++];
      if (c != '\\') {
        out->push_back(c);
        continue;
      }
      if (i >= s.size()) return false;
      char e = s[i++];
      if (e == 'u') {
        if (s.size() - i < 4) return false;
        out->push_back(static_cast<char>(std::strtol(s.substr(i, 4).c_str(), nullptr, 16)));
        i += 4;
      } else {
        out->push_back(e == 'n' ? '\n' : e == 't' ? '\t' : e);
      }
    }
    if (i >= s.size()) return false;
    ++i;
    return true;
  }
  bool value(Json *v) {
    ws();
    if (i >= s.size()) return false;
    char c = s[i];
    if (c == '{') {
      v->kind = Json::kObject;
      ++i;
      ws();
      if (i < s.size() && s[i] == '}') return ++i, true;
      for (;;) {
        ws();
        std::string key;
        if (!string(&key)) return false;
        ws();
        if (i >= s.size() || s[i++] != ':') return false;
        if (!value(&v->members[key])) return false;
        ws();
        if (i < s.size() && s[i] == ',') { ++i; continue; }
        if (i < s.size() && s[i] == '}') return ++i, true;
        return false;
      }
    }
    if (c == '[') {
      v->kind = Json::kArray;
      ++i;
      ws();
      if (i < s.size() && s[i] == ']') return ++i, true;
      for (;;) {
        v->items.emplace_back();
        if (!value(&v->items.back())) return false;
        ws();
        if (i < s.size() && s[i] == ',') { ++i; continue; }
        if (i < s.size() && s[i] == ']') return ++i, true;
        return false;
      }
    }
    if (c == '"') {
      v->kind = Json::kString;
      return string(&v->text);
    }
    if (lit("true")) { v->kind = Json::kBool; v->number = 1; return true; }
    if (lit("false")) { v->kind = Json::kBool; return true; }
    if (lit("null")) return true;
    char *end = nullptr;
    v->kind = Json::kNumber;
    v->number = std::strtoll(s.c_str() + i, &end, 10);
    if (end == s.c_str() + i) return false;
    i = static_cast<size_t>(end - s.c_str());
    return true;
  }
};

}  // namespace

const Json &Json::operator[](const std::string &key) const {
  static const Json kNullValue;
  auto it = members.find(key);
  return it == members.end() ? kNullValue : it->second;
}

bool parse_json(const std::string &text, Json *out) {
  Parser p{text};
  if (!p.value(out)) return false;
  p.ws();
  return p.i == text.size();
}

}  // namespace tarn_test
