#include <gtest/gtest.h>

#include <string>

#include "common/log.h"
#include "support/log_capture.h"

namespace {

TEST(Log, SinkReceivesFormattedLinesWithPriorityAndTag) {
  tarn_test::LogCapture capture;
  TARN_LOGW("tarnd_parse", "box %s size %u", "ipma", 12u);
  TARN_LOGE("tarnm", "plain");
  ASSERT_EQ(capture.lines().size(), 2u);
  EXPECT_EQ(capture.lines()[0].priority, TARN_LOG_WARN);
  EXPECT_EQ(capture.lines()[0].tag, "tarnd_parse");
  EXPECT_EQ(capture.lines()[0].text, "box ipma size 12");
  EXPECT_TRUE(capture.has("plain", "tarnm"));
  EXPECT_EQ(capture.lines()[1].priority, TARN_LOG_ERROR);
}

TEST(Log, NoSinkIsSilentAndLongLinesAreCut) {
  TARN_LOGI("tarnd", "nobody listens");  // must not crash or print
  tarn_test::LogCapture capture;
  const std::string longer(5000, 'x');
  TARN_LOGD("tarnd", "%s", longer.c_str());
  ASSERT_EQ(capture.lines().size(), 1u);
  EXPECT_EQ(capture.lines()[0].text.size(), 1023u);
}

}  // namespace
