// SPS decoder and hvcC builder: the input is split into VPS, SPS and PPS
// units at its first two bytes' lengths; the SPS is also decoded alone.
#include <cstring>
#include <vector>

#include "fuzz_common.h"
#include "tarn/tarn.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  const size_t vps_size = data[0] % (size - 1);
  const size_t rest = size - 2 - vps_size;
  const size_t sps_size = rest == 0 ? 0 : data[1] % (rest + 1);
  const uint8_t *vps = data + 2;
  const uint8_t *sps = vps + vps_size;
  const uint8_t *pps = sps + sps_size;
  const size_t pps_size = rest - sps_size;

  if (sps_size > 2) {
    omni_bsr bs{};
    omni_bsr_init(&bs, sps + 2, static_cast<uint32_t>(sps_size - 2), tarnm_hevc_bs_flush);
    tarnm_hevc_sps decoded;
    std::memset(&decoded, 0, sizeof decoded);
    tarnm_hevc_sps_dec(&bs, &decoded);
    tarn_fuzz::note_bytes(reinterpret_cast<const uint8_t *>(&decoded), sizeof decoded);
  }
  tarnm_param_sets ps;
  std::memset(&ps, 0, sizeof ps);
  ps.vps_count = vps_size ? 1 : 0;
  ps.vps_size[0] = static_cast<uint32_t>(vps_size);
  ps.vps_data[0] = vps;
  ps.sps_count = sps_size ? 1 : 0;
  ps.sps_size[0] = static_cast<uint32_t>(sps_size);
  ps.sps_data[0] = sps;
  ps.pps_count = pps_size ? 1 : 0;
  ps.pps_size[0] = static_cast<uint32_t>(pps_size);
  ps.pps_data[0] = pps;
  const int32_t hvcc_size = tarnm_get_hvcc_size(&ps);
  tarn_fuzz::note(static_cast<uint32_t>(hvcc_size));
  if (hvcc_size > 0) {
    std::vector<uint8_t> out(static_cast<size_t>(hvcc_size));
    tarn_fuzz::note(static_cast<uint32_t>(tarnm_make_hvcc(&ps, out.data())));
    tarn_fuzz::note_bytes(out.data(), out.size());
  }
  return 0;
}
