/* A C program that uses the installed library through its umbrella header. */
#include <stdio.h>
#include <string.h>
#include <tarn/tarn.h>

int main(void) {
  unsigned char be[4] = {0x00, 0x00, 0x01, 0x2C};
  uint32_t value;
  tarn_conv_u32(be);
  memcpy(&value, be, sizeof value);
  printf("libtarn %s: %u\n", tarn_version(), (unsigned)value);
  return value == 300u ? 0 : 1;
}
