// Writer: the input is a program of registration and intake calls, run on
// one writer context; the finished file is read back with the reader.
#include <cstring>
#include <memory>
#include <vector>

#include "fuzz_common.h"
#include "tarn/tarn.h"

namespace {

// Parameter sets of a real 256x256 x265 picture, so that most programs get
// past the hvcC builder; the input can supply its own instead.
const uint8_t kVps[] = {0x40, 0x01, 0x0c, 0x01, 0xff, 0xff, 0x03, 0x70, 0x00, 0x00, 0x03, 0x00,
                        0x90, 0x00, 0x00, 0x03, 0x00, 0x00, 0x03, 0x00, 0x3c, 0x95, 0x98, 0x09};
const uint8_t kSps[] = {0x42, 0x01, 0x01, 0x03, 0x70, 0x00, 0x00, 0x03, 0x00, 0x90, 0x00, 0x00, 0x03,
                        0x00, 0x00, 0x03, 0x00, 0x3c, 0xa0, 0x08, 0x08, 0x04, 0x05, 0x96, 0x56, 0x69,
                        0x24, 0xca, 0xe0, 0x10, 0x00, 0x00, 0x3e, 0x80, 0x00, 0x00, 0x3e, 0x80, 0x80};
const uint8_t kPps[] = {0x44, 0x01, 0xc1, 0x72, 0xb4, 0x62, 0x40};

// Reads the fuzz input; runs dry as zeros.
struct Input {
  const uint8_t *p;
  size_t left;
  uint8_t u8() {
    if (left == 0) return 0;
    --left;
    return *p++;
  }
  // Reads are sequenced one statement at a time: the order in which one
  // expression evaluates its operands differs between compilers, and an
  // input must mean the same program on every platform that replays it.
  uint32_t u16() {
    const uint32_t high = u8();
    return high << 8 | u8();
  }
  // Up to max bytes of the input as a span.
  const uint8_t *span(size_t max, uint32_t *size) {
    size_t n = u16() % (max + 1);
    if (n > left) n = left;
    const uint8_t *at = p;
    p += n;
    left -= n;
    *size = uint32_t(n);
    return at;
  }
};

void fill_param_sets(Input &in, tarnm_param_sets *ps) {
  std::memset(ps, 0, sizeof *ps);
  if (in.u8() & 1) {
    ps->vps_count = ps->sps_count = ps->pps_count = 1;
    ps->vps_size[0] = sizeof kVps;
    ps->vps_data[0] = kVps;
    ps->sps_size[0] = sizeof kSps;
    ps->sps_data[0] = kSps;
    ps->pps_size[0] = sizeof kPps;
    ps->pps_data[0] = kPps;
    return;
  }
  ps->vps_count = in.u8() % 3;
  ps->sps_count = in.u8() % 3;
  ps->pps_count = in.u8() % 3;
  for (int i = 0; i < ps->vps_count; ++i) ps->vps_data[i] = in.span(64, &ps->vps_size[i]);
  for (int i = 0; i < ps->sps_count; ++i) ps->sps_data[i] = in.span(64, &ps->sps_size[i]);
  for (int i = 0; i < ps->pps_count; ++i) ps->pps_data[i] = in.span(64, &ps->pps_size[i]);
}

void fill_image_info(Input &in, tarnm_image_info *info, const uint8_t *depths) {
  std::memset(info, 0, sizeof *info);
  info->img_type = in.u8() % 7;
  info->width = in.u16();
  info->height = in.u16();
  info->rotation = (in.u8() % 5) * 90;
  info->color_type = in.u8() % 5;
  info->color_data = in.span(600, &info->color_size);
  fill_param_sets(in, &info->param_sets);
  info->bit_depth = depths;
  info->bit_depth_info_count = in.u8() % 5;
  info->max_cll = in.u16();
  info->max_pall = in.u16();
  info->aux_type = in.u8() % 5;
  info->aux_subtype_data = in.span(16, &info->aux_subtype_size);
  info->xmp_data = in.span(256, &info->xmp_size);
  info->exif_data = in.span(256, &info->exif_size);
  info->tmap_data = in.span(64, &info->tmap_size);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  Input in{data, size};
  tarnm_init_dsc init{};
  if (in.u8() & 1) {
    init.use_custom_brands = 1;
    init.major_brand = TARND_FCC('h', 'e', 'i', 'c');
    init.compatible_brand_count = in.u8() % 10;
    for (uint32_t i = 0; i < 8; ++i) init.compatible_brands[i] = TARND_FCC('m', 'i', 'f', '1');
  }
  tarnm_ctx *w = tarnm_create(&init, nullptr);
  if (w == nullptr) return 0;
  std::vector<std::unique_ptr<uint8_t[]>> delivered;  // must outlive the context
  static const uint8_t kDepths[4] = {8, 8, 8, 8};
  for (int step = 0; step < 48 && in.left > 0; ++step) {
    switch (in.u8() % 8) {
      case 0: {
        tarnm_image_info info;
        fill_image_info(in, &info, kDepths);
        const uint32_t id = in.u16();
        tarn_fuzz::note(uint32_t(tarnm_set_image_info(w, id, in.u16(), &info, nullptr)));
        break;
      }
      case 1: {
        tarnm_image_info info;
        fill_image_info(in, &info, kDepths);
        tarnm_grid_info grid{};
        grid.output_width = in.u16();
        grid.output_height = in.u16();
        grid.rows = in.u8() % 5;
        grid.columns = in.u8() % 5;
        grid.first_tile_id = in.u8();
        grid.last_tile_id = grid.first_tile_id + in.u8() % 20;
        grid.grid_item_id = uint16_t(in.u16());
        grid.rotation = (in.u8() % 4) * 90;
        tarn_fuzz::note(uint32_t(tarnm_set_image_info(w, grid.grid_item_id, in.u16(), &info, &grid)));
        break;
      }
      case 2:
      case 3: {
        uint32_t n = 0;
        const uint8_t *bytes = in.span(2048, &n);
        std::vector<uint8_t> frame = {0, 0, 0, 1};
        frame.insert(frame.end(), bytes, bytes + n);
        tarn_fuzz::note(uint32_t(tarnm_put_frm(w, in.u16(), frame.data(), uint32_t(frame.size()))));
        break;
      }
      case 4: {
        uint32_t n = 0;
        const uint8_t *bytes = in.span(512, &n);
        uint32_t offset = 0;
        tarn_fuzz::note(uint32_t(tarnm_put_metadata(w, in.u16(), bytes, n, &offset)));
        tarn_fuzz::note(offset);
        break;
      }
      case 5:
        tarn_fuzz::note(uint32_t(tarnm_set_cover_image(w, int32_t(in.u16()) - 2)));
        break;
      case 6: {
        const int32_t used = tarnm_get_outputbuffer_size(w);
        const int32_t room = used + int32_t(in.u16()) - 64;
        if (room > 0) {
          delivered.emplace_back(new uint8_t[size_t(room)]);
          tarn_fuzz::note(uint32_t(tarnm_use_delivered_memory_buffer(w, delivered.back().get(), room)));
        }
        break;
      }
      default: {
        uint32_t offset = 0;
        const int32_t id = int32_t(in.u16());
        tarn_fuzz::note(uint32_t(tarnm_get_metadata_offset(w, id, in.u8() & 1, &offset)));
        tarn_fuzz::note(offset);
        break;
      }
    }
  }
  if (tarnm_stop_muxing(w) == 0) {
    const int32_t out_size = tarnm_get_outputbuffer_size(w);
    if (out_size > 0) {
      std::vector<uint8_t> file(static_cast<size_t>(out_size));
      if (tarnm_dump_image_to_outputbuffer(w, file.data()) == 0) {
        tarn_fuzz::note_bytes(file.data(), file.size());
        tarn_fuzz::exercise_reader(file.data(), file.size());
      }
    }
  }
  tarnm_delete(w);
  return 0;
}
