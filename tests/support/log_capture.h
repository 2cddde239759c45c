// Captures the library's log lines for the lifetime of the object, so tests
// can assert on the exact texts a caller may depend on.
#ifndef TARN_TESTS_LOG_CAPTURE_H
#define TARN_TESTS_LOG_CAPTURE_H

#include <string>
#include <vector>

namespace tarn_test {

struct LogLine {
  int priority;
  std::string tag;
  std::string text;
};

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture &) = delete;
  LogCapture &operator=(const LogCapture &) = delete;

  const std::vector<LogLine> &lines() const { return lines_; }
  // True when some line has exactly this text (and tag, when one is given).
  bool has(const std::string &text, const char *tag = nullptr) const;
  // All lines, one per row, for failure messages.
  std::string dump() const;

 private:
  static void sink(int priority, const char *tag, const char *message, void *user);
  std::vector<LogLine> lines_;
};

}  // namespace tarn_test

#endif  // TARN_TESTS_LOG_CAPTURE_H
