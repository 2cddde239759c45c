// Bit readers: the first bytes choose read widths, the rest is the data,
// read big-endian with and without the NAL-aware refill and little-endian.
#include <cstring>

#include "fuzz_common.h"
#include "tarn/tarn.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 8) return 0;
  const uint8_t *widths = data;
  const uint8_t *payload = data + 8;
  const uint32_t payload_size = static_cast<uint32_t>(size - 8);
  omni_bsr_flush_fn refills[] = {omni_bsr_flush, vc_nal_bsr_flush, tarnm_hevc_bs_flush};
  for (omni_bsr_flush_fn refill : refills) {
    omni_bsr bs{};
    omni_bsr_init(&bs, payload, payload_size, refill);
    for (int round = 0; round < 64; ++round) {
      const uint8_t w = widths[round % 8];
      switch (w & 3) {
        case 0: tarn_fuzz::note(omni_bsr_read(&bs, 1 + (w >> 2) % 32)); break;
        case 1: tarn_fuzz::note(omni_bsr_read1(&bs)); break;
        case 2: omni_bsr_skip(&bs, (w >> 2) % 33); break;
        default: tarn_fuzz::note(omni_bsr_peek(&bs, 1 + (w >> 2) % 32)); break;
      }
    }
  }
  omni_bsr le{};
  omni_bsr_init(&le, payload, payload_size, omni_bsr_le_flush);
  for (int round = 0; round < 64; ++round) {
    const uint8_t w = widths[round % 8];
    if (w & 1) {
      tarn_fuzz::note(omni_bsr_le_read(&le, 1 + (w >> 1) % 32));
    } else {
      omni_bsr_le_skip(&le, (w >> 1) % 33);
    }
  }
  return 0;
}
