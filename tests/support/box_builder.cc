#include "support/box_builder.h"

#include <cstring>

namespace tarn_test {
namespace bb {

namespace {

Bytes be(uint64_t v, int bytes) {
  Bytes out(static_cast<size_t>(bytes));
  for (int i = bytes - 1; i >= 0; --i) {
    out[static_cast<size_t>(i)] = static_cast<uint8_t>(v & 0xff);
    v >>= 8;
  }
  return out;
}

Bytes header(uint32_t size32, const char *type) {
  Bytes out = be(size32, 4);
  append(&out, fourcc(type));
  return out;
}

}  // namespace

Bytes u8(uint8_t v) { return Bytes{v}; }
Bytes u16(uint16_t v) { return be(v, 2); }
Bytes u24(uint32_t v) { return be(v, 3); }
Bytes u32(uint32_t v) { return be(v, 4); }
Bytes u64(uint64_t v) { return be(v, 8); }

Bytes fourcc(const char *code) {
  Bytes out(4, 0);
  size_t n = std::strlen(code);
  for (size_t i = 0; i < 4 && i < n; ++i) out[i] = static_cast<uint8_t>(code[i]);
  return out;
}

Bytes str(const std::string &s) {
  Bytes out(s.begin(), s.end());
  out.push_back(0);
  return out;
}

Bytes raw(const std::string &s) { return Bytes(s.begin(), s.end()); }
Bytes zeros(size_t n) { return Bytes(n, 0); }

void append(Bytes *b, const Bytes &other) { b->insert(b->end(), other.begin(), other.end()); }

Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes &p : parts) append(&out, p);
  return out;
}

Bytes cat(const std::vector<Bytes> &parts) {
  Bytes out;
  for (const Bytes &p : parts) append(&out, p);
  return out;
}

Bytes box(const char *type, const std::vector<Bytes> &parts) {
  Bytes body = cat(parts);
  Bytes out = header(static_cast<uint32_t>(body.size() + 8), type);
  append(&out, body);
  return out;
}

Bytes box(const char *type, std::initializer_list<Bytes> parts) {
  return box(type, std::vector<Bytes>(parts));
}

Bytes fullbox(const char *type, uint8_t version, uint32_t flags,
              const std::vector<Bytes> &parts) {
  Bytes body = cat(parts);
  Bytes out = header(static_cast<uint32_t>(body.size() + 12), type);
  out.push_back(version);
  append(&out, u24(flags));
  append(&out, body);
  return out;
}

Bytes fullbox(const char *type, uint8_t version, uint32_t flags,
              std::initializer_list<Bytes> parts) {
  return fullbox(type, version, flags, std::vector<Bytes>(parts));
}

Bytes box_sized(uint32_t size32, const char *type, std::initializer_list<Bytes> parts) {
  Bytes out = header(size32, type);
  append(&out, cat(parts));
  return out;
}

Bytes fullbox_sized(uint32_t size32, const char *type, uint8_t version, uint32_t flags,
                    std::initializer_list<Bytes> parts) {
  Bytes out = header(size32, type);
  out.push_back(version);
  append(&out, u24(flags));
  append(&out, cat(parts));
  return out;
}

Bytes box_large(const char *type, std::initializer_list<Bytes> parts, uint64_t size64) {
  Bytes body = cat(parts);
  Bytes out = header(1, type);
  append(&out, u64(size64 != 0 ? size64 : body.size() + 16));
  append(&out, body);
  return out;
}

void patch_u32(Bytes *b, size_t offset, uint32_t v) {
  Bytes f = u32(v);
  for (size_t i = 0; i < 4; ++i) (*b)[offset + i] = f[i];
}

}  // namespace bb
}  // namespace tarn_test
