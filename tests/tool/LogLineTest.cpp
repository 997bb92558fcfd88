// The log line hxf and hxfd show, which lines they show at each level, and the codes' names
// as the tool prints them.
#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <string>

#include "CoreValues.h"
#include "hxf_host_platform.h"

namespace {

// 2026-03-14 12:34:56.789 local time.
std::chrono::system_clock::time_point At(int hour, int minute, int second, int ms) {
  tm local{};
  local.tm_year = 2026 - 1900;
  local.tm_mon = 2;
  local.tm_mday = 14;
  local.tm_hour = hour;
  local.tm_min = minute;
  local.tm_sec = second;
  local.tm_isdst = -1;
  return std::chrono::system_clock::from_time_t(mktime(&local)) + std::chrono::milliseconds(ms);
}

}  // namespace

TEST(LogLine, TimeToTheMillisecondLevelLetterTagAndTextWithoutItsNewline) {
  EXPECT_EQ(
      hxf_tool::LogLine(DLOG_ERROR, "HXF_FW", "hxf_core_initialize Entered\n", At(12, 34, 56, 789)),
      "12:34:56.789 E HXF_FW: hxf_core_initialize Entered");
  EXPECT_EQ(hxf_tool::LogLine(DLOG_DEBUG, "HXF_TPL_CONTEXT", "x", At(0, 0, 0, 5)),
            "00:00:00.005 D HXF_TPL_CONTEXT: x");
}

TEST(LogLine, EveryPriorityHasItsLetter) {
  const std::pair<int, char> letters[] = {{DLOG_VERBOSE, 'V'}, {DLOG_DEBUG, 'D'}, {DLOG_INFO, 'I'},
                                          {DLOG_WARN, 'W'},    {DLOG_ERROR, 'E'}, {DLOG_FATAL, 'F'},
                                          {DLOG_DEFAULT, 'V'}, {42, 'V'}};
  for (const auto& [priority, letter] : letters) {
    const std::string line = hxf_tool::LogLine(priority, "T", "t", At(1, 2, 3, 4));
    EXPECT_EQ(line, std::string("01:02:03.004 ") + letter + " T: t") << priority;
  }
}

TEST(LogLine, OnlyItsOwnNewlineGoesAndAnEmptyTextStays) {
  EXPECT_EQ(hxf_tool::LogLine(DLOG_INFO, "T", "a\nb\n", At(1, 2, 3, 4)), "01:02:03.004 I T: a\nb");
  EXPECT_EQ(hxf_tool::LogLine(DLOG_INFO, "T", "", At(1, 2, 3, 4)), "01:02:03.004 I T: ");
}

TEST(LogLevel, DebugShowsEveryLine) {
  const int threshold = hxf_tool::LogThreshold("debug");
  for (int priority = DLOG_UNKNOWN; priority <= DLOG_FATAL; ++priority) {
    EXPECT_TRUE(hxf_tool::ShowLogLine(priority, "HXF_FW", threshold)) << priority;
    EXPECT_TRUE(hxf_tool::ShowLogLine(priority, "HXF_TPL_CONTEXT", threshold)) << priority;
    EXPECT_TRUE(hxf_tool::ShowLogLine(priority, "HXF_SIM", threshold)) << priority;
  }
}

TEST(LogLevel, ALevelShowsItsPriorityAndAboveOnly) {
  const std::pair<const char*, int> levels[] = {{"info", DLOG_INFO}, {"error", DLOG_ERROR}};
  for (const auto& [level, lowest] : levels) {
    const int threshold = hxf_tool::LogThreshold(level);
    for (int priority = DLOG_UNKNOWN; priority <= DLOG_FATAL; ++priority) {
      EXPECT_EQ(hxf_tool::ShowLogLine(priority, "HXF_FW", threshold), priority >= lowest)
          << level << " " << priority;
      EXPECT_EQ(hxf_tool::ShowLogLine(priority, "HXF_TPL_CONTEXT", threshold), priority >= lowest)
          << level << " " << priority;
    }
  }
}

TEST(LogLevel, WithoutALevelOnlyAPluginsErrorsShow) {
  const int threshold = hxf_tool::LogThreshold("");
  for (int priority = DLOG_UNKNOWN; priority <= DLOG_FATAL; ++priority) {
    EXPECT_FALSE(hxf_tool::ShowLogLine(priority, "HXF_FW", threshold)) << priority;
    EXPECT_FALSE(hxf_tool::ShowLogLine(priority, "HXF_TPL_CONTEXT", threshold)) << priority;
    EXPECT_EQ(hxf_tool::ShowLogLine(priority, "HXF_SIM", threshold), priority >= DLOG_ERROR)
        << priority;
  }
}

TEST(CodeName, TheCommonLibrarysNameForEveryCodeAndNullForAnyOtherNumber) {
  EXPECT_STREQ(hxf_tool::CodeName(HXF_ERROR_TIMED_OUT), "HXF_ERROR_TIMED_OUT");
  EXPECT_STREQ(hxf_tool::CodeName(HXF_ERROR_NONE), "HXF_ERROR_NONE");
  for (int code = 0; code < hxf_tool::kCodeRange; ++code)
    EXPECT_STREQ(hxf_tool::CodeName(code), hxf_error_name(static_cast<hxf_error>(code))) << code;
  for (int number : {-1, 8, hxf_tool::kCodeRange, 99, 1 << 30})
    EXPECT_EQ(hxf_tool::CodeName(number), nullptr) << number;
}
