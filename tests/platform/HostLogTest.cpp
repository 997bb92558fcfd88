#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "LogCapture.h"
#include "hxf_host_platform.h"

using HXFramework::Test::LogCapture;

TEST(HostLog, ASinkReceivesEveryLineWholeAndFormatted) {
  LogCapture capture(/*enable_trace=*/false);
  const std::string long_text(3000, 'z');
  EXPECT_EQ(dlog_print(DLOG_DEBUG, "TAG", "%d %s", 7, long_text.c_str()), 3002);
  ASSERT_EQ(capture.Lines().size(), 1u);
  EXPECT_EQ(capture.Lines()[0].text, "7 " + long_text);
  EXPECT_EQ(capture.Lines()[0].tag, "TAG");
  EXPECT_EQ(capture.Lines()[0].priority, DLOG_DEBUG);
}

TEST(HostLog, TheSilentDefaultSinkDoesNotEvenFormat) {
  if (std::getenv("HXF_LOG_LEVEL") != nullptr)
    GTEST_SKIP() << "HXF_LOG_LEVEL makes the default sink print";
  // 0, not the length: the line was dropped before it was formatted.
  EXPECT_EQ(dlog_print(DLOG_ERROR, "TAG", "%s", "nobody listens"), 0);
}

TEST(HostLog, AFilterDropsALineBeforeItIsFormattedWhateverTheSink) {
  LogCapture capture(/*enable_trace=*/false);
  hxf_host_log_set_filter([](int priority, const char*) { return priority >= DLOG_ERROR; });
  const int dropped = dlog_print(DLOG_INFO, "TAG", "%s", "not wanted");
  const int kept = dlog_print(DLOG_ERROR, "TAG", "%s", "wanted");
  hxf_host_log_set_filter(nullptr);
  EXPECT_EQ(dropped, 0);  // 0, not the length: dropped before it was formatted
  EXPECT_EQ(kept, 6);
  ASSERT_EQ(capture.Lines().size(), 1u);
  EXPECT_EQ(capture.Lines()[0].text, "wanted");
}

TEST(HostLog, RestoringTheDefaultSinkStopsDelivery) {
  int calls = 0;
  hxf_host_log_set_sink([](int, const char*, const char*, void* ud) { ++*static_cast<int*>(ud); },
                        &calls);
  dlog_print(DLOG_INFO, "TAG", "one");
  hxf_host_log_set_sink(nullptr, nullptr);
  dlog_print(DLOG_INFO, "TAG", "two");
  EXPECT_EQ(calls, 1);
}
