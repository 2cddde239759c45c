#include "writer/roundtrip_streams.h"

#include "support/files.h"

namespace tarn_test {

std::vector<Bytes> split_annexb(const Bytes &s) {
  std::vector<Bytes> units;
  size_t i = 0, start = 0;
  bool in_unit = false;
  while (i + 3 <= s.size()) {
    if (s[i] == 0 && s[i + 1] == 0 && s[i + 2] == 1) {
      if (in_unit) {
        size_t end = i;
        while (end > start && s[end - 1] == 0) --end;  // 4-byte code's leading zero
        units.emplace_back(s.begin() + long(start), s.begin() + long(end));
      }
      i += 3;
      start = i;
      in_unit = true;
    } else {
      ++i;
    }
  }
  if (in_unit && start < s.size()) units.emplace_back(s.begin() + long(start), s.end());
  return units;
}

Bytes HevcStream::frame() const {
  Bytes out;
  for (const Bytes &u : slices) {
    out.insert(out.end(), {0, 0, 0, 1});
    out.insert(out.end(), u.begin(), u.end());
  }
  return out;
}

tarnm_param_sets HevcStream::param_sets() const {
  tarnm_param_sets ps{};
  auto fill = [](const std::vector<Bytes> &units, int32_t *count, uint32_t *size,
                 const uint8_t **data) {
    *count = int32_t(units.size() < 4 ? units.size() : 4);
    for (int32_t i = 0; i < *count; ++i) {
      size[i] = uint32_t(units[size_t(i)].size());
      data[i] = units[size_t(i)].data();
    }
  };
  fill(vps, &ps.vps_count, ps.vps_size, ps.vps_data);
  fill(sps, &ps.sps_count, ps.sps_size, ps.sps_data);
  fill(pps, &ps.pps_count, ps.pps_size, ps.pps_data);
  return ps;
}

bool load_stream(const std::string &name, HevcStream *out) {
  Bytes bytes;
  if (!read_file(data_path("hevc/" + name), &bytes)) return false;
  *out = HevcStream();
  for (Bytes &u : split_annexb(bytes)) {
    if (u.size() < 2) continue;
    switch ((u[0] >> 1) & 0x3F) {
      case 32: out->vps.push_back(std::move(u)); break;
      case 33: out->sps.push_back(std::move(u)); break;
      case 34: out->pps.push_back(std::move(u)); break;
      default: out->slices.push_back(std::move(u)); break;
    }
  }
  return !out->vps.empty() && !out->sps.empty() && !out->pps.empty() && !out->slices.empty();
}

uint32_t be32(const uint8_t *p) {
  return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}
uint16_t be16(const uint8_t *p) { return uint16_t(p[0] << 8 | p[1]); }

std::vector<Box> child_boxes(const Bytes &buf, size_t begin, size_t end) {
  std::vector<Box> boxes;
  if (end > buf.size()) end = buf.size();
  size_t off = begin;
  while (off < end && end - off >= 8) {
    uint64_t size = be32(&buf[off]);
    size_t header = 8;
    if (size == 1) {
      if (end - off < 16) break;
      size = uint64_t(be32(&buf[off + 8])) << 32 | be32(&buf[off + 12]);
      header = 16;
    } else if (size == 0) {
      size = end - off;
    }
    if (size < header || size > end - off) break;
    boxes.push_back({be32(&buf[off + 4]), off, header, size_t(size)});
    off += size_t(size);
  }
  return boxes;
}

namespace {
const Box *find(const std::vector<Box> &boxes, uint32_t type) {
  for (const Box &b : boxes) {
    if (b.type == type) return &b;
  }
  return nullptr;
}
}  // namespace

std::vector<Bytes> hvcc_payloads(const Bytes &file) {
  std::vector<Bytes> out;
  auto top = child_boxes(file, 0, file.size());
  const Box *meta = find(top, fourcc("meta"));
  if (meta == nullptr || meta->size < meta->header + 4) return out;
  auto in_meta = child_boxes(file, meta->offset + meta->header + 4, meta->offset + meta->size);
  const Box *iprp = find(in_meta, fourcc("iprp"));
  if (iprp == nullptr) return out;
  auto in_iprp = child_boxes(file, iprp->offset + iprp->header, iprp->offset + iprp->size);
  const Box *ipco = find(in_iprp, fourcc("ipco"));
  if (ipco == nullptr) return out;
  for (const Box &b : child_boxes(file, ipco->offset + ipco->header, ipco->offset + ipco->size)) {
    if (b.type != fourcc("hvcC")) continue;
    out.emplace_back(file.begin() + long(b.offset + b.header), file.begin() + long(b.offset + b.size));
  }
  return out;
}

}  // namespace tarn_test
