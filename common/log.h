// The library's one logging entry point. Every module logs through
// tarn_log(); nothing else in the library prints.
#ifndef TARN_COMMON_LOG_H
#define TARN_COMMON_LOG_H

#include "tarn/log.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define TARN_PRINTF_FORMAT(fmt_index, args_index) \
  __attribute__((format(printf, fmt_index, args_index)))
#else
#define TARN_PRINTF_FORMAT(fmt_index, args_index)
#endif

// Formats one line and hands it to the Android log and/or the host's sink.
// Costs one branch when no destination is set.
void tarn_log(int priority, const char *tag, const char *format, ...) TARN_PRINTF_FORMAT(3, 4);

#ifdef __cplusplus
}
#endif

#define TARN_LOGD(tag, ...) tarn_log(TARN_LOG_DEBUG, tag, __VA_ARGS__)
#define TARN_LOGI(tag, ...) tarn_log(TARN_LOG_INFO, tag, __VA_ARGS__)
#define TARN_LOGW(tag, ...) tarn_log(TARN_LOG_WARN, tag, __VA_ARGS__)
#define TARN_LOGE(tag, ...) tarn_log(TARN_LOG_ERROR, tag, __VA_ARGS__)

#endif  // TARN_COMMON_LOG_H
