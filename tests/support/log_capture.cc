#include "support/log_capture.h"

#include "tarn/log.h"

namespace tarn_test {

LogCapture::LogCapture() { tarn_log_set_sink(&LogCapture::sink, this); }

LogCapture::~LogCapture() { tarn_log_set_sink(nullptr, nullptr); }

void LogCapture::sink(int priority, const char *tag, const char *message, void *user) {
  static_cast<LogCapture *>(user)->lines_.push_back({priority, tag, message});
}

bool LogCapture::has(const std::string &text, const char *tag) const {
  for (const auto &line : lines_) {
    if (line.text == text && (tag == nullptr || line.tag == tag)) return true;
  }
  return false;
}

std::string LogCapture::dump() const {
  std::string out;
  for (const auto &line : lines_) {
    out += std::to_string(line.priority) + " " + line.tag + ": " + line.text + "\n";
  }
  return out;
}

}  // namespace tarn_test
