// Reader: any bytes as a file, then every query on every item.
#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  tarn_fuzz::exercise_reader(data, size);
  return 0;
}
