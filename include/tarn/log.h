/*
 * libtarn: log lines.
 *
 * Every diagnostic of the library is one line with a priority, a tag naming
 * the module ("tarnd", "tarnm_atom", ...) and a fixed text. On Android the
 * lines go to the system log. Elsewhere they go to a sink that the host
 * program sets; without a sink nothing is printed: the library never writes
 * to stdout or stderr by itself.
 */
#ifndef TARN_LOG_H
#define TARN_LOG_H

#include "tarn/common.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Log priorities, the same numbers as Android's. */
#define TARN_LOG_DEBUG 3
#define TARN_LOG_INFO 4
#define TARN_LOG_WARN 5
#define TARN_LOG_ERROR 6

/*
 * Receives one formatted log line (no trailing newline). tag and message are
 * only valid during the call. May be called from any thread that uses the
 * library.
 */
typedef void (*tarn_log_sink)(int priority, const char *tag, const char *message, void *user);

/*
 * Sets the process-wide sink for log lines, or removes it with NULL. user is
 * handed back to every call of sink. Set it before contexts are used on other
 * threads. On Android builds the lines also go to the system log.
 */
TARN_API void tarn_log_set_sink(tarn_log_sink sink, void *user);

#ifdef __cplusplus
}
#endif

#endif /* TARN_LOG_H */
