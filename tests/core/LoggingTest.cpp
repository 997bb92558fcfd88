#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "HXCALLTRACE.h"
#include "HXCALLTRACE_OBJ.h"
#include "HXLog.h"
#include "LogCapture.h"
#include "TPLCALLTRACE.h"

using HXFramework::Test::LogCapture;

namespace {

int g_named_function_log_line = 0;
void LogFromNamedFunction(int value) {
  g_named_function_log_line = __LINE__ + 1;
  HXLOG(DLOG_ERROR, "value is %d\n", value);
}

void LeaveThroughException() {
  HXF_CALLTRACE();
  throw std::runtime_error("boom");
}

}  // namespace

TEST(Logging, SourceNameIsStemAndLastDirectory) {
  constexpr auto name = HXFramework::Core::MakeSourceName("/a/b/core/hxf_core_export.cpp");
  EXPECT_STREQ(name.file, "hxf_core_export");
  EXPECT_STREQ(name.location, "core/hxf_core_export");
  constexpr auto bare = HXFramework::Core::MakeSourceName("TPLContext");
  EXPECT_STREQ(bare.file, "TPLContext");
  EXPECT_STREQ(bare.location, "TPLContext");
}

TEST(Logging, MacroWritesPlatformLineWithFileFunctionLineAndTwoBlanks) {
  LogCapture capture;
  LogFromNamedFunction(7);
  auto lines = capture.Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].priority, DLOG_ERROR);
  EXPECT_EQ(lines[0].tag, "HXF_FW");
  EXPECT_EQ(lines[0].text, "LoggingTest : LogFromNamedFunction(" +
                               std::to_string(g_named_function_log_line) + ")  value is 7\n");
}

TEST(Logging, MacroWritesPrefixedLineToTraceFacilityForItsLocation) {
  LogCapture capture;
  LogFromNamedFunction(8);
  auto traces = capture.Traces();
  ASSERT_EQ(traces.size(), 1u);
  EXPECT_EQ(traces[0].location, "core/LoggingTest");
  EXPECT_EQ(traces[0].text, "[HXFW] value is 8\n");
}

TEST(Logging, LongMessageIsCutForTraceButWholeInPlatformLog) {
  LogCapture capture;
  const std::string long_text(1500, 'x');
  HXLOG(DLOG_INFO, "%s\n", long_text.c_str());
  auto traces = capture.Traces();
  ASSERT_EQ(traces.size(), 1u);
  EXPECT_EQ(traces[0].text.size(), 1023u);
  EXPECT_EQ(traces[0].text, "[HXFW] " + long_text.substr(0, 1023 - 7));
  auto lines = capture.Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].text.find(long_text + "\n"), std::string::npos);
}

TEST(Logging, MessageOfExactlyBufferSizeMinusPrefixIsNotCut) {
  LogCapture capture;
  const std::string text(1023 - 7, 'y');
  HXLOG(DLOG_INFO, "%s", text.c_str());
  auto traces = capture.Traces();
  ASSERT_EQ(traces.size(), 1u);
  EXPECT_EQ(traces[0].text, "[HXFW] " + text);
}

TEST(Logging, DisabledTraceFacilityStillGetsEveryPlatformLine) {
  LogCapture capture(/*enable_trace=*/false);
  LogFromNamedFunction(1);
  LogFromNamedFunction(2);
  EXPECT_TRUE(capture.Traces().empty());
  EXPECT_EQ(capture.Lines().size(), 2u);
}

TEST(Logging, ContextMacroUsesContextTagAndNeverTraces) {
  LogCapture capture;
  TPLLOG(DLOG_DEBUG, "Initiating\n");
  auto lines = capture.Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].tag, "HXF_TPL_CONTEXT");
  EXPECT_EQ(lines[0].priority, DLOG_DEBUG);
  EXPECT_NE(lines[0].text.find(")  Initiating\n"), std::string::npos);
  EXPECT_TRUE(capture.Traces().empty());
}

TEST(Logging, CallTraceWritesEnteredAndLeftAtInfo) {
  LogCapture capture;
  { HXFramework::Core::HXCALLTRACE trace(DLOG_INFO, "CFile", "Func", 12); }
  auto lines = capture.Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].text, "CFile : Func(12) > Entered\n");
  EXPECT_EQ(lines[1].text, "CFile : Func(12) > Left\n");
  EXPECT_EQ(lines[0].tag, "HXF_FW");
  EXPECT_EQ(lines[0].priority, DLOG_INFO);
  EXPECT_TRUE(capture.Traces().empty());
}

TEST(Logging, ObjectCallTraceKeepsItsAsymmetricSpacing) {
  LogCapture capture;
  int object = 0;
  { HXFramework::Core::HXCALLTRACE_OBJ trace(DLOG_INFO, "CPluginMgr", "LoadPlugin", 40, &object); }
  char expected_entry[128];
  char expected_exit[128];
  std::snprintf(expected_entry, sizeof expected_entry,
                "CPluginMgr :[%p]  LoadPlugin(40) > Entered\n", static_cast<void*>(&object));
  std::snprintf(expected_exit, sizeof expected_exit, "CPluginMgr :[%p] LoadPlugin(40) > Left\n",
                static_cast<void*>(&object));
  auto lines = capture.Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].text, expected_entry);
  EXPECT_EQ(lines[1].text, expected_exit);
}

TEST(Logging, ContextCallTraceUsesContextTagDebugAndNoBlankBeforeExitArrow) {
  LogCapture capture;
  int object = 0;
  { HXFramework::Core::TPLCALLTRACE trace(DLOG_DEBUG, "TPLContext", "_ProcessJob", 9, &object); }
  char expected_entry[128];
  char expected_exit[128];
  std::snprintf(expected_entry, sizeof expected_entry,
                "TPLContext : _ProcessJob(9) [%p] > Entered\n", static_cast<void*>(&object));
  std::snprintf(expected_exit, sizeof expected_exit, "TPLContext : _ProcessJob(9) [%p]> Left\n",
                static_cast<void*>(&object));
  auto lines = capture.Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].tag, "HXF_TPL_CONTEXT");
  EXPECT_EQ(lines[0].priority, DLOG_DEBUG);
  EXPECT_EQ(lines[0].text, expected_entry);
  EXPECT_EQ(lines[1].text, expected_exit);
}

TEST(Logging, LeavingThroughExceptionStillWritesExitLine) {
  LogCapture capture;
  EXPECT_THROW(LeaveThroughException(), std::runtime_error);
  auto lines = capture.Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0].text.find("LeaveThroughException("), std::string::npos);
  EXPECT_NE(lines[0].text.find("> Entered\n"), std::string::npos);
  EXPECT_NE(lines[1].text.find("LeaveThroughException("), std::string::npos);
  EXPECT_NE(lines[1].text.find("> Left\n"), std::string::npos);
}
