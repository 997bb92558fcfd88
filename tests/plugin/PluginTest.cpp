// CPlugin on its own, without a library behind it.
#include <gtest/gtest.h>

#include "CException.h"
#include "IPlugin.h"
#include "LogCapture.h"

using HXFramework::Core::IPlugin;
using HXFramework::Test::LogCapture;

TEST(Plugin, UnloadOfAPluginNeverLoadedLogsNoPluginToDestroyAndChangesNothing) {
  auto plugin = IPlugin::Create("never");
  plugin->Init();
  LogCapture capture;
  plugin->Unload();  // idle: runs before returning
  EXPECT_TRUE(capture.Contains(")  Exception !! - No plugin to destroy(error:2)(error_code:2)\n"));
  EXPECT_FALSE(capture.Contains("plugin_lib_ is null"));  // the close step is skipped
  plugin->Termi();
}

TEST(Plugin, LoadResultAfterUnloadFindsNoHandler) {
  auto plugin = IPlugin::Create("gone");
  plugin->Init();
  plugin->Unload();
  LogCapture capture;
  plugin->SendLoadResult(HXF_PLUGIN_LOAD_RESULT_SUCCESS);
  EXPECT_TRUE(capture.WaitFor(")  plugin callback is null!\n"));
  EXPECT_EQ(capture.Find("plugin callback is null!").priority, DLOG_ERROR);
  plugin->Termi();
}

TEST(Plugin, PostingAfterTermiThrowsInvokeTaskFail) {
  auto plugin = IPlugin::Create("done");
  plugin->Init();
  plugin->Termi();
  EXPECT_THROW(plugin->SendLoadResult(HXF_PLUGIN_LOAD_RESULT_SUCCESS), HXFramework::CException);
  EXPECT_THROW(plugin->Unload(), HXFramework::CException);
}

TEST(Plugin, DestructionLogsThePluginName) {
  LogCapture capture;
  {
    auto plugin = IPlugin::Create("short-lived");
    plugin->Init();
    plugin->Termi();
  }
  auto line = capture.Find("plugin destroyed: short-lived");
  EXPECT_EQ(line.priority, DLOG_ERROR);
  bool traced = false;
  for (const auto& trace : capture.Traces())
    traced |= trace.text == "[HXFW] plugin destroyed: short-lived\n";
  EXPECT_TRUE(traced);
}
