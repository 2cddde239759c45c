// The log sink: formatted lines with priority and tag, silence without a
// sink, and lines longer than the formatting buffer cut, not overrun.
#include <gtest/gtest.h>

#include <string>

#include "common/log.h"
#include "support/log_capture.h"

namespace {

TEST(Log, FormatsIntoTheSinkAndCutsLongLines) {
  TARN_LOGI("tarnd", "nobody listens");  // no sink: must not crash or print
  tarn_test::LogCapture capture;
  TARN_LOGW("tarnd_parse", "box %s size %u", "ipma", 12u);
  TARN_LOGD("tarnd", "%s", std::string(5000, 'x').c_str());
  ASSERT_EQ(capture.lines().size(), 2u);
  EXPECT_EQ(capture.lines()[0].priority, TARN_LOG_WARN);
  EXPECT_TRUE(capture.has("box ipma size 12", "tarnd_parse"));
  EXPECT_EQ(capture.lines()[1].text, std::string(1023, 'x'));
}

}  // namespace
