#include "common/log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>

#if defined(__ANDROID__) || defined(TARN_WITH_ANDROID_LOG)
#include <android/log.h>
#define TARN_HAVE_ANDROID_LOG 1
#endif

namespace {

// The sink and its user pointer travel together so that a reader on another
// thread never pairs a new sink with an old user pointer.
struct Sink {
  tarn_log_sink fn;
  void *user;
};

Sink g_sinks[2];
std::atomic<const Sink *> g_sink{nullptr};
std::atomic<unsigned> g_next_slot{0};

// Longer lines are cut; every fixed text of the library is far shorter.
constexpr size_t kMaxLine = 1024;

}  // namespace

extern "C" TARN_API void tarn_log_set_sink(tarn_log_sink sink, void *user) {
  if (sink == nullptr) {
    g_sink.store(nullptr, std::memory_order_release);
    return;
  }
  // Alternate between two slots so the slot being replaced is not the one a
  // concurrent logger may still be reading.
  Sink *slot = &g_sinks[g_next_slot.fetch_add(1, std::memory_order_relaxed) & 1u];
  slot->fn = sink;
  slot->user = user;
  g_sink.store(slot, std::memory_order_release);
}

extern "C" void tarn_log(int priority, const char *tag, const char *format, ...) {
  const Sink *sink = g_sink.load(std::memory_order_acquire);
#if defined(TARN_HAVE_ANDROID_LOG)
  {
    va_list args;
    va_start(args, format);
    __android_log_vprint(priority, tag, format, args);
    va_end(args);
  }
#endif
  if (sink == nullptr) return;
  char line[kMaxLine];
  va_list args;
  va_start(args, format);
  std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  sink->fn(priority, tag, line, sink->user);
}
