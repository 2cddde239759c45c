/* libtarn: utils interface. */
#ifndef TARN_UTILS_H
#define TARN_UTILS_H

#include "tarn/common.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
}
#endif

#endif /* TARN_UTILS_H */
