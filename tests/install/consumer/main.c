/* A C program that uses the installed library through its umbrella header:
   a few calls with known results, and a link-time reference to every
   function of the public API (api_table.c). */
#include <stdio.h>
#include <string.h>
#include <tarn/tarn.h>

typedef void (*tarn_any_fn)(void);
extern const tarn_any_fn tarn_api_table[];
extern const unsigned tarn_api_count;

int main(void) {
  unsigned char be[4] = {0x00, 0x00, 0x01, 0x2C};
  uint32_t value;
  /* Emulation prevention: 00 00 03 01 reads as 00 00 01. */
  const uint8_t nal[] = {0x00, 0x00, 0x03, 0x01};
  omni_bsr bs;
  unsigned i;
  int failures = 0;

  tarn_conv_u32(be);
  memcpy(&value, be, sizeof value);
  failures += value != 300u;
  failures += calculateGreatestCommonDivisor(-12, 18) != 6;
  failures += !overflowsInt32(2147483648LL) || overflowsInt32(-2147483647LL - 1);
  memset(&bs, 0, sizeof bs);
  omni_bsr_init(&bs, nal, sizeof nal, vc_nal_bsr_flush);
  failures += omni_bsr_read(&bs, 24) != 0x000001u;
  for (i = 0; i < tarn_api_count; ++i) failures += tarn_api_table[i] == NULL;
  printf("libtarn %s: %u functions linked, %d failures\n", tarn_version(), tarn_api_count, failures);
  return failures == 0 ? 0 : 1;
}
